/// Ports as rules and questions have them: "80", "6000-6010".
#pragma once

#include <optional>
#include <string>

namespace tarnfw {

inline constexpr int kHighestPort = 65535;

/// Ports, both ends included.
struct PortSpan {
    int first = 0;
    int last = kHighestPort;
};

/// Whether all of `inner` is in `outer`.
bool covers(const PortSpan& outer, const PortSpan& inner);

/// "80"; nothing for what is no port. No leading zeros: iptables would read an octal number.
std::optional<int> portFrom(const std::string& text);

/// "80" or "6000-6010"; nothing for what is no port. A range that runs backwards stays so.
std::optional<PortSpan> portEndsFrom(const std::string& text);

/// The same, and nothing for a range that runs backwards.
std::optional<PortSpan> portSpanFrom(const std::string& text);

/// "80" or "6000-6010".
std::string portSpanText(const PortSpan& span);

/// What is wrong with an entry: "\"99999\" is not a port (0-65535)"; empty when nothing is.
std::string portFault(const std::string& entry);

}  // namespace tarnfw
