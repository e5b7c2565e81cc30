/// tarnfw enable, disable, reload.
#include <iostream>
#include <memory>

#include "tarnfirewall/tarnFW.h"

#include "baseFilter.h"
#include "command.h"
#include "commands.h"
#include "output.h"
#include "sshGuard.h"
#include "store.h"

namespace tarnfw {
namespace {

void enable(bool yes) {
    requireRoot();
    requireBase();
    requireSshAccess("", yes, "Enable all the same?");
    if (!FW::TARNFW().fwEnable()) {
        throw CommandFailed("the firewall was not enabled as it should be");
    }
    std::cout << "Firewall enabled with profile \"" << printable(activeProfile()) << "\"\n";
}

void disable() {
    requireRoot();
    if (!FW::TARNFW().fwDisable()) {
        throw CommandFailed("the firewall's settings cannot be written");
    }
    std::cout << "Firewall disabled\n";
}

void reload() {
    requireRoot();
    if (firewallEnabled()) {
        warnAboutSsh("");
    }
    reloadActive();
}

}  // namespace

void addControlCommands(CLI::App& app) {
    CLI::App* const enableCommand =
        app.add_subcommand("enable", "Switch the firewall on and apply the active profile");
    const auto yes = std::make_shared<bool>(false);
    enableCommand->add_flag("--yes", *yes, "Do not ask when that would keep you out");
    enableCommand->footer("Over SSH, asks first when the profile would not let you connect again.");
    enableCommand->callback([yes] { enable(*yes); });
    app.add_subcommand("disable", "Switch the firewall off: empty its chains, keep the profiles")
        ->callback(disable);
    app.add_subcommand("reload", "Apply the active profile anew")->callback(reload);
}

}  // namespace tarnfw
