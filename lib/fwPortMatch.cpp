#include "fwPortMatch.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tarnfirewall/fwTypes.h"

namespace FW {
namespace {

constexpr char kIgmp[] = "-p igmp ";

// A multiport match takes 15 ports and counts a range twice: seven entries always fit.
constexpr std::size_t kPortsPerMatch = 7;

/// Appends a port entry as iptables reads it: "6000-6010" as "6000:6010", and "80-80" as "80".
void appendPort(std::string& text, const std::string& entry) {
    const auto dash = entry.find('-');
    if (dash == std::string::npos) {
        text += entry;
        return;
    }
    if (entry.compare(0, dash, entry, dash + 1, std::string::npos) == 0) {
        text.append(entry, 0, dash);
        return;
    }
    const std::size_t start = text.size();
    text += entry;
    std::replace(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(), '-', ':');
}

/// Appends the matches of one protocol name ("tcp", "udp").
void appendPortMatches(const char* protocolName, bool sourceSide,
                       const std::vector<std::string>& ports, std::vector<std::string>& fragments) {
    std::string start = "-p ";
    start += protocolName;
    if (ports.size() == 1 && ports[0].find('-') == std::string::npos) {
        start += sourceSide ? " --sport " : " --dport ";
        start += ports[0];
        fragments.push_back(std::move(start));
        return;
    }
    start += sourceSide ? " -m multiport --sports " : " -m multiport --dports ";
    for (std::size_t first = 0; first < ports.size(); first += kPortsPerMatch) {
        const std::size_t end = std::min(first + kPortsPerMatch, ports.size());
        std::string& match = fragments.emplace_back(start);
        for (std::size_t i = first; i < end; ++i) {
            if (i > first) {
                match += ',';
            }
            appendPort(match, ports[i]);
        }
    }
}

}  // namespace

void appendPorts(std::int32_t protocol, bool sourceSide, const std::vector<std::string>& ports,
                 std::vector<std::string>& fragments) {
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
            fragments.emplace_back(kIcmpV4);
            fragments.emplace_back(kIcmpV6);
            break;
        case FW_PORT_PROTOCOL_IGMP:
            fragments.emplace_back(kIgmp);
            break;
        default:
            break;  // no protocol that rules know: no fragment and so no line
    }
}

}  // namespace FW
