/// Changes of a stored profile that are made only when the whole profile is valid with them.
#pragma once

#include <string>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/place.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

class Machine;

/// Throws Error, kInvalid, with the first error that checkProfile() finds in the profile and how
/// many more there are.
void requireValidProfile(const FW::FWPROFILE& profile, Machine& machine);

/// Adds a rule to profile `profile`, the active one when that is empty, as the last of an adapter's
/// list, and stores it. `session` may change the store. Returns the rule's place; the kernel still
/// has the old rules, see applyActiveProfile().
/// Throws Error, with the store as it was: kNotFound for a profile that is not there or an adapter
/// that neither the machine nor the profile has, kInvalid as requireValidProfile(), also for an
/// error that was there before, kSystem as StoreSession::storeProfile().
RulePlace addRule(StoreSession& session, const std::string& profile, const std::string& adapter,
                  const FW::FWRULE& rule, Machine& machine);

}  // namespace tarnfw
