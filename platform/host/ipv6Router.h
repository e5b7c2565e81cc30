/// Finds the link that carries the IPv6 packets of an interface.
#pragma once

#include <string>
#include <vector>

#include "netLinks.h"

namespace host {

/// The 6in4 tunnel (kind "sit") that runs over `interface`: one that is bound to it, otherwise one
/// whose local address belongs to it; of several the one with the lowest index. A tunnel counts if
/// it is up and carries IPv6. Without one, the result is `interface`.
std::string ipv6RouterInterface(const std::string& interface, const std::vector<NetLink>& links,
                                const std::vector<NetAddress>& addresses);

}  // namespace host
