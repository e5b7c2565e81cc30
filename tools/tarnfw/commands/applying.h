/// Putting what the store holds into the kernel, for every command that does.
#pragma once

#include <functional>
#include <string>

#include "tarnfirewall/fwTypes.h"

#include "cli/commandLine.h"

namespace tarnfw {

/// What a command that changes profiles is told about the kernel.
struct ReloadOptions {
    bool wanted = false;  ///< apply the active profile afterwards
    bool yes = false;     ///< without asking
};

/// Adds "--reload" and "--yes" to a command that changes profiles. `yesHelp` is for one that has
/// more to ask.
void addReloadFlag(Command& command, ReloadOptions& options,
                   const char* yesHelp = "With --reload: do not ask when that would keep you out");

// ---- Before a change ----

/// Refuses to go on with a profile that does not check, with exit status 3.
void requireSound(const FW::FWPROFILE& profile);

/// Says in one line on standard error that a profile does not check.
void warnAboutErrors(const FW::FWPROFILE& profile);

/// For a command with "--reload", before it changes anything: refuses what reloadActive() would.
void requireReloadable(const ReloadOptions& options);

/// For a profile as it is about to be stored. Where "--reload" would then put it in force, because
/// it is the active one or `becomesActive`: refuses one that does not check, and asks about one
/// that would keep out the person who is connected over SSH. Elsewhere warns about the former.
void requireAppliable(const FW::FWPROFILE& changed, const ReloadOptions& options,
                      bool becomesActive = false);

/// For a command that knows what it makes of the profiles only when it has changed them: asks the
/// same about the active one as it is stored now.
void confirmReload(const ReloadOptions& options);

// ---- The kernel ----
//
// All of these run to their end, see runWhole().

/// Runs `change` detached, see runDetached(). Says "`what` ..." on the terminal meanwhile, and
/// hands on its messages when it is done. Returns what `change` returns. Throws Error, kSystem,
/// with the reason where it throws, or where it was killed.
bool runWhole(const std::string& what, const std::function<bool()>& change);

/// Switches the firewall on and applies the active profile. Returns false, logged, where that
/// failed.
bool enableFirewall();

/// Switches the firewall off. Throws Error when the settings cannot be written.
void disableFirewall();

/// Applies the active profile where the firewall is enabled; says which it was. Throws
/// Error, with what is in force now.
void reloadActive();

/// What is in force after rules could not be applied: "the firewall is off now".
std::string stateNow();

/// What follows from a changed profile. Where that is the active one and the firewall enabled:
/// applies it with "--reload", or says that the kernel still has the old rules.
void finishChange(const std::string& profile, const ReloadOptions& options);

/// Says that the kernel still has the old rules.
void sayOldRules();

}  // namespace tarnfw
