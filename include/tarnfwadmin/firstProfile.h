/// The profile that a machine begins with.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/interfaces.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// An SSH session that must not be the last one.
struct SshSession {
    Address client;
    int port = 22;  ///< the server's
};

/// Whether an interface belongs to containers or virtual machines, whose networks are their
/// manager's: a veth or tap device that is a port of a bridge, or that has the name of a
/// container's link ("veth...", "vnet...") and is in no VRF; or a bridge with a manager's name
/// ("docker0", "virbr0") and no other ports than these. `all` is interfaceKindsNow().
bool isOfContainers(const InterfaceKind& interface, const std::vector<InterfaceKind>& all);

/// A profile for a machine with these interfaces and this catalogue. "global" allows ping and
/// answers to DHCP and DHCPv6 clients from anywhere; the services of a storage machine, among them
/// multicast DNS, SSH and the web interface from private and link-local networks; and SSH and the
/// web interface from the client of `session`, if these networks do not cover it. Each of
/// `interfaces` has the default policy "deny", but "lo" and those of containers. So whatever
/// "global" does not allow is denied on them, and a rule appended to it takes effect. An interface
/// that appears later is open until the profile has a default policy for it.
/// Services that `services` (Catalogue::usableServices()) lacks are left out; without any, as when
/// the catalogue cannot be read, all are named.
FW::FWPROFILE firstProfile(const std::string& name, const std::vector<InterfaceKind>& interfaces,
                           const std::vector<Service>& services,
                           const std::optional<SshSession>& session);

}  // namespace tarnfw
