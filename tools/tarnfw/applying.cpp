#include "applying.h"

#include <iostream>

#include "tarnfirewall/tarnFW.h"

#include "baseFilter.h"
#include "command.h"
#include "output.h"
#include "store.h"

namespace tarnfw {

void reloadActive() {
    if (!firewallEnabled()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    requireBase();
    if (!FW::TARNFW().fwReload(true)) {
        throw CommandFailed("the active profile was not applied");
    }
    std::cout << "Profile " << inQuotes(activeProfile()) << " applied\n";
}

void addReloadFlag(CLI::App& command, bool& reload) {
    command.add_flag("--reload", reload, "Apply the active profile afterwards");
}

void requireReloadable(bool reload) {
    if (reload && firewallEnabled()) {
        requireBase();
    }
}

void finishChange(const std::string& profile, bool reload) {
    if (profile != activeProfile()) {
        if (reload) {
            std::cout << "Profile " << inQuotes(profile)
                      << " is not the active one: nothing to reload\n";
        }
    } else if (reload) {
        reloadActive();
    } else if (firewallEnabled()) {
        std::cout << "the kernel still has the old rules; \"tarnfw reload\" applies them\n";
    }
}

}  // namespace tarnfw
