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

/// A profile's document (docs/profile-format.md) on its way from a text to the store. An object is
/// for one thread; it reads what checkProfile() reads and writes nothing.
class ProfileDocument {
public:
    /// Parses `text`. What is not valid JSON, has a member twice, or is no object is an error.
    explicit ProfileDocument(const std::string& text);

    /// Makes any other "name" than this one an error, whose text ends with `advice`.
    void requireName(const std::string& name, const std::string& advice);

    /// Makes it the document of a new profile: gives it this name, and removes "active", which
    /// "profile show --json" adds.
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
