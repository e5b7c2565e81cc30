#include "tarnfwadmin/ruleChange.h"

#include <algorithm>
#include <iterator>
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
    const std::string text = textOf(*first) + "; profile " + inQuotes(profile.name) + " has " +
                             counted(errors, "error") + (errors == 1 ? "" : ", this is the first");
    throw Error(ErrorKind::kInvalid, text, {"", first->path, first->rule});
}

FW::FWPROFILE changeProfile(StoreSession& session, const std::string& profile,
                            const std::string& adapter,
                            const std::function<void(FW::FWPROFILE&)>& edit,
                            const std::function<void(const FW::FWPROFILE&)>& accept) {
    FW::FWPROFILE changed = session.snapshot().profile(profile);
    const std::vector<std::string> others = adaptersOf(changed);
    requireAdapterName(adapter, others);
    try {
        edit(changed);
    } catch (const Error& error) {
        if (error.kind() == ErrorKind::kNotFound) {
            requireAdapter(adapter, others);  // there is nothing of it: probably a misspelt name
        }
        throw;
    }
    accept(changed);
    session.storeProfile(changed);
    return changed;
}

RulePlace addRule(StoreSession& session, const std::string& profile, const std::string& adapter,
                  const FW::FWRULE& rule, Machine& machine) {
    const FW::FWPROFILE changed = changeProfile(
        session, profile, adapter,
        [&](FW::FWPROFILE& edited) { edited.rules[adapter].push_back(rule); },
        [&](const FW::FWPROFILE& edited) { requireValidProfile(edited, machine); });
    return {adapter, changed.rules.at(adapter).size()};
}

bool releaseService(FW::FWPROFILE& profile, const std::string& service, const std::string& adapter,
                    ReleaseFrom rules) {
    bool changed = false;
    for (auto list = profile.rules.begin(); list != profile.rules.end();) {
        bool fewer = false;
        for (auto rule = list->second.begin(); rule != list->second.end();) {
            std::vector<std::string>& names = rule->portList;
            const bool isMeant = (adapter.empty() || list->first == adapter) &&
                                 (rules == ReleaseFrom::kAll ? FW::fwRuleNamesServices(*rule)
                                                             : FW::fwRuleIsReserved(*rule)) &&
                                 std::find(names.begin(), names.end(), service) != names.end();
            if (isMeant) {
                names.erase(std::remove(names.begin(), names.end(), service), names.end());
                changed = true;
            }
            const bool isEmpty = isMeant && names.empty();
            fewer = fewer || isEmpty;
            rule = isEmpty ? list->second.erase(rule) : std::next(rule);
        }
        list = fewer && list->second.empty() ? profile.rules.erase(list) : std::next(list);
    }
    return changed;
}

}  // namespace tarnfw
