#include "fwPortMatch.h"

#include <algorithm>

#include "tarnfirewall/fwTypes.h"

namespace FW {
namespace {

constexpr char kIgmp[] = "-p igmp ";

// A multiport match takes 15 ports and counts a range twice: seven entries always fit.
constexpr std::size_t kPortsPerMatch = 7;

/// A port entry with its range, if it is one of a single port, taken together: "80-80" is "80".
std::string collapsedPort(const std::string& entry) {
    const auto dash = entry.find('-');
    if (dash != std::string::npos && entry.substr(0, dash) == entry.substr(dash + 1)) {
        return entry.substr(0, dash);
    }
    return entry;
}

/// Appends the matches of one protocol name ("tcp", "udp").
void appendPortMatches(const std::string& protocolName, bool sourceSide,
                       const std::vector<std::string>& ports, Json::Value& fragments) {
    const std::string start = "-p " + protocolName + " ";
    if (ports.size() == 1 && ports[0].find('-') == std::string::npos) {
        fragments.append(start + (sourceSide ? "--sport " : "--dport ") + ports[0]);
        return;
    }
    const std::string multiStart =
        start + "-m multiport " + (sourceSide ? "--sports " : "--dports ");
    for (std::size_t first = 0; first < ports.size(); first += kPortsPerMatch) {
        const std::size_t end = std::min(first + kPortsPerMatch, ports.size());
        std::string list;
        for (std::size_t i = first; i < end; ++i) {
            list += (i == first ? "" : ",") + collapsedPort(ports[i]);
        }
        std::replace(list.begin(), list.end(), '-', ':');
        fragments.append(multiStart + list);
    }
}

}  // namespace

void appendPorts(std::int32_t protocol, bool sourceSide, const std::vector<std::string>& ports,
                 Json::Value& fragments) {
    switch (protocol) {
        case FW_PORT_PROTOCOL_TCP:
            appendPortMatches("tcp", sourceSide, ports, fragments);
            break;
        case FW_PORT_PROTOCOL_UDP:
            appendPortMatches("udp", sourceSide, ports, fragments);
            break;
        case FW_PORT_PROTOCOL_TCP_UDP:
            appendPortMatches("tcp", sourceSide, ports, fragments);
            appendPortMatches("udp", sourceSide, ports, fragments);
            break;
        case FW_PORT_PROTOCOL_ICMP:
            // Both spellings: the assembly of the lines leaves out the other family's.
            fragments.append(kIcmpV4);
            fragments.append(kIcmpV6);
            break;
        case FW_PORT_PROTOCOL_IGMP:
            fragments.append(kIgmp);
            break;
        default:
            break;  // no protocol that rules know: no fragment and so no line
    }
}

}  // namespace FW
