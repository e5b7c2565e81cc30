/// Adapters of the machine that a profile has nothing for.
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

    /// Of one family or of both, "global" lets packets through that it does not decide on, or
    /// denies none. Rules for some protocols or ports only do not count, and neither do a country,
    /// a mask with gaps, and the machine's own address.
    bool open = false;
};

/// Those of machineAdapters(), sorted: without the interfaces that "pppoe" and "vpn" are where the
/// profile has these, without the 6in4 tunnels of adapters of the profile, and without the ports of
/// bridges and bonds, whose packets come in by the bridge or bond. Throws Error as
/// machineAdapters().
std::vector<UnlistedAdapter> unlistedAdapters(const FW::FWPROFILE& profile, Machine& machine);

/// "open: not in the profile", "not in the profile".
std::string textOf(const UnlistedAdapter& adapter);

}  // namespace tarnfw
