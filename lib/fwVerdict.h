/// The verdicts of the blocked checks: how a port is compared with a rule, and what a matching rule
/// makes of the verdict so far. Pure functions; the rules and services come from the caller.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Whether ports with a protocol and a direction, those of a rule or of a service in it, match a
/// query. A blocking rule catches any overlap; another one must cover the whole range and, unless
/// it is for both protocols, be for exactly the query's protocol. Texts are read as strtol reads
/// them; what is no number is 0.
bool portsMatch(const PortCompareST& query, std::int32_t portDirect, std::int32_t protocol,
                const std::vector<std::string>& ports, bool blocking);

/// A verdict, and whether the rules after the one that led to it are still looked at.
struct VerdictStep {
    FW_POLICY verdict;
    bool goesOn;
};

/// What a matching rule with `policy` makes of the verdict `current`. `anyAddress` is whether
/// the rule is for any address (`ipGroup` 5) or for some.
VerdictStep nextVerdict(FW_POLICY current, FW_POLICY policy, bool anyAddress);

}  // namespace FW
