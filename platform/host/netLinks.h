/// The kernel's network links and their IPv4 addresses, read from rtnetlink.
///
/// sysfs and getifaddrs() are not enough: in a container sysfs may be missing or belong to another
/// network namespace, and getifaddrs() does not return the kind of a link.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <vector>

namespace host {

/// What the platform functions need to know about a link.
struct NetLink {
    int index = 0;
    std::string name;
    std::string kind;       ///< "veth", "ppp", "sit"; empty for a device with a driver of its own
    bool up = false;        ///< administratively
    bool loopback = false;  ///< the loopback link, whatever its name
    bool pointToPoint = false;  ///< carries PPP frames
    bool hasDevice = false;     ///< is hardware, physical or virtual

    int lowerIndex = 0;              ///< the link below; 0: none, or in another namespace
    std::uint32_t tunnelLocal = 0;   ///< IPv4 tunnels: local address in network order; 0: any
    std::uint8_t tunnelPayload = 0;  ///< IPv4 tunnels: carried protocol (41 is IPv6); 0: any
};

/// An IPv4 address of a link.
struct NetAddress {
    int linkIndex = 0;
    std::uint32_t address = 0;  ///< in network order
};

/// Read the calling process's network namespace; links are ordered by index.
/// 0, or a negative errno; the output is then as it was.
int readLinks(std::vector<NetLink>& links);
int readAddresses(std::vector<NetAddress>& addresses);

/// Sorts for a reader with room for only `capacity` links. If all fit, the order stays; otherwise
/// links with a device come first and virtual-ethernet ones, of which a host of containers has
/// many, last. The sort is stable.
void orderForCapacity(std::vector<NetLink>& links, std::size_t capacity);

/// Parses one message of a dump; false when it is not a link (not an IPv4 address). `hasDevice` is
/// not in the message and stays false.
bool parseLink(const nlmsghdr& message, NetLink& link);
bool parseAddress(const nlmsghdr& message, NetAddress& address);

}  // namespace host
