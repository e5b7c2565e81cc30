/// Changes of a stored profile.
#pragma once

#include <functional>
#include <string>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/place.h"
#include "tarnfwadmin/storeSession.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// Throws Error, kInvalid, with the first error that checkProfile() finds in the profile, which is
/// also the error's place, and the number of errors.
void requireValidProfile(const FW::FWPROFILE& profile, Machine& machine);

/// Changes what a profile says about an adapter and stores the profile: `edit` alters a copy of it,
/// and `accept` may refuse the result by throwing. `profile` is its name, empty for the active one.
/// `session` may change the store. Returns the profile as stored; the kernel still has the old
/// rules, see Control::apply(). The adapter need not exist, see Machine::absenceOf(). Throws Error,
/// with the store as it was: kNotFound for a profile that is not there, kUnusable for a name that
/// no adapter can have, kSystem as StoreSession::storeProfile(), and what `edit` and
/// `accept` throw; where `edit` finds nothing (kNotFound) and neither the machine nor the profile
/// has the adapter, that is the error.
FW::FWPROFILE changeProfile(StoreSession& session, const std::string& profile,
                            const std::string& adapter,
                            const std::function<void(FW::FWPROFILE&)>& edit,
                            const std::function<void(const FW::FWPROFILE&)>& accept);

/// Adds a rule as the last of an adapter's list, if the whole profile is valid with it, and returns
/// its place. Throws Error like changeProfile(), and kInvalid, also for an error that was there
/// before.
RulePlace addRule(StoreSession& session, const std::string& profile, const std::string& adapter,
                  const FW::FWRULE& rule, Machine& machine);

/// Which rules releaseService() changes.
enum class ReleaseFrom {
    kReserved,  ///< those that a reservation has made, see fwRuleIsReserved()
    kAll,       ///< all that name services
};

/// Removes a service from rules of an adapter, or of every adapter when that is empty. A rule that
/// then names no service is removed, and so is the list of an adapter without rules: what a
/// reservation has added to a profile is gone. Returns whether the profile has changed.
bool releaseService(FW::FWPROFILE& profile, const std::string& service, const std::string& adapter,
                    ReleaseFrom rules);

}  // namespace tarnfw
