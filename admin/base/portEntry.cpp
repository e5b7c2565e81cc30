#include "tarnfwadmin/portEntry.h"

#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr std::size_t kMostDigits = 5;

}  // namespace

bool covers(const PortSpan& outer, const PortSpan& inner) {
    return outer.first <= inner.first && inner.last <= outer.last;
}

std::optional<int> portFrom(const std::string& text) {
    const bool digits = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || text.size() > kMostDigits || (text.size() > 1 && text.front() == '0')) {
        return std::nullopt;
    }
    const int port = std::stoi(text);
    return port <= kHighestPort ? std::optional<int>(port) : std::nullopt;
}

std::optional<PortSpan> portEndsFrom(const std::string& text) {
    const std::size_t dash = text.find('-');
    const std::optional<int> first = portFrom(text.substr(0, dash));
    const std::optional<int> last =
        dash == std::string::npos ? first : portFrom(text.substr(dash + 1));
    return first && last ? std::optional(PortSpan{*first, *last}) : std::nullopt;
}

std::optional<PortSpan> portSpanFrom(const std::string& text) {
    const std::optional<PortSpan> ends = portEndsFrom(text);
    return ends && ends->first <= ends->last ? ends : std::nullopt;
}

std::string portSpanText(const PortSpan& span) {
    std::string text = std::to_string(span.first);
    if (span.last != span.first) {
        text.append("-").append(std::to_string(span.last));
    }
    return text;
}

std::string notAPort(const std::string& entry) {
    return inQuotes(entry) + " is not a port (0-65535) or a range of ports (6000-6010)";
}

std::string portEntryError(const std::string& entry) {
    if (portSpanFrom(entry)) {
        return "";
    }
    if (portEndsFrom(entry)) {
        return inQuotes(entry) + " is a range that runs backwards";
    }
    return notAPort(entry);
}

}  // namespace tarnfw
