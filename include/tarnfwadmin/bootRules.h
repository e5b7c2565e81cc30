/// What protects the machine at boot until the active profile is in force, and afterwards when that
/// profile cannot be applied.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/savedRules.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Whether the machine must not boot open: the settings say that the firewall is enabled, or they
/// cannot be read, or they say nothing although there are last good rules. A disabled firewall and
/// a machine without settings boot open.
bool mustProtect();

/// The rules of last resort for these families, "v4" and "v6". What they accept: established
/// connections, loopback, neighbour discovery, answers of DHCP, and SSH from private and link-local
/// networks. `sshPorts` are port texts: "22", "2200-2210". Nothing is forwarded but established
/// connections.
SavedRules minimumRules(const std::vector<std::string>& families,
                        const std::vector<std::string>& sshPorts);

/// What protects the machine.
struct Protection {
    std::string inForce;  ///< "IPv4 and IPv6: the rules of the last successful reload"
    std::string failure;  ///< why a family could not be protected; "" for none
    std::map<std::string, std::string> loaded;  ///< what was loaded, by family
};

/// Loads the last good rules; into a family for which there are none, or which refuses them, those
/// of last resort. A family that has rules keeps them: it is no boot, or they are from the attempt
/// `before`. Needs the base filter. A family that cannot be listed or protected does not
/// keep the other from it.
Protection protectMachine(const Protection& before = {});

/// A boot without the active profile.
struct BootFailure {
    std::string reason;   ///< why the profile was not applied
    std::string inForce;  ///< what is instead, as in Protection
};

/// Stores the failure for bootFailure(), with the rules in force of each family that can be listed.
/// Throws Error, kSystem.
void storeBootFailure(const BootFailure& failure);

/// The failure of the last boot, as long as the kernel has the rules that it left.
std::optional<BootFailure> bootFailure();

/// To be called when the active profile was applied, or the firewall disabled.
void forgetBootFailure();

/// "the active profile was not applied at boot: REASON. In force: IN FORCE".
std::string textOf(const BootFailure& failure);

}  // namespace tarnfw
