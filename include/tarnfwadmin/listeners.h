/// The sockets of this machine that wait for packets of others.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// A process that has a socket open.
struct SocketOwner {
    std::string program;  ///< as /proc/PID/comm has it
    int process = 0;      ///< its number

    bool operator<(const SocketOwner& other) const {
        return program == other.program ? process < other.process : program < other.program;
    }
    bool operator==(const SocketOwner& other) const {
        return program == other.program && process == other.process;
    }
};

/// A TCP socket that listens, or a UDP socket without a peer.
struct Listener {
    FW::FW_PORT_PROTOCOL protocol = FW::FW_PORT_PROTOCOL_TCP;  ///< TCP or UDP
    std::uint16_t port = 0;
    Address address;         ///< unmapped(); zeros: every address of its family
    bool takesIpv4 = false;  ///< an IPv6 socket of every address that takes IPv4 packets, too
    std::string interface;   ///< the only one that it hears; empty: all

    /// Sorted. None when the kernel itself has the socket, or when this process may not look at the
    /// files of the one that has: without root's rights only those of the same user are seen.
    std::vector<SocketOwner> owners;
};

/// All of them, of both families, by protocol, port and address; from the kernel's socket
/// diagnosis (sock_diag) and /proc. Throws Error, kSystem, when the kernel does not list them.
std::vector<Listener> listenersNow();

}  // namespace tarnfw
