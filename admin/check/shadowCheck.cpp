#include "check/shadowCheck.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"

namespace tarnfw {
namespace {

constexpr std::size_t kMostNamed = 4;  // covering rules

/// The profile of a document with the rules that have no error; the others are switched off, so
/// that each keeps its position.
FW::FWPROFILE profileOf(const Json::Value& document, const std::set<RulePlace>& invalid) {
    FW::FWPROFILE profile;
    Json::Value policies = Json::objectValue;
    policies["name"] = "";
    policies["adapterPolicyMap"] = document["adapterPolicyMap"];
    policies["rules"] = Json::Value();
    try {
        FW::TARNFW_JSON_DB().jsonToProfile(policies, profile);
    } catch (const Json::Exception&) {
        profile.adapterPolicyMap.clear();
    }
    FW::FWRULE off;
    off.enable = false;
    for (const std::string& adapter : document["rules"].getMemberNames()) {
        const Json::Value& list = document["rules"][adapter];
        for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
            std::map<std::string, std::vector<FW::FWRULE>> one;
            Json::Value alone;
            alone[adapter].append(list[i]);
            try {
                if (invalid.count({adapter, i + std::size_t(1)}) == 0) {
                    FW::TARNFW_JSON_DB().jsonToRuleList(alone, one);
                }
            } catch (const Json::Exception&) {
                one.clear();
            }
            profile.rules[adapter].push_back(one[adapter].empty() ? off : one[adapter].front());
        }
    }
    return profile;
}

std::string textOf(const FW::FWSHADOW& shadow) {
    const std::string names = placesText(shadow.by, kMostNamed);
    const bool several = shadow.by.size() > 1;
    if (shadow.neverDecides) {
        return "never takes effect: shadowed by " + names + (several ? " together" : "");
    }
    if (shadow.by.empty()) {
        return "has no effect: no rule and no default policy denies these packets";
    }
    return "has no effect: " + names + (several ? " do the same" : " does the same");
}

class ShadowCheck {
public:
    ShadowCheck(const std::vector<Finding>& findings, NeedlessRules needless, Machine& machine)
        : machine_(machine), isComplete_(needless == NeedlessRules::kFound) {
        for (const Finding& finding : findings) {
            isComplete_ = isComplete_ && !finding.isError;
            if (finding.rule) {
                known_.insert(*finding.rule);
                if (finding.isError) {
                    invalid_.insert(*finding.rule);
                }
            }
        }
    }

    std::vector<Finding> check(const Json::Value& document) {
        const FW::FWPROFILE profile = profileOf(document, invalid_);
        const Meaning meaning(profile, machine_);
        for (const FW::FWFINDING& finding : meaning.findings()) {
            if (const auto place = rulePlaceOf(finding.place)) {
                leftOut_.insert(*place);
            }
            add(finding);
        }
        const FW::FWSHADOWS shadows = meaning.answers().shadows();
        for (FW::FWSHADOW shadow : shadows.shadows) {
            leaveOutFixed(shadow.by);
            const auto place = rulePlaceOf(shadow.place);
            if (place && leftOut_.count(*place) == 0 && isReported(shadow, *place, profile)) {
                Finding& found = found_.emplace_back();
                found.text = textOf(shadow);
                found.isError = false;
                found.rule = place;
                for (const FW::FWPLACE& by : shadow.by) {
                    if (const auto rule = rulePlaceOf(by); rule && shadow.neverDecides) {
                        found.shadowedBy.push_back(*rule);
                    }
                }
            }
        }
        for (const FW::FWFINDING& finding : shadows.findings) {
            add(finding);
        }
        return std::move(found_);
    }

private:
    /// Nobody asks why packets of the machine to itself are not decided about, and that "lo" is
    /// never filtered is another finding.
    static void leaveOutFixed(std::vector<FW::FWPLACE>& places) {
        places.erase(std::remove_if(
                         places.begin(), places.end(),
                         [](const FW::FWPLACE& place) { return !rulePlaceOf(place).has_value(); }),
                     places.end());
    }

    /// A finding about a rule of which nothing is known yet, or that no other check finds.
    void add(const FW::FWFINDING& finding) {
        const auto place = rulePlaceOf(finding.place);
        if (finding.kind == FW::FW_FINDING_NOT_RUN) {
            found_.push_back({finding.text + ": no reload succeeds", /*isError=*/true, place});
        } else if (!place || known_.count(*place) == 0) {
            found_.push_back({"is not compared with other rules: " + finding.text,
                              /*isError=*/false, place});
        }
    }

    /// Rules that the library maintains are there to stay, and without those that are invalid it is
    /// not certain what others do.
    bool isReported(const FW::FWSHADOW& shadow, const RulePlace& place,
                    const FW::FWPROFILE& profile) const {
        const FW::FWRULE& rule = profile.rules.at(place.adapter).at(place.position - 1);
        return shadow.neverDecides ? !shadow.by.empty()
                                   : isComplete_ && !FW::fwRuleIsReserved(rule);
    }

    Machine& machine_;
    bool isComplete_;              // needless rules are wanted and can be told
    std::set<RulePlace> known_;    // with findings
    std::set<RulePlace> invalid_;  // with errors
    std::set<RulePlace> leftOut_;  // with findings of the engine
    std::vector<Finding> found_;
};

}  // namespace

std::vector<Finding> checkShadows(const Json::Value& document, const std::vector<Finding>& findings,
                                  NeedlessRules needless, Machine& machine) {
    if (!document.isObject() || !document["rules"].isObject()) {
        return {};
    }
    try {
        return ShadowCheck(findings, needless, machine).check(document);
    } catch (const Error&) {
        return {};  // what the platform cannot answer is another check's finding, or in the log
    }
}

}  // namespace tarnfw
