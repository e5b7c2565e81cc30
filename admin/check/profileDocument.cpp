#include "tarnfwadmin/profileDocument.h"

#include <algorithm>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

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
}

void ProfileDocument::requireName(const std::string& name, const std::string& advice) {
    if (valid() && document_["name"] != name) {
        findings_.push_back(
            {"must stay " + inQuotes(name) + "; " + advice, true, std::nullopt, "name"});
    }
}

void ProfileDocument::becomeNew(const std::string& name) {
    document_["name"] = name;
    document_.removeMember("active");
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
