#include <unistd.h>

#include "commands.h"

#include "tarncore.h"

#include "tarnfirewall/tarnFW.h"

namespace tarnfw {
namespace {

constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

}  // namespace

void requireRoot() {
    if (geteuid() != 0) {
        throw CommandFailed("this needs root's rights", kExitNotRoot);
    }
}

std::string activeProfile() {
    FW::TARNFW firewall;
    std::string profile;
    if (TLIBCFileExist(kSettingsFile) != 1) {
        // Asking the library would write the defaults, and reading must not change anything.
        Json::Value defaults;
        firewall.initJconfig(defaults);
        profile = defaults["profile"].asString();
    } else if (!firewall.fwProfileConfigGet(profile)) {
        throw CommandFailed("the settings cannot be read");
    }
    return profile;
}

bool firewallEnabled() {
    bool enabled = false;
    if (TLIBCFileExist(kSettingsFile) == 1 && !FW::TARNFW().fwStatus(enabled)) {
        throw CommandFailed("the settings cannot be read");
    }
    return enabled;
}

}  // namespace tarnfw
