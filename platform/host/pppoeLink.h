/// Finds the link of the PPPoE connection.
///
/// The kernel lists its PPPoE sessions in /proc/net/pppoe with the Ethernet device under each, but
/// not with the ppp link above it. Only the process that connected the two knows that: it holds the
/// session's socket. So the link is inferred: a session must exist; a link whose process holds a
/// PPPoE socket is its link; if that is not visible, the links that are not known to be something
/// else count, if there are no more of them than sessions. A connection made entirely in user space
/// is not a kernel session; for it, and whenever in doubt, set the key "pppoe_interface" in the
/// model file.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "netLinks.h"

namespace host {

/// What is known about the transport of a ppp link.
enum class PppTransport {
    Unknown,
    Pppoe,
    Other,  ///< L2TP, PPTP, a serial line
};

/// The link of a PPPoE session by the rule above; among equals one that is up, then the one with
/// the lowest index. `sessions` is the text of /proc/net/pppoe; a link missing in `transports` is
/// Unknown.
std::optional<std::string> pppoeLink(const std::string& sessions, const std::vector<NetLink>& links,
                                     const std::map<std::string, PppTransport>& transports);

/// The transport of the ppp link `name`, found through the process file that pppd keeps in
/// /run ("ppp0.pid") while it runs the link.
PppTransport pppTransport(const std::string& name);

/// The transport of process `pid`: from the protocols of its sockets or, if this process may not
/// see those, from a PPPoE plugin in its command line.
PppTransport transportOfProcess(int pid);

/// Whether a process holds a socket of a protocol, by its name in /proc/net/protocols ("PPPOE").
/// Nothing when this process may not see its descriptors.
std::optional<bool> holdsSocketOf(int pid, const std::string& protocol);

/// Whether a process's arguments, each ended by a NUL as in /proc/PID/cmdline, load a PPPoE plugin.
bool namesPppoePlugin(const std::string& commandLine);

}  // namespace host
