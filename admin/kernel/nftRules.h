/// Rules of nftables in the words of iptables, as far as they drop packets or change where they go.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tarnfwadmin/foreignRules.h"

namespace tarnfw {

/// A table of nftables: its family ("ip", "ip6", "inet", "netdev") and name.
using NftTable = std::pair<std::string, std::string>;

/// The rules of a table for a family, "v4" or "v6". `text` is what "nft -t -n list table" prints.
/// What has no equivalent becomes a condition that is not read, so that an answer that depends on
/// it is no certain one.
HookTable hookTableFrom(const std::string& text, const NftTable& table, const std::string& family);

}  // namespace tarnfw
