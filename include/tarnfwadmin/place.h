/// Where a rule is in a profile.
#pragma once

#include <cstddef>
#include <string>

namespace tarnfw {

/// A rule of a profile: the adapter whose list it is in, and its position there.
struct RulePlace {
    std::string adapter;       ///< "eth0", "global"
    std::size_t position = 0;  ///< from 1, as people count

    bool operator==(const RulePlace& other) const {
        return adapter == other.adapter && position == other.position;
    }
};

/// "rule 3 of eth0". Printable.
std::string placeText(const RulePlace& place);

}  // namespace tarnfw
