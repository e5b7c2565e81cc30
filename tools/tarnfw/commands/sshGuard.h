/// Whether a profile would keep out the person who is enabling it, when that person is connected
/// over SSH.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/interfaces.h"

namespace tarnfw {

/// The two ends of an SSH connection, as the machine that is connected to sees them.
struct SshConnection {
    Address client;
    Address server;
    int serverPort = 0;
    std::string zone;  ///< the interface, of a link-local address: "eth0"
};

/// Reads the variable SSH_CONNECTION: "CLIENT PORT SERVER PORT". Nothing for any other text.
std::optional<SshConnection> sshConnectionFrom(const std::string& value);

/// The connection that this process runs under: of its own environment, or of that of the processes
/// it was started by, since sudo takes the variable away.
std::optional<SshConnection> currentSshConnection();

/// The same, of the process `process` and those above it, as a directory like "/proc" has them.
std::optional<SshConnection> sshConnectionAbove(pid_t process, const std::string& directory);

/// The interface by which packets of the connection come in; nothing when no interface has the
/// server's address, as for a connection to another machine or container.
std::optional<std::string> interfaceOf(const SshConnection& connection,
                                       const std::vector<Interface>& interfaces);

/// In words, that `profile` would drop a new connection like this one and why; empty when it lets
/// it in. `adapters` is what profiles may call the interface.
std::string sshRefusal(const FW::FWPROFILE& profile, const SshConnection& connection,
                       const std::vector<std::string>& adapters);

/// The same for the connection that this process runs under. Empty without one.
std::string sshWarning(const FW::FWPROFILE& profile);

/// For what makes a profile the kernel's: with a warning, asks `question` on the terminal, unless
/// `yes`; throws Error, with `otherwise`, when the answer is no or nobody can be asked.
void requireSshAccess(const FW::FWPROFILE& profile, bool yes, const std::string& question,
                      const std::string& otherwise = "nothing was changed");

}  // namespace tarnfw
