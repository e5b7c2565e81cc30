#include "tarnfwadmin/configuration.h"

#include <algorithm>

#include "tarncore.h"

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/utils.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

/// The same as an export, for a store without settings: that would write them.
bool exportWithoutSettings(Json::Value& document) {
    FW::TARNFW_JSON_DB store;
    Json::Value meta(Json::objectValue);
    // The library takes an empty directory for a failure.
    if (!documentPaths().empty() && !store.profileMetaCreate(meta)) {
        return false;
    }
    document[kConfigProfiles] = Json::Value(Json::objectValue);
    for (const std::string& name : meta.getMemberNames()) {
        const std::string file = meta[name]["fileName"].asString() + ".json";
        if (!FW::jsonFileLoad(document[kConfigProfiles][file], kProfileDir + file)) {
            return false;
        }
    }
    FW::TARNFW().initJconfig(document[kConfigSettings]);
    document["config_version"] = 1;
    return true;
}

}  // namespace

Json::Value currentConfiguration() {
    Json::Value document(Json::objectValue);
    bool read = false;
    if (TLIBCFileExist(kSettingsFile) == 1 && !FW::jsonFileLoad(document, kSettingsFile)) {
        throw Error(ErrorKind::kSystem,
                    std::string(kSettingsFile) + " cannot be read: mend it, or move it away");
    }
    try {
        read = TLIBCFileExist(kSettingsFile) == 1 ? FW::TARNFW_JSON_DB().exportConfig(document)
                                                  : exportWithoutSettings(document);
    } catch (const Json::Exception&) {
        // The settings name the active profile by what is no text.
    }
    if (!read) {
        throw Error(ErrorKind::kSystem, "the profiles and settings cannot be read");
    }
    return document;
}

bool configurationIs(const Json::Value& document) {
    const Json::Value current = currentConfiguration();
    if (current[kConfigProfiles] != document[kConfigProfiles]) {
        return false;
    }
    const Json::Value& settings = document[kConfigSettings];
    const std::vector<std::string> members = settings.getMemberNames();
    return std::all_of(members.begin(), members.end(), [&](const std::string& member) {
        return current[kConfigSettings][member] == settings[member];
    });
}

std::string documentText(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, document) + "\n";
}

}  // namespace tarnfw
