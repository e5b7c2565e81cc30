#include <unistd.h>

#include <algorithm>

#include <json/json.h>

#include "tarncore.h"

#include "tarnfirewall/tarnFW.h"

#include "commands.h"

namespace tarnfw {
void requireRoot() {
    if (geteuid() != 0) {
        throw CommandFailed("this needs root's rights", kExitNotRoot);
    }
}

std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }, '?');
    return text;
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
