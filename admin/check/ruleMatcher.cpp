#include "check/ruleMatcher.h"

#include <algorithm>

namespace tarnfw {
namespace {

/// Sorts ranges and joins those that overlap or touch.
void merge(std::vector<PortSpan>& ranges) {
    std::sort(ranges.begin(), ranges.end(),
              [](const PortSpan& a, const PortSpan& b) { return a.first < b.first; });
    std::vector<PortSpan> merged;
    for (const PortSpan& range : ranges) {
        if (!merged.empty() && range.first <= merged.back().last + 1) {
            merged.back().last = std::max(merged.back().last, range.last);
        } else {
            merged.push_back(range);
        }
    }
    ranges = std::move(merged);
}

bool overlap(const std::vector<PortSpan>& some, const std::vector<PortSpan>& others) {
    return std::any_of(some.begin(), some.end(), [&](const PortSpan& one) {
        return std::any_of(others.begin(), others.end(), [&](const PortSpan& other) {
            return one.first <= other.last && other.first <= one.last;
        });
    });
}

bool overlap(const AddressRange& one, const AddressRange& other) {
    return !(one.last < other.first) && !(other.last < one.first);
}

/// Whether an address may match both; what cannot be compared may.
bool mayOverlap(const AddressMatch& one, const AddressMatch& other) {
    if (one.source != other.source || one.any() || other.any() || !one.masked.empty() ||
        !other.masked.empty()) {
        return true;
    }
    if (one.countries.empty() && other.countries.empty()) {
        return std::any_of(one.ranges.begin(), one.ranges.end(), [&](const AddressRange& range) {
            return std::any_of(other.ranges.begin(), other.ranges.end(),
                               [&](const AddressRange& second) { return overlap(range, second); });
        });
    }
    return one.countries.empty() || other.countries.empty() ||
           std::any_of(one.countries.begin(), one.countries.end(),
                       [&](const std::string& code) { return other.countries.count(code) > 0; });
}

bool isOutgoing(const RuleMatcher& matcher) {
    return matcher.rule.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT;
}

}  // namespace

// ---- Ports --------------------------------------------------------------------------------------

PortSet::PortSet(const std::vector<PortMatch>& matches) {
    for (const PortMatch& match : matches) {
        any_ = any_ || match.protocol.empty();
        if (match.ports) {
            ranges_[{match.protocol, match.source}].push_back(*match.ports);
        } else {
            protocols_.insert(match.protocol);
        }
    }
    for (auto& [side, ranges] : ranges_) {
        merge(ranges);
    }
}

bool PortSet::contains(const PortSet& other) const {
    if (any_ || other.any_) {
        return any_;
    }
    return std::includes(protocols_.begin(), protocols_.end(), other.protocols_.begin(),
                         other.protocols_.end()) &&
           std::all_of(other.ranges_.begin(), other.ranges_.end(), [this](const auto& entry) {
               return containsAll(entry.first, entry.second);
           });
}

bool PortSet::containsAll(const Side& side, const std::vector<PortSpan>& wanted) const {
    const auto own = ranges_.find(side);
    return own != ranges_.end() &&
           std::all_of(wanted.begin(), wanted.end(), [&own](const PortSpan& range) {
               return std::any_of(own->second.begin(), own->second.end(),
                                  [&range](const PortSpan& mine) { return covers(mine, range); });
           });
}

bool PortSet::hasProtocol(const std::string& protocol) const {
    return any_ || protocols_.count(protocol) > 0 ||
           std::any_of(ranges_.begin(), ranges_.end(),
                       [&](const auto& entry) { return entry.first.first == protocol; });
}

bool PortSet::overlaps(const PortSet& other) const {
    if (any_ || other.any_) {
        return !empty() && !other.empty();
    }
    if (std::any_of(protocols_.begin(), protocols_.end(),
                    [&](const std::string& protocol) { return other.hasProtocol(protocol); })) {
        return true;
    }
    return std::any_of(ranges_.begin(), ranges_.end(), [&](const auto& entry) {
        const auto& [protocol, source] = entry.first;
        const auto same = other.ranges_.find(entry.first);
        return other.protocols_.count(protocol) > 0 ||
               other.ranges_.count({protocol, !source}) > 0 ||
               (same != other.ranges_.end() && overlap(entry.second, same->second));
    });
}

// ---- Rules --------------------------------------------------------------------------------------

std::optional<RuleMatcher> matcherOf(const FW::FWRULE& rule, const RulePlace& place,
                                     Machine& machine) {
    const auto ports = hasLine(rule) ? portMatchesOf(rule, machine) : std::nullopt;
    if (!ports) {
        return std::nullopt;
    }
    RuleMatcher matcher{
        place,
        rule,
        place.adapter == FW::FW_ADAPTER_GLOBAL,
        PortSet(*ports),
        {addressMatchOf(rule, false, machine), addressMatchOf(rule, true, machine)}};
    const bool hasLines = !matcher.ports.empty() && (matcher.addresses[0] || matcher.addresses[1]);
    return hasLines ? std::optional(std::move(matcher)) : std::nullopt;
}

bool shadows(const RuleMatcher& first, const RuleMatcher& later) {
    const bool sameInterface = first.global || isOutgoing(first) == isOutgoing(later);
    if (!sameInterface || first.rule.table != later.rule.table) {
        return false;
    }
    const std::set<std::string>& chains = first.rule.chainList;
    if (!std::includes(chains.begin(), chains.end(), later.rule.chainList.begin(),
                       later.rule.chainList.end())) {
        return false;
    }
    for (std::size_t family = 0; family < later.addresses.size(); ++family) {
        const auto& wanted = later.addresses[family];
        const auto& own = first.addresses[family];
        if (wanted && (!own || !own->contains(*wanted))) {
            return false;
        }
    }
    return first.ports.contains(later.ports);
}

bool mayOverlap(const RuleMatcher& one, const RuleMatcher& other) {
    const bool inOneFamily = (one.addresses[0] && other.addresses[0] &&
                              mayOverlap(*one.addresses[0], *other.addresses[0])) ||
                             (one.addresses[1] && other.addresses[1] &&
                              mayOverlap(*one.addresses[1], *other.addresses[1]));
    return inOneFamily && one.ports.overlaps(other.ports);
}

}  // namespace tarnfw
