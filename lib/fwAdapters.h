/// The adapters of a profile.
#pragma once

#include <set>
#include <string>

#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Those that a profile has rules or a default policy for.
inline std::set<std::string> adaptersOf(const FWPROFILE& profile) {
    std::set<std::string> adapters;
    for (const auto& [adapter, rules] : profile.rules) {
        adapters.insert(adapter);
    }
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        adapters.insert(adapter);
    }
    return adapters;
}

}  // namespace FW
