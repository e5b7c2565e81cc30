#include "profileDocument.h"

#include <iostream>
#include <memory>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/trim.hpp>

#include "tarnfirewall/fwDB.h"

#include "finding.h"
#include "output.h"
#include "profileCheck.h"

namespace tarnfw {
namespace {

/// The parser's complaints, "* Line 3, Column 5\n  Missing ..." each, as one line.
std::string inOneLine(std::string errors) {
    boost::replace_all(errors, "\n* ", "; ");
    boost::replace_all(errors, "\n  ", ": ");
    if (boost::starts_with(errors, "* ")) {
        errors.erase(0, 2);
    }
    boost::trim(errors);
    return errors;
}

}  // namespace

ProfileDocument::ProfileDocument(const std::string& text, std::string label)
    : label_(std::move(label)) {
    // Comments pass as they do when the library reads; what it would silently drop does not.
    Json::CharReaderBuilder builder;
    builder["rejectDupKeys"] = true;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    std::string errors;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &document, &errors)) {
            addProblem(inOneLine(errors));
            return;
        }
    } catch (const Json::Exception& error) {
        addProblem(error.what());  // nested too deeply
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
