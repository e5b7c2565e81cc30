#include "decide/kindWords.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <utility>

#include <netinet/in.h>

#include "decide/listWords.h"
#include "fwIntervals.h"

namespace tarnfw {
namespace {

using FW::Interval;
using FW::Intervals;
using FW::Number;

enum Side : std::size_t { kDestination, kSource };

constexpr std::size_t kProtocols = kIcmpOfFamily + std::size_t(1);
constexpr Number kHighestPortNumber = 65535;
constexpr Number kHighestType = 255;

bool isIcmp(std::size_t protocol) {
    return protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6 || protocol == kIcmpOfFamily;
}

Number highestOf(std::size_t protocol) {
    return isIcmp(protocol) ? kHighestType : kHighestPortNumber;
}

Intervals numbersOf(const FW::FWINTERVALS& intervals) {
    Intervals numbers;
    for (const FW::FWINTERVAL& one : intervals) {
        numbers.push_back({one.first, one.last});
    }
    return numbers;
}

// What people look for first: how to reach the machine.
constexpr std::array<const char*, 6> kSoughtServices = {"ssh",    "http", "https",
                                                        "telnet", "rdp",  "vnc"};
constexpr std::array<Number, 3> kSoughtPorts = {22, 80, 443};

std::size_t rankOf(const std::string& service) {
    const auto* const found = std::find(kSoughtServices.begin(), kSoughtServices.end(), service);
    return static_cast<std::size_t>(std::distance(kSoughtServices.begin(), found));
}

std::size_t rankOf(const Interval& ports) {
    const auto* const found = std::find_if(
        kSoughtPorts.begin(), kSoughtPorts.end(),
        [&ports](const Number port) { return ports.first <= port && port <= ports.last; });
    return static_cast<std::size_t>(std::distance(kSoughtPorts.begin(), found));
}

/// The entries, those that are sought first where not all of them will be named.
template <typename Entries>
Entries soughtFirst(Entries entries, std::size_t most) {
    if (entries.size() > most + 1) {
        std::stable_sort(entries.begin(), entries.end(),
                         [](const auto& a, const auto& b) { return rankOf(a) < rankOf(b); });
    }
    return entries;
}

/// "a,b", "a,b and 7 more".
std::string entriesText(Texts texts, std::size_t most) {
    const bool isLong = texts.size() > most + 1;
    texts = shortened(std::move(texts), most);
    if (!isLong) {
        return joined(texts, ",");
    }
    const std::string others = texts.back();
    texts.pop_back();
    return joined(texts, ",") + " and " + others;
}

/// "22,6000-6010".
std::string numbersText(const Intervals& numbers, std::size_t most) {
    Texts texts;
    for (const Interval& one : numbers) {
        const std::string first = std::to_string(static_cast<unsigned>(one.first));
        texts.push_back(one.first == one.last
                            ? first
                            : first + "-" + std::to_string(static_cast<unsigned>(one.last)));
    }
    return entriesText(std::move(texts), most);
}

std::string destinationPortsText(const Intervals& ports, std::size_t most) {
    return numbersText(soughtFirst(ports, most), most);
}

/// By protocol: the ports of one side, with any port on the other; of ICMP the types. All of them
/// for any packet of the protocol.
using PortTable = std::vector<Intervals>;

/// Kinds of packets, by what is easy to say.
struct KindTable {
    std::array<PortTable, 2> sides{PortTable(kProtocols), PortTable(kProtocols)};
    std::vector<PacketKind> others;  ///< with ports of both sides

    bool isAll(std::size_t protocol) const {
        const Intervals& ports = sides[kDestination][protocol];
        return ports.size() == 1 && ports[0].first == 0 && ports[0].last == highestOf(protocol);
    }

    bool hasSources() const {
        return std::any_of(sides[kSource].begin(), sides[kSource].end(),
                           [](const Intervals& ports) { return !ports.empty(); });
    }

    std::size_t size() const {
        std::size_t count = others.size();
        for (const PortTable& side : sides) {
            for (const Intervals& ports : side) {
                count += ports.size();
            }
        }
        return count;
    }
};

KindTable tableOf(const std::vector<PacketKind>& kinds) {
    KindTable table;
    for (const PacketKind& kind : kinds) {
        if (!kind.sourcePorts.empty() && !kind.destinationPorts.empty()) {
            table.others.push_back(kind);
            continue;
        }
        FW::FWINTERVALS protocols = kind.protocols;
        if (protocols.empty()) {
            protocols = {{0, kIcmpOfFamily}};
        }
        const Side side = kind.sourcePorts.empty() ? kDestination : kSource;
        for (const FW::FWINTERVAL& interval : protocols) {
            for (std::size_t protocol = interval.first; protocol <= interval.last; ++protocol) {
                Intervals ports = numbersOf(isIcmp(protocol)  ? kind.icmpTypes
                                            : side == kSource ? kind.sourcePorts
                                                              : kind.destinationPorts);
                if (ports.empty()) {
                    ports = {{0, highestOf(protocol)}};
                }
                Intervals& known = table.sides[side][protocol];
                known = FW::united(known, ports);
            }
        }
    }
    return table;
}

/// Whether the table has a protocol number in which ICMP of the other family would be, alone.
bool isOddIcmp(const KindTable& table, std::size_t protocol) {
    return (protocol == IPPROTO_ICMP || protocol == IPPROTO_ICMPV6) && table.isAll(kIcmpOfFamily);
}

std::string protocolName(std::size_t protocol) {
    switch (protocol) {
        case IPPROTO_TCP:
            return "tcp";
        case IPPROTO_UDP:
            return "udp";
        case IPPROTO_IGMP:
            return "igmp";
        case kIcmpOfFamily:
            return "icmp";
        case IPPROTO_ICMP:
            return "icmp in IPv6";
        case IPPROTO_ICMPV6:
            return "icmpv6 in IPv4";
        default:
            return "";
    }
}

/// The table without the ports of a service; nothing if it does not have them all.
std::optional<KindTable> without(const KindTable& table, const KindTable& service) {
    KindTable rest = table;
    for (const Side side : {kDestination, kSource}) {
        for (std::size_t protocol = 0; protocol < kProtocols; ++protocol) {
            const Intervals& ports = service.sides[side][protocol];
            Intervals& left = rest.sides[side][protocol];
            if (!FW::includes(left, ports)) {
                return std::nullopt;
            }
            left = FW::without(left, ports);
        }
    }
    return rest;
}

/// Takes the ports of services out of a table and names these.
Texts takeServices(KindTable& table, const std::vector<NamedService>& services) {
    // Of ports that touch those of others, services are named only where none is left over: "22" is
    // no exception in "1-1024", but "21-22" is two services.
    Texts names;
    KindTable touching = table;
    Texts touchingNames;
    for (const NamedService& service : services) {
        const KindTable own = tableOf(service.kinds);
        if (const auto rest = without(table, own); rest && rest->size() < table.size()) {
            table = *rest;
            names.push_back(service.name);
        }
        if (const auto rest = without(touching, own);
            rest && own.size() > 0 && rest->size() <= touching.size()) {
            touching = *rest;
            touchingNames.push_back(service.name);
        }
    }
    if (touching.size() < table.size()) {
        table = std::move(touching);
        return touchingNames;
    }
    return names;
}

/// Appends texts for protocols with the ports of one side.
void appendProtocols(const PortTable& ports, Side side, std::size_t most, Texts& texts) {
    const Intervals& tcp = ports[IPPROTO_TCP];
    const Intervals& udp = ports[IPPROTO_UDP];
    const bool same = !tcp.empty() && tcp == udp;
    const auto append = [&](const std::string& name, const Intervals& list) {
        if (list.empty()) {
            return;
        }
        const bool all = list.front().first == 0 && list.front().last == kHighestPortNumber;
        if (all) {
            texts.push_back(name);
        } else if (side == kSource) {
            texts.push_back(name + " from source port " + numbersText(list, most));
        } else {
            texts.push_back(name + " " + destinationPortsText(list, most));
        }
    };
    if (same) {
        append("tcp/udp", tcp);
    } else {
        append("tcp", tcp);
        append("udp", udp);
    }
    Intervals numbers;
    for (std::size_t protocol = 0; protocol < kProtocols; ++protocol) {
        if (ports[protocol].empty() || protocol == IPPROTO_TCP || protocol == IPPROTO_UDP) {
            continue;
        }
        const std::string name = protocolName(protocol);
        const Interval& first = ports[protocol].front();
        const bool all = first.first == 0 && first.last == highestOf(protocol);
        if (name.empty()) {
            numbers.push_back({protocol, protocol});
        } else {
            texts.push_back(all ? name : name + " type " + numbersText(ports[protocol], most));
        }
    }
    if (!numbers.empty()) {
        FW::normalize(numbers);
        const bool one = numbers.size() == 1 && numbers[0].first == numbers[0].last;
        texts.push_back((one ? "protocol " : "protocols ") + numbersText(numbers, most));
    }
}

std::string plainKindsText(KindTable table, const std::vector<NamedService>& services,
                           std::size_t most) {
    Texts texts = takeServices(table, services);
    if (!texts.empty()) {
        texts = {"service " + entriesText(soughtFirst(std::move(texts), most), most)};
    }
    for (const Side side : {kDestination, kSource}) {
        appendProtocols(table.sides[side], side, most, texts);
    }
    for (const PacketKind& kind : table.others) {
        Texts protocols;
        for (const FW::FWINTERVAL& interval : kind.protocols) {
            for (std::size_t number = interval.first; number <= interval.last; ++number) {
                protocols.push_back(protocolName(number));
            }
        }
        texts.push_back(joined(protocols, "/") + " " +
                        destinationPortsText(numbersOf(kind.destinationPorts), most) +
                        " from source port " + numbersText(numbersOf(kind.sourcePorts), most));
    }
    return joinedShort(std::move(texts), most);
}

}  // namespace

bool includesKinds(const std::vector<PacketKind>& all, const std::vector<PacketKind>& some) {
    const KindTable wanted = tableOf(some);
    return wanted.others.empty() && without(tableOf(all), wanted);
}

bool isSameKinds(const std::vector<PacketKind>& one, const std::vector<PacketKind>& other) {
    return includesKinds(one, other) && includesKinds(other, one) && tableOf(one).others.empty();
}

std::string kindsText(const std::vector<PacketKind>& kinds,
                      const std::vector<NamedService>& services, std::size_t most) {
    const KindTable table = tableOf(kinds);
    if (!table.others.empty() || table.hasSources()) {
        return plainKindsText(table, services, most);
    }
    KindTable others;
    for (std::size_t protocol = 0; protocol < kProtocols; ++protocol) {
        if (!isOddIcmp(table, protocol)) {
            others.sides[kDestination][protocol] =
                FW::without({{0, highestOf(protocol)}}, table.sides[kDestination][protocol]);
        }
    }
    if (!table.isAll(kIcmpOfFamily)) {
        // Both numbers of ICMP are missing with it.
        others.sides[kDestination][IPPROTO_ICMP].clear();
        others.sides[kDestination][IPPROTO_ICMPV6].clear();
    }
    if (others.size() == 0) {
        return "everything";
    }
    return others.size() < table.size()
               ? "everything except " + plainKindsText(others, services, most)
               : plainKindsText(table, services, most);
}

}  // namespace tarnfw
