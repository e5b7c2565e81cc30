/// Comparison of what two rules match, for the search for shadowed rules.
#pragma once

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "machine/ruleMatch.h"
#include "tarnfwadmin/place.h"

namespace tarnfw {

/// The protocols and ports that a rule matches.
class PortSet {
public:
    explicit PortSet(const std::vector<PortMatch>& matches);

    bool empty() const { return !any_ && protocols_.empty() && ranges_.empty(); }
    bool contains(const PortSet& other) const;

    /// Whether a packet may match both. Ports of the sender and ports of the receiver do not
    /// exclude each other.
    bool overlaps(const PortSet& other) const;

private:
    using Side = std::pair<std::string, bool>;  // protocol; whether the ports are the sender's

    bool containsAll(const Side& side, const std::vector<PortSpan>& wanted) const;
    bool hasProtocol(const std::string& protocol) const;

    bool any_ = false;
    std::set<std::string> protocols_;  // "icmp", "47": whole ones
    std::map<Side, std::vector<PortSpan>> ranges_;
};

/// A rule that yields lines, and what they match.
struct RuleMatcher {
    RulePlace place;
    FW::FWRULE rule;
    bool global;  ///< in the list "global": its lines match any interface
    PortSet ports;
    std::array<std::optional<AddressMatch>, 2> addresses;  ///< IPv4, IPv6
};

/// Nothing for a rule without lines.
std::optional<RuleMatcher> matcherOf(const FW::FWRULE& rule, const RulePlace& place,
                                     Machine& machine);

/// Whether `first` matches every packet that `later` does.
bool shadows(const RuleMatcher& first, const RuleMatcher& later);

/// Whether a packet may match both. Of two adapters, which no packet meets at the same time, the
/// caller knows.
bool mayOverlap(const RuleMatcher& one, const RuleMatcher& other);

}  // namespace tarnfw
