#include "check/shadowCheck.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "tarnfirewall/fwDB.h"

#include "machine/ruleMatch.h"

namespace tarnfw {
namespace {

// ---- Ports --------------------------------------------------------------------------------------

/// The protocols and ports that a rule matches.
class PortSet {
public:
    explicit PortSet(const std::vector<PortMatch>& matches) {
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

    bool empty() const { return !any_ && protocols_.empty() && ranges_.empty(); }

    bool contains(const PortSet& other) const {
        if (any_ || other.any_) {
            return any_;
        }
        return std::includes(protocols_.begin(), protocols_.end(), other.protocols_.begin(),
                             other.protocols_.end()) &&
               std::all_of(other.ranges_.begin(), other.ranges_.end(), [this](const auto& entry) {
                   return containsAll(entry.first, entry.second);
               });
    }

private:
    /// Sorts ranges and joins those that overlap or touch.
    static void merge(std::vector<PortSpan>& ranges) {
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

    bool containsAll(const std::pair<std::string, bool>& side,
                     const std::vector<PortSpan>& wanted) const {
        const auto own = ranges_.find(side);
        return own != ranges_.end() &&
               std::all_of(wanted.begin(), wanted.end(), [&own](const PortSpan& range) {
                   return std::any_of(
                       own->second.begin(), own->second.end(),
                       [&range](const PortSpan& mine) { return covers(mine, range); });
               });
    }

    bool any_ = false;
    std::set<std::string> protocols_;                                       // "icmp", "47"
    std::map<std::pair<std::string, bool>, std::vector<PortSpan>> ranges_;  // by protocol and side
};

// ---- Rules --------------------------------------------------------------------------------------

/// A rule that yields lines, and what they match.
struct Matcher {
    RulePlace place;
    FW::FWRULE rule;
    bool global;  // in the list "global": its lines match any interface
    PortSet ports;
    std::array<std::optional<AddressMatch>, 2> addresses;  // IPv4, IPv6
};

bool shadows(const Matcher& first, const Matcher& later) {
    const bool sameInterface =
        first.global || (first.rule.adapterDirect != FW::FW_ADAPTER_DIRECT_OUT) ==
                            (later.rule.adapterDirect != FW::FW_ADAPTER_DIRECT_OUT);
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

/// The record of one rule's document; nothing if it cannot be converted.
std::optional<FW::FWRULE> recordOf(const Json::Value& rule) {
    Json::Value document;
    document[FW::FW_ADAPTER_GLOBAL].append(rule);
    std::map<std::string, std::vector<FW::FWRULE>> rules;
    try {
        FW::TARNFW_JSON_DB().jsonToRuleList(document, rules);
    } catch (const Json::Exception&) {
        return std::nullopt;
    }
    return rules[FW::FW_ADAPTER_GLOBAL].front();
}

class ShadowCheck {
public:
    ShadowCheck(const std::vector<Finding>& findings, Machine& machine) : machine_(machine) {
        for (const Finding& finding : findings) {
            if (finding.isError && finding.rule) {
                invalid_.insert(*finding.rule);
            }
        }
    }

    /// The rules of a list that yield lines.
    std::vector<Matcher> matchersOf(const Json::Value& list, const std::string& adapter) {
        std::vector<Matcher> matchers;
        for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
            const RulePlace place{adapter, i + 1};
            const auto rule = invalid_.count(place) > 0 ? std::nullopt : recordOf(list[i]);
            if (!rule || !hasLine(*rule)) {
                continue;
            }
            const auto ports = portMatchesOf(*rule, machine_);
            if (!ports) {
                continue;
            }
            Matcher matcher{
                place,
                *rule,
                adapter == FW::FW_ADAPTER_GLOBAL,
                PortSet(*ports),
                {addressMatchOf(*rule, false, machine_), addressMatchOf(*rule, true, machine_)}};
            const bool hasLines =
                !matcher.ports.empty() && (matcher.addresses[0] || matcher.addresses[1]);
            if (hasLines) {
                matchers.push_back(std::move(matcher));
            }
        }
        return matchers;
    }

    /// Adds a warning for each rule of `list` that is shadowed by a rule of `before` or by an
    /// earlier rule of `list`.
    void check(const std::vector<Matcher>& before, const std::vector<Matcher>& list) {
        for (auto later = list.begin(); later != list.end(); ++later) {
            const auto shadowsLater = [&later](const Matcher& first) {
                return shadows(first, *later);
            };
            const Matcher* found = nullptr;
            const auto global = std::find_if(before.begin(), before.end(), shadowsLater);
            if (global != before.end()) {
                found = &*global;
            } else {
                const auto own = std::find_if(list.begin(), later, shadowsLater);
                found = own != later ? &*own : nullptr;
            }
            if (found != nullptr) {
                findings_.shadowed(later->place, found->place);
            }
        }
    }

    std::vector<Finding> take() { return findings_.take(); }

private:
    Machine& machine_;
    std::set<RulePlace> invalid_;
    Findings findings_;
};

}  // namespace

std::vector<Finding> checkShadows(const Json::Value& document, const std::vector<Finding>& findings,
                                  Machine& machine) {
    if (!document.isObject() || !document["rules"].isObject()) {
        return {};
    }
    const Json::Value& rules = document["rules"];
    ShadowCheck check(findings, machine);
    std::vector<Matcher> global;
    for (const std::string& adapter : listsOf(rules.getMemberNames())) {
        std::vector<Matcher> matchers = check.matchersOf(rules[adapter], adapter);
        check.check(global, matchers);
        if (adapter == FW::FW_ADAPTER_GLOBAL) {
            global = std::move(matchers);
        }
    }
    return check.take();
}

}  // namespace tarnfw
