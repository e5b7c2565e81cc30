/// The place of a rule in a profile.
#pragma once

#include <cstddef>
#include <string>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// A rule of a profile: the adapter whose list it is in, and its position there. Or an adapter's
/// default policy.
struct RulePlace {
    std::string adapter;       ///< key of FWPROFILE::rules: "eth0", "global"
    std::size_t position = 0;  ///< from 1: rules[adapter][position - 1]; 0: the default policy

    bool operator==(const RulePlace& other) const {
        return adapter == other.adapter && position == other.position;
    }
    bool operator<(const RulePlace& other) const {
        return adapter != other.adapter ? adapter < other.adapter : position < other.position;
    }
};

/// "rule 3 of eth0", "the default policy of eth0". Printable.
std::string placeText(const RulePlace& place);

}  // namespace tarnfw
