/// Profile documents that people write.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

/// A document on its way from a text to the store. Problems and remarks are a line each.
class ProfileDocument {
public:
    /// Parses `text`; `label` names it in the lines about it. A text that is no JSON object is a
    /// problem.
    ProfileDocument(const std::string& text, std::string label);

    /// Makes another name than this one a problem.
    void requireName(const std::string& name);

    /// Makes it the document of a new profile: gives it this name, and takes away what "profile
    /// show --json" adds.
    void becomeNew(const std::string& name);

    /// Checks the document, unless it has problems already. Returns whether it can be stored.
    bool check();

    /// Prints problems and remarks to standard error.
    void printFindings() const;

    /// The profile, after a check without problems.
    const FW::FWPROFILE& profile() const { return profile_; }

private:
    void addProblem(const std::string& text);

    std::string label_;
    Json::Value document_ = Json::objectValue;
    std::vector<std::string> problems_;
    std::vector<std::string> remarks_;
    FW::FWPROFILE profile_;
};

}  // namespace tarnfw
