#include "check/shadowCheck.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "tarnfirewall/fwDB.h"

#include "check/ruleMatcher.h"
#include "machine/ruleMatch.h"

namespace tarnfw {
namespace {

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
    std::vector<RuleMatcher> matchersOf(const Json::Value& list, const std::string& adapter) {
        std::vector<RuleMatcher> matchers;
        for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
            const RulePlace place{adapter, i + 1};
            const auto rule = invalid_.count(place) > 0 ? std::nullopt : recordOf(list[i]);
            if (!rule) {
                continue;
            }
            if (std::optional<RuleMatcher> matcher = matcherOf(*rule, place, machine_)) {
                matchers.push_back(std::move(*matcher));
            }
        }
        return matchers;
    }

    /// Adds a warning for each rule of `list` that is shadowed by a rule of `before` or by an
    /// earlier rule of `list`.
    void check(const std::vector<RuleMatcher>& before, const std::vector<RuleMatcher>& list) {
        for (auto later = list.begin(); later != list.end(); ++later) {
            const auto shadowsLater = [&later](const RuleMatcher& first) {
                return shadows(first, *later);
            };
            const RuleMatcher* found = nullptr;
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
    std::vector<RuleMatcher> global;
    for (const std::string& adapter : listsOf(rules.getMemberNames())) {
        std::vector<RuleMatcher> matchers = check.matchersOf(rules[adapter], adapter);
        check.check(global, matchers);
        if (adapter == FW::FW_ADAPTER_GLOBAL) {
            global = std::move(matchers);
        }
    }
    return check.take();
}

}  // namespace tarnfw
