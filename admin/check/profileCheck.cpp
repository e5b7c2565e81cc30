#include "tarnfwadmin/profileCheck.h"

#include <algorithm>
#include <iterator>

#include "tarnfirewall/fwDB.h"

#include "check/meaningCheck.h"
#include "check/schemaCheck.h"
#include "check/shadowCheck.h"
#include "machine/machine.h"

namespace tarnfw {
namespace {

void append(std::vector<Finding>& all, std::vector<Finding> more) {
    all.insert(all.end(), std::make_move_iterator(more.begin()),
               std::make_move_iterator(more.end()));
}

Json::Value documentOf(const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    return document;
}

/// All but the rules that never take effect: finding those takes longest.
std::vector<Finding> checkShapeAndMeaning(const Json::Value& document, Machine& machine) {
    std::vector<Finding> findings = checkSchema(document, kProfileSchema);
    append(findings, checkMeaning(document, machine));
    return findings;
}

}  // namespace

std::vector<Finding> checkProfile(const Json::Value& document) {
    Machine machine;
    std::vector<Finding> findings = checkShapeAndMeaning(document, machine);
    append(findings, checkShadows(document, findings, machine));
    return findings;
}

std::size_t errorsOf(const FW::FWPROFILE& profile) {
    Machine machine;
    return countErrors(checkShapeAndMeaning(documentOf(profile), machine));
}

std::vector<Finding> ruleFindings(const FW::FWPROFILE& profile,
                                  const std::vector<RulePlace>& places) {
    std::vector<Finding> found = checkProfile(documentOf(profile));
    const auto concerns = [](const Finding& finding, const RulePlace& place) {
        return finding.rule == place || finding.shadowedBy == place ||
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
