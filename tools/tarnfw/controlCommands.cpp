/// tarnfw status, enable, disable, reload.
#include <iostream>

#include "tarnfirewall/tarnFW.h"

#include "baseFilter.h"
#include "commands.h"

namespace tarnfw {
namespace {

/// Refuses to fill chains that are not there. The library does not look at the exit status of the
/// commands it runs: without this the machine would pass for protected and let everybody in.
void requireBase() {
    for (const BaseFilter& filter : baseFilters()) {
        const BaseParts parts = filter.missing();
        if (!parts.empty()) {
            throw CommandFailed(
                "the base packet filter is not set up; \"tarnfw base up\" does "
                "that (" +
                filter.title() + " lacks " + describe(parts) + ")");
        }
    }
}

void status() {
    requireRoot();
    std::cout << "Firewall:       " << (firewallEnabled() ? "enabled" : "disabled") << '\n'
              << "Active profile: " << printable(activeProfile()) << '\n';
    for (const BaseFilter& filter : baseFilters()) {
        const BaseParts parts = filter.missing();
        std::cout << "Base filter:    " << filter.title() << ' '
                  << (parts.empty() ? filter.inOrder() ? "set up" : kWrongOrder
                                    : "lacks " + describe(parts))
                  << '\n';
    }
}

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
    if (!firewallEnabled()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    requireBase();
    if (!FW::TARNFW().fwReload(true)) {
        throw CommandFailed("the active profile was not applied");
    }
    std::cout << "Profile \"" << printable(activeProfile()) << "\" applied\n";
}

}  // namespace

void addControlCommands(CLI::App& app) {
    app.add_subcommand("status", "Say whether the firewall is enabled, and with which profile")
        ->callback(status);
    app.add_subcommand("enable", "Switch the firewall on and apply the active profile")
        ->callback(enable);
    app.add_subcommand("disable", "Switch the firewall off: empty its chains, keep the profiles")
        ->callback(disable);
    app.add_subcommand("reload", "Apply the active profile anew")->callback(reload);
}

}  // namespace tarnfw
