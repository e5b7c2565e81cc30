/// Protocol and port matches, for ports that a rule lists and for those of services alike.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace FW {

// Both spellings of one protocol: a line takes that of its family.
inline constexpr char kIcmpV4[] = "-p icmp ";
inline constexpr char kIcmpV6[] = "-p icmpv6 ";

/// Appends the matches of a protocol (an FW_PORT_PROTOCOL code; others have none) and of ports
/// given as texts, "80" or "6000-6010": "-p tcp --dport 80", or "-p tcp -m multiport --dports
/// 80,6000:6010".
void appendPorts(std::int32_t protocol, bool sourceSide, const std::vector<std::string>& ports,
                 std::vector<std::string>& fragments);

}  // namespace FW
