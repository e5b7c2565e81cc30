/// Applying stored profiles to the kernel.
#pragma once

#include <functional>
#include <string>

#include "tarnfirewall/fwTypes.h"

#include "cli/commandLine.h"
#include "commands/context.h"

namespace tarnfw {

/// The reload options of a command that changes profiles.
struct ReloadOptions {
    bool wanted = false;  ///< apply the active profile afterwards
    bool yes = false;     ///< do not ask
};

/// Adds "--reload" and "--yes" to a command that changes profiles. `yesHelp` is for one that has
/// more to ask.
void addReloadFlag(
    Command& command, ReloadOptions& options,
    const char* yesHelp = "With --reload: do not ask if the rules would lock you out");

// ---- Before a change ----

/// Throws Error, kInvalid, for a profile with errors.
void requireValid(const FW::FWPROFILE& profile, Machine& machine);

/// "profile "home" has 2 errors; ..."; empty when it has none.
std::string errorsText(const FW::FWPROFILE& profile, Machine& machine);

/// Warns in one line about an invalid profile.
void warnAboutErrors(const FW::FWPROFILE& profile, Machine& machine);

/// For a command with "--reload", before it changes anything: throws what reloadActive() would.
void requireReloadable(Context& context, const ReloadOptions& options);

/// For a profile as it is about to be stored. Where "--reload" would then put it in force, because
/// it is the active one or `becomesActive`: refuses one that does not check, and asks about one
/// that would keep out the person who is connected over SSH. Elsewhere warns about the former.
void requireAppliable(Context& context, const FW::FWPROFILE& changed, const ReloadOptions& options,
                      bool becomesActive = false);

/// For a command that knows what it makes of the profiles only when it has changed them: asks the
/// same about the active one as it is stored now.
void confirmReload(Context& context, const ReloadOptions& options);

// ---- The kernel ----
//
// All of these run to their end, see runWhole(). Afterwards the context has the store as it is
// then.

/// Runs `change` detached, see runDetached(). Says "`what` ..." on the terminal meanwhile, and
/// hands on its messages when it is done. Returns what `change` returns. Throws Error, kSystem,
/// with the reason where it throws, or where it was killed. What `meanwhile` returns, which runs at
/// the same time, goes to standard error first.
bool runWhole(const std::string& what, const std::function<bool()>& change,
              const std::function<std::string()>& meanwhile = {});

/// Switches the firewall on and applies the active profile. Returns false, logged, if that
/// failed. The context may change the store.
bool enableFirewall(Context& context);

/// Switches the firewall off, likewise. Throws Error when the settings cannot be written.
void disableFirewall(Context& context);

/// Applies the active profile if the firewall is enabled, and prints its name. Throws
/// Error, with what is in force now.
void reloadActive(Context& context, const std::function<std::string()>& meanwhile = {});

/// What is in force after rules could not be applied: "the firewall is off now".
std::string stateNow(Context& context);

/// After a profile was changed. If it is the active one and the firewall is enabled:
/// applies it with "--reload", or says that the kernel still has the old rules.
void finishChange(Context& context, const std::string& profile, const ReloadOptions& options);

/// Says that the kernel still has the old rules.
void reportUnchangedKernel();

}  // namespace tarnfw
