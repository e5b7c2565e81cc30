/// Finds all rules that overlap a region.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "regions.h"

namespace FW {

/// Looks only at rules for the region's interfaces, and at the bounds of many rules at once, before
/// it looks at a rule's values.
class RuleScan {
public:
    /// Adds to `steps` how often a rule is compared, or hundreds of them at once.
    RuleScan(const PacketSpace& space, const std::vector<SpaceRule>& rules, std::size_t& steps);

    /// The rules from number `from` to before `end` that overlap a region, in order.
    RuleNumbers overlapping(const Region& region, std::size_t from, std::size_t end);

    /// The first of the rules before number `end` that has all packets of a region and that
    /// `isWanted` accepts; `end` if there is none.
    std::size_t covering(const Region& region, std::size_t end,
                         const std::function<bool(std::uint32_t)>& isWanted);

private:
    static constexpr std::size_t kFieldsWithBounds = 4;

    /// The least and the greatest value of a field, of addresses the upper 32 bits.
    struct Bounds {
        std::uint32_t first;
        std::uint32_t last;
    };
    using AllBounds = std::array<Bounds, kFieldsWithBounds>;
    template <typename ValuesOf>
    static AllBounds boundsOf(ValuesOf valuesOf);

    /// The rules for the same incoming interfaces.
    struct Group {
        std::uint32_t in;  // the number of their values
        RuleNumbers rules;
        // By field: of each rule, and of as many more as fill the last block.
        std::array<std::vector<std::uint32_t>, kFieldsWithBounds> first;
        std::array<std::vector<std::uint32_t>, kFieldsWithBounds> last;
    };

    template <typename Visit>
    void visit(const Group& group, std::size_t from, std::size_t end, const AllBounds& wanted,
               Visit visitor);

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    std::size_t& steps_;
    std::vector<Group> groups_;
    LongOverlaps longOverlaps_;
};

}  // namespace FW
