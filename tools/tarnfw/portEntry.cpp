#include "portEntry.h"

#include "finding.h"

namespace tarnfw {
namespace {

constexpr int kLastPort = 65535;
constexpr std::size_t kMostDigits = 5;

std::optional<int> portFrom(const std::string& text) {
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || text.size() > kMostDigits || (text.size() > 1 && text.front() == '0')) {
        return std::nullopt;
    }
    const int port = std::stoi(text);
    return port <= kLastPort ? std::optional<int>(port) : std::nullopt;
}

/// What stands before and behind the first '-'; twice the same without one.
std::pair<std::string, std::string> endsOf(const std::string& entry) {
    const std::size_t dash = entry.find('-');
    if (dash == std::string::npos) {
        return {entry, entry};
    }
    return {entry.substr(0, dash), entry.substr(dash + 1)};
}

}  // namespace

std::optional<std::pair<int, int>> portsFrom(const std::string& entry) {
    const auto [first, last] = endsOf(entry);
    const std::optional<int> low = portFrom(first);
    const std::optional<int> high = portFrom(last);
    if (!low || !high || *high < *low) {
        return std::nullopt;
    }
    return std::make_pair(*low, *high);
}

std::string portFault(const std::string& entry) {
    if (portsFrom(entry)) {
        return "";
    }
    const auto [first, last] = endsOf(entry);
    if (portFrom(first) && portFrom(last)) {
        return quoted(entry) + " is a range that runs backwards";
    }
    const bool range = entry.find('-') != std::string::npos;
    return quoted(entry) +
           (range ? " is not a range of ports (0-65535)" : " is not a port (0-65535)");
}

}  // namespace tarnfw
