/// The verdicts of the blocked checks: how a port is compared with a rule, and how a matching rule
/// changes the verdict so far. Pure functions; the caller passes the rules and services.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Whether ports with a protocol and a direction, those of a rule or of a service in it, match a
/// query. A blocking rule matches any overlap; any other must cover the whole range and, unless it
/// is for both protocols, have exactly the query's protocol. Texts are read as by strtol; what is
/// not a number is 0.
bool portsMatch(const PortCompareST& query, std::int32_t portDirect, std::int32_t protocol,
                const std::vector<std::string>& ports, bool blocking);

/// A verdict, and whether the rules after the one that led to it are still evaluated.
struct VerdictStep {
    FW_POLICY verdict;
    bool goesOn;
};

/// The verdict after a matching rule with `policy`, from the verdict `current`. `anyAddress` is
/// whether the rule is for any address (`ipGroup` 5) or for some.
VerdictStep nextVerdict(FW_POLICY current, FW_POLICY policy, bool anyAddress);

}  // namespace FW
