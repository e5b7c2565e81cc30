#include "tarnfwadmin/listeners.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>
#include <tuple>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>

#include "base/netlink.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

using FW::FW_PORT_PROTOCOL;
using Inode = std::uint32_t;
using Owners = std::map<Inode, std::vector<SocketOwner>>;

// A list that changes meanwhile is incomplete.
constexpr int kAttempts = 5;

// ---- The kernel's list --------------------------------------------------------------------------

struct Socket {
    Inode inode = 0;
    Listener listener;
};

Socket socketOf(const nlmsghdr& message, FW_PORT_PROTOCOL protocol) {
    const auto* const head = static_cast<const inet_diag_msg*>(mnl_nlmsg_get_payload(&message));
    const bool ipv6 = head->idiag_family == AF_INET6;
    Address::Bytes bytes = {};
    std::memcpy(bytes.data(), head->id.idiag_src, ipv6 ? sizeof(in6_addr) : sizeof(in_addr));
    Socket found;
    found.inode = head->idiag_inode;
    found.listener.protocol = protocol;
    found.listener.port = ntohs(head->id.idiag_sport);
    // A socket bound to "::ffff:192.0.2.7" takes IPv4 packets, and no others.
    found.listener.address = unmapped(Address(ipv6, bytes));
    const nlattr* const onlyIpv6 = Attributes(message, sizeof *head).at(INET_DIAG_SKV6ONLY);
    found.listener.takesIpv4 = ipv6 && found.listener.address == Address(true, {}) &&
                               onlyIpv6 != nullptr && mnl_attr_get_u8(onlyIpv6) == 0;
    std::array<char, IF_NAMESIZE> name{};
    if (head->id.idiag_if != 0 && if_indextoname(head->id.idiag_if, name.data()) != nullptr) {
        found.listener.interface = name.data();
    }
    return found;
}

/// The sockets of a family in one state; throws std::system_error.
std::vector<Socket> socketsOf(int family, FW_PORT_PROTOCOL protocol) {
    const bool tcp = protocol == FW::FW_PORT_PROTOCOL_TCP;
    std::array<char, MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(inet_diag_req_v2))> space{};
    nlmsghdr* const request = mnl_nlmsg_put_header(space.data());
    request->nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* const head = static_cast<inet_diag_req_v2*>(
        mnl_nlmsg_put_extra_header(request, sizeof(inet_diag_req_v2)));
    head->sdiag_family = static_cast<std::uint8_t>(family);
    head->sdiag_protocol = tcp ? IPPROTO_TCP : IPPROTO_UDP;
    head->idiag_states = 1U << (tcp ? TCP_LISTEN : TCP_CLOSE);  // "closed" is UDP without a peer
    std::vector<Socket> sockets;
    askKernel(NETLINK_SOCK_DIAG, *request, [&](const nlmsghdr& message) {
        if (mnl_nlmsg_get_payload_len(&message) >= sizeof(inet_diag_msg)) {
            sockets.push_back(socketOf(message, protocol));
        }
    });
    return sockets;
}

std::vector<Socket> listeningSockets(int family, FW_PORT_PROTOCOL protocol) {
    for (int attempt = 1;; ++attempt) {
        try {
            return socketsOf(family, protocol);
        } catch (const std::system_error& error) {
            if (error.code().value() == ENOENT) {
                return {};  // a kernel without this family or protocol
            }
            if (error.code().value() != EINTR || attempt == kAttempts) {
                throw Error(ErrorKind::kSystem,
                            "the listening sockets cannot be listed: " + error.code().message());
            }
        }
    }
}

// ---- Who has them -------------------------------------------------------------------------------

std::string programOf(const std::filesystem::path& process) {
    std::string name;
    std::ifstream file(process / "comm");
    (void)std::getline(file, name);
    return name;
}

/// The inode in "socket:[4711]"; 0 for what is no socket.
Inode inodeIn(const std::string& link) {
    constexpr char kPrefix[] = "socket:[";
    Inode inode = 0;
    if (boost::starts_with(link, kPrefix)) {
        (void)std::from_chars(link.data() + sizeof kPrefix - 1, link.data() + link.size(), inode);
    }
    return inode;
}

/// Adds a process to the owners of the sockets that it has open. Processes and files that go
/// meanwhile, or are not for this one to see, are left out.
void addSocketsOf(const std::filesystem::path& process, int number, Owners& owners) {
    std::error_code error;
    for (std::filesystem::directory_iterator file(process / "fd", error), end;
         !error && file != end; file.increment(error)) {
        std::error_code unreadable;
        const auto link = std::filesystem::read_symlink(file->path(), unreadable);
        const auto found = unreadable ? owners.end() : owners.find(inodeIn(link.string()));
        if (found != owners.end()) {
            found->second.push_back({programOf(process), number});
        }
    }
}

/// Finds the owners of these sockets.
void fillOwners(Owners& owners) {
    std::error_code error;
    for (std::filesystem::directory_iterator process("/proc", error), end; !error && process != end;
         process.increment(error)) {
        const std::string name = process->path().filename().string();
        int number = 0;
        const auto [rest, wrong] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (wrong == std::errc() && *rest == '\0') {
            addSocketsOf(process->path(), number, owners);
        }
    }
    for (auto& [inode, all] : owners) {
        std::sort(all.begin(), all.end());
        all.erase(std::unique(all.begin(), all.end()), all.end());
    }
}

}  // namespace

std::vector<Listener> listenersNow() {
    std::vector<Socket> sockets;
    for (const auto protocol : {FW::FW_PORT_PROTOCOL_TCP, FW::FW_PORT_PROTOCOL_UDP}) {
        for (const int family : {AF_INET, AF_INET6}) {
            for (Socket& socket : listeningSockets(family, protocol)) {
                sockets.push_back(std::move(socket));
            }
        }
    }
    Owners owners;
    for (const Socket& socket : sockets) {
        owners[socket.inode];
    }
    owners.erase(0);  // the kernel's own sockets have none
    fillOwners(owners);
    std::vector<Listener> listeners;
    listeners.reserve(sockets.size());
    for (Socket& socket : sockets) {
        const auto found = owners.find(socket.inode);
        if (found != owners.end()) {
            socket.listener.owners = found->second;
        }
        listeners.push_back(std::move(socket.listener));
    }
    std::sort(listeners.begin(), listeners.end(), [](const Listener& one, const Listener& other) {
        return std::tie(one.protocol, one.port, one.address) <
               std::tie(other.protocol, other.port, other.address);
    });
    return listeners;
}

}  // namespace tarnfw
