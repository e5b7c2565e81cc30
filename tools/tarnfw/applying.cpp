#include "applying.h"

#include <iostream>

#include "tarnfirewall/tarnFW.h"

#include "baseFilter.h"
#include "command.h"
#include "output.h"
#include "store.h"
#include "storeChange.h"
#include "wholeRun.h"

namespace tarnfw {
namespace {

std::string applyingText() {
    return "Applying the rules of \"" + activeProfile() + "\"";
}

}  // namespace

bool enableFirewall() {
    const StoreLock lock;
    StoreChange change;
    const bool enabled = runWhole(applyingText(), [] { return FW::TARNFW().fwEnable(); });
    change.finish();
    return enabled;
}

void disableFirewall() {
    const StoreLock lock;
    StoreChange change;
    const bool disabled =
        runWhole("Switching the firewall off", [] { return FW::TARNFW().fwDisable(); });
    change.finish();
    if (!disabled) {
        throw CommandFailed("the firewall's settings cannot be written");
    }
}

void reloadActive() {
    if (!firewallEnabled()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    requireBase();
    if (!runWhole(applyingText(), [] { return FW::TARNFW().fwReload(true); })) {
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
