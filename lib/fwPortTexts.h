/// The port entries of rules as they are in lines.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace FW {

/// How many entries of a rule's `portList` go into one line; more need further lines. A multiport
/// match takes 15 ports and counts a range twice, so seven entries always fit.
inline constexpr std::size_t kPortsPerLine = 7;

/// Whether a list of ports is one that needs no multiport match.
template <typename Entries>
bool isSinglePort(const Entries& entries) {
    return entries.size() == 1 && entries[0].find('-') == std::string::npos;
}

/// Appends a port entry in the syntax of iptables: "6000-6010" as "6000:6010", and "80-80" as "80".
inline void appendPort(std::string& text, const std::string& entry) {
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

}  // namespace FW
