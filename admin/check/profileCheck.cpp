#include "tarnfwadmin/profileCheck.h"

#include <algorithm>

#include "tarnfirewall/fwDB.h"

#include "check/meaningCheck.h"
#include "check/schemaCheck.h"
#include "check/shadowCheck.h"
#include "machine/machine.h"

namespace tarnfw {
namespace {

void append(std::vector<Finding>& all, std::vector<Finding> more) {
    all.insert(all.end(), more.begin(), more.end());
}

}  // namespace

std::vector<Finding> checkProfile(const Json::Value& document) {
    Machine machine;
    std::vector<Finding> findings = checkSchema(document, kProfileSchema);
    append(findings, checkMeaning(document, machine));
    append(findings, checkShadows(document, findings, machine));
    return findings;
}

std::size_t errorsOf(const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    // Without the rules that have no effect: to find them takes longest, and they are no errors.
    Machine machine;
    std::vector<Finding> findings = checkSchema(document, kProfileSchema);
    append(findings, checkMeaning(document, machine));
    return static_cast<std::size_t>(std::count_if(
        findings.begin(), findings.end(), [](const Finding& finding) { return finding.isError; }));
}

}  // namespace tarnfw
