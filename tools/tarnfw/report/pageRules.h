/// The rules of a profile as a part of the report's page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include <json/json.h>

namespace tarnfw {

/// Whether a rule never takes effect, or has none.
bool isIdle(const Json::Value& rule);

/// A rule as a part of the page: where it is, and what the page says of it.
class RuleLinks {
public:
    explicit RuleLinks(const Json::Value& facts);

    /// Of an adapter's name nothing is left in it: it may have any letters.
    std::string idOf(const std::string& adapter, std::uint64_t position) const;

    /// Whether the page has the rule.
    bool has(const Json::Value& rule) const;

    /// "rule 3 of eth0".
    std::string link(const Json::Value& place) const;

    /// What it says.
    std::string text(const Json::Value& place) const;

private:
    using Place = std::pair<std::string, std::uint64_t>;  // adapter, position; 0: default policy

    std::map<std::string, std::size_t> numbers_;
    std::map<Place, std::string> texts_;
    std::set<Place> listed_;
};

/// Whether the machine has no interface for an adapter now.
bool isAbsent(const std::string& adapter, const Json::Value& facts);

/// A part for each adapter, as the packet filter tries them: "global" first, then the others in
/// byte order.
std::string allRules(const Json::Value& facts, const RuleLinks& links);

}  // namespace tarnfw
