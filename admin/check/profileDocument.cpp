#include "tarnfwadmin/profileDocument.h"

#include <iostream>
#include <utility>

#include "tarnfirewall/fwDB.h"

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

ProfileDocument::ProfileDocument(const std::string& text, std::string label)
    : label_(std::move(label)) {
    Json::Value document;
    for (Finding& finding : parseDocument(text, document)) {
        finding.isError = true;  // also what the library would silently drop
        problems_.push_back(lineOf(label_, finding));
    }
    if (!problems_.empty()) {
        return;
    }
    if (!document.isObject()) {
        addProblem("a profile is a JSON object: { ... }");
        return;
    }
    document_ = document;
}

void ProfileDocument::requireName(const std::string& name) {
    if (problems_.empty() && document_["name"] != name) {
        addProblem("name: must stay \"" + name + "\"; \"tarnfw profile rename\" changes it");
    }
}

void ProfileDocument::becomeNew(const std::string& name) {
    document_["name"] = name;
    document_.removeMember("active");
}

bool ProfileDocument::check() {
    if (!problems_.empty()) {
        return false;
    }
    for (const Finding& finding : checkProfile(document_)) {
        (finding.isError ? problems_ : remarks_).push_back(lineOf(label_, finding));
    }
    if (!problems_.empty()) {
        return false;
    }
    try {
        FW::TARNFW_JSON_DB().jsonToProfile(document_, profile_);
    } catch (const Json::Exception& error) {
        addProblem(error.what());
    }
    return problems_.empty();
}

void ProfileDocument::printFindings() const {
    for (const std::string& line : problems_) {
        std::cerr << "tarnfw: " << printable(line) << '\n';
    }
    for (const std::string& line : remarks_) {
        std::cerr << "tarnfw: " << printable(line) << '\n';
    }
}

void ProfileDocument::addProblem(const std::string& text) {
    problems_.push_back(label_ + ": " + text);
}

}  // namespace tarnfw
