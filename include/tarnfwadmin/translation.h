/// The lines of a profile together with the rules that they come from.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

/// One command line of a translation.
struct TracedLine {
    std::string family;  ///< "v4" or "v6"
    std::string line;    ///< "-t filter -A INPUT_FIREWALL -i eth0 -j DROP"
    std::string where;   ///< "rules.eth0[3]", "adapterPolicyMap.eth0"; empty: of every profile
};

/// How a reload puts lines into the kernel, and so which lines it makes.
enum class ReloadWay { kLines, kBatch };

/// The way that the settings choose. Throws Error when they cannot be read.
ReloadWay chosenWay();

/// The commands of a stored profile for that way, as a reload makes them. Returns false, logged,
/// when it cannot be translated.
bool commandsFor(const std::string& profile, ReloadWay way, Json::Value& commands);

/// The lines that a reload of `profile` runs, in its order. Throws Error, with the rule,
/// when the profile cannot be translated.
std::vector<TracedLine> tracedLines(const FW::FWPROFILE& profile,
                                    ReloadWay way = ReloadWay::kLines);

/// "/sbin/iptables" or "/sbin/ip6tables".
std::string programOf(const std::string& family);

/// "IPv4" or "IPv6".
std::string titleOf(const std::string& family);

}  // namespace tarnfw
