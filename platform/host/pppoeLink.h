/// Which link is the PPPoE connection?
///
/// The kernel lists its PPPoE sessions in /proc/net/pppoe with the Ethernet device under each, but
/// not with the ppp link above it. That tie is known to the process alone that connected the two:
/// it holds the session's socket. So the answer is pieced together: a session must exist; a link
/// whose process holds a PPPoE socket is its link; where that cannot be seen, the links that
/// nothing speaks against stand in, if there are no more of them than sessions. A connection made
/// wholly in user space is no kernel session; for it, and for any other doubt, there is the key
/// "pppoe_interface" in the model file.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "netLinks.h"

namespace host {

/// What is known of the transport under a ppp link.
enum class PppTransport {
    Unknown,
    Pppoe,
    Other,  ///< L2TP, PPTP, a serial line
};

/// The link of a PPPoE session by the rule above; among equals one that is up, then the lowest
/// index. `sessions` is the text of /proc/net/pppoe; a link missing in `transports` is Unknown.
std::optional<std::string> pppoeLink(const std::string& sessions, const std::vector<NetLink>& links,
                                     const std::map<std::string, PppTransport>& transports);

/// The transport of the ppp link `name`, found through the process file that pppd keeps in
/// /run ("ppp0.pid") while it runs the link.
PppTransport pppTransport(const std::string& name);

/// What process `pid` says: by the protocols of the sockets it holds, or, where those are not for
/// this process to see, by a PPPoE plugin in its command line.
PppTransport transportOfProcess(int pid);

/// Whether a process holds a socket of a protocol, by its name in /proc/net/protocols ("PPPOE").
/// Nothing when its descriptors are not for this process to see.
std::optional<bool> holdsSocketOf(int pid, const std::string& protocol);

/// Whether a process's arguments, each ended by a NUL as in /proc/PID/cmdline, load a PPPoE plugin.
bool namesPppoePlugin(const std::string& commandLine);

}  // namespace host
