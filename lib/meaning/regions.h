/// Regions of packets: comparing them with rules, cutting and joining them.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "packetSpace.h"

namespace FW {

struct Effort;

/// Whether a region and a rule have a packet in common.
bool overlaps(const PacketSpace& space, const Region& region, const SpaceRule& rule);

using RuleNumbers = std::vector<std::uint32_t>;

/// A region that was cut, and which of its values the cuts made: a space or the question has the
/// others.
struct Piece {
    Region region;
    std::bitset<kFields> own;
};

/// Whether long lists of addresses overlap with values of a space: compares the same ones once.
class LongOverlaps {
public:
    explicit LongOverlaps(const PacketSpace& space) : space_(space) {}

    /// What is known of a list: by the number of the values, 0 for nothing, 1 for no, 2 for yes.
    using Row = std::vector<std::uint8_t>;

    Row& rowOf(const Values& list);

    /// Forgets everything if it has become much. No row may be in use.
    void forgetMuch();

    bool overlap(const Values& list, Row& row, std::uint32_t id, std::size_t& steps) const;

private:
    const PacketSpace& space_;
    std::map<Values, Row> rows_;
};

/// The same for many rules and one region. Compares with long lists of addresses, which many rules
/// share, only once.
class OverlapTest {
public:
    /// Adds what it compares to `steps`: a rule, or a few intervals of long lists. With `shared`,
    /// also what other regions showed; it keeps their lists.
    OverlapTest(const PacketSpace& space, const Region& region, std::size_t& steps,
                LongOverlaps* shared = nullptr);

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
    std::size_t& steps_;
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

/// Appends the packets of a piece that a rule does not have, as disjoint pieces. Returns how many
/// intervals it made.
std::size_t appendWithout(const PacketSpace& space, Piece piece, const SpaceRule& rule,
                          std::vector<Piece>& rest);

/// An order of values by content; below 0, 0 or above.
int compare(const Values& a, const Values& b);

/// Joins regions that differ in one field only, again and again. The result covers the same
/// packets with fewer regions, the largest first; it is disjoint when they are. They stay as they
/// are when the effort is spent.
void join(const PacketSpace& space, std::vector<Region>& regions, Effort& effort);

}  // namespace FW
