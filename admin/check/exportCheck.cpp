#include "tarnfwadmin/exportCheck.h"

#include <algorithm>
#include <map>
#include <string>

#include <boost/algorithm/string/predicate.hpp>

#include "check/schemaCheck.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

// Leaves room for the suffixes of the library's temporary files, ".lock" and ".tmp".
constexpr std::size_t kNameBytes = 250;

constexpr char kSettingsName[] = "firewall_settings.json";

/// Why a key cannot be the name of a profile's file; empty when it can. The library appends it to
/// the directory unchanged.
std::string keyError(const std::string& key) {
    if (key.find('/') != std::string::npos) {
        return "points outside the profile directory";
    }
    if (boost::starts_with(key, ".")) {
        return "begins with a dot, so the profile would not be found";
    }
    if (!boost::ends_with(key, ".json")) {
        return "does not end in \".json\", so the profile would not be found";
    }
    if (key == kSettingsName) {
        return "is the name of the settings file";
    }
    if (key.size() > kNameBytes) {
        return "is too long";
    }
    const bool printed = std::all_of(key.begin(), key.end(), [](char c) {
        return static_cast<unsigned char>(c) >= ' ' && c != 0x7f;
    });
    return printed ? "" : "has control characters";
}

void checkKeysAndNames(const Json::Value& document, Findings& findings) {
    const Json::Value& profiles = document[kConfigProfiles];
    std::map<std::string, std::string> paths;  // by profile name
    for (const std::string& key : profiles.getMemberNames()) {
        const std::string path = memberPath(kConfigProfiles, key);
        const std::string wrong = keyError(key);
        if (!wrong.empty()) {
            findings.error(path, wrong);
        }
        if (!profiles[key].isObject() || !profiles[key]["name"].isString()) {
            continue;  // checkSchema() has reported it
        }
        const std::string name = profiles[key]["name"].asString();
        const auto [known, isNew] = paths.emplace(name, path);
        if (!isNew) {
            findings.error(memberPath(path, "name"),
                           inQuotes(name) + " is also the name of " + known->second);
        }
    }
    const Json::Value& settings = document[kConfigSettings];
    if (settings.isObject() && settings["profile"].isString() &&
        paths.count(settings["profile"].asString()) == 0) {
        findings.error(memberPath(kConfigSettings, "profile"),
                       inQuotes(settings["profile"].asString()) + " is not one of the profiles");
    }
}

}  // namespace

ExportFindings checkExport(const Json::Value& document, Machine& machine) {
    ExportFindings all;
    all.document = checkSchema(document, kExportSchema);
    if (!document.isObject() || !document[kConfigProfiles].isObject()) {
        return all;
    }
    Findings findings;
    checkKeysAndNames(document, findings);
    const std::vector<Finding> more = findings.take();
    all.document.insert(all.document.end(), more.begin(), more.end());

    const Json::Value& profiles = document[kConfigProfiles];
    for (const std::string& key : profiles.getMemberNames()) {
        if (!profiles[key].isObject() || !profiles[key]["name"].isString()) {
            continue;
        }
        for (Finding finding : checkProfile(profiles[key], machine)) {
            finding.profile = memberPath(kConfigProfiles, key);
            all.profiles.push_back(std::move(finding));
        }
    }
    return all;
}

}  // namespace tarnfw
