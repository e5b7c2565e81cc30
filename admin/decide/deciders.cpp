#include "tarnfwadmin/deciders.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <tuple>
#include <utility>

#include "decide/addressWords.h"
#include "tarnfwadmin/packetAnswers.h"

namespace tarnfw {
namespace {

using FW::FWINTERVAL;
using FW::FWINTERVALS;
using FW::FWPACKETSET;
using FW::FWRESOLVEDRULE;
using PacketSets = std::vector<FWPACKETSET>;

constexpr std::uint16_t kHighestPort = 65535;

bool isSame(const FWINTERVALS& a, const FWINTERVALS& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const FWINTERVAL& one, const FWINTERVAL& other) {
                          return one.first == other.first && one.last == other.last;
                      });
}

/// Those of a list that are within another one; nothing when there are none.
std::optional<FWINTERVALS> common(const FWINTERVALS& a, const FWINTERVALS& b) {
    if (a.empty() || b.empty()) {
        return a.empty() ? b : a;
    }
    FWINTERVALS both;
    for (const FWINTERVAL& one : a) {
        for (const FWINTERVAL& other : b) {
            const FWINTERVAL part = {std::max(one.first, other.first),
                                     std::min(one.last, other.last)};
            if (part.first <= part.last) {
                both.push_back(part);
            }
        }
    }
    return both.empty() ? std::nullopt : std::optional(both);
}

using SharedAddresses = std::shared_ptr<const FW::FWADDRESSES>;

/// The same of addresses; those that are asked about where a rule has all of them.
std::optional<SharedAddresses> common(const SharedAddresses& rule, const SharedAddresses& asked) {
    if (rule == nullptr || asked == nullptr) {
        return asked == nullptr ? rule : asked;
    }
    const FW::Intervals wanted = numbersOf(asked);
    const FW::Intervals both = intersected(numbersOf(rule), wanted);
    if (both.empty()) {
        return std::nullopt;
    }
    return both == wanted ? asked : std::make_shared<const FW::FWADDRESSES>(addressesOf(both));
}

// ---- One family and protocol --------------------------------------------------------------------

/// Those packets of a question, of one family and protocol, that a rule has.
std::optional<FWPACKETSET> common(const FWPACKETSET& rule, const FWPACKETSET& question) {
    const auto isIn = [](const std::shared_ptr<const FW::FWINTERFACES>& interfaces,
                         const std::shared_ptr<const FW::FWINTERFACES>& asked) {
        return interfaces == nullptr || asked == nullptr ||
               isAmong(*interfaces, asked->names.front());
    };
    const bool isInput = question.chains == 1U << FW::FW_CHAIN_INPUT;
    if ((rule.chains & question.chains) == 0 || (rule.families & question.families) == 0 ||
        (rule.states & question.states) == 0 || !isIn(rule.in, question.in) ||
        !(isInput || isIn(rule.out, question.out))) {
        return std::nullopt;
    }
    const auto protocols = common(rule.protocols, question.protocols);
    const auto sourcePorts = common(rule.sourcePorts, question.sourcePorts);
    const auto destinationPorts = common(rule.destinationPorts, question.destinationPorts);
    const auto icmpTypes = common(rule.icmpTypes, question.icmpTypes);
    const auto sources = common(rule.sources, question.sources);
    const auto destinations = common(rule.destinations, question.destinations);
    if (!protocols || !sourcePorts || !destinationPorts || !icmpTypes || !sources ||
        !destinations) {
        return std::nullopt;
    }
    FWPACKETSET both = question;
    both.sources = *sources;
    both.destinations = *destinations;
    both.icmpTypes = *icmpTypes;
    both.sourcePorts = *sourcePorts;
    both.destinationPorts = *destinationPorts;
    return both;
}

/// Whether a part of a question has all its packets from some senders.
bool isWholeFor(const FWPACKETSET& part, const FWPACKETSET& question) {
    return part.destinations == question.destinations &&
           isSame(part.icmpTypes, question.icmpTypes) &&
           isSame(part.sourcePorts, question.sourcePorts) &&
           isSame(part.destinationPorts, question.destinationPorts);
}

/// Whether a part of a question is all of it.
bool isAllOf(const std::optional<FWPACKETSET>& part, const FWPACKETSET& question) {
    return part && part->sources == question.sources && isWholeFor(*part, question);
}

/// The packets of one question by the numbers of the rules that decide about them.
struct Shares {
    std::map<std::size_t, PacketSets> packets;
    bool tooComplex = false;
};

/// The packets of the question that no other set has.
PacketSets restOf(const FWPACKETSET& question, const std::vector<FWRESOLVEDRULE>& steps,
                  Shares& shares) {
    FW::Intervals sources;
    bool areWhole = true;
    for (const auto& [number, sets] : shares.packets) {
        for (const FWPACKETSET& set : sets) {
            areWhole = areWhole && isWholeFor(set, question);
            const FW::Intervals more = numbersOf(set.sources);
            sources.insert(sources.end(), more.begin(), more.end());
        }
    }
    if (!areWhole) {
        const FW::FWREACHABLE found = FW::FW_MEANING(steps).reach(question);
        shares.tooComplex = shares.tooComplex || !found.findings.empty();
        return found.reach.empty() ? PacketSets() : found.reach.front().packets;
    }
    FW::normalize(sources);
    const FW::Intervals others = without(numbersOf(question.sources), sources);
    if (others.empty()) {
        return {};
    }
    PacketSets rest = {question};
    if (others != numbersOf(question.sources)) {
        rest.front().sources = std::make_shared<FW::FWADDRESSES>(addressesOf(others));
    }
    return rest;
}

/// Of a question of one family and protocol.
Shares sharesOf(const Meaning& meaning, const FWPACKETSET& question, const std::string& adapter) {
    std::vector<FWRESOLVEDRULE> steps;
    std::vector<std::size_t> numbers;
    std::size_t last = meaning.rules().size();  // decides about all that the steps leave
    for (std::size_t i = 0; i < meaning.rules().size(); ++i) {
        const FWRESOLVEDRULE& rule = meaning.rules()[i];
        if (!adapter.empty() && rule.place.adapter != adapter) {
            continue;
        }
        const auto both = common(rule.packets, question);
        if (isAllOf(both, question)) {
            last = i;
            break;
        }
        if (both) {
            steps.push_back({*both, FW::FW_PACKET_DROP, false, rule.place});
            numbers.push_back(i);
        }
    }
    // Compared with no rules at all, every step drops the packets that it decides about.
    const FW::FWDIFFERENCE found = FW::FW_MEANING(steps).differenceFrom(FW::FW_MEANING({}));
    Shares shares;
    shares.tooComplex = !found.findings.empty();
    for (const FW::FWCHANGE& change : found.changes) {
        shares.packets[numbers[change.after]] = change.packets;
    }
    // Where it is not known what the steps leave, there may be nothing.
    PacketSets rest = shares.tooComplex ? PacketSets() : restOf(question, steps, shares);
    if (!rest.empty()) {
        shares.packets[last] = std::move(rest);
    }
    return shares;
}

// ---- All of them --------------------------------------------------------------------------------

/// A sender's addresses, and whose packets they are.
struct Claim {
    FW::Interval addresses;
    std::size_t decider;
};

/// Fills in the senders of a family.
void addSenders(std::vector<Decider>& all, FW::FW_FAMILY family) {
    std::vector<Claim> claims;
    std::vector<FW::Intervals> sources(all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        for (const FWPACKETSET& set : all[i].packets) {
            if ((set.families & (1U << family)) != 0) {
                const FW::Intervals more = numbersOf(set.sources);
                sources[i].insert(sources[i].end(), more.begin(), more.end());
            }
        }
        FW::normalize(sources[i]);
        for (const FW::Interval& interval : sources[i]) {
            claims.push_back({interval, i});
        }
    }
    std::sort(claims.begin(), claims.end(), [](const Claim& one, const Claim& other) {
        return one.addresses.first < other.addresses.first;
    });
    std::vector<bool> isShared(all.size());
    const Claim* furthest = nullptr;  // of those before
    for (const Claim& claim : claims) {
        if (furthest != nullptr && claim.addresses.first <= furthest->addresses.last) {
            isShared[claim.decider] = isShared[furthest->decider] = true;
        }
        if (furthest == nullptr || furthest->addresses.last < claim.addresses.last) {
            furthest = &claim;
        }
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        if (!isShared[i]) {
            all[i].senders[family] = addressesOf(sources[i]);
        }
    }
}

PacketSets byFamily(const PacketSets& packets) {
    PacketSets sets;
    for (const FWPACKETSET& set : packets) {
        for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
            if ((set.families & (1U << family)) == 0) {
                continue;
            }
            FWPACKETSET& one = sets.emplace_back(set);
            one.families = static_cast<std::uint8_t>(1U << family);
            for (FWINTERVALS* const ports : {&one.sourcePorts, &one.destinationPorts}) {
                if (isSame(*ports, {{0, kHighestPort}})) {
                    ports->clear();
                }
            }
        }
    }
    return sets;
}

/// Whether a rule that is not counted may decide about some packets, of one family: whether earlier
/// ones leave any of them.
bool mayDecide(const Meaning& meaning, const FWRESOLVEDRULE& uncounted, const FWPACKETSET& question,
               const std::string& adapter) {
    const std::optional<FWPACKETSET> part = common(uncounted.packets, question);
    if (!part) {
        return false;
    }
    std::vector<FWRESOLVEDRULE> steps;
    for (const FWRESOLVEDRULE& rule : meaning.rulesWithUncounted()) {
        if (&rule == &uncounted) {
            break;
        }
        if (meaning.isUncounted(rule.place) ||
            (!adapter.empty() && rule.place.adapter != adapter)) {
            continue;
        }
        const auto both = common(rule.packets, *part);
        if (isAllOf(both, *part)) {
            return false;
        }
        if (both) {
            steps.push_back({*both, FW::FW_PACKET_DROP, false, rule.place});
        }
    }
    const FW::FWREACHABLE left = FW::FW_MEANING(steps).reach(*part);
    return !left.findings.empty() ||
           std::any_of(left.reach.begin(), left.reach.end(),
                       [](const FW::FWREACH& one) { return !one.packets.empty(); });
}

}  // namespace

std::vector<UncountedRule> uncountedFor(const Meaning& meaning, const PacketSets& packets,
                                        const std::string& adapter) {
    std::vector<UncountedRule> found;
    if (&meaning.rulesWithUncounted() == &meaning.rules()) {
        return found;  // there are none
    }
    const PacketSets questions = byFamily(packets);
    for (const FWRESOLVEDRULE& rule : meaning.rulesWithUncounted()) {
        const bool isNew =
            meaning.isUncounted(rule.place) &&
            std::none_of(found.begin(), found.end(), [&rule](const UncountedRule& known) {
                return isSamePlace(known.place, rule.place);
            });
        if (isNew && (adapter.empty() || rule.place.adapter == adapter) &&
            std::any_of(questions.begin(), questions.end(), [&](const FWPACKETSET& question) {
                return mayDecide(meaning, rule, question, adapter);
            })) {
            found.push_back({rule.place, rule.verdict == FW::FW_PACKET_DROP});
        }
    }
    return found;
}

Deciders decidersOf(const Meaning& meaning, const PacketSets& packets, const std::string& adapter) {
    using Key = std::tuple<FW::FW_ORIGIN, std::string, std::int32_t, std::string>;
    std::map<Key, Decider> byPlace;
    Deciders deciders;
    for (const FWPACKETSET& question : byFamily(packets)) {
        Shares shares = sharesOf(meaning, question, adapter);
        deciders.tooComplex = deciders.tooComplex || shares.tooComplex;
        for (auto& [number, sets] : shares.packets) {
            const FW::FWPLACE place = placeOf(meaning, number);
            Decider& decider =
                byPlace[{place.origin, place.adapter, place.position, tunnelOf(meaning, number)}];
            decider.by = decider.packets.empty() ? number : std::min(decider.by, number);
            for (FWPACKETSET& set : sets) {
                set.in = question.in;
                decider.packets.push_back(std::move(set));
            }
        }
    }
    for (auto& [key, decider] : byPlace) {
        decider.denied = decider.by < meaning.rules().size() &&
                         meaning.rules()[decider.by].verdict == FW::FW_PACKET_DROP;
        deciders.all.push_back(std::move(decider));
    }
    std::sort(deciders.all.begin(), deciders.all.end(),
              [](const Decider& one, const Decider& other) { return one.by < other.by; });
    for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
        addSenders(deciders.all, family);
    }
    return deciders;
}

}  // namespace tarnfw
