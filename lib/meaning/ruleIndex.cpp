#include "ruleIndex.h"

#include <algorithm>
#include <array>
#include <utility>

#include "regions.h"

namespace FW {
namespace {

constexpr std::size_t kLeafRules = 8;  // no need to cut further

// The tree may name a rule in several leaves, on average in this many. Rules that overlap each
// other everywhere would otherwise fill the memory; their leaves are longer instead.
constexpr std::size_t kLeavesPerRule = 4;

constexpr std::size_t kFewIntervals = 16;

constexpr std::size_t kSampledRules = 64;     // that propose where to cut
constexpr std::size_t kSampledIntervals = 4;  // of each of their fields

using Bounds = std::array<Interval, kFields>;
using RuleList = std::vector<std::uint32_t>;

/// Whether addresses are a small part of all.
bool hasFewAddresses(const Values& addresses) {
    return addresses != nullptr && addresses->size() <= kFewIntervals &&
           addresses->back().last - addresses->front().first <= kMaxNumber / 16;
}

}  // namespace

struct RuleIndex::Builder {
    RuleIndex& index;

    const ValueSet* valuesOf(std::uint32_t rule, std::size_t field) const {
        return index.space_.values(index.rules_[rule].values[field]).get();
    }

    /// Whether a rule has any of the values of an interval.
    bool hasAnyOf(std::uint32_t rule, std::size_t field, const Interval& bounds) const {
        const ValueSet* const values = valuesOf(rule, field);
        return values == nullptr || FW::overlaps(*values, bounds);
    }

    bool covers(std::uint32_t rule, const Bounds& bounds) const {
        for (std::size_t field = 0; field < kFields; ++field) {
            const ValueSet* const values = valuesOf(rule, field);
            if (values != nullptr && !includes(*values, bounds[field])) {
                return false;
            }
        }
        return true;
    }

    /// Ends a list after the second rule that covers the bounds.
    void truncate(RuleList& rules, const Bounds& bounds) const {
        auto end = rules.begin();
        for (int covering = 0; covering < 2 && end != rules.end(); ++end) {
            covering += covers(*end, bounds) ? 1 : 0;
        }
        rules.erase(end, rules.end());
    }

    /// Where a cut of a field has about the same number of edges on both sides; 0 without edges.
    Number proposeCut(const RuleList& rules, std::size_t field, const Interval& bounds) const {
        std::vector<Number> edges;
        const std::size_t step = rules.size() / kSampledRules + 1;
        for (std::size_t i = 0; i < rules.size(); i += step) {
            const ValueSet* const values = valuesOf(rules[i], field);
            if (values == nullptr) {
                continue;
            }
            const std::size_t valueStep = values->size() / kSampledIntervals + 1;
            for (std::size_t k = 0; k < values->size(); k += valueStep) {
                const Interval one = (*values)[k];
                if (bounds.first < one.first && one.first <= bounds.last) {
                    edges.push_back(one.first);
                }
                if (bounds.first <= one.last && one.last < bounds.last) {
                    edges.push_back(one.last + 1);
                }
            }
        }
        if (edges.empty()) {
            return 0;
        }
        const auto middle = edges.begin() + static_cast<std::ptrdiff_t>(edges.size() / 2);
        std::nth_element(edges.begin(), middle, edges.end());
        return *middle;
    }

    RuleList overlapping(const RuleList& rules, std::size_t field, const Interval& bounds) const {
        RuleList found;
        std::copy_if(rules.begin(), rules.end(), std::back_inserter(found),
                     [&](std::uint32_t rule) { return hasAnyOf(rule, field, bounds); });
        return found;
    }

    /// How good a cut is: the rules of the longer half and of both. Less is better.
    std::pair<std::size_t, std::size_t> costOf(const RuleList& rules, std::size_t field,
                                               const Interval& below, const Interval& above) const {
        std::size_t first = 0;
        std::size_t second = 0;
        const std::size_t step = rules.size() / (4 * kSampledRules) + 1;
        for (std::size_t i = 0; i < rules.size(); i += step) {
            first += hasAnyOf(rules[i], field, below) ? step : 0;
            second += hasAnyOf(rules[i], field, above) ? step : 0;
        }
        return {std::max(first, second), first + second};
    }

    void makeLeaf(std::uint32_t node, const RuleList& rules) const {
        index.nodes_[node].below = static_cast<std::uint32_t>(index.leaves_.size());
        index.leaves_.insert(index.leaves_.end(), rules.begin(), rules.end());
        index.nodes_[node].end = static_cast<std::uint32_t>(index.leaves_.size());
    }

    /// Makes the tree of a node. Its leaves may have about `allowance` rules together.
    void build(std::uint32_t node, RuleList rules, Bounds bounds, std::size_t allowance) {
        truncate(rules, bounds);
        if (rules.size() <= kLeafRules) {
            makeLeaf(node, rules);
            return;
        }
        Field best = kFields;
        Number bestCut = 0;
        std::pair<std::size_t, std::size_t> bestCost{rules.size(), 0};
        for (std::size_t field = 0; field < kFields; ++field) {
            const Number cut = proposeCut(rules, field, bounds[field]);
            if (cut == 0) {
                continue;
            }
            const auto cost =
                costOf(rules, field, {bounds[field].first, cut - 1}, {cut, bounds[field].last});
            if (cost < bestCost) {
                bestCost = cost;
                best = static_cast<Field>(field);
                bestCut = cut;
            }
        }
        if (best == kFields || bestCost.second > allowance) {
            makeLeaf(node, rules);
            return;
        }
        const Interval below{bounds[best].first, bestCut - 1};
        const Interval above{bestCut, bounds[best].last};
        RuleList lower = overlapping(rules, best, below);
        RuleList upper = overlapping(rules, best, above);
        const std::size_t both = lower.size() + upper.size();
        if (std::max(lower.size(), upper.size()) == rules.size() &&
            std::min(lower.size(), upper.size()) + kLeafRules > rules.size()) {
            makeLeaf(node, rules);
            return;
        }
        const std::size_t lowerAllowance =
            allowance * lower.size() / std::max<std::size_t>(both, 1);
        rules.clear();
        rules.shrink_to_fit();

        const auto child = static_cast<std::uint32_t>(index.nodes_.size());
        index.nodes_.resize(index.nodes_.size() + 2);
        index.nodes_[node].field = best;
        index.nodes_[node].cut = bestCut;
        index.nodes_[node].below = child;
        bounds[best] = below;
        build(child, std::move(lower), bounds, lowerAllowance);
        bounds[best] = above;
        build(child + 1, std::move(upper), bounds, allowance - lowerAllowance);
    }
};

RuleIndex::RuleIndex(const PacketSpace& space, const std::vector<SpaceRule>& rules)
    : space_(space), rules_(rules) {
    Bounds bounds;
    for (std::size_t field = 0; field < kFields; ++field) {
        bounds[field] = space.all(static_cast<Field>(field)).front();
    }
    std::array<RuleList, 4> lists;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const ValueIds& ids = rules[i].values;
        const std::size_t list = (hasFewAddresses(space.values(ids[kSource])) ? 1U : 0U) +
                                 (hasFewAddresses(space.values(ids[kDestination])) ? 2U : 0U);
        lists[list].push_back(static_cast<std::uint32_t>(i));
    }
    for (RuleList& list : lists) {
        if (list.empty()) {
            continue;
        }
        const auto root = static_cast<std::uint32_t>(nodes_.size());
        roots_.push_back(root);
        nodes_.emplace_back();
        const std::size_t allowance = kLeavesPerRule * list.size();
        Builder{*this}.build(root, std::move(list), bounds, allowance);
    }
    nodes_.shrink_to_fit();
    leaves_.shrink_to_fit();
}

std::size_t RuleIndex::nextMatch(const Point& point, std::size_t from) const {
    std::size_t first = rules_.size();
    for (const std::uint32_t root : roots_) {
        first = std::min(first, nextMatch(root, point, from));
    }
    return first;
}

std::size_t RuleIndex::nextMatch(std::uint32_t root, const Point& point, std::size_t from) const {
    const Node* node = &nodes_[root];
    while (node->field != kFields) {
        node = &nodes_[node->below + (point[node->field] < node->cut ? 0 : 1)];
    }
    for (std::uint32_t i = node->below; i < node->end; ++i) {
        if (leaves_[i] >= from && contains(space_, rules_[leaves_[i]], point)) {
            return leaves_[i];
        }
    }
    return rules_.size();
}

}  // namespace FW
