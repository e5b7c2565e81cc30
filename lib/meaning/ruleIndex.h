/// Finds the first rule that has a packet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "packetSpace.h"

namespace FW {

/// Bitmaps of rules. The values of each field are divided into classes at edges of rules, at all of
/// them or, where there are many, at some with about the same number of edges in between. A bitmap
/// for each class has the rules with any value of it. What the bitmaps of a packet's classes have
/// in common are the rules that may have it, in order; those with an edge within a class have to be
/// looked at.
class RuleIndex {
public:
    RuleIndex(const PacketSpace& space, const std::vector<SpaceRule>& rules);

    /// The first rule from number `from` on that has `point`; the number of rules if there is none.
    /// Adds to `steps` how often a rule was compared, or hundreds of them at once.
    std::size_t nextMatch(const Point& point, std::size_t from, std::size_t& steps) const;

    std::size_t firstMatch(const Point& point) const {
        std::size_t steps = 0;
        return nextMatch(point, 0, steps);
    }

private:
    /// A field in which rules differ.
    struct Axis {
        Field field;
        std::vector<Number> cuts;            // the first values of all classes but the first
        std::vector<std::uint64_t> bitmaps;  // of one class after the other
        bool isExact = true;                 // rules have all values of a class or none
    };

    Axis axisOf(Field field) const;
    void setCuts(Axis& axis) const;
    void setBitmaps(Axis& axis) const;

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    std::size_t words_ = 0;  // of a bitmap
    std::vector<Axis> axes_;
};

}  // namespace FW
