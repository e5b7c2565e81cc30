/// tarnfw enable, disable, reload.
#include <iostream>

#include "tarnfirewall/tarnFW.h"

#include "baseFilter.h"
#include "command.h"
#include "commands.h"
#include "output.h"
#include "store.h"

namespace tarnfw {
namespace {

void enable() {
    requireRoot();
    requireBase();
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
    reloadActive();
}

}  // namespace

void addControlCommands(CLI::App& app) {
    app.add_subcommand("enable", "Switch the firewall on and apply the active profile")
        ->callback(enable);
    app.add_subcommand("disable", "Switch the firewall off: empty its chains, keep the profiles")
        ->callback(disable);
    app.add_subcommand("reload", "Apply the active profile anew")->callback(reload);
}

}  // namespace tarnfw
