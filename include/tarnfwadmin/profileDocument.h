/// Profile documents that people write.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/finding.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// Makes a document that "tarnfw profile show --json" has printed one as it is stored: policies
/// that are texts, "allow", "deny" and "none", become their codes, and "active" is removed. What is
/// in the form of the store already stays; so does what has neither form, for checkProfile() to
/// find.
void makeStoredForm(Json::Value& document);

/// A profile's document (docs/profile-format.md), as stored or as shown, on its way from a text to
/// the store. An object is for one thread; it reads what checkProfile() reads and writes nothing.
class ProfileDocument {
public:
    /// Parses `text`. What is not valid JSON, has a member twice, or is no object is an error.
    explicit ProfileDocument(const std::string& text);

    /// Makes any other "name" than this one an error, whose text ends with `advice`.
    void requireName(const std::string& name, const std::string& advice);

    /// Makes it the document of the profile of this name, a new one or one that it replaces.
    void becomeNew(const std::string& name);

    /// Checks the document, unless it has errors already. Returns whether it can be stored.
    bool check(Machine& machine);

    /// What was found so far, errors first.
    const std::vector<Finding>& findings() const { return findings_; }

    /// The profile, after a check that returned true.
    const FW::FWPROFILE& profile() const { return profile_; }

private:
    bool valid() const { return countErrors(findings_) == 0; }

    Json::Value document_ = Json::objectValue;
    std::vector<Finding> findings_;
    FW::FWPROFILE profile_;
};

}  // namespace tarnfw
