#include "tarnfwadmin/profileCheck.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <set>

#include "tarnfirewall/fwDB.h"

#include "check/meaningCheck.h"
#include "check/schemaCheck.h"
#include "check/shadowCheck.h"

namespace tarnfw {
namespace {

constexpr std::size_t kPortion = 100;  // rules

void append(std::vector<Finding>& all, std::vector<Finding> more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

Json::Value documentOf(const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    return document;
}

/// The profile with only one of an adapter's rules that have the same codes. In a document made
/// from a record all members have the right types, so the codes are all that the schema constrains.
FW::FWPROFILE withOneRuleOfEachKind(const FW::FWPROFILE& profile) {
    FW::FWPROFILE examples;
    examples.name = profile.name;
    examples.adapterPolicyMap = profile.adapterPolicyMap;
    for (const auto& [adapter, rules] : profile.rules) {
        std::set<std::array<std::int32_t, 8>> seen;
        for (const FW::FWRULE& rule : rules) {
            const bool isNew =
                seen.insert({rule.adapterDirect, rule.protocol,
                             static_cast<std::int32_t>(rule.policy), rule.ipType, rule.ipDirect,
                             rule.ipGroup, rule.portDirect, rule.portGroup})
                    .second;
            if (isNew) {
                examples.rules[adapter].push_back(rule);
            }
        }
    }
    return examples;
}

enum class About { kProfile, kRules };

std::size_t countErrorsAbout(std::vector<Finding> findings, About about) {
    findings.erase(std::remove_if(findings.begin(), findings.end(),
                                  [&](const Finding& finding) {
                                      return finding.rule.has_value() != (about == About::kRules);
                                  }),
                   findings.end());
    return countErrors(findings);
}

/// How many errors the meaning of the rules has. In portions: the document of thousands of rules
/// takes tens of megabytes.
std::size_t errorsInRules(const FW::FWPROFILE& profile, Machine& machine) {
    std::size_t errors = 0;
    for (const auto& [adapter, rules] : profile.rules) {
        for (std::size_t first = 0; first < rules.size(); first += kPortion) {
            const std::size_t last = std::min(first + kPortion, rules.size());
            FW::FWPROFILE portion;
            portion.rules[adapter].assign(rules.begin() + static_cast<std::ptrdiff_t>(first),
                                          rules.begin() + static_cast<std::ptrdiff_t>(last));
            errors += countErrorsAbout(checkMeaning(documentOf(portion), machine), About::kRules);
        }
    }
    return errors;
}

/// The findings about the shape are given.
std::vector<Finding> checkedBeyondShape(const Json::Value& document, std::vector<Finding> findings,
                                        Machine& machine, NeedlessRules needless) {
    append(findings, checkMeaning(document, machine));
    append(findings, checkShadows(document, findings, needless, machine));
    return findings;
}

}  // namespace

std::vector<Finding> checkProfile(const Json::Value& document, Machine& machine,
                                  NeedlessRules needless) {
    return checkedBeyondShape(document, checkSchema(document, kProfileSchema), machine, needless);
}

std::size_t errorsOf(const FW::FWPROFILE& profile, Machine& machine) {
    const Json::Value examples = documentOf(withOneRuleOfEachKind(profile));
    // The schema check takes nine tenths of the time, and most rules have the same codes.
    if (!checkSchema(examples, kProfileSchema).empty()) {
        const Json::Value document = documentOf(profile);
        return countErrors(checkSchema(document, kProfileSchema)) +
               countErrors(checkMeaning(document, machine));
    }
    return errorsInRules(profile, machine) +
           countErrorsAbout(checkMeaning(examples, machine), About::kProfile);
}

std::vector<Finding> ruleFindings(const FW::FWPROFILE& profile,
                                  const std::vector<RulePlace>& places, Machine& machine) {
    const Json::Value document = documentOf(profile);
    const Json::Value examples = documentOf(withOneRuleOfEachKind(profile));
    std::vector<Finding> shape;
    if (!checkSchema(examples, kProfileSchema).empty()) {  // else that of all is right
        shape = checkSchema(document, kProfileSchema);
    }
    std::vector<Finding> found =
        checkedBeyondShape(document, std::move(shape), machine, NeedlessRules::kLeftOut);
    const auto concerns = [](const Finding& finding, const RulePlace& place) {
        const std::vector<RulePlace>& shadows = finding.shadowedBy;
        return finding.rule == place ||
               std::find(shadows.begin(), shadows.end(), place) != shadows.end() ||
               (!finding.rule && finding.path == memberPath("rules", place.adapter));
    };
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const Finding& finding) {
                                   return std::none_of(places.begin(), places.end(),
                                                       [&](const RulePlace& place) {
                                                           return concerns(finding, place);
                                                       });
                               }),
                found.end());
    return found;
}

}  // namespace tarnfw
