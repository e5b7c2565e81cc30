/// Through which link do IPv6 packets of an interface travel?
#pragma once

#include <string>
#include <vector>

#include "netLinks.h"

namespace host {

/// The 6in4 tunnel (kind "sit") that runs over `interface`: one that is bound to it, otherwise one
/// whose local address is an address of it; of several the lowest index. A tunnel counts when it is
/// up and carries IPv6. Without one the answer is `interface`.
std::string ipv6RouterInterface(const std::string& interface, const std::vector<NetLink>& links,
                                const std::vector<NetAddress>& addresses);

}  // namespace host
