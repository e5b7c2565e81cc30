/// Finds the first rule that has a packet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "packetSpace.h"

namespace FW {

/// Trees that halve the space, field by field, where the edges of rules are. A leaf has the rules
/// of its tree that overlap its part of the space, in order, up to the second that covers it: no
/// packet there gets beyond the first, and with that one taken away none beyond the second. Rules
/// for few addresses are in other trees than rules for many: cuts between addresses help with the
/// former, and would repeat the latter in every leaf.
class RuleIndex {
public:
    RuleIndex(const PacketSpace& space, const std::vector<SpaceRule>& rules);

    /// The first rule that has `point`; the number of rules if there is none.
    std::size_t firstMatch(const Point& point) const { return nextMatch(point, 0); }

    /// The first one from rule number `from` on. Only the first two rules that have `point` are
    /// found for certain.
    std::size_t nextMatch(const Point& point, std::size_t from) const;

private:
    struct Node {
        Number cut = 0;           // the first value of the upper half
        std::uint32_t below = 0;  // the node of the lower half; the upper one is next to it
        std::uint32_t end = 0;    // of a leaf: its rules are from `below` to `end`
        Field field = kFields;    // kFields: a leaf
    };
    struct Builder;

    std::size_t nextMatch(std::uint32_t root, const Point& point, std::size_t from) const;

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    std::vector<std::uint32_t> roots_;
    std::vector<Node> nodes_;
    std::vector<std::uint32_t> leaves_;
};

}  // namespace FW
