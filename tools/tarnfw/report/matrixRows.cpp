#include "report/matrixRows.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include <netinet/in.h>

#include "tarnfirewall/fwTypes.h"

#include "report/rowKinds.h"
#include "tarnfwadmin/packetGroup.h"
#include "tarnfwadmin/place.h"

namespace tarnfw {
namespace {

using FW::FW_FAMILY;
using Rules = std::vector<FW::FWRESOLVEDRULE>;

/// What rows may cost, in lists and intervals that are looked at for each protocol. Rules for the
/// ports of one side and rules for those of the other make a row for each pair of them.
constexpr std::size_t kMostRowWork = 1000000;

/// How many rows are looked up among the services before they are sorted.
constexpr std::size_t kMostNamed = 4 * kMostRows;

using Numbers = std::vector<std::uint32_t>;  // ascending

/// Ports of one side that the same kinds have.
struct PortClass {
    Numbers kinds;
    FW::FWINTERVALS ports;
};

/// Which kinds have which ports of one side.
class PortClasses {
public:
    void add(std::uint32_t kind, const FW::FWINTERVALS& ports) {
        cuts_.add(ports);
        for (const FW::FWINTERVAL& one : ports) {
            edges_[one.first].push_back({kind, true});
            if (one.last < kHighestPort) {
                edges_[static_cast<std::uint16_t>(one.last + 1)].push_back({kind, false});
            }
        }
    }

    /// The class with the fewest kinds first, which has what the rules leave, then by port.
    /// Those of high ports are only counted, in `others`, where it takes more than kMostRowWork.
    std::vector<PortClass> classes(std::size_t& others) const {
        std::size_t work = kMostRowWork;
        std::map<Numbers, FW::FWINTERVALS> byKinds;
        std::set<std::uint32_t> kinds;
        const FW::FWINTERVALS intervals = cuts_.intervals();
        for (std::size_t i = 0; i < intervals.size(); ++i) {
            const auto edges = edges_.find(intervals[i].first);
            if (edges != edges_.end()) {
                for (const Edge& edge : edges->second) {
                    edge.begins ? (void)kinds.insert(edge.kind) : (void)kinds.erase(edge.kind);
                }
            }
            if (work < kinds.size() + 1) {
                others = intervals.size() - i;
                break;
            }
            work -= kinds.size() + 1;
            byKinds[Numbers(kinds.begin(), kinds.end())].push_back(intervals[i]);
        }
        std::vector<PortClass> all;
        for (auto& [members, ports] : byKinds) {
            all.push_back({members, std::move(ports)});
            unite(all.back().ports, {});
        }
        std::sort(all.begin(), all.end(), [](const PortClass& a, const PortClass& b) {
            return std::make_tuple(!a.kinds.empty(), a.ports.front().first) <
                   std::make_tuple(!b.kinds.empty(), b.ports.front().first);
        });
        return all;
    }

private:
    struct Edge {
        std::uint32_t kind;
        bool begins;
    };
    Cuts cuts_{kHighestPort};
    std::map<std::uint16_t, std::vector<Edge>> edges_;
};

class RowMaker {
public:
    RowMaker(const std::vector<KindList>& lists, FW_FAMILY family)
        : icmp_(icmpOf(family)),
          otherIcmp_(icmpOf(family == FW::FW_FAMILY_V6 ? FW::FW_FAMILY_V4 : FW::FW_FAMILY_V6)) {
        for (const KindList& list : lists) {
            for (const PacketKind& kind : list.kinds) {
                kinds_.push_back({kind, static_cast<std::uint32_t>(isService_.size())});
            }
            isService_.push_back(list.isService);
        }
    }

    RowSeeds rows() {
        Cuts protocols(255);
        protocols.add({{icmp_, icmp_},
                       {otherIcmp_, otherIcmp_},
                       {IPPROTO_TCP, IPPROTO_TCP},
                       {IPPROTO_UDP, IPPROTO_UDP}});
        for (const ListedKind& kind : kinds_) {
            protocols.add(kind.kind.protocols);
        }
        for (const FW::FWINTERVAL& interval : protocols.intervals()) {
            if (interval.first == otherIcmp_) {
                continue;  // has no use in this family
            }
            if (hasPorts(interval.first)) {
                addPorts(interval.first);
            } else if (interval.first == icmp_) {
                addTypes();
            } else {
                addPoint({{interval}, {}, {}, {}}, {interval.first, 0, 0, 0});
            }
        }
        RowSeeds seeds;
        seeds.others = others_;
        for (auto& [members, seed] : rows_) {
            seed.isRest = members.empty();
            seed.isService = std::any_of(members.begin(), members.end(),
                                         [&](std::uint32_t list) { return isService_[list]; });
            seeds.rows.push_back(std::move(seed));
        }
        return seeds;
    }

private:
    struct ListedKind {
        PacketKind kind;
        std::uint32_t list;
    };

    static std::uint16_t icmpOf(FW_FAMILY family) {
        return static_cast<std::uint16_t>(family == FW::FW_FAMILY_V6 ? int(IPPROTO_ICMPV6)
                                                                     : int(IPPROTO_ICMP));
    }

    /// A row for each pair of source and destination ports that kinds tell apart; first those with
    /// the ports of one side that no kind has, as long as that takes no more than kMostRowWork.
    void addPorts(std::uint16_t protocol) {
        PortClasses sourceClasses;
        PortClasses destinationClasses;
        Numbers always;  // lists
        for (std::uint32_t i = 0; i < kinds_.size(); ++i) {
            const PacketKind& kind = kinds_[i].kind;
            if (!contains(kind.protocols, protocol) || !kind.icmpTypes.empty()) {
                continue;
            }
            sourceClasses.add(i, kind.sourcePorts);
            destinationClasses.add(i, kind.destinationPorts);
            if (kind.sourcePorts.empty() && kind.destinationPorts.empty()) {
                always.push_back(kinds_[i].list);
            }
        }
        std::size_t otherDestinations = 0;
        std::size_t otherSources = 0;
        const auto destinations = destinationClasses.classes(otherDestinations);
        const auto sources = sourceClasses.classes(otherSources);
        std::size_t work = kMostRowWork;
        std::size_t done = 0;
        const auto addPair = [&](const PortClass& source, const PortClass& destination) {
            const std::size_t cost = source.kinds.size() + source.ports.size() +
                                     destination.kinds.size() + destination.ports.size();
            if (work < cost) {
                work = 0;
                return;
            }
            work -= cost;
            ++done;
            PacketKind kind;
            kind.protocols = {{protocol, protocol}};
            kind.sourcePorts = source.ports;
            kind.destinationPorts = destination.ports;
            const KindPoint point{protocol, source.ports.front().first,
                                  destination.ports.front().first, 0};
            add(std::move(kind), point, listsOf(always, source, destination)).isBySource =
                !source.kinds.empty();
        };
        for (const PortClass& destination : destinations) {
            addPair(sources.front(), destination);
        }
        for (std::size_t i = 1; i < sources.size(); ++i) {
            addPair(sources[i], destinations.front());
        }
        for (std::size_t i = 1; i < sources.size() && work > 0; ++i) {
            for (std::size_t j = 1; j < destinations.size() && work > 0; ++j) {
                addPair(sources[i], destinations[j]);
            }
        }
        others_ +=
            (sources.size() + otherSources) * (destinations.size() + otherDestinations) - done;
    }

    Numbers listsOf(const Numbers& always, const PortClass& source,
                    const PortClass& destination) const {
        Numbers lists = always;
        for (const std::uint32_t kind : destination.kinds) {
            if (kinds_[kind].kind.sourcePorts.empty() ||
                std::binary_search(source.kinds.begin(), source.kinds.end(), kind)) {
                lists.push_back(kinds_[kind].list);
            }
        }
        for (const std::uint32_t kind : source.kinds) {
            if (kinds_[kind].kind.destinationPorts.empty()) {
                lists.push_back(kinds_[kind].list);
            }
        }
        return lists;
    }

    void addTypes() {
        Cuts types(kHighestType);
        for (const ListedKind& kind : kinds_) {
            if (contains(kind.kind.protocols, icmp_)) {
                types.add(kind.kind.icmpTypes);
            }
        }
        for (const FW::FWINTERVAL& type : types.intervals()) {
            addPoint({{{kIcmpOfFamily, kIcmpOfFamily}}, {}, {}, {type}}, {icmp_, 0, 0, type.first});
        }
    }

    /// Packets without ports.
    void addPoint(PacketKind kind, const KindPoint& point) {
        Numbers lists;
        for (const ListedKind& one : kinds_) {
            if (contains(one.kind, point, point.protocol == icmp_)) {
                lists.push_back(one.list);
            }
        }
        add(std::move(kind), point, std::move(lists));
    }

    /// To the row of the packets that the same lists have.
    RowSeed& add(PacketKind kind, const KindPoint& point, Numbers lists) {
        std::sort(lists.begin(), lists.end());
        lists.erase(std::unique(lists.begin(), lists.end()), lists.end());
        const auto [row, isNew] = rows_.try_emplace(std::move(lists));
        std::vector<PacketKind>& kinds = row->second.row.kinds;
        if (isNew) {
            row->second.point = point;
        }
        for (PacketKind& known : kinds) {
            if (joins(known, kind)) {
                return row->second;
            }
        }
        kinds.push_back(std::move(kind));
        return row->second;
    }

    /// Adds a kind to one that differs only in destination ports or types, if it is one.
    static bool joins(PacketKind& known, const PacketKind& kind) {
        if (!areEqual(known.protocols, kind.protocols) ||
            !areEqual(known.sourcePorts, kind.sourcePorts)) {
            return false;
        }
        unite(known.destinationPorts, kind.destinationPorts);
        unite(known.icmpTypes, kind.icmpTypes);
        return true;
    }

    std::vector<ListedKind> kinds_;
    std::vector<bool> isService_;  // by list
    std::uint16_t icmp_;
    std::uint16_t otherIcmp_;
    std::map<Numbers, RowSeed> rows_;
    std::size_t others_ = 0;
};

/// Kinds that differ only in source ports are one.
void joinSources(std::vector<PacketKind>& kinds) {
    std::vector<PacketKind> joint;
    for (PacketKind& kind : kinds) {
        const auto found =
            std::find_if(joint.begin(), joint.end(), [&kind](const PacketKind& known) {
                return hasPorts(known.protocols.front().first) &&
                       areEqual(known.protocols, kind.protocols) &&
                       areEqual(known.destinationPorts, kind.destinationPorts);
            });
        if (found == joint.end()) {
            joint.push_back(std::move(kind));
        } else {
            unite(found->sourcePorts, kind.sourcePorts);
        }
    }
    kinds = std::move(joint);
}

/// Of whole intervals nothing is said.
void leaveOutWhole(PacketKind& kind) {
    const auto leaveOut = [](FW::FWINTERVALS& intervals, std::uint16_t highest) {
        if (intervals.size() == 1 && intervals[0].first == 0 && intervals[0].last == highest) {
            intervals.clear();
        }
    };
    leaveOut(kind.sourcePorts, kHighestPort);
    leaveOut(kind.destinationPorts, kHighestPort);
    leaveOut(kind.icmpTypes, kHighestType);
}

/// "from source port 53", "not from source port 53": the shorter way to say it.
std::string sourceLimit(const FW::FWINTERVALS& sourcePorts) {
    const PacketWords words;
    const auto text = [&words](const FW::FWINTERVALS& ports) {
        const std::string udp = words.kindsText({{{{IPPROTO_UDP, IPPROTO_UDP}}, ports, {}, {}}});
        return udp.substr(udp.find(' ') + 1);  // without the protocol
    };
    FW::FWINTERVALS others;
    std::uint32_t next = 0;
    for (const FW::FWINTERVAL& one : sourcePorts) {
        if (next < one.first) {
            others.push_back(
                {static_cast<std::uint16_t>(next), static_cast<std::uint16_t>(one.first - 1)});
        }
        next = one.last + 1U;
    }
    if (next <= kHighestPort) {
        others.push_back({static_cast<std::uint16_t>(next), kHighestPort});
    }
    const bool isNot = !others.empty() && others.size() < sourcePorts.size();
    return isNot ? "not " + text(others) : text(sourcePorts);
}

/// "udp 53", "tcp 80 from source port 53", "service nfs (udp not from source port 53)": by the
/// destination, for which rows are looked up.
std::string rowText(const std::vector<PacketKind>& kinds, const PacketWords& words) {
    std::vector<PacketKind> plain = kinds;
    std::map<std::uint16_t, std::string> limits;  // by protocol
    for (PacketKind& kind : plain) {
        const std::string limit =
            kind.sourcePorts.empty() ? std::string() : sourceLimit(kind.sourcePorts);
        const auto known = limits.emplace(kind.protocols.front().first, limit).first;
        if (known->second != limit) {
            return words.kindsText(kinds);  // it differs from port to port
        }
        kind.sourcePorts.clear();
    }
    const std::string text = words.kindsText(plain);
    const std::string& first = limits.begin()->second;
    if (std::all_of(limits.begin(), limits.end(),
                    [&](const auto& limit) { return limit.second == first; })) {
        const bool isOne = text.find(", ") == std::string::npos;
        return first.empty() ? text : isOne ? text + " " + first : text + " (" + first + ")";
    }
    std::string notes;
    for (const auto& [protocol, limit] : limits) {
        if (!limit.empty()) {
            notes += (notes.empty() ? "" : ", ") +
                     std::string(protocol == IPPROTO_TCP ? "tcp " : "udp ") + limit;
        }
    }
    return text + " (" + notes + ")";
}

/// As people look for rows.
auto orderOf(const RowSeed& seed) {
    const PacketKind& kind = seed.row.kinds.front();
    const bool isService = seed.row.text.rfind("service ", 0) == 0;
    return std::make_tuple(seed.isRest, !isService, isService ? seed.row.text : std::string(),
                           kind.protocols.front().first != kIcmpOfFamily, seed.isBySource,
                           seed.point.protocol, seed.point.destinationPort, seed.point.sourcePort,
                           seed.point.icmpType);
}

}  // namespace

std::set<std::string> servicesOf(const Rules& rules, const FW::FWPROFILE& profile) {
    std::set<std::string> names;
    const FW::FWPLACE* before = nullptr;
    for (const FW::FWRESOLVEDRULE& resolved : rules) {
        const auto place = rulePlaceOf(resolved.place);
        if (!place || place->position == 0 ||
            (before != nullptr && isSamePlace(*before, resolved.place))) {
            continue;
        }
        before = &resolved.place;
        const FW::FWRULE& rule = profile.rules.at(place->adapter).at(place->position - 1);
        if (rule.portGroup == FW::FW_PORT_GROUP_SERVICES ||
            rule.portGroup == FW::FW_PORT_GROUP_RESERVED) {
            names.insert(rule.portList.begin(), rule.portList.end());
        }
    }
    return names;
}

RowSeeds rowsOf(const Rules& rules, const std::set<std::string>& services, const Meaning& meaning,
                FW_FAMILY family, const PacketWords& words) {
    RowSeeds seeds = RowMaker(kindListsOf(rules, services, meaning, family), family).rows();
    std::vector<RowSeed>& rows = seeds.rows;
    for (RowSeed& seed : rows) {
        joinSources(seed.row.kinds);
        for (PacketKind& kind : seed.row.kinds) {
            leaveOutWhole(kind);
        }
        // Ports may have the name of a service that no rule names.
        if (!seed.isRest && (seed.isService || rows.size() <= kMostNamed)) {
            seed.row.text = rowText(seed.row.kinds, words);
        }
    }
    std::sort(rows.begin(), rows.end(),
              [](const RowSeed& a, const RowSeed& b) { return orderOf(a) < orderOf(b); });
    const std::size_t all = rows.size();
    if (all > kMostRows) {  // the rest, which is the last, stays
        seeds.others += all - kMostRows;
        rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(kMostRows - 1), rows.end() - 1);
    }
    const PacketWords plain;
    for (RowSeed& seed : rows) {
        seed.row.ports = rowText(seed.row.kinds, plain);
        if (seed.isRest) {
            seed.row.text = all == 1 ? "everything" : "everything else";
        } else if (seed.row.text.empty()) {
            seed.row.text = rowText(seed.row.kinds, words);
        }
    }
    return seeds;
}

}  // namespace tarnfw
