/// Ports as rules have them: "80", "6000-6010".
#pragma once

#include <optional>
#include <string>
#include <utility>

namespace tarnfw {

/// Both ends of an entry, the same for a single port; nothing for what is no port (0-65535) or a
/// range that runs backwards. No leading zeros: iptables would read an octal number.
std::optional<std::pair<int, int>> portsFrom(const std::string& entry);

/// What is wrong with an entry: "\"99999\" is not a port (0-65535)"; empty when nothing is.
std::string portFault(const std::string& entry);

}  // namespace tarnfw
