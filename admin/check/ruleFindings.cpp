#include "tarnfwadmin/ruleFindings.h"

#include <json/json.h>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/profileCheck.h"

namespace tarnfw {
namespace {

/// The path that findings have for a rule.
std::string pathOf(const std::string& adapter, std::size_t position) {
    return elementPath(memberPath("rules", adapter), position - 1);
}

/// The text with paths of rules in words.
std::string inWords(std::string text, const FW::FWPROFILE& profile) {
    for (const auto& [adapter, rules] : profile.rules) {
        for (std::size_t position = 1; position <= rules.size(); ++position) {
            boost::replace_all(text, pathOf(adapter, position),
                               "rule " + std::to_string(position) + " of " + adapter);
        }
    }
    return text;
}

}  // namespace

std::vector<Finding> ruleFindings(const FW::FWPROFILE& profile, const std::string& adapter,
                                  std::size_t position) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    const std::string path = pathOf(adapter, position);
    std::vector<Finding> found;
    for (const Finding& finding : checkProfile(document)) {
        const bool concerns = boost::starts_with(finding.where, path) ||
                              boost::contains(finding.text, path) ||
                              finding.where == memberPath("rules", adapter);
        if (concerns) {
            found.push_back(
                {inWords(finding.where, profile), inWords(finding.text, profile), finding.isError});
        }
    }
    return found;
}

}  // namespace tarnfw
