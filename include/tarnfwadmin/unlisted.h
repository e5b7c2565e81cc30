/// Adapters of the machine that a profile has nothing for, and interfaces that it has lines for.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// An adapter for which a profile has neither rules nor a default policy.
struct UnlistedAdapter {
    std::string name;

    /// New packets of one family or of both: "global" lets some through that it does not decide on,
    /// or denies none.
    bool open = false;
};

/// Those of machineAdapters(), sorted: without the interfaces that "pppoe" and "vpn" are where the
/// profile has these, without the 6in4 tunnels of adapters of the profile, and without the ports of
/// bridges and bonds, whose packets come in by the bridge or bond. Throws Error as
/// machineAdapters().
std::vector<UnlistedAdapter> unlistedAdapters(const FW::FWPROFILE& profile, Machine& machine);

/// Whether lines of the profile are for an interface of the machine: an enabled rule, or a default
/// policy of allow or deny, of an adapter of its name, of "pppoe" or "vpn" where it is one of
/// these, or of an adapter whose 6in4 tunnel it is. Those of "global", which are for every
/// interface, do not count. Throws Error as adapterNamesOf().
bool hasLinesFor(const FW::FWPROFILE& profile, const std::string& interface, Machine& machine);

/// "open: not in the profile", "not in the profile".
std::string textOf(const UnlistedAdapter& adapter);

}  // namespace tarnfw
