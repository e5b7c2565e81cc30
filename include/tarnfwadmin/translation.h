/// The lines of a profile, each with its rule.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/place.h"
#include "tarnfwadmin/store.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// One command line of a translation.
struct TracedLine {
    std::string family;  ///< "v4" or "v6"
    std::string line;    ///< "-t filter -A INPUT_FIREWALL -i eth0 -j DROP"
    RulePlace place;     ///< the rule or default policy; no adapter: a line of every profile
};

/// A table of iptables and a chain of it.
using TableAndChain = std::pair<std::string, std::string>;

/// Where a line adds its rule: "-t mangle -A PREROUTING ...", or "-A INPUT ..." for the table
/// "filter".
TableAndChain chainOf(const std::string& line);

/// Whether it is one of the firewall's two chains.
bool isFirewallChain(const TableAndChain& place);

/// The commands of a profile for an apply mode, as a reload makes them. Returns false, logged, when
/// it cannot be translated.
bool commandsFor(const FW::FWPROFILE& profile, ApplyMode mode, Json::Value& commands);

/// The lines that a reload of `profile` runs, in its order. Throws Error, with the rule,
/// when the profile cannot be translated.
std::vector<TracedLine> tracedLines(const FW::FWPROFILE& profile,
                                    ApplyMode mode = ApplyMode::kLines);

}  // namespace tarnfw
