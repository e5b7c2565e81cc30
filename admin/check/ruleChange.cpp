#include "tarnfwadmin/ruleChange.h"

#include <algorithm>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

void requireValidProfile(const FW::FWPROFILE& profile, Machine& machine) {
    const std::size_t errors = errorsOf(profile, machine);
    if (errors == 0) {
        return;
    }
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    const std::vector<Finding> findings = checkProfile(document, machine);
    const auto first = std::find_if(findings.begin(), findings.end(),
                                    [](const Finding& finding) { return finding.isError; });
    std::string text = lineOf("profile " + inQuotes(profile.name), *first);
    if (errors > 1) {
        text += " (and " + counted(errors - 1, "more error") + ")";
    }
    throw Error(ErrorKind::kInvalid, text, {"", first->path, first->rule});
}

RulePlace addRule(StoreSession& session, const std::string& profile, const std::string& adapter,
                  const FW::FWRULE& rule, Machine& machine) {
    FW::FWPROFILE changed = session.snapshot().profile(profile);
    requireAdapter(adapter, adaptersOf(changed));
    std::vector<FW::FWRULE>& rules = changed.rules[adapter];
    rules.push_back(rule);
    requireValidProfile(changed, machine);
    session.storeProfile(changed);
    return {adapter, rules.size()};
}

}  // namespace tarnfw
