#include "tarnfwadmin/packetGroup.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include <netinet/in.h>

namespace tarnfw {
namespace {

using Id = std::uint32_t;  // of a value that is kept once; 0 is any value
constexpr Id kAny = 0;

constexpr std::uint16_t kIcmp = IPPROTO_ICMP;
constexpr std::uint16_t kIcmpv6 = IPPROTO_ICMPV6;
constexpr std::uint16_t kHighestNumber = 255;  // of a protocol, and of a type of ICMP
constexpr std::uint16_t kHighestPortNumber = 65535;
constexpr std::size_t kProtocols = kIcmpOfFamily + std::size_t(1);

/// Above so many sets the groups are not made smaller: nobody reads them.
constexpr std::size_t kMostSets = 4096;

constexpr std::uint8_t maskOf(FW::FW_FAMILY family) {
    return static_cast<std::uint8_t>(1U << family);
}

/// Keeps each of several values once.
template <typename Value, typename Key>
class Kept {
public:
    Id idOf(const Key& key, const Value& value) {
        const auto [place, isNew] = ids_.emplace(key, static_cast<Id>(values_.size()));
        if (isNew) {
            values_.push_back(value);
        }
        return place->second;
    }
    const Value& operator[](Id id) const { return values_[id]; }

protected:
    std::vector<Value> values_;
    std::map<Key, Id> ids_;
};

/// Unites the seconds of pairs with the same first, and the other way round, until nothing changes.
template <typename UniteFirst, typename UniteSecond>
void mergePairs(std::vector<std::pair<Id, Id>>& pairs, const UniteFirst& uniteFirst,
                const UniteSecond& uniteSecond) {
    std::size_t before = 0;
    do {
        before = pairs.size();
        std::map<Id, Id> merged;
        for (const auto& [first, second] : pairs) {
            const auto [place, isNew] = merged.emplace(first, second);
            if (!isNew) {
                place->second = uniteSecond(place->second, second);
            }
        }
        std::map<Id, Id> turned;
        for (const auto& [first, second] : merged) {
            const auto [place, isNew] = turned.emplace(second, first);
            if (!isNew) {
                place->second = uniteFirst(place->second, first);
            }
        }
        pairs.clear();
        for (const auto& [second, first] : turned) {
            pairs.emplace_back(first, second);
        }
    } while (pairs.size() < before);
    std::sort(pairs.begin(), pairs.end());
}

// ---- Numbers ------------------------------------------------------------------------------------

using Numbers = std::vector<std::pair<std::uint16_t, std::uint16_t>>;

class KeptNumbers : private Kept<FW::FWINTERVALS, Numbers> {
public:
    KeptNumbers() { (void)Kept::idOf({}, {}); }

    Id idOf(const FW::FWINTERVALS& intervals) {
        Numbers key;
        for (const FW::FWINTERVAL& interval : intervals) {
            key.emplace_back(interval.first, interval.last);
        }
        return Kept::idOf(key, intervals);
    }

    Id united(Id one, Id other, std::uint16_t highest) {
        if (one == other || one == kAny || other == kAny) {
            return one == other ? one : kAny;
        }
        FW::FWINTERVALS all = values_[one];
        all.insert(all.end(), values_[other].begin(), values_[other].end());
        std::sort(all.begin(), all.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        FW::FWINTERVALS joined;
        for (const FW::FWINTERVAL& interval : all) {
            if (!joined.empty() && interval.first <= joined.back().last + 1) {
                joined.back().last = std::max(joined.back().last, interval.last);
            } else {
                joined.push_back(interval);
            }
        }
        const bool isAny = joined.front().first == 0 && joined.front().last == highest;
        return isAny ? kAny : idOf(joined);
    }

    using Kept::operator[];
};

// ---- Kinds --------------------------------------------------------------------------------------

/// Of one protocol: source and destination ports; of ICMP nothing and types.
using Rectangles = std::vector<std::pair<Id, Id>>;

/// By protocol.
using KindTable = std::vector<Rectangles>;

class Kinds : private Kept<KindTable, KindTable> {
public:
    Id idOf(const FW::FWPACKETSET& set) {
        KindTable table(kProtocols);
        const auto add = [&](std::uint16_t first, std::uint16_t last) {
            for (std::size_t protocol = first; protocol <= last; ++protocol) {
                table[protocol] = {contentOf(set, protocol)};
            }
        };
        for (const FW::FWINTERVAL& interval : set.protocols) {
            add(interval.first, interval.last);
        }
        if (set.protocols.empty()) {
            add(0, kHighestNumber);
        }
        const std::size_t icmp = set.families == maskOf(FW::FW_FAMILY_V6) ? kIcmpv6 : kIcmp;
        Rectangles ofFamily = std::move(table[icmp]);
        KindTable useful = table;
        useful[kIcmp].clear();
        useful[kIcmpv6].clear();
        useful[kIcmpOfFamily] = ofFamily;
        const bool isEmpty = std::all_of(useful.begin(), useful.end(),
                                         [](const Rectangles& one) { return one.empty(); });
        return keep(isEmpty ? table : useful);
    }

    Id united(Id one, Id other) {
        KindTable table = (*this)[one];
        const KindTable& more = (*this)[other];
        for (std::size_t protocol = 0; protocol < kProtocols; ++protocol) {
            if (more[protocol].empty() || more[protocol] == table[protocol]) {
                continue;
            }
            table[protocol].insert(table[protocol].end(), more[protocol].begin(),
                                   more[protocol].end());
            const std::uint16_t highest = isIcmp(protocol) ? kHighestNumber : kHighestPortNumber;
            const auto unite = [&](Id a, Id b) { return numbers_.united(a, b, highest); };
            mergePairs(table[protocol], unite, unite);
        }
        return keep(table);
    }

    std::vector<PacketKind> kindsOf(Id id) const {
        std::map<std::pair<bool, std::pair<Id, Id>>, std::size_t> places;
        std::vector<PacketKind> kinds;
        const KindTable& table = (*this)[id];
        for (std::size_t protocol = 0; protocol < kProtocols; ++protocol) {
            const auto number = static_cast<std::uint16_t>(protocol);
            for (const auto& content : table[protocol]) {
                const bool icmp = isIcmp(protocol) && content.second != kAny;
                const auto [place, isNew] = places.emplace(std::pair(icmp, content), kinds.size());
                if (isNew) {
                    PacketKind& kind = kinds.emplace_back();
                    kind.sourcePorts = numbers_[content.first];
                    (icmp ? kind.icmpTypes : kind.destinationPorts) = numbers_[content.second];
                }
                FW::FWINTERVALS& protocols = kinds[place->second].protocols;
                if (!protocols.empty() && protocols.back().last + 1 == number) {
                    protocols.back().last = number;
                } else {
                    protocols.push_back({number, number});
                }
            }
        }
        for (PacketKind& kind : kinds) {
            if (isEveryProtocol(kind.protocols)) {
                kind.protocols.clear();
            }
        }
        return kinds;
    }

private:
    /// All but the two of ICMP, which kIcmpOfFamily is in place of.
    static bool isEveryProtocol(const FW::FWINTERVALS& protocols) {
        return protocols.size() == 3 && protocols[0].first == 0 &&
               protocols[0].last + 2 == protocols[1].first &&
               protocols[1].last + 2 == protocols[2].first && protocols[2].last == kIcmpOfFamily;
    }

    static bool isIcmp(std::size_t protocol) {
        return protocol == kIcmp || protocol == kIcmpv6 || protocol == kIcmpOfFamily;
    }

    std::pair<Id, Id> contentOf(const FW::FWPACKETSET& set, std::size_t protocol) {
        if (isIcmp(protocol)) {
            return {kAny, numbers_.idOf(set.icmpTypes)};
        }
        const bool ports = protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
        return ports
                   ? std::pair(numbers_.idOf(set.sourcePorts), numbers_.idOf(set.destinationPorts))
                   : std::pair(kAny, kAny);
    }

    Id keep(const KindTable& table) { return Kept::idOf(table, table); }

    KeptNumbers numbers_;
};

// ---- Ways ---------------------------------------------------------------------------------------

using Interfaces = std::pair<std::vector<std::string>, std::vector<std::string>>;

/// Whether an entry is one of all names, or of those that begin with what "+" follows.
bool fits(const std::string& entry, const std::string& name) {
    if (entry == name) {
        return true;
    }
    return !entry.empty() && entry.back() == '+' &&
           name.compare(0, entry.size() - 1, entry, 0, entry.size() - 1) == 0 &&
           name.size() + (name.back() == '+' ? 0 : 1) >= entry.size();
}

/// Whether the names for which `entry` is the longest one are in a set.
bool isIn(const FW::FWINTERFACES& set, const std::string& entry) {
    std::size_t longest = 0;
    bool in = false;
    const auto look = [&](const std::vector<std::string>& entries, bool found) {
        for (const std::string& one : entries) {
            // A name is longer than a beginning of the same length.
            const std::size_t length = 2 * one.size() + (one.back() == '+' ? 0 : 1);
            if (fits(one, entry) && length > longest) {
                longest = length;
                in = found;
            }
        }
    };
    look(set.names, true);
    look(set.except, false);
    return in;
}

FW::FWINTERFACES united(const FW::FWINTERFACES& one, const FW::FWINTERFACES& other) {
    std::vector<std::string> entries = {"+"};
    for (const auto* const list : {&one.names, &one.except, &other.names, &other.except}) {
        entries.insert(entries.end(), list->begin(), list->end());
    }
    // A beginning before the names that begin with it: "+" sorts before letters and digits.
    std::sort(entries.begin(), entries.end(), [](const std::string& a, const std::string& b) {
        const bool aBegins = a.back() == '+';
        const bool bBegins = b.back() == '+';
        const std::string aStart = aBegins ? a.substr(0, a.size() - 1) : a;
        const std::string bStart = bBegins ? b.substr(0, b.size() - 1) : b;
        return aStart == bStart ? aBegins && !bBegins : aStart < bStart;
    });
    entries.erase(std::unique(entries.begin(), entries.end()), entries.end());
    FW::FWINTERFACES all;
    std::vector<std::pair<std::string, bool>> enclosing;
    for (const std::string& entry : entries) {
        while (!enclosing.empty() && !fits(enclosing.back().first, entry)) {
            enclosing.pop_back();
        }
        const bool in = isIn(one, entry) || isIn(other, entry);
        if (in != (!enclosing.empty() && enclosing.back().second)) {
            (in ? all.names : all.except).push_back(entry);
        }
        enclosing.emplace_back(entry, in);
    }
    return all;
}

/// Chains, incoming and outgoing interfaces.
using Way = std::tuple<std::uint8_t, Id, Id>;

class Ways : private Kept<std::vector<Way>, std::vector<Way>> {
public:
    Ways() { (void)interfaces_.idOf({}, nullptr); }

    Id idOf(const FW::FWPACKETSET& set) {
        const bool inputOnly = set.chains == (1U << FW::FW_CHAIN_INPUT);
        return keep({{set.chains, idOf(set.in), inputOnly ? kAny : idOf(set.out)}});
    }

    Id united(Id one, Id other) {
        std::vector<Way> ways = (*this)[one];
        ways.insert(ways.end(), (*this)[other].begin(), (*this)[other].end());
        std::size_t before = 0;
        do {
            before = ways.size();
            mergeBy(ways,
                    [](const Way& way) { return std::pair(std::get<1>(way), std::get<2>(way)); });
            mergeBy(ways, [](const Way& way) {
                return std::pair(Id(std::get<0>(way)), std::get<2>(way));
            });
            mergeBy(ways, [](const Way& way) {
                return std::pair(Id(std::get<0>(way)), std::get<1>(way));
            });
        } while (ways.size() < before);
        return keep(std::move(ways));
    }

    std::vector<PacketWay> waysOf(Id id) const {
        std::vector<PacketWay> ways;
        for (const auto& [chains, in, out] : (*this)[id]) {
            ways.push_back({chains, interfaces_[in], interfaces_[out]});
        }
        return ways;
    }

private:
    using Kept::operator[];

    Id idOf(const std::shared_ptr<const FW::FWINTERFACES>& interfaces) {
        if (interfaces == nullptr ||
            (interfaces->except.empty() && interfaces->names == std::vector<std::string>{"+"})) {
            return kAny;
        }
        Interfaces key(interfaces->names, interfaces->except);
        std::sort(key.first.begin(), key.first.end());
        std::sort(key.second.begin(), key.second.end());
        return interfaces_.idOf(key, interfaces);
    }

    Id unitedInterfaces(Id one, Id other) {
        if (one == other || one == kAny || other == kAny) {
            return one == other ? one : kAny;
        }
        return idOf(std::make_shared<FW::FWINTERFACES>(
            tarnfw::united(*interfaces_[one], *interfaces_[other])));
    }

    /// Unites ways with the same key, which leaves one of their parts open.
    template <typename Key>
    void mergeBy(std::vector<Way>& ways, const Key& keyOf) {
        std::map<std::pair<Id, Id>, Way> merged;
        for (const Way& way : ways) {
            const auto [place, isNew] = merged.emplace(keyOf(way), way);
            if (!isNew) {
                auto& [chains, in, out] = place->second;
                chains = static_cast<std::uint8_t>(chains | std::get<0>(way));
                in = unitedInterfaces(in, std::get<1>(way));
                out = unitedInterfaces(out, std::get<2>(way));
            }
        }
        ways.clear();
        for (const auto& [key, way] : merged) {
            ways.push_back(way);
        }
    }

    Id keep(std::vector<Way> ways) {
        std::sort(ways.begin(), ways.end());
        ways.erase(std::unique(ways.begin(), ways.end()), ways.end());
        return Kept::idOf(ways, ways);
    }

    Kept<std::shared_ptr<const FW::FWINTERFACES>, Interfaces> interfaces_;
};

// ---- Peers --------------------------------------------------------------------------------------

using AddressKey = std::vector<std::array<std::uint64_t, 4>>;
using SharedAddresses = std::shared_ptr<const FW::FWADDRESSES>;

/// Sources and destinations by family.
using PeerTable = std::array<std::vector<std::pair<Id, Id>>, 2>;

class Peers : private Kept<PeerTable, PeerTable> {
public:
    Peers() { (void)addresses_.idOf({}, nullptr); }

    Id idOf(const FW::FWPACKETSET& set) {
        PeerTable table;
        for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
            if ((set.families & maskOf(family)) != 0) {
                table[family] = {{idOf(set.sources), idOf(set.destinations)}};
            }
        }
        return Kept::idOf(table, table);
    }

    Id united(Id one, Id other) {
        PeerTable table = (*this)[one];
        const auto unite = [this](Id a, Id b) { return unitedAddresses(a, b); };
        for (std::size_t family = 0; family < table.size(); ++family) {
            const auto& more = (*this)[other][family];
            table[family].insert(table[family].end(), more.begin(), more.end());
            mergePairs(table[family], unite, unite);
        }
        return Kept::idOf(table, table);
    }

    std::vector<PacketPeers> peersOf(Id id) const {
        std::vector<PacketPeers> peers;
        for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
            for (const auto& [sources, destinations] : (*this)[id][family]) {
                peers.push_back({family, addresses_[sources], addresses_[destinations]});
            }
        }
        return peers;
    }

private:
    using Kept::operator[];

    Id idOf(const SharedAddresses& addresses) {
        if (addresses == nullptr) {
            return kAny;
        }
        const auto known = byPointer_.find(addresses.get());
        if (known != byPointer_.end()) {
            return known->second;
        }
        AddressKey key;
        key.reserve(addresses->size());
        for (const FW::FWADDRESSINTERVAL& one : *addresses) {
            key.push_back({one.first.high, one.first.low, one.last.high, one.last.low});
        }
        const bool isAny = key == AddressKey{{0, 0, ~0ULL, ~0ULL}};
        const Id id = isAny ? kAny : addresses_.idOf(key, addresses);
        byPointer_[addresses.get()] = id;
        held_.push_back(addresses);
        return id;
    }

    Id unitedAddresses(Id one, Id other) {
        if (one == other || one == kAny || other == kAny) {
            return one == other ? one : kAny;
        }
        FW::FWADDRESSES all = *addresses_[one];
        all.insert(all.end(), addresses_[other]->begin(), addresses_[other]->end());
        return idOf(std::make_shared<FW::FWADDRESSES>(FW::fwAddressesFrom(all)));
    }

    Kept<SharedAddresses, AddressKey> addresses_;
    std::map<const FW::FWADDRESSES*, Id> byPointer_;
    std::vector<SharedAddresses> held_;  // those of byPointer_
};

// ---- Groups -------------------------------------------------------------------------------------

enum Part : std::size_t { kKinds, kWays, kPeers, kStates, kParts };

using Box = std::array<Id, kParts>;

constexpr std::array<std::array<Part, kParts>, 2> kOrders = {
    {{kKinds, kPeers, kWays, kStates}, {kWays, kPeers, kKinds, kStates}}};

class Grouping {
public:
    explicit Grouping(const std::vector<FW::FWPACKETSET>& sets) {
        for (const FW::FWPACKETSET& set : sets) {
            // ICMP of both families, or of the one that it is not for, is looked at by family.
            const bool both = set.families == FW::FW_BOTH_FAMILIES;
            const bool apart = both && has(set, kIcmp) != has(set, kIcmpv6);
            for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
                FW::FWPACKETSET one = set;
                one.families = apart ? maskOf(family) : set.families;
                const bool isWanted = apart || family == FW::FW_FAMILY_V4;
                if (isWanted && !isEmpty(one)) {
                    boxes_.push_back(
                        {kinds_.idOf(one), ways_.idOf(one), peers_.idOf(one), one.states});
                }
            }
        }
    }

    std::vector<PacketGroup> groups() {
        std::vector<Box> fewest = boxes_;
        for (const auto& order : kOrders) {
            std::vector<Box> boxes = boxes_;
            if (boxes.size() <= kMostSets) {
                merge(boxes, order);
            }
            if (boxes.size() < fewest.size()) {
                fewest = std::move(boxes);
            }
        }
        std::vector<PacketGroup> groups;
        groups.reserve(fewest.size());
        for (const auto& [kinds, ways, peers, states] : fewest) {
            groups.push_back({kinds_.kindsOf(kinds), ways_.waysOf(ways), peers_.peersOf(peers),
                              static_cast<std::uint8_t>(states)});
        }
        return groups;
    }

private:
    static bool has(const FW::FWPACKETSET& set, std::uint16_t protocol) {
        return set.protocols.empty() ||
               std::any_of(set.protocols.begin(), set.protocols.end(), [&](const auto& interval) {
                   return interval.first <= protocol && protocol <= interval.last;
               });
    }

    static bool isEmpty(const FW::FWPACKETSET& set) {
        return (set.sources != nullptr && set.sources->empty()) ||
               (set.destinations != nullptr && set.destinations->empty());
    }

    void merge(std::vector<Box>& boxes, const std::array<Part, kParts>& order) {
        std::size_t before = 0;
        do {
            before = boxes.size();
            for (const Part part : order) {
                mergeAlong(boxes, part);
            }
        } while (boxes.size() < before);
    }

    /// Unites the boxes that differ in one part only. Each stays where the first of them was.
    void mergeAlong(std::vector<Box>& boxes, Part part) {
        std::map<Box, std::size_t> places;  // by the others
        std::vector<Box> merged;
        for (const Box& box : boxes) {
            Box others = box;
            others[part] = 0;
            const auto [place, isNew] = places.emplace(others, merged.size());
            if (isNew) {
                merged.push_back(box);
            } else {
                Id& id = merged[place->second][part];
                id = united(part, id, box[part]);
            }
        }
        boxes = std::move(merged);
    }

    Id united(Part part, Id one, Id other) {
        switch (part) {
            case kKinds:
                return kinds_.united(one, other);
            case kWays:
                return ways_.united(one, other);
            case kPeers:
                return peers_.united(one, other);
            default:
                return one | other;
        }
    }

    Kinds kinds_;
    Ways ways_;
    Peers peers_;
    std::vector<Box> boxes_;
};

/// A kind for packets of a family, with the family's own number of ICMP.
FW::FWINTERVALS protocolsOf(const PacketKind& kind, FW::FW_FAMILY family) {
    FW::FWINTERVALS protocols = kind.protocols;
    if (protocols.empty() || protocols.back().last < kIcmpOfFamily) {
        return protocols;
    }
    if (--protocols.back().last < protocols.back().first) {
        protocols.pop_back();
    }
    const std::uint16_t icmp = family == FW::FW_FAMILY_V6 ? kIcmpv6 : kIcmp;
    // Neither number is in the list beside kIcmpOfFamily.
    const auto after =
        std::find_if(protocols.begin(), protocols.end(),
                     [icmp](const FW::FWINTERVAL& interval) { return interval.first > icmp; });
    protocols.insert(after, {icmp, icmp});
    FW::FWINTERVALS joined;
    for (const FW::FWINTERVAL& interval : protocols) {
        if (!joined.empty() && joined.back().last + 1 == interval.first) {
            joined.back().last = interval.last;
        } else {
            joined.push_back(interval);
        }
    }
    return joined;
}

}  // namespace

std::vector<PacketGroup> packetGroups(const std::vector<FW::FWPACKETSET>& sets) {
    return Grouping(sets).groups();
}

std::vector<FW::FWPACKETSET> packetSets(const PacketGroup& group) {
    std::vector<FW::FWPACKETSET> sets;
    for (const PacketKind& kind : group.kinds) {
        for (const PacketWay& way : group.ways) {
            for (const PacketPeers& peers : group.peers) {
                FW::FWPACKETSET& set = sets.emplace_back();
                set.chains = way.chains;
                set.in = way.in;
                set.out = way.out;
                set.families = maskOf(peers.family);
                set.sources = peers.sources;
                set.destinations = peers.destinations;
                set.protocols = protocolsOf(kind, peers.family);
                set.sourcePorts = kind.sourcePorts;
                set.destinationPorts = kind.destinationPorts;
                set.icmpTypes = kind.icmpTypes;
                set.states = group.states;
            }
        }
    }
    return sets;
}

}  // namespace tarnfw
