#include "regions.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "pieces.h"

namespace FW {

namespace {

// The order in which fields are compared: first those that differ most often and take the least
// time. Countries have thousands of addresses.
constexpr Field kQuickFirst[] = {kIn,         kProtocol, kDestinationPort, kSourcePort, kFamily,
                                 kChain,      kOut,      kIcmpType,        kState,      kSource,
                                 kDestination};
static_assert(sizeof(kQuickFirst) / sizeof(kQuickFirst[0]) == kFields);

// What LongOverlaps may know, in bytes: the rows of some hundred countries.
constexpr std::size_t kMostKnown = 16000000;

/// Whether two sets overlap. Adds to `steps` what long ones cost.
bool overlapsCounted(IntervalView a, IntervalView b, std::size_t& steps) {
    if (a.size() == 1 && b.size() == 1) {
        return overlaps(a, b);
    }
    std::size_t looked = 0;
    const bool overlapping = overlapsAny(a, b, looked);
    steps += looked / 8;
    return overlapping;
}

/// The values that two sets have in common, which overlap.
Values commonOf(IntervalView a, IntervalView b) {
    if (a.size() == 1 && b.size() == 1) {
        const Interval one = a.front();
        const Interval other = b.front();
        return valuesOf({std::max(one.first, other.first), std::min(one.last, other.last)});
    }
    return valuesOf(intersected(a, b));
}

/// The values of `a` that are not in `b`; none when there are none.
std::optional<Values> restOf(IntervalView a, IntervalView b) {
    if (a.size() == 1 && b.size() == 1 && overlaps(a, b)) {
        const Interval one = a.front();
        const Interval other = b.front();
        const bool isBelow = one.first < other.first;
        const bool isAbove = other.last < one.last;
        if (isBelow != isAbove) {
            return isBelow ? valuesOf(Interval{one.first, other.first - 1})
                           : valuesOf(Interval{other.last + 1, one.last});
        }
        if (!isBelow) {
            return std::nullopt;
        }
    }
    Intervals rest = without(a, b);
    return rest.empty() ? std::nullopt : std::optional(valuesOf(std::move(rest)));
}

}  // namespace

bool overlaps(const PacketSpace& space, const Region& region, const SpaceRule& rule) {
    if (!hasPackets(rule)) {
        return false;
    }
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        if (id == 0 || isAny(region[field])) {
            continue;
        }
        const Values& values = space.values(id);
        if (values != region[field] && !overlaps(*values, *region[field])) {
            return false;
        }
    }
    return true;
}

LongOverlaps::Row& LongOverlaps::rowOf(const Values& list) {
    Row& row = rows_[list];
    row.resize(space_.size());
    return row;
}

void LongOverlaps::forgetMuch() {
    if (rows_.size() * space_.size() > kMostKnown) {
        rows_.clear();
    }
}

bool LongOverlaps::overlap(const Values& list, Row& row, std::uint32_t id,
                           std::size_t& steps) const {
    std::uint8_t& known = row[id];
    if (known == 0) {
        known = overlapsCounted(*space_.values(id), *list, steps) ? 2 : 1;
    }
    return known == 2;
}

OverlapTest::OverlapTest(const PacketSpace& space, const Region& region, std::size_t& steps,
                         LongOverlaps* shared)
    : space_(space), region_(region), steps_(steps), shared_(shared) {
    for (const Field field : {kSource, kDestination}) {
        const Values& own = region[field];
        if (shared != nullptr && own != nullptr && own->size() > kLongList) {
            rows_[field - kSource] = &shared->rowOf(own);
        }
    }
}

bool OverlapTest::operator()(const SpaceRule& rule) {
    ++steps_;
    if (!hasPackets(rule)) {
        return false;
    }
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        const Values& own = region_[field];
        if (id == 0 || isAny(own)) {
            continue;
        }
        const bool isAddress = field == kSource || field == kDestination;
        if (isAddress && rows_[field - kSource] != nullptr) {
            if (!shared_->overlap(own, *rows_[field - kSource], id, steps_)) {
                return false;
            }
            continue;
        }
        const Values& values = space_.values(id);
        if (values != own &&
            !(values->size() > kLongList ? overlapsLong(field, id)
                                         : overlapsCounted(*values, *own, steps_))) {
            return false;
        }
    }
    return true;
}

bool OverlapTest::overlapsLong(Field field, std::uint32_t id) {
    const std::uint32_t key = id * 2 + (field == kSource ? 0 : 1);
    Known& known = known_[key % known_.size()];
    if (known.key != key) {
        known = {key, overlapsCounted(*space_.values(id), *region_[field], steps_)};
    }
    return known.overlaps;
}

bool covers(const PacketSpace& space, const SpaceRule& rule, const Region& region) {
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        if (id == 0) {
            continue;
        }
        const Values& values = space.values(id);
        if (isAny(region[field]) ||
            (values != region[field] && !includes(*values, *region[field]))) {
            return false;
        }
    }
    return true;
}

bool contains(const PacketSpace& space, const SpaceRule& rule, const Point& point) {
    for (const Field field : kQuickFirst) {
        const std::uint32_t id = rule.values[field];
        if (id != 0 && !contains(*space.values(id), point[field])) {
            return false;
        }
    }
    return true;
}

Region intersected(const PacketSpace& space, const Region& region, const SpaceRule& rule) {
    Region common = region;
    for (std::size_t field = 0; field < kFields; ++field) {
        const std::uint32_t id = rule.values[field];
        if (id == 0) {
            continue;
        }
        const Values& values = space.values(id);
        if (isAny(region[field]) || values == region[field]) {
            common[field] = values;
        } else if (!includes(*values, *region[field])) {
            common[field] = commonOf(*region[field], *values);
        }
    }
    return common;
}

std::size_t appendWithout(const PacketSpace& space, Piece piece, const SpaceRule& rule,
                          std::vector<Piece>& rest) {
    std::size_t made = 0;
    for (std::size_t at = 0; at < kFields; ++at) {
        const auto field = static_cast<Field>(at);
        const std::uint32_t id = rule.values[field];
        if (id == 0) {
            continue;
        }
        const Values& values = space.values(id);
        const IntervalView own = space.valuesIn(piece.region, field);
        std::optional<Values> outside = restOf(own, *values);
        if (!outside) {
            continue;
        }
        made += (*outside)->size();
        Piece& one = rest.emplace_back(piece);
        one.region[field] = std::move(*outside);
        one.own[field] = true;
        piece.own[field] = !isAny(piece.region[field]);
        piece.region[field] = isAny(piece.region[field]) ? values : commonOf(own, *values);
        made += piece.own[field] ? piece.region[field]->size() : 0;
    }
    return made;
}

int compare(const Values& a, const Values& b) {
    if (a == b) {
        return 0;
    }
    if (isAny(a) || isAny(b)) {
        return isAny(a) ? -1 : 1;
    }
    if (a->size() != b->size()) {
        return a->size() < b->size() ? -1 : 1;
    }
    for (std::size_t i = 0; i < a->size(); ++i) {
        const Interval one = (*a)[i];
        const Interval other = (*b)[i];
        if (!(one == other)) {
            return one.first < other.first || (one.first == other.first && one.last < other.last)
                       ? -1
                       : 1;
        }
    }
    return 0;
}

namespace {

/// Joins the regions that differ in `field` only.
void joinAlong(const PacketSpace& space, Field field, std::vector<Region>& regions) {
    const auto compareOthers = [field](const Region& a, const Region& b) {
        for (std::size_t other = 0; other < kFields; ++other) {
            const int order = other == field ? 0 : compare(a[other], b[other]);
            if (order != 0) {
                return order;
            }
        }
        return 0;
    };
    std::stable_sort(regions.begin(), regions.end(),
                     [&](const Region& a, const Region& b) { return compareOthers(a, b) < 0; });
    std::vector<Region> joined;
    for (std::size_t i = 0; i < regions.size();) {
        Region region = regions[i];
        // The same number is another address in the other family.
        if (field == kFamily && (!isAny(region[kSource]) || !isAny(region[kDestination]))) {
            joined.push_back(std::move(region));
            ++i;
            continue;
        }
        Intervals values;
        bool any = false;
        std::size_t next = i;
        for (; next < regions.size() && compareOthers(region, regions[next]) == 0; ++next) {
            if (isAny(regions[next][field])) {
                any = true;
            } else {
                for (const Interval& one : *regions[next][field]) {
                    values.push_back(one);
                }
            }
        }
        if (next > i + 1) {
            normalize(values);
            any = any || values == space.all(field);
            region[field] = any ? nullptr : valuesOf(std::move(values));
        }
        joined.push_back(std::move(region));
        i = next;
    }
    regions = std::move(joined);
}

/// Which part of all packets a region is.
long double sizeOf(const PacketSpace& space, const Region& region) {
    long double size = 1;
    for (std::size_t field = 0; field < kFields; ++field) {
        if (isAny(region[field])) {
            continue;
        }
        long double count = 0;
        for (const Interval& one : *region[field]) {
            count += static_cast<long double>(one.last - one.first) + 1;
        }
        const Interval& all = space.all(static_cast<Field>(field)).front();
        size *= count / (static_cast<long double>(all.last) + 1);
    }
    return size;
}

}  // namespace

void join(const PacketSpace& space, std::vector<Region>& regions, Effort& effort) {
    for (std::size_t before = 0; before != regions.size() && regions.size() > 1;) {
        before = regions.size();
        for (std::size_t field = kFields; field > 0 && !effort.isSpent(); --field) {
            effort.steps += regions.size();
            for (const Region& region : regions) {
                for (const Values& values : region) {
                    effort.addIntervals(isAny(values) ? 0 : values->size());
                }
            }
            joinAlong(space, static_cast<Field>(field - 1), regions);
        }
    }
    std::stable_sort(regions.begin(), regions.end(), [&](const Region& a, const Region& b) {
        return sizeOf(space, a) > sizeOf(space, b);
    });
}

}  // namespace FW
