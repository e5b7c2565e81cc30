/// Regions of packets: comparing them with rules, cutting and joining them.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "packetSpace.h"

namespace FW {

/// Whether a region and a rule have a packet in common.
bool overlaps(const PacketSpace& space, const Region& region, const SpaceRule& rule);

/// Whether long lists of addresses overlap with values of a space: compares the same ones once.
class LongOverlaps {
public:
    explicit LongOverlaps(const PacketSpace& space) : space_(space) {}

    /// What is known of a list: by the number of the values, 0 for nothing, 1 for no, 2 for yes.
    using Row = std::vector<std::uint8_t>;

    Row& rowOf(const Values& list);
    bool overlap(const Values& list, Row& row, std::uint32_t id) const;

private:
    const PacketSpace& space_;
    std::map<Values, Row> rows_;
};

/// The same for many rules and one region. Compares with long lists of addresses, which many rules
/// share, only once.
class OverlapTest {
public:
    /// With `shared`, also what other regions showed; it keeps their lists.
    OverlapTest(const PacketSpace& space, const Region& region, LongOverlaps* shared = nullptr);

    bool operator()(const SpaceRule& rule);

private:
    bool overlapsLong(Field field, std::uint32_t id);

    /// One of the last comparisons with a long list of a rule: its number and field, and how it
    /// came out.
    struct Known {
        std::uint32_t key = 0;
        bool overlaps = false;
    };
    const PacketSpace& space_;
    const Region& region_;
    LongOverlaps* shared_;
    std::array<LongOverlaps::Row*, 2>
        rows_{};  // of the region's own addresses, where they are long
    std::array<Known, 128> known_{};
};

/// Whether a rule has every packet of a region.
bool covers(const PacketSpace& space, const SpaceRule& rule, const Region& region);

bool contains(const PacketSpace& space, const SpaceRule& rule, const Point& point);

/// The packets that a region and a rule have in common, where they overlap.
Region intersected(const PacketSpace& space, const Region& region, const SpaceRule& rule);

/// Appends the packets of a region that a rule does not have, as disjoint regions.
void appendWithout(const PacketSpace& space, Region region, const SpaceRule& rule,
                   std::vector<Region>& rest);

/// An order of values by content; below 0, 0 or above.
int compare(const Values& a, const Values& b);

/// Joins regions that differ in one field only, again and again. The result covers the same
/// packets with fewer regions, the largest first; it is disjoint when they are.
void join(const PacketSpace& space, std::vector<Region>& regions);

}  // namespace FW
