/// Ports as rules (FWRULE::portList) and questions (PortCompareST::port) have them: "80",
/// "6000-6010". Nothing here throws.
#pragma once

#include <optional>
#include <string>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

inline constexpr int kHighestPort = 65535;

/// Ports, both ends included; by default all of them.
struct PortSpan {
    int first = 0;
    int last = kHighestPort;
};

/// Whether all of `inner` is in `outer`.
bool covers(const PortSpan& outer, const PortSpan& inner);

/// The number in "80": 0-65535, digits only. Nothing for any other text, also for one with leading
/// zeros, which iptables would read as an octal number.
std::optional<int> portFrom(const std::string& text);

/// The ports of "80" (both ends the same) or "6000-6010"; nothing for any other text. The ends stay
/// in the order of the text, also in a range that runs backwards.
std::optional<PortSpan> portEndsFrom(const std::string& text);

/// The same, but nothing for a range that runs backwards.
std::optional<PortSpan> portSpanFrom(const std::string& text);

/// "80" or "6000-6010": the text that portSpanFrom() reads.
std::string portSpanText(const PortSpan& span);

/// The text for an entry that is no port and no range of them, which begins with it:
/// "\"http\" is not a port (0-65535)".
std::string notAPort(const std::string& entry);

/// Why portSpanFrom() does not read an entry: as notAPort() says it. Empty for an
/// entry that it reads. Printable.
std::string portEntryError(const std::string& entry);

}  // namespace tarnfw
