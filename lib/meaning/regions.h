/// Regions of packets: comparing them with rules, cutting and joining them.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "packetSpace.h"

namespace FW {

/// Whether a region and a rule have a packet in common.
bool overlaps(const PacketSpace& space, const Region& region, const SpaceRule& rule);

/// Whether long lists of addresses overlap; compares two lists once.
class LongOverlaps {
public:
    bool overlap(const Values& a, const Values& b);

private:
    std::map<std::pair<Values, Values>, bool> known_;
};

/// The same for many rules and one region. Compares with long lists of addresses, which many rules
/// share, only once.
class OverlapTest {
public:
    /// With `shared`, also what other regions showed; it keeps their lists.
    OverlapTest(const PacketSpace& space, const Region& region, LongOverlaps* shared = nullptr)
        : space_(space), region_(region), shared_(shared) {}

    bool operator()(const SpaceRule& rule);

private:
    bool overlapsLong(Field field, std::uint32_t id);

    struct Known {
        Field field;
        std::uint32_t id;
        bool overlaps;
    };
    const PacketSpace& space_;
    const Region& region_;
    LongOverlaps* shared_;
    std::vector<Known> known_;
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
