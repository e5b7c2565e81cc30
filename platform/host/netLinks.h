/// The kernel's network links and their IPv4 addresses, read from rtnetlink.
///
/// sysfs and getifaddrs() would not do: a container may show the first of another network namespace
/// or none, and the second leaves the kind of a link out.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <string>
#include <vector>

namespace host {

/// One link, as far as the platform functions look at it.
struct NetLink {
    int index = 0;
    std::string name;
    std::string kind;       ///< "veth", "ppp", "sit"; empty for a device with a driver of its own
    bool up = false;        ///< administratively
    bool loopback = false;  ///< `lo`, whatever it is called
    bool pointToPoint = false;  ///< carries PPP frames
    bool hasDevice = false;     ///< is a piece of hardware, or its like in a virtual machine

    int lowerIndex = 0;              ///< the link it runs over; 0: none, or in another namespace
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

/// Orders for a reader who may have room for `capacity` links only. When all fit the order stays;
/// otherwise links with a device come first and virtual-ethernet ones, of which a host of
/// containers has any number, last. Equals keep their order.
void orderForCapacity(std::vector<NetLink>& links, std::size_t capacity);

/// Takes one message of a dump apart: false when it is no link (no IPv4 address). `hasDevice` is
/// not in the message and stays false.
bool parseLink(const nlmsghdr& message, NetLink& link);
bool parseAddress(const nlmsghdr& message, NetAddress& address);

}  // namespace host
