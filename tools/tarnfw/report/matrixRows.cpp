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

#include "tarnfwadmin/packetGroup.h"

namespace tarnfw {
namespace {

using FW::FW_FAMILY;
using Rules = std::vector<FW::FWRESOLVEDRULE>;

constexpr std::uint16_t kHighestPort = 65535;
constexpr std::uint16_t kHighestType = 255;

/// What a rule or a service has for kinds of packets: one of the sets.
using KindList = std::vector<PacketKind>;

bool contains(const FW::FWINTERVALS& intervals, std::uint16_t value) {
    return intervals.empty() ||
           std::any_of(intervals.begin(), intervals.end(), [value](const FW::FWINTERVAL& one) {
               return one.first <= value && value <= one.last;
           });
}

bool hasPorts(std::uint16_t protocol) {
    return protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
}

bool contains(const PacketKind& kind, const KindPoint& point, bool isIcmp) {
    return contains(kind.protocols, point.protocol) &&
           (!hasPorts(point.protocol) ||
            (contains(kind.sourcePorts, point.sourcePort) &&
             contains(kind.destinationPorts, point.destinationPort))) &&
           (!isIcmp || contains(kind.icmpTypes, point.icmpType)) &&
           // A rule about ports or types is for packets that have them.
           (hasPorts(point.protocol) ||
            (kind.sourcePorts.empty() && kind.destinationPorts.empty())) &&
           (isIcmp || kind.icmpTypes.empty());
}

/// Where the values from 0 on are cut into intervals.
class Cuts {
public:
    explicit Cuts(std::uint16_t highest) : highest_(highest) { starts_.insert(0); }

    void add(const FW::FWINTERVALS& intervals) {
        for (const FW::FWINTERVAL& one : intervals) {
            starts_.insert(one.first);
            if (one.last < highest_) {
                starts_.insert(static_cast<std::uint16_t>(one.last + 1));
            }
        }
    }

    FW::FWINTERVALS intervals() const {
        FW::FWINTERVALS all;
        for (const std::uint16_t start : starts_) {
            if (!all.empty()) {
                all.back().last = static_cast<std::uint16_t>(start - 1);
            }
            all.push_back({start, highest_});
        }
        return all;
    }

private:
    std::uint16_t highest_;
    std::set<std::uint16_t> starts_;
};

bool areEqual(const FW::FWINTERVALS& a, const FW::FWINTERVALS& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
        return x.first == y.first && x.last == y.last;
    });
}

/// Adds intervals that come after those of the list, and may go on where it ends.
void append(FW::FWINTERVALS& list, const FW::FWINTERVALS& more) {
    for (const FW::FWINTERVAL& one : more) {
        if (!list.empty() && list.back().last + 1 == one.first) {
            list.back().last = one.last;
        } else {
            list.push_back(one);
        }
    }
}

PacketKind kindOf(const FW::FWPACKETSET& packets) {
    return {packets.protocols, packets.sourcePorts, packets.destinationPorts, packets.icmpTypes};
}

bool isEverything(const PacketKind& kind) {
    return kind.protocols.empty() && kind.sourcePorts.empty() && kind.destinationPorts.empty() &&
           kind.icmpTypes.empty();
}

using ListKey = std::vector<std::size_t>;

ListKey keyOf(const KindList& list) {
    ListKey key;
    for (const PacketKind& kind : list) {
        for (const FW::FWINTERVALS* const intervals :
             {&kind.protocols, &kind.sourcePorts, &kind.destinationPorts, &kind.icmpTypes}) {
            key.push_back(intervals->size());
            for (const FW::FWINTERVAL& one : *intervals) {
                key.insert(key.end(), {one.first, one.last});
            }
        }
    }
    return key;
}

/// Whether two resolved rules come from one rule and are for the same packets otherwise.
bool differInKindAlone(const FW::FWRESOLVEDRULE& a, const FW::FWRESOLVEDRULE& b) {
    return isSame(a.place, b.place) && a.packets.chains == b.packets.chains &&
           a.packets.in == b.packets.in && a.packets.out == b.packets.out &&
           a.packets.sources == b.packets.sources &&
           a.packets.destinations == b.packets.destinations && a.packets.states == b.packets.states;
}

/// The kinds that rows are made of: of the rules, each list once, and of the services that they
/// name. What a rule has for several protocols is one list. Those of all packets tell none apart.
std::vector<KindList> kindListsOf(const Rules& rules, const FW::FWENVIRONMENT& environment,
                                  FW_FAMILY family) {
    std::vector<KindList> lists;
    const FW::FWRESOLVEDRULE* before = nullptr;
    for (const FW::FWRESOLVEDRULE& rule : rules) {
        if ((rule.packets.families & (1U << family)) == 0) {
            continue;
        }
        if (before == nullptr || !differInKindAlone(*before, rule)) {
            lists.emplace_back();
        }
        lists.back().push_back(kindOf(rule.packets));
        before = &rule;
    }
    for (const auto& [name, ports] : environment.services) {
        lists.emplace_back();
        for (const FW::FWPACKETSET& packets : FW::fwServicePackets(name, ports)) {
            lists.back().push_back(kindOf(packets));
        }
    }
    std::set<ListKey> seen;
    lists.erase(
        std::remove_if(lists.begin(), lists.end(),
                       [&seen](const KindList& list) {
                           const bool hasAll = std::any_of(list.begin(), list.end(), isEverything);
                           return list.empty() || hasAll || !seen.insert(keyOf(list)).second;
                       }),
        lists.end());
    return lists;
}

class RowMaker {
public:
    RowMaker(std::vector<KindList> lists, FW_FAMILY family)
        : lists_(std::move(lists)),
          icmp_(icmpOf(family)),
          otherIcmp_(icmpOf(family == FW::FW_FAMILY_V6 ? FW::FW_FAMILY_V4 : FW::FW_FAMILY_V6)) {}

    std::vector<RowSeed> rows() {
        Cuts protocols(255);
        protocols.add({{icmp_, icmp_},
                       {otherIcmp_, otherIcmp_},
                       {IPPROTO_TCP, IPPROTO_TCP},
                       {IPPROTO_UDP, IPPROTO_UDP}});
        for (const KindList& list : lists_) {
            for (const PacketKind& kind : list) {
                protocols.add(kind.protocols);
            }
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
                add({{interval}, {}, {}, {}}, {interval.first, 0, 0, 0});
            }
        }
        std::vector<RowSeed> rows;
        for (auto& [members, seed] : rows_) {
            seed.isRest = std::find(members.begin(), members.end(), true) == members.end();
            rows.push_back(std::move(seed));
        }
        return rows;
    }

private:
    static std::uint16_t icmpOf(FW_FAMILY family) {
        return static_cast<std::uint16_t>(family == FW::FW_FAMILY_V6 ? int(IPPROTO_ICMPV6)
                                                                     : int(IPPROTO_ICMP));
    }

    void addPorts(std::uint16_t protocol) {
        Cuts sources(kHighestPort);
        Cuts destinations(kHighestPort);
        for (const KindList& list : lists_) {
            for (const PacketKind& kind : list) {
                if (contains(kind.protocols, protocol)) {
                    sources.add(kind.sourcePorts);
                    destinations.add(kind.destinationPorts);
                }
            }
        }
        const FW::FWINTERVALS sourcePorts = sources.intervals();
        for (const FW::FWINTERVAL& source : sourcePorts) {
            for (const FW::FWINTERVAL& destination : destinations.intervals()) {
                PacketKind kind;
                kind.protocols = {{protocol, protocol}};
                if (sourcePorts.size() > 1) {
                    kind.sourcePorts = {source};
                }
                kind.destinationPorts = {destination};
                add(std::move(kind), {protocol, source.first, destination.first, 0});
            }
        }
    }

    void addTypes() {
        Cuts types(kHighestType);
        for (const KindList& list : lists_) {
            for (const PacketKind& kind : list) {
                if (contains(kind.protocols, icmp_)) {
                    types.add(kind.icmpTypes);
                }
            }
        }
        for (const FW::FWINTERVAL& type : types.intervals()) {
            add({{{kIcmpOfFamily, kIcmpOfFamily}}, {}, {}, {type}}, {icmp_, 0, 0, type.first});
        }
    }

    /// To the row of the packets that the same lists have.
    void add(PacketKind kind, const KindPoint& point) {
        const bool isIcmp = point.protocol == icmp_;
        std::vector<bool> members;
        members.reserve(lists_.size());
        for (const KindList& list : lists_) {
            members.push_back(std::any_of(list.begin(), list.end(), [&](const PacketKind& one) {
                return contains(one, point, isIcmp);
            }));
        }
        const auto [row, isNew] = rows_.try_emplace(std::move(members));
        std::vector<PacketKind>& kinds = row->second.row.kinds;
        if (isNew) {
            row->second.point = point;
        }
        for (PacketKind& known : kinds) {
            if (joins(known, kind)) {
                return;
            }
        }
        kinds.push_back(std::move(kind));
    }

    /// Adds a kind to one that differs only in destination ports or types, if it is one.
    static bool joins(PacketKind& known, const PacketKind& kind) {
        if (!areEqual(known.protocols, kind.protocols) ||
            !areEqual(known.sourcePorts, kind.sourcePorts)) {
            return false;
        }
        append(known.destinationPorts, kind.destinationPorts);
        append(known.icmpTypes, kind.icmpTypes);
        return true;
    }

    std::vector<KindList> lists_;
    std::uint16_t icmp_;
    std::uint16_t otherIcmp_;
    std::map<std::vector<bool>, RowSeed> rows_;
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
            append(found->sourcePorts, kind.sourcePorts);
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

}  // namespace

bool isSame(const FW::FWPLACE& a, const FW::FWPLACE& b) {
    return a.origin == b.origin && a.adapter == b.adapter && a.position == b.position;
}

std::vector<RowSeed> rowsOf(const Rules& rules, const Meaning& meaning, FW_FAMILY family,
                            const PacketWords& words) {
    std::vector<RowSeed> rows =
        RowMaker(kindListsOf(rules, meaning.environment(), family), family).rows();
    const PacketWords plain;
    for (RowSeed& seed : rows) {
        joinSources(seed.row.kinds);
        for (PacketKind& kind : seed.row.kinds) {
            leaveOutWhole(kind);
        }
        seed.row.ports = rowText(seed.row.kinds, plain);
        seed.row.text = !seed.isRest       ? rowText(seed.row.kinds, words)
                        : rows.size() == 1 ? "everything"
                                           : "everything else";
    }
    std::sort(rows.begin(), rows.end(), [](const RowSeed& a, const RowSeed& b) {
        const auto key = [](const RowSeed& seed) {
            const bool isService = seed.row.text.rfind("service ", 0) == 0;
            const bool isIcmp = seed.row.kinds.front().protocols.front().first == kIcmpOfFamily;
            return std::make_tuple(seed.isRest, !isService,
                                   isService ? seed.row.text : std::string(), !isIcmp,
                                   seed.point.protocol, seed.point.destinationPort,
                                   seed.point.sourcePort, seed.point.icmpType);
        };
        return key(a) < key(b);
    });
    return rows;
}

}  // namespace tarnfw
