/// Which profile's rules the kernel has: the store may have had it in an earlier version.
#pragma once

#include <optional>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/store.h"

namespace tarnfw {

/// The profile whose rules are in force: `likely`, any stored profile, or what a change of the
/// store that is kept replaced. Without rules it is one with no rules. Nothing where it is none of
/// these, or cannot be found out. As by inForceOf(), a difference in some conditions, such as a
/// country, is not seen.
std::optional<FW::FWPROFILE> profileInForce(const std::optional<FW::FWPROFILE>& likely,
                                            const StoreSnapshot& store);

}  // namespace tarnfw
