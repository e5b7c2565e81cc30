/// Small text helpers for several sources.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace FW {

using Texts = std::vector<std::string>;

inline bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

inline bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

/// Whether a text begins with an IPv4 address: "10.0.0.5", "10.0.0.0/24", and "10/8" as iptables
/// reads it. No address of IPv6 and no name consists of digits and dots alone.
inline bool beginsWithIpv4(const std::string& text) {
    const std::string address = text.substr(0, text.find_first_of("/,"));
    return !address.empty() && address.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace FW
