#include "ruleScan.h"

#include <algorithm>
#include <limits>

namespace FW {
namespace {

/// Sets the bounds of a field, in numbers of a smaller type: what does not fit is its greatest.
template <typename Small>
void setBounds(const Values& values, unsigned shift, Small (&bounds)[2]) {
    const Number greatest = std::numeric_limits<Small>::max();
    bounds[0] = 0;
    bounds[1] = static_cast<Small>(greatest);
    if (values != nullptr && !values->empty()) {
        bounds[0] = static_cast<Small>(std::min(values->front().first >> shift, greatest));
        bounds[1] = static_cast<Small>(std::min(values->back().last >> shift, greatest));
    }
}

template <typename Small>
bool meet(const Small (&a)[2], const Small (&b)[2]) {
    return a[0] <= b[1] && b[0] <= a[1];
}

}  // namespace

/// `valuesOf` has the values of a field.
template <typename ValuesOf>
RuleScan::Bounds RuleScan::boundsOf(ValuesOf valuesOf) {
    Bounds bounds;
    setBounds(valuesOf(kSource), 64, bounds.source);
    setBounds(valuesOf(kDestination), 64, bounds.destination);
    setBounds(valuesOf(kDestinationPort), 0, bounds.port);
    setBounds(valuesOf(kProtocol), 0, bounds.protocol);
    bounds.rule = 0;
    return bounds;
}

RuleScan::RuleScan(const PacketSpace& space, const std::vector<SpaceRule>& rules)
    : space_(space), rules_(rules) {
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const std::uint32_t in = rules[i].values[kIn];
        auto group = std::find_if(groups_.begin(), groups_.end(),
                                  [in](const Group& one) { return one.in == in; });
        if (group == groups_.end()) {
            group = groups_.insert(group, {in, {}});
        }
        const ValueIds& ids = rules[i].values;
        group->bounds.push_back(
            boundsOf([&](Field field) -> const Values& { return space.values(ids[field]); }));
        group->bounds.back().rule = static_cast<std::uint32_t>(i);
    }
}

RuleNumbers RuleScan::overlapping(const Region& region, std::size_t from, std::size_t end) {
    const Bounds wanted = boundsOf([&](Field field) -> const Values& { return region[field]; });
    const auto isBefore = [](const Bounds& bounds, std::size_t rule) { return bounds.rule < rule; };
    OverlapTest overlapsRegion(space_, region, &longOverlaps_);
    RuleNumbers found;
    for (const Group& group : groups_) {
        const Values& in = space_.values(group.in);
        if (!isAny(in) && !isAny(region[kIn]) && !FW::overlaps(*in, *region[kIn])) {
            continue;
        }
        const auto middle = static_cast<std::ptrdiff_t>(found.size());
        auto bounds = std::lower_bound(group.bounds.begin(), group.bounds.end(), from, isBefore);
        for (; bounds != group.bounds.end() && bounds->rule < end; ++bounds) {
            if (meet(bounds->source, wanted.source) && meet(bounds->port, wanted.port) &&
                meet(bounds->protocol, wanted.protocol) &&
                meet(bounds->destination, wanted.destination) &&
                overlapsRegion(rules_[bounds->rule])) {
                found.push_back(bounds->rule);
            }
        }
        std::inplace_merge(found.begin(), found.begin() + middle, found.end());
    }
    return found;
}

}  // namespace FW
