/// Rules that name services: how the operations on all profiles change an adapter's rule list.
/// Pure functions on records; the caller reads and writes the profiles.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Puts a service into the reserved rule of `adapter` with `policy`: into the rule at the head of
/// the list if that is an enabled reserved rule with this policy, otherwise into a new one before
/// it, after removing the service from the other reserved rules. So reserved rules stay before the
/// user's, and the first one that names a service has the policy requested last.
void reserveService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& adapter,
                    const std::string& service, FW_POLICY policy);

/// Removes a service from every rule that names services, and then such rules that name none from
/// the lists.
void removeService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& service);

/// The catalogue's protocol of a service; nothing for an unknown or unusable one.
using ServiceProtocol = std::function<std::optional<int>(const std::string& service)>;

/// Updates an adapter's rules that name services: removes unusable names, and rules that then name
/// none. The remaining names decide whether a rule is for TCP, UDP or both.
void updateServices(std::vector<FWRULE>& list, const ServiceProtocol& protocolOf);

}  // namespace FW
