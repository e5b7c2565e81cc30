#include "tarnfwadmin/openPorts.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <tuple>
#include <utility>

#include "decide/addressWords.h"
#include "tarnfwadmin/packetWords.h"

namespace tarnfw {
namespace {

using FW::FW_FAMILY;
using FW::FWINTERVALS;
using FW::FWPACKETSET;
using PacketSets = std::vector<FWPACKETSET>;

constexpr FW_FAMILY kFamilies[] = {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6};
constexpr FW::FW_PORT_PROTOCOL kProtocols[] = {FW::FW_PORT_PROTOCOL_TCP, FW::FW_PORT_PROTOCOL_UDP};
constexpr int kLastPort = 65535;

/// From how many ports on those of a row are said as a whole, also where some are in use.
constexpr int kWideSpan = 1024;

// ---- To one port --------------------------------------------------------------------------------

using Pairs = std::vector<std::pair<FW::Number, FW::Number>>;

Pairs pairsOf(const FW::Intervals& intervals) {
    Pairs pairs;
    pairs.reserve(intervals.size());
    for (const FW::Interval& one : intervals) {
        pairs.emplace_back(one.first, one.last);
    }
    return pairs;
}

/// Source ports, and destination addresses.
using Condition = std::pair<Pairs, Pairs>;

Condition conditionOf(const FWPACKETSET& set) {
    Condition condition;
    for (const FW::FWINTERVAL& ports : set.sourcePorts) {
        condition.first.emplace_back(ports.first, ports.last);
    }
    if (set.destinations != nullptr) {
        condition.second = pairsOf(numbersOf(*set.destinations));
    }
    return condition;
}

/// What OpenTo is made of, in a form in which the same is equal.
struct Peers {
    Pairs always;
    std::map<Condition, Pairs> partly;
    bool tooComplex = false;

    bool operator<(const Peers& other) const {
        return std::tie(always, partly, tooComplex) <
               std::tie(other.always, other.partly, other.tooComplex);
    }
};

FW::Intervals intervalsOf(const Pairs& pairs) {
    FW::Intervals intervals;
    intervals.reserve(pairs.size());
    for (const auto& [first, last] : pairs) {
        intervals.push_back({first, last});
    }
    return intervals;
}

void append(FW::Intervals& all, const FWPACKETSET& set) {
    if (set.sources == nullptr) {
        all.push_back(numbersOf(allAddresses()).front());
        return;
    }
    const FW::Intervals more = numbersOf(*set.sources);
    all.insert(all.end(), more.begin(), more.end());
}

bool isConditional(const FWPACKETSET& set) {
    return !set.sourcePorts.empty() || set.destinations != nullptr;
}

// More than a person reads; each is compared with each.
constexpr std::size_t kMostWidened = 32;

constexpr FW::Interval kAllPorts = {0, kLastPort};

/// An empty list is any value.
FW::Intervals filled(const Pairs& pairs, const FW::Intervals& all) {
    return pairs.empty() ? all : intervalsOf(pairs);
}

/// Conditions for the same senders, each as wide as it can be said: of "from source port 53" and
/// "from any other to 10.0.0.5" the latter is "to 10.0.0.5".
std::map<Condition, Pairs> widened(const std::map<Condition, Pairs>& partly) {
    if (partly.size() > kMostWidened) {
        return partly;
    }
    const FW::Intervals everyPort = {kAllPorts};
    const FW::Intervals everyAddress = numbersOf(allAddresses());
    std::map<Condition, FW::Intervals> wide;
    for (const auto& [condition, senders] : partly) {
        Condition one = condition;
        for (const auto& [other, otherSenders] : partly) {
            if (otherSenders != senders) {
                continue;
            }
            const FW::Intervals ports = filled(other.first, everyPort);
            const FW::Intervals addresses = filled(other.second, everyAddress);
            const FW::Intervals ownPorts = filled(one.first, everyPort);
            const FW::Intervals ownAddresses = filled(one.second, everyAddress);
            if (includes(addresses, ownAddresses) && united(ports, ownPorts) == everyPort) {
                one.first.clear();
            } else if (includes(ports, ownPorts) &&
                       united(addresses, ownAddresses) == everyAddress) {
                one.second.clear();
            }
        }
        const FW::Intervals more = intervalsOf(senders);
        FW::Intervals& all = wide[one];
        all.insert(all.end(), more.begin(), more.end());
    }
    std::map<Condition, Pairs> found;
    for (auto& [condition, senders] : wide) {
        FW::normalize(senders);
        found[condition] = pairsOf(senders);
    }
    return found;
}

/// Of packets to one port, which have no packet in common.
Peers peersOf(const std::vector<const FWPACKETSET*>& allowed,
              const std::vector<const FWPACKETSET*>& denied, bool tooComplex) {
    Peers peers;
    peers.tooComplex = tooComplex;
    FW::Intervals from;
    FW::Intervals notFrom;
    for (const FWPACKETSET* const set : allowed) {
        append(from, *set);
    }
    for (const FWPACKETSET* const set : denied) {
        append(notFrom, *set);
    }
    FW::normalize(from);
    FW::normalize(notFrom);
    peers.always = pairsOf(without(from, notFrom));
    const FW::Intervals depends = intersected(from, notFrom);
    if (depends.empty()) {
        return peers;
    }
    std::map<Condition, FW::Intervals> partly;
    for (const FWPACKETSET* const set : allowed) {
        FW::Intervals senders;
        append(senders, *set);
        senders = intersected(senders, depends);
        if (!senders.empty()) {
            FW::Intervals& all = partly[conditionOf(*set)];
            all.insert(all.end(), senders.begin(), senders.end());
        }
    }
    for (auto& [condition, senders] : partly) {
        FW::normalize(senders);
        peers.partly[condition] = pairsOf(senders);
    }
    peers.partly = widened(peers.partly);
    return peers;
}

OpenTo openToOf(const Peers& peers) {
    OpenTo to;
    const FW::Intervals always = intervalsOf(peers.always);
    const Pairs others = pairsOf(without(numbersOf(allAddresses()), always));
    to.always = addressesOf(always);
    to.tooComplex = peers.tooComplex;
    for (const auto& [condition, senders] : peers.partly) {
        OpenPartly& part = to.partly.emplace_back();
        part.senders = addressesOf(intervalsOf(senders));
        part.areAllOthers = senders == others;
        for (const auto& [first, last] : condition.first) {
            part.sourcePorts.push_back(
                {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)});
        }
        if (!condition.second.empty()) {
            part.destinations =
                std::make_shared<FW::FWADDRESSES>(addressesOf(intervalsOf(condition.second)));
        }
    }
    return to;
}

// ---- To all ports -------------------------------------------------------------------------------

/// A number for each Peers; 0 is nobody.
class PeersKept {
public:
    PeersKept() { (void)idOf({}); }

    std::size_t idOf(Peers peers) {
        const auto [place, isNew] = ids_.emplace(std::move(peers), all_.size());
        if (isNew) {
            all_.push_back(&place->first);
        }
        return place->second;
    }

    const Peers& operator[](std::size_t id) const { return *all_[id]; }

private:
    std::map<Peers, std::size_t> ids_;
    std::vector<const Peers*> all_;
};

/// Ports from each key to the next one: the number of their peers.
using Segments = std::map<int, std::size_t>;

std::size_t at(const Segments& segments, int port) {
    return std::prev(segments.upper_bound(port))->second;
}

/// Sets by the ports where they begin and end.
class Sweep {
public:
    explicit Sweep(const PacketSets& sets) {
        for (const FWPACKETSET& set : sets) {
            const FWINTERVALS ports =
                set.destinationPorts.empty() ? FWINTERVALS{{0, kLastPort}} : set.destinationPorts;
            for (const FW::FWINTERVAL& interval : ports) {
                begins_[interval.first].push_back(&set);
                ends_[interval.last + 1].push_back(&set);
            }
        }
    }

    void addCuts(std::set<int>& cuts) const {
        for (const auto* const events : {&begins_, &ends_}) {
            for (const auto& [port, sets] : *events) {
                cuts.insert(port);
            }
        }
    }

    /// Those of a port; for ascending ports.
    std::vector<const FWPACKETSET*> at(int port) {
        for (; !ends_.empty() && ends_.begin()->first <= port; ends_.erase(ends_.begin())) {
            for (const FWPACKETSET* const set : ends_.begin()->second) {
                gone_.insert(set);
            }
        }
        for (; !begins_.empty() && begins_.begin()->first <= port; begins_.erase(begins_.begin())) {
            for (const FWPACKETSET* const set : begins_.begin()->second) {
                current_.push_back(set);
                gone_.erase(set);
            }
        }
        current_.erase(std::remove_if(current_.begin(), current_.end(),
                                      [this](const auto* set) { return gone_.count(set) != 0; }),
                       current_.end());
        gone_.clear();
        return current_;
    }

private:
    using Events = std::map<int, std::vector<const FWPACKETSET*>>;

    Events begins_;
    Events ends_;
    std::vector<const FWPACKETSET*> current_;
    std::set<const FWPACKETSET*> gone_;
};

Segments segmentsOf(const PacketParts& parts, PeersKept& kept) {
    const bool isPlain = std::none_of(parts.allowed.begin(), parts.allowed.end(), isConditional) &&
                         std::none_of(parts.denied.begin(), parts.denied.end(), isConditional);
    // Of packets that differ in their senders alone, those who are allowed are allowed.
    const PacketSets none;
    Sweep allowed(parts.allowed);
    Sweep denied(isPlain ? none : parts.denied);
    std::set<int> cuts = {0};
    allowed.addCuts(cuts);
    denied.addCuts(cuts);
    Segments segments;
    for (const int port : cuts) {
        if (port <= kLastPort) {
            segments[port] =
                kept.idOf(peersOf(allowed.at(port), denied.at(port), parts.tooComplex));
        }
    }
    return segments;
}

// ---- Rows ---------------------------------------------------------------------------------------

/// The numbers of the peers of both families; and whether those of a port are in use.
using FamilyIds = std::array<std::size_t, 2>;

/// What ports have in common: the interfaces, and their peers.
using RowKey = std::pair<std::vector<std::string>, FamilyIds>;

/// By FW_PORT_PROTOCOL: tcp, then udp.
using RowPorts = std::array<FWINTERVALS, 2>;

void append(FWINTERVALS& ports, int first, int last) {
    if (!ports.empty() && ports.back().last + 1 == first) {
        ports.back().last = static_cast<std::uint16_t>(last);
    } else {
        ports.push_back({static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)});
    }
}

/// The interfaces by the peers that they have; those with nobody are left out.
std::map<FamilyIds, std::vector<std::string>> byPeers(
    const std::vector<std::pair<std::string, FamilyIds>>& interfaces) {
    std::map<FamilyIds, std::vector<std::string>> found;
    for (const auto& [interface, ids] : interfaces) {
        if (ids != FamilyIds{}) {
            found[ids].push_back(interface);
        }
    }
    return found;
}

/// Those of the ports among which the ones in use are not looked for: wide intervals, with small
/// ones beside them such as 0-24 before 26-65535, but without those that lie apart, such as 22.
FWINTERVALS spanOf(const FWINTERVALS& ports) {
    std::vector<bool> isWide;
    const auto sizeOf = [&ports](std::size_t i) { return ports[i].last - ports[i].first + 1; };
    const auto isBeside = [&](std::size_t i, std::size_t lower) {
        return ports[lower + 1].first - ports[lower].last - 1 <= sizeOf(i);
    };
    for (std::size_t i = 0; i < ports.size(); ++i) {
        isWide.push_back(sizeOf(i) >= kWideSpan || (i > 0 && isWide[i - 1] && isBeside(i, i - 1)));
    }
    FWINTERVALS span;
    for (std::size_t i = ports.size(); i-- > 0;) {
        isWide[i] = isWide[i] || (i + 1 < ports.size() && isWide[i + 1] && isBeside(i, i));
        if (isWide[i]) {
            span.push_back(ports[i]);
        }
    }
    std::reverse(span.begin(), span.end());
    return span;
}

/// Those of the ports that are none of the span, which has some of their intervals.
FWINTERVALS othersThan(const FWINTERVALS& span, const FWINTERVALS& ports) {
    FWINTERVALS others;
    auto wide = span.begin();  // of the same order
    for (const FW::FWINTERVAL& one : ports) {
        if (wide != span.end() && wide->first == one.first) {
            ++wide;
        } else {
            others.push_back(one);
        }
    }
    return others;
}

}  // namespace

class OpenPorts::Answers {
public:
    Answers(const Meaning& meaning, const std::optional<Address>& from)
        : meaning_(meaning), answers_(meaning), from_(from) {
        for (const FW::FWRESOLVEDRULE& rule : meaning.rules()) {
            if (rule.packets.in != nullptr) {
                interfaces_.insert(rule.packets.in.get());
            }
        }
    }

    const PacketParts& through(const std::string& interface, FW_FAMILY family,
                               FW::FW_PORT_PROTOCOL protocol) {
        const auto [place, isNew] = parts_.try_emplace({sortOf(interface), family, protocol});
        if (isNew && (!from_ || familyOf(*from_) == family)) {
            FWPACKETSET packets = newConnections(interface);
            packets.families = static_cast<std::uint8_t>(1U << family);
            const auto number = static_cast<std::uint16_t>(
                protocol == FW::FW_PORT_PROTOCOL_UDP ? int{IPPROTO_UDP} : int{IPPROTO_TCP});
            packets.protocols = {{number, number}};
            if (from_) {
                packets.sources = std::make_shared<FW::FWADDRESSES>(onlyAddress(*from_));
            }
            place->second = answers_.parts(packets);
        }
        return place->second;
    }

    std::vector<OpenRow> rows(const std::vector<std::string>& interfaces, const PortsInUse& inUse) {
        std::map<RowKey, RowPorts> all;
        for (const std::size_t protocol : {0U, 1U}) {
            addRows(interfaces, kProtocols[protocol], protocol, all);
        }
        std::map<RowKey, RowPorts> unused;
        std::vector<OpenRow> spans;
        for (const auto& [key, ports] : all) {
            RowPorts wide;
            bool isUsed = false;
            for (const std::size_t protocol : {0U, 1U}) {
                wide[protocol] = spanOf(ports[protocol]);
                addUnused(key, othersThan(wide[protocol], ports[protocol]), protocol, inUse,
                          unused);
                isUsed = isUsed || isInUse(key.first, wide[protocol], protocol, inUse);
            }
            if (!wide[0].empty() || !wide[1].empty()) {
                spans.push_back(rowOf(key, wide));
                spans.back().isSpan = isUsed;
            }
        }
        std::vector<OpenRow> rows;
        for (auto& [key, ports] : unused) {
            for (FWINTERVALS& list : ports) {
                std::sort(list.begin(), list.end(), [](const auto& one, const auto& other) {
                    return one.first < other.first;
                });
                FWINTERVALS joined;
                for (const FW::FWINTERVAL& one : list) {
                    append(joined, one.first, one.last);
                }
                list = std::move(joined);
            }
            rows.push_back(rowOf(key, ports));
        }
        for (std::vector<OpenRow>* const list : {&rows, &spans}) {
            std::stable_sort(list->begin(), list->end(),
                             [](const OpenRow& one, const OpenRow& other) {
                                 return firstPort(one) < firstPort(other);
                             });
        }
        std::move(spans.begin(), spans.end(), std::back_inserter(rows));
        return rows;
    }

private:
    /// Interfaces of the same sort are in the same sets of those of the rules.
    std::vector<bool> sortOf(const std::string& interface) const {
        std::vector<bool> sort;
        sort.reserve(interfaces_.size());
        for (const FW::FWINTERFACES* const one : interfaces_) {
            sort.push_back(isAmong(*one, interface));
        }
        return sort;
    }

    const Segments& segments(const std::string& interface, FW_FAMILY family,
                             FW::FW_PORT_PROTOCOL protocol) {
        const auto [place, isNew] = segments_.try_emplace({sortOf(interface), family, protocol});
        if (isNew) {
            place->second = segmentsOf(through(interface, family, protocol), kept_);
        }
        return place->second;
    }

    void addRows(const std::vector<std::string>& interfaces, FW::FW_PORT_PROTOCOL protocol,
                 std::size_t index, std::map<RowKey, RowPorts>& rows) {
        std::vector<std::array<const Segments*, 2>> all;
        std::set<int> cuts;
        for (const std::string& interface : interfaces) {
            auto& both = all.emplace_back();
            for (const FW_FAMILY family : kFamilies) {
                both[family] = &segments(interface, family, protocol);
                for (const auto& [port, id] : *both[family]) {
                    cuts.insert(port);
                }
            }
        }
        for (auto cut = cuts.begin(); cut != cuts.end(); ++cut) {
            const int last = std::next(cut) == cuts.end() ? kLastPort : *std::next(cut) - 1;
            std::vector<std::pair<std::string, FamilyIds>> ids;
            for (std::size_t i = 0; i < interfaces.size(); ++i) {
                ids.emplace_back(interfaces[i], FamilyIds{at(*all[i][FW::FW_FAMILY_V4], *cut),
                                                          at(*all[i][FW::FW_FAMILY_V6], *cut)});
            }
            for (const auto& [peers, names] : byPeers(ids)) {
                append(rows[{names, peers}][index], *cut, last);
            }
        }
    }

    const std::set<std::uint16_t>& usedOn(const std::string& interface, FW_FAMILY family,
                                          std::size_t protocol, const PortsInUse& inUse) {
        const auto [place, isNew] = used_.try_emplace({interface, family, protocol});
        if (isNew) {
            place->second = inUse(interface, family, kProtocols[protocol]);
        }
        return place->second;
    }

    /// Whether one of the ports is in use on one of the interfaces.
    bool isInUse(const std::vector<std::string>& interfaces, const FWINTERVALS& ports,
                 std::size_t protocol, const PortsInUse& inUse) {
        for (const std::string& interface : interfaces) {
            for (const FW_FAMILY family : kFamilies) {
                const auto& used = usedOn(interface, family, protocol, inUse);
                for (const FW::FWINTERVAL& one : ports) {
                    const auto port = used.lower_bound(one.first);
                    if (port != used.end() && *port <= one.last) {
                        return true;
                    }
                }
            }
        }
        return false;
    }

    /// Adds the ports of a row that are not in use.
    void addUnused(const RowKey& key, const FWINTERVALS& ports, std::size_t protocol,
                   const PortsInUse& inUse, std::map<RowKey, RowPorts>& unused) {
        std::map<std::string, std::array<const std::set<std::uint16_t>*, 2>> used;
        std::set<int> usedPorts;
        for (const std::string& interface : key.first) {
            for (const FW_FAMILY family : kFamilies) {
                const auto& ofFamily = usedOn(interface, family, protocol, inUse);
                used[interface][family] = &ofFamily;
                usedPorts.insert(ofFamily.begin(), ofFamily.end());
            }
        }
        for (const FW::FWINTERVAL& interval : ports) {
            int first = interval.first;
            const auto end = usedPorts.upper_bound(interval.last);
            for (auto port = usedPorts.lower_bound(interval.first); port != end; ++port) {
                if (first < *port) {
                    append(unused[key][protocol], first, *port - 1);
                }
                std::vector<std::pair<std::string, FamilyIds>> left;
                for (const std::string& interface : key.first) {
                    FamilyIds ids = key.second;
                    for (const FW_FAMILY family : kFamilies) {
                        if (used[interface][family]->count(static_cast<std::uint16_t>(*port)) !=
                            0) {
                            ids[family] = 0;
                        }
                    }
                    left.emplace_back(interface, ids);
                }
                for (const auto& [peers, names] : byPeers(left)) {
                    append(unused[{names, peers}][protocol], *port, *port);
                }
                first = *port + 1;
            }
            if (first <= interval.last) {
                append(unused[key][protocol], first, interval.last);
            }
        }
    }

    OpenRow rowOf(const RowKey& key, const RowPorts& ports) const {
        OpenRow row;
        row.interfaces = key.first;
        row.tcp = ports[0];
        row.udp = ports[1];
        for (const FW_FAMILY family : kFamilies) {
            row.to[family] = openToOf(kept_[key.second[family]]);
        }
        return row;
    }

    /// Tcp before udp.
    static std::pair<bool, int> firstPort(const OpenRow& row) {
        return {row.tcp.empty(), (row.tcp.empty() ? row.udp : row.tcp).front().first};
    }

    template <typename Value>
    using BySort = std::map<std::tuple<std::vector<bool>, FW_FAMILY, FW::FW_PORT_PROTOCOL>, Value>;

    Meaning meaning_;  // holds what interfaces_ points to
    PacketAnswers answers_;
    std::optional<Address> from_;
    std::set<const FW::FWINTERFACES*> interfaces_;
    BySort<PacketParts> parts_;
    BySort<Segments> segments_;
    PeersKept kept_;
    std::map<std::tuple<std::string, FW_FAMILY, std::size_t>, std::set<std::uint16_t>> used_;
};

OpenPorts::OpenPorts(const Meaning& meaning, const std::optional<Address>& from)
    : answers_(std::make_unique<Answers>(meaning, from)) {}

OpenPorts::~OpenPorts() = default;

OpenTo OpenPorts::to(const std::string& interface, FW_FAMILY family, FW::FW_PORT_PROTOCOL protocol,
                     std::uint16_t port, const std::optional<FW::FWADDRESS>& address) {
    PacketParts parts = answers_->through(interface, family, protocol).to(port, address);
    std::vector<const FWPACKETSET*> allowed;
    std::vector<const FWPACKETSET*> denied;
    for (FWPACKETSET& set : parts.allowed) {
        allowed.push_back(&set);
    }
    for (FWPACKETSET& set : parts.denied) {
        denied.push_back(&set);
    }
    if (address) {
        for (auto* const sets : {&parts.allowed, &parts.denied}) {
            for (FWPACKETSET& set : *sets) {
                set.destinations = nullptr;  // it is this one
            }
        }
    }
    return openToOf(peersOf(allowed, denied, parts.tooComplex));
}

std::vector<OpenRow> OpenPorts::rows(const std::vector<std::string>& interfaces,
                                     const PortsInUse& inUse) {
    return answers_->rows(interfaces, inUse);
}

}  // namespace tarnfw
