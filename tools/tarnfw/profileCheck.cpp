#include "profileCheck.h"

#include "machine.h"
#include "meaningCheck.h"
#include "schemaCheck.h"
#include "shadowCheck.h"

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

}  // namespace tarnfw
