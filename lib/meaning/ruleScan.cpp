#include "ruleScan.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

namespace FW {
namespace {

// The fields that tell most rules apart.
constexpr Field kBounded[] = {kSource, kDestination, kDestinationPort, kProtocol};

constexpr std::size_t kBlock = 256;  // rules looked at together

using Hits = std::uint8_t[kBlock];

/// Clears the hits of rules that do not begin at or before `start` and end at or after `end`. The
/// compiler makes vector instructions of this loop as long as its length is fixed.
void keepFrom(const std::uint32_t* firsts, const std::uint32_t* lasts, std::uint32_t start,
              std::uint32_t end, std::uint8_t* __restrict hits) {
    for (std::size_t i = 0; i < kBlock; ++i) {
        hits[i] = static_cast<std::uint8_t>(hits[i] & (firsts[i] <= start) & (end <= lasts[i]));
    }
}

}  // namespace

/// `valuesOf` has the values of a field.
template <typename ValuesOf>
RuleScan::AllBounds RuleScan::boundsOf(ValuesOf valuesOf) {
    AllBounds bounds;
    for (std::size_t i = 0; i < kFieldsWithBounds; ++i) {
        const Values& values = valuesOf(kBounded[i]);
        const unsigned shift = kBounded[i] == kSource || kBounded[i] == kDestination ? 96 : 0;
        bounds[i] = {0, std::numeric_limits<std::uint32_t>::max()};
        if (values != nullptr && !values->empty()) {
            bounds[i] = {static_cast<std::uint32_t>(values->front().first >> shift),
                         static_cast<std::uint32_t>(values->back().last >> shift)};
        }
    }
    return bounds;
}

RuleScan::RuleScan(const PacketSpace& space, const std::vector<SpaceRule>& rules,
                   std::size_t& steps)
    : space_(space), rules_(rules), steps_(steps), longOverlaps_(space) {
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const ValueIds& ids = rules[i].values;
        auto group = std::find_if(groups_.begin(), groups_.end(),
                                  [&](const Group& one) { return one.in == ids[kIn]; });
        if (group == groups_.end()) {
            group = groups_.insert(group, Group());
            group->in = ids[kIn];
        }
        const AllBounds bounds =
            boundsOf([&](Field field) -> const Values& { return space.values(ids[field]); });
        for (std::size_t field = 0; field < kFieldsWithBounds; ++field) {
            group->first[field].push_back(bounds[field].first);
            group->last[field].push_back(bounds[field].last);
        }
        group->rules.push_back(static_cast<std::uint32_t>(i));
    }
    for (Group& group : groups_) {
        const std::size_t size = (group.rules.size() + kBlock - 1) / kBlock * kBlock;
        for (std::size_t field = 0; field < kFieldsWithBounds; ++field) {
            group.first[field].resize(size);
            group.last[field].resize(size);
        }
    }
}

/// Visits the rules of a group from number `from` to before `end` that begin at or before the first
/// number of each of `wanted` and end at or after the last one, until the visitor returns false.
template <typename Visit>
void RuleScan::visit(const Group& group, std::size_t from, std::size_t end, const AllBounds& wanted,
                     Visit visitor) {
    const auto indexOf = [&](std::size_t rule) {
        return static_cast<std::size_t>(
            std::lower_bound(group.rules.begin(), group.rules.end(), rule) - group.rules.begin());
    };
    const std::size_t firstIndex = indexOf(from);
    const std::size_t endIndex = indexOf(end);
    for (std::size_t block = firstIndex / kBlock * kBlock; block < endIndex; block += kBlock) {
        ++steps_;
        Hits hits;
        std::memset(hits, 1, sizeof(hits));
        for (std::size_t field = 0; field < kFieldsWithBounds; ++field) {
            keepFrom(&group.first[field][block], &group.last[field][block], wanted[field].first,
                     wanted[field].last, hits);
        }
        std::size_t at = std::max(block, firstIndex);
        const std::size_t blockEnd = std::min(block + kBlock, endIndex);
        while (at < blockEnd) {
            const void* const hit = std::memchr(hits + (at - block), 1, blockEnd - at);
            if (hit == nullptr) {
                break;
            }
            at = block + static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - hits);
            if (!visitor(group.rules[at])) {
                return;
            }
            ++at;
        }
    }
}

RuleNumbers RuleScan::overlapping(const Region& region, std::size_t from, std::size_t end) {
    AllBounds wanted = boundsOf([&](Field field) -> const Values& { return region[field]; });
    for (Bounds& bounds : wanted) {
        std::swap(bounds.first, bounds.last);
    }
    longOverlaps_.forgetMuch();
    OverlapTest overlapsRegion(space_, region, steps_, &longOverlaps_);
    RuleNumbers found;
    for (const Group& group : groups_) {
        const Values& in = space_.values(group.in);
        if (!isAny(in) && !isAny(region[kIn]) && !FW::overlaps(*in, *region[kIn])) {
            continue;
        }
        const auto middle = static_cast<std::ptrdiff_t>(found.size());
        visit(group, from, end, wanted, [&](std::uint32_t rule) {
            if (overlapsRegion(rules_[rule])) {
                found.push_back(rule);
            }
            return true;
        });
        std::inplace_merge(found.begin(), found.begin() + middle, found.end());
    }
    return found;
}

std::size_t RuleScan::covering(const Region& region, std::size_t end,
                               const std::function<bool(std::uint32_t)>& isWanted) {
    const AllBounds wanted = boundsOf([&](Field field) -> const Values& { return region[field]; });
    std::size_t first = end;
    for (const Group& group : groups_) {
        const Values& in = space_.values(group.in);
        if (!isAny(in) && (isAny(region[kIn]) || !includes(*in, *region[kIn]))) {
            continue;
        }
        visit(group, 0, first, wanted, [&](std::uint32_t rule) {
            ++steps_;
            if (covers(space_, rules_[rule], region) && isWanted(rule)) {
                first = rule;
            }
            return first != rule;
        });
    }
    return first;
}

}  // namespace FW
