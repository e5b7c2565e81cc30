/// Whether a profile would lock out the person who is enabling it, if that person is connected
/// over SSH; and a first profile that does not.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {

/// The two ends of an SSH connection, as the server sees them.
struct SshConnection {
    Address client;
    Address server;
    int serverPort = 0;
    std::string zone;  ///< the interface, of a link-local address: "eth0"
};

/// Reads the variable SSH_CONNECTION: "CLIENT PORT SERVER PORT". An IPv4 address in IPv6 form
/// ("::ffff:192.0.2.7") is that IPv4 address: so the packet filter sees the packets. Nothing for
/// any other text.
std::optional<SshConnection> sshConnectionFrom(const std::string& value);

/// The connection that this process runs under: from its own environment, or from that of its
/// parent processes, since sudo removes the variable.
std::optional<SshConnection> currentSshConnection();

/// The same for the process `process` and its parents, read from a directory like "/proc".
std::optional<SshConnection> sshConnectionAbove(pid_t process, const std::string& directory);

/// The interfaces that packets of the connection may come in through: the one with the server's
/// address, the one of the zone, and those of the routes back to the client, which differ where the
/// client reaches an address of one interface through another one. None if no interface has the
/// server's address or is the zone, as for a connection to another machine or container.
std::vector<std::string> entrancesOf(const SshConnection& connection,
                                     const std::vector<Interface>& interfaces,
                                     const std::vector<std::string>& routes);

/// The interfaces of the kernel's routes back to the client, with and without the server's address.
std::vector<std::string> routesBack(const SshConnection& connection);

/// A warning that a profile would drop a new connection like this one that comes in through an
/// interface, and why; empty if it allows it. From some of the client's ports from 1024 on, or from
/// all; and also where that is not known, since a rule that denies is not counted.
std::string sshDropWarning(const Meaning& meaning, const SshConnection& connection,
                           const std::string& interface);

/// The same for the connection that this process runs under, through each of its entrances, if
/// `profile` is applied in `mode`. Empty without a connection. Throws Error as environmentOf().
std::string sshWarning(const FW::FWPROFILE& profile, Machine& machine, ApplyMode mode);

/// Before a profile is applied: after a warning, asks `question` on the terminal, unless
/// `yes`; throws Error, kDeclined, with `ifDeclined`, when the answer is no or nobody can be asked.
void requireSshAccess(const FW::FWPROFILE& profile, Machine& machine, ApplyMode mode, bool yes,
                      const std::string& question,
                      const std::string& ifDeclined = "nothing was changed");

/// A first profile for this machine and the connection that this process runs under, see
/// firstProfile(). Throws Error, kSystem, when the interfaces cannot be listed.
FW::FWPROFILE firstProfileHere(const std::string& name, Machine& machine);

}  // namespace tarnfw
