#include "bdd_oracle.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "packet_set.h"

namespace {

/// The bits of one field: variables from `first` on, the most significant one first.
struct Bits {
    int first;
    int count;
};

constexpr Bits kChain{0, 1};
constexpr Bits kFamily{1, 1};
constexpr Bits kIn{2, 5};
constexpr Bits kOut{7, 5};
constexpr Bits kProtocol{12, 8};
constexpr Bits kIcmpType{20, 8};
constexpr Bits kState{28, 3};
constexpr Bits kDestinationPort{31, 16};
constexpr Bits kSourcePort{47, 16};
constexpr Bits kSource{63, 128};
constexpr Bits kDestination{191, 128};
constexpr int kVariables = 319;

constexpr std::size_t kOutcomes = 6;

/// A number as bits.
using Number = std::vector<bool>;

Number numberOf(std::uint64_t value, int count) {
    Number bits;
    for (int bit = count - 1; bit >= 0; --bit) {
        bits.push_back((value >> bit & 1) != 0);
    }
    return bits;
}

Number numberOf(const FW::FWADDRESS& address) {
    Number bits = numberOf(address.high, 64);
    const Number low = numberOf(address.low, 64);
    bits.insert(bits.end(), low.begin(), low.end());
    return bits;
}

/// The values from `bound` on, or up to it.
bdd beyond(const Bits& bits, const Number& bound, bool upwards) {
    bdd result = bddtrue;
    for (int i = bits.count - 1; i >= 0; --i) {
        const bool bit = bound[static_cast<std::size_t>(i)];
        const int variable = bits.first + i;
        if (upwards) {
            result = bit ? bdd_ithvar(variable) & result : bdd_ithvar(variable) | result;
        } else {
            result = bit ? bdd_nithvar(variable) | result : bdd_nithvar(variable) & result;
        }
    }
    return result;
}

bdd interval(const Bits& bits, const Number& first, const Number& last) {
    return beyond(bits, first, true) & beyond(bits, last, false);
}

bdd interval(const Bits& bits, std::uint64_t first, std::uint64_t last) {
    return interval(bits, numberOf(first, bits.count), numberOf(last, bits.count));
}

bdd intervals(const Bits& bits, const FW::FWINTERVALS& list) {
    bdd result = list.empty() ? bddtrue : bddfalse;
    for (const FW::FWINTERVAL& one : list) {
        result |= interval(bits, one.first, one.last);
    }
    return result;
}

bdd addresses(const Bits& bits, const FW::FWADDRESSES* list) {
    bdd result = list == nullptr ? bddtrue : bddfalse;
    if (list != nullptr) {
        for (const FW::FWADDRESSINTERVAL& one : *list) {
            result |= interval(bits, numberOf(one.first), numberOf(one.last));
        }
    }
    return result;
}

bdd mask(const Bits& bits, unsigned set) {
    bdd result = bddfalse;
    for (unsigned value = 0; value < 8; ++value) {
        if ((set >> value & 1) != 0) {
            result |= interval(bits, value, value);
        }
    }
    return result;
}

void start() {
    if (!bdd_isrunning()) {
        bdd_init(2000000, 200000);
        bdd_setvarnum(kVariables);
        bdd_setmaxincrease(4000000);
        bdd_gbc_hook(nullptr);
    }
}

}  // namespace

BddOracle::BddOracle(std::vector<std::string> interfaces) : interfaces_(std::move(interfaces)) {
    start();
    const std::uint64_t last = interfaces_.size() - 1;
    const bdd input = interval(kChain, FW::FW_CHAIN_INPUT, FW::FW_CHAIN_INPUT);
    domain_ = interval(kIn, 0, last) & interval(kOut, 0, last) &
              bdd_imp(input, interval(kOut, 0, 0)) & interval(kState, 0, FW::FW_STATE_UNTRACKED);
}

bdd BddOracle::packets(const FW::FWPACKETSET& set) const {
    const auto names = [this](const Bits& bits, const FW::FWINTERFACES* wanted) {
        bdd result = bddfalse;
        for (std::size_t i = 0; i < interfaces_.size(); ++i) {
            if (hasName(wanted, interfaces_[i])) {
                result |= interval(bits, i, i);
            }
        }
        return result;
    };
    return domain_ & mask(kChain, set.chains) & mask(kFamily, set.families) &
           names(kIn, set.in.get()) & (set.out == nullptr ? bddtrue : names(kOut, set.out.get())) &
           intervals(kProtocol, set.protocols) & addresses(kSource, set.sources.get()) &
           addresses(kDestination, set.destinations.get()) &
           intervals(kSourcePort, set.sourcePorts) &
           intervals(kDestinationPort, set.destinationPorts) & intervals(kIcmpType, set.icmpTypes) &
           mask(kState, set.states);
}

BddFunction BddOracle::fold(const std::vector<FW::FWRESOLVEDRULE>& rules) const {
    BddFunction function;
    function.outcomes.assign(kOutcomes, bddfalse);
    function.outcomes[outcomeOf(FW::FW_PACKET_NEXT, false)] = domain_;
    for (auto rule = rules.rbegin(); rule != rules.rend(); ++rule) {
        const bdd matched = packets(rule->packets);
        for (std::size_t outcome = 0; outcome < kOutcomes; ++outcome) {
            bdd& own = function.outcomes[outcome];
            own = outcome == outcomeOf(rule->verdict, rule->log) ? own | matched : own - matched;
        }
    }
    return function;
}

std::size_t BddOracle::outcomeOf(const BddFunction& function, const FW::FWPACKET& packet) const {
    std::array<bool, kVariables> values{};
    const auto setNumber = [&values](const Bits& bits, std::uint64_t number) {
        for (int i = bits.count - 1; i >= 0; --i, number >>= 1) {
            const auto variable =
                static_cast<std::size_t>(bits.first) + static_cast<std::size_t>(i);
            values[variable] = (number & 1) != 0;
        }
    };
    const auto setAddress = [&](const Bits& bits, const FW::FWADDRESS& address) {
        setNumber({bits.first, 64}, address.high);
        setNumber({bits.first + 64, 64}, address.low);
    };
    const auto setName = [&](const Bits& bits, const std::string& name) {
        const auto found = std::find(interfaces_.begin(), interfaces_.end(), name);
        if (found == interfaces_.end()) {
            throw std::invalid_argument(name);
        }
        setNumber(bits, static_cast<std::uint64_t>(found - interfaces_.begin()));
    };
    setNumber(kChain, packet.chain.value());
    setNumber(kFamily, packet.family.value());
    setName(kIn, packet.in.value());
    if (packet.chain == FW::FW_CHAIN_FORWARD) {
        setName(kOut, packet.out.value());
    }
    setNumber(kProtocol, packet.protocol.value());
    setNumber(kIcmpType, packet.icmpType.value());
    setNumber(kState, packet.state.value());
    setNumber(kDestinationPort, packet.destinationPort.value());
    setNumber(kSourcePort, packet.sourcePort.value());
    setAddress(kSource, packet.source.value());
    setAddress(kDestination, packet.destination.value());

    // Diagrams end at 0 and 1.
    const auto has = [&values](int node) {
        while (node > 1) {
            node = values[static_cast<std::size_t>(bdd_var(node))] ? bdd_high(node) : bdd_low(node);
        }
        return node == 1;
    };
    std::size_t outcome = 0;
    while (outcome < kOutcomes && !has(function.outcomes[outcome].id())) {
        ++outcome;
    }
    return outcome;
}

bool BddOracle::same(const BddFunction& a, const BddFunction& b) {
    for (std::size_t outcome = 0; outcome < kOutcomes; ++outcome) {
        if (a.outcomes[outcome] != b.outcomes[outcome]) {
            return false;
        }
    }
    return true;
}
