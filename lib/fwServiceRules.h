/// Rules that name services: how the operations over all profiles change an adapter's rule list.
/// Pure functions on records; reading and writing the profiles is the caller's.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Puts a service into the reserved rule of `adapter` with `policy`: into the rule at the head of
/// the list when that is an enabled reserved rule with this policy, or else into a new one in
/// front, after taking the service out of the other reserved rules. So reserved rules stay ahead of
/// the user's, and the first of them that names a service is for what was asked last.
void reserveService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& adapter,
                    const std::string& service, FW_POLICY policy);

/// Takes a service out of every rule that names services, and such rules that name none out of the
/// lists.
void removeService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& service);

/// The catalogue's protocol of a service; nothing for one that is unknown or not usable.
using ServiceProtocol = std::function<std::optional<int>(const std::string& service)>;

/// Brings an adapter's rules that name services up to date: names that are not usable go, and rules
/// that then name none; what remains decides whether a rule is for TCP, UDP or both.
void updateServices(std::vector<FWRULE>& list, const ServiceProtocol& protocolOf);

}  // namespace FW
