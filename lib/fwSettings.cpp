#include "fwSettings.h"

#include <errno.h>
#include <unistd.h>

#include <fstream>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/utils.h"

#include "fwLog.h"

namespace FW {
namespace {

// The messages are logged under the name of firewall control, whose operations use these functions.
constexpr char kSource[] = "tarnFW";

constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";
constexpr char kDefaultProfile[] = "default";

// A file that cannot be looked at is not missing: the defaults would replace it.
bool hasFile() {
    return access(kSettingsFile, F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

void settingsDefaults(Json::Value& config) {
    config[kStatusKey] = false;
    config[kProfileKey] = kDefaultProfile;
}

bool settingsGet(Json::Value& config) {
    if (!hasFile()) {
        settingsDefaults(config);
        (void)jsonFileDump(config, kSettingsFile);  // logs for itself; the defaults apply anyway
        return true;
    }
    return jsonFileLoad(config, kSettingsFile);
}

bool settingsSet(const Json::Value& members) {
    Json::Value current;
    if (!settingsGet(current)) {
        FW_LOG_ERR("Falied to config.configGet()");
        return false;
    }
    for (auto member = members.begin(); member != members.end(); ++member) {
        current[member.key().asString()] = *member;
    }
    return jsonFileDump(current, kSettingsFile);
}

bool settingsPeek(Json::Value& config) {
    return !hasFile() || jsonFileLoad(config, kSettingsFile);
}

bool isEnabled(const Json::Value& config) {
    return config.isMember(kStatusKey) && config[kStatusKey].asBool();
}

bool choosesBatch(const Json::Value& config) {
    return config.isObject() && config[FW_APPLY_KEY] == FW_APPLY_BATCH;
}

bool settingsChooseBatch() {
    // The file is replaced by renaming, so a whole document is read even without its lock.
    std::ifstream file(kSettingsFile, std::ios::in | std::ios::binary);
    Json::Value config;
    try {
        return file && Json::Reader().parse(file, config, /*collectComments=*/false) &&
               choosesBatch(config);
    } catch (const Json::Exception&) {
        return false;  // nested too deeply
    }
}

}  // namespace FW
