/// The interface that routes IPv6 for another one, such as a 6in4 tunnel.
#pragma once

#include <string>

namespace FW {

/// The interface that routes IPv6 for `interface`, as the platform's tool tells; `interface` itself
/// when the tool does not tell, which is logged.
std::string routerInterface(const std::string& interface);

}  // namespace FW
