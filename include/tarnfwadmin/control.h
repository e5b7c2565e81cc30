/// Enabling, disabling and applying, each to its end in this process. A process that is killed
/// meanwhile may leave the machine closed to new connections, until the next reload: block the
/// signals that could do that.
#pragma once

#include <string>

#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

/// Enables the firewall and applies the active profile. `session` may change the store.
/// Throws Error: kNotFound or kInvalid for an active profile that is not there or not valid and
/// kSystem without the base filter, with nothing changed; kRefused when the rules could not be
/// applied: a firewall that was disabled is disabled again.
void enableFirewall(StoreSession& session);

/// Empties the firewall's chains and disables it. `session` may change the store. Throws Error,
/// kSystem, when the settings cannot be written; the chains are empty then.
void disableFirewall(StoreSession& session);

/// Applies the active profile, and returns true. While the firewall is disabled it does nothing and
/// returns false. The profile is not checked: in the apply mode "lines" the library leaves out what
/// the kernel does not take, see requireValidProfile(). Throws Error: kSystem without the base
/// filter, with nothing changed; kRefused, with what is in force now, when the rules could not be
/// applied.
bool applyActiveProfile(StoreSession& session);

/// What is in force after rules could not be applied: "the firewall is off now".
std::string stateNow(StoreSession& session);

}  // namespace tarnfw
