/// The chains of nftables at which packets begin, as the kernel lists them: without a program, so
/// that none has to be run on a machine that has no such chains but the firewall's.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/nftRules.h"

namespace tarnfw {

/// A chain at a hook.
struct NftBaseChain {
    NftTable table;
    std::string name;
    std::string type;        ///< "filter", "nat", "route"
    std::uint32_t hook = 0;  ///< NF_INET_PRE_ROUTING and so on, in "netdev" NF_NETDEV_INGRESS
};

/// Those of the tables "ip", "ip6", "inet" and "netdev"; none on a kernel without nftables. Throws
/// Error, kSystem, when they cannot be listed.
std::vector<NftBaseChain> nftBaseChains();

/// Those in a part of the kernel's answer. Throws as readMessages().
std::vector<NftBaseChain> nftBaseChainsFrom(std::string_view datagram);

}  // namespace tarnfw
