/// Putting what the store holds into the kernel, for every command that does.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace tarnfw {

/// Switches the firewall on and applies the active profile. Returns false, logged, where that
/// failed. Runs to its end, as do all of these: see runWhole().
bool enableFirewall();

/// Switches the firewall off. Throws CommandFailed when the settings cannot be written.
void disableFirewall();

/// Applies the active profile where the firewall is enabled; says which it was. For commands that
/// take "--reload".
void reloadActive();

/// Adds "--reload" to a command that changes profiles.
void addReloadFlag(CLI::App& command, bool& reload);

/// For a command with "--reload", before it changes anything: refuses what reloadActive() would.
void requireReloadable(bool reload);

/// What follows from a changed profile. Where that is the active one and the firewall enabled:
/// applies it with `reload`, or says that the kernel still has the old rules.
void finishChange(const std::string& profile, bool reload);

}  // namespace tarnfw
