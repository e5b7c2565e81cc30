#include "tarnfwadmin/profileDocument.h"

#include <algorithm>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

void makeCode(Json::Value& policy) {
    for (const FW::FW_POLICY code : {FW::FW_POLICY_ALLOW, FW::FW_POLICY_DENY, FW::FW_POLICY_NONE}) {
        if (policy == policyText(code)) {
            policy = static_cast<Json::Int>(code);
            return;
        }
    }
}

}  // namespace

// A member that is missing stays missing: Json::Value's operator[] would add it, as null.
void makeStoredForm(Json::Value& document) {
    if (!document.isObject()) {
        return;
    }
    if (document.isMember("active") &&
        (document["active"].isBool() || document["active"].isNull())) {
        document.removeMember("active");
    }
    if (document.isMember("adapterPolicyMap") && document["adapterPolicyMap"].isObject()) {
        for (Json::Value& policy : document["adapterPolicyMap"]) {
            makeCode(policy);
        }
    }
    if (!document.isMember("rules") || !document["rules"].isObject()) {
        return;
    }
    for (Json::Value& list : document["rules"]) {
        if (!list.isArray()) {
            continue;
        }
        for (Json::Value& rule : list) {
            if (rule.isObject() && rule.isMember("policy")) {
                makeCode(rule["policy"]);
            }
        }
    }
}

ProfileDocument::ProfileDocument(const std::string& text) {
    Json::Value document;
    findings_ = parseDocument(text, document);
    for (Finding& finding : findings_) {
        finding.isError = true;  // also what the library would silently ignore
    }
    if (!valid()) {
        return;
    }
    if (!document.isObject()) {
        findings_.push_back({"a profile is a JSON object: { ... }"});
        return;
    }
    document_ = document;
    makeStoredForm(document_);
}

void ProfileDocument::requireName(const std::string& name, const std::string& advice) {
    if (valid() && document_.get("name", Json::Value()) != name) {
        findings_.push_back(
            {"must stay " + inQuotes(name) + "; " + advice, true, std::nullopt, "name"});
    }
}

void ProfileDocument::becomeNew(const std::string& name) {
    document_["name"] = name;
}

bool ProfileDocument::check(Machine& machine) {
    if (!valid()) {
        return false;
    }
    findings_ = checkProfile(document_, machine);
    std::stable_partition(findings_.begin(), findings_.end(),
                          [](const Finding& finding) { return finding.isError; });
    if (!valid()) {
        return false;
    }
    try {
        FW::TARNFW_JSON_DB().jsonToProfile(document_, profile_);
    } catch (const Json::Exception& error) {
        findings_.insert(findings_.begin(), {error.what()});
    }
    return valid();
}

}  // namespace tarnfw
