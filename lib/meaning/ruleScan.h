/// Finds all rules that overlap a region.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "regions.h"

namespace FW {

using RuleNumbers = std::vector<std::uint32_t>;

/// Looks only at rules for the region's interfaces, and at the bounds of a rule, which lie close
/// together, before it looks at its values.
class RuleScan {
public:
    RuleScan(const PacketSpace& space, const std::vector<SpaceRule>& rules);

    /// The rules from number `from` to before `end` that overlap a region, in order.
    RuleNumbers overlapping(const Region& region, std::size_t from, std::size_t end);

private:
    /// The least and the greatest value of the fields that tell most rules apart; of addresses the
    /// upper half.
    struct Bounds {
        std::uint64_t source[2];
        std::uint64_t destination[2];
        std::uint16_t port[2];
        std::uint8_t protocol[2];
        std::uint32_t rule;
    };
    template <typename ValuesOf>
    static Bounds boundsOf(ValuesOf valuesOf);

    /// The rules for the same incoming interfaces.
    struct Group {
        std::uint32_t in;  // the number of their values
        std::vector<Bounds> bounds;
    };

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    std::vector<Group> groups_;
    LongOverlaps longOverlaps_;
};

}  // namespace FW
