// Rules that change nothing.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "meaningState.h"
#include "regions.h"
#include "ruleScan.h"
#include "search.h"

namespace FW {
namespace {

constexpr unsigned kSamples = 8;  // packets that are tried first, for each part of a rule

/// A rule of the profile: its resolved rules.
struct Owner {
    std::vector<std::uint32_t> parts;
    Outcome outcome;
    bool gone = false;  // found to change nothing
};

/// One of the packets of a region: in each field the least or the greatest value, or one in the
/// middle, by the bits of a number that `sample` makes.
Point sampleOf(const PacketSpace& space, const Region& region, unsigned sample) {
    Point point;
    for (std::size_t field = 0; field < kFields; ++field) {
        const IntervalView values = space.valuesIn(region, static_cast<Field>(field));
        const Interval middle = values[values.size() / 2];
        const auto mixed = static_cast<std::uint32_t>(sample * kFields + field) * 0x9e3779b1U;
        switch (sample == 0 ? 0 : mixed >> 30) {
            case 0:
                point[field] = values.front().first;
                break;
            case 1:
                point[field] = values.back().last;
                break;
            case 2:
                point[field] = middle.first;
                break;
            default:
                point[field] = middle.first + (middle.last - middle.first) / 2;
                break;
        }
    }
    return point;
}

/// Examines the rules of one profile.
class ShadowFinder {
public:
    ShadowFinder(const Places& places, const std::vector<std::uint32_t>& ownerOf,
                 const PacketSpace& space, const std::vector<SpaceRule>& rules,
                 const RuleIndex& index)
        : places_(places),
          ownerOf_(ownerOf),
          space_(space),
          rules_(rules),
          index_(index),
          scan_(space, rules, steps_),
          owners_(places.size()) {
        for (std::size_t i = 0; i < rules.size(); ++i) {
            Owner& owner = owners_[ownerOf[i]];
            hasRulesApart_ =
                hasRulesApart_ || (!owner.parts.empty() && ownerOf[i] != ownerOf[i - 1]);
            owner.outcome = {rules[i].verdict, rules[i].log};
            owner.parts.push_back(static_cast<std::uint32_t>(i));
        }
        std::map<ValueIds, std::uint32_t> twins;
        for (std::size_t i = 0; i < rules.size(); ++i) {
            twinOf_.push_back(
                twins.emplace(rules[i].values, static_cast<std::uint32_t>(i)).first->second);
        }
        keptIn_.resize(rules.size());
    }

    FWSHADOWS run() {
        std::vector<std::optional<FWSHADOW>> found(owners_.size());
        std::vector<Sampled> sampled;
        for (std::size_t i = 0; i < owners_.size() && steps_ < FW_MEANING_STEPS; ++i) {
            sampled.push_back(places_.origin(i) == FW_ORIGIN_RULE ? sample(owners_[i])
                                                                  : Sampled{true, true});
        }
        for (std::size_t i = 0; i < owners_.size() && steps_ < FW_MEANING_STEPS; ++i) {
            if (!sampled[i].decides) {
                found[i] = examine(i, /*neverDecides=*/true);
            }
        }
        // From the last one on: each may rely on those after it that stay.
        for (std::size_t i = owners_.size(); i > 0 && steps_ < FW_MEANING_STEPS; --i) {
            if (!sampled[i - 1].changes && !found[i - 1]) {
                found[i - 1] = examine(i - 1, /*neverDecides=*/false);
            }
        }
        std::reverse(findings_.begin(), findings_.end());
        if (steps_ >= FW_MEANING_STEPS) {
            findings_.push_back({{}, "too complex: not all rules were examined"});
        }
        FWSHADOWS result;
        result.findings = std::move(findings_);
        for (std::optional<FWSHADOW>& shadow : found) {
            if (shadow) {
                result.shadows.push_back(std::move(*shadow));
            }
        }
        return result;
    }

private:
    /// What a few of a rule's packets show.
    struct Sampled {
        bool decides = false;  // it decides about one of them
        bool changes = false;  // and without it something else happens to that one
    };

    Sampled sample(const Owner& owner) {
        Sampled sampled;
        for (const std::uint32_t part : owner.parts) {
            if (!hasPackets(rules_[part])) {
                continue;
            }
            const Region region = space_.regionOf(rules_[part].values);
            for (unsigned i = 0; i < kSamples && !sampled.changes; ++i) {
                const Point point = sampleOf(space_, region, i);
                const std::size_t first = index_.nextMatch(point, 0, steps_);
                if (ownerOf(first) != ownerOf(part)) {
                    continue;
                }
                sampled.decides = true;
                const std::size_t next = index_.nextMatch(point, first + 1, steps_);
                sampled.changes =
                    ownerOf(next) != ownerOf(part) && !(outcomeOf(next) == owner.outcome);
            }
        }
        return sampled;
    }

    std::size_t ownerOf(std::size_t rule) const {
        return rule < ownerOf_.size() ? ownerOf_[rule] : owners_.size();
    }

    Outcome outcomeOf(std::size_t rule) const {
        return rule < rules_.size() ? Outcome{rules_[rule].verdict, rules_[rule].log} : Outcome{};
    }

    /// The shadow of a rule if it never decides, or if it changes nothing.
    std::optional<FWSHADOW> examine(std::size_t number, bool neverDecides) {
        Owner& owner = owners_[number];
        Search search(space_, rules_);
        Search besideAll(space_, rules_);
        Answer result = Answer::kNo;
        for (std::size_t i = 0; i < owner.parts.size() && result == Answer::kNo; ++i) {
            const std::uint32_t part = owner.parts[i];
            if (!hasPackets(rules_[part])) {
                continue;
            }
            const Region region = space_.regionOf(rules_[part].values);
            const auto isOwn = [&](std::uint32_t rule) { return ownerOf_[rule] == number; };
            const auto isGone = [&](std::uint32_t rule) {
                return isOwn(rule) || owners_[ownerOf_[rule]].gone;
            };
            // What never decides covers nothing that those before it do not.
            if (neverDecides) {
                const std::size_t one =
                    scan_.covering(region, part, [&](std::uint32_t rule) { return !isGone(rule); });
                if (one < part) {
                    search.addCoveringBefore(one);
                    continue;
                }
            }
            const RuleNumbers earlier = scan_.overlapping(region, 0, part);
            if (neverDecides) {
                result = search.leavesAny(region, usefulOf(earlier, isGone));
                continue;
            }
            // It has to be needless beside those that stay, and beside all.
            const RuleNumbers later = scan_.overlapping(region, part + 1, rules_.size());
            result = search.leavesOther(region, usefulOf(earlier, isGone), usefulOf(later, isGone),
                                        owner.outcome);
            // Those before it that are gone never decide, and not because of it, unless some rules
            // have parts on both sides of others.
            const auto isNoneBefore = [&](std::uint32_t rule) {
                return isOwn(rule) || (!hasRulesApart_ && isGone(rule));
            };
            if (result == Answer::kNo &&
                (std::any_of(later.begin(), later.end(), isGone) ||
                 (hasRulesApart_ && std::any_of(earlier.begin(), earlier.end(), isGone)))) {
                result = besideAll.leavesOther(region, usefulOf(earlier, isNoneBefore),
                                               usefulOf(later, isOwn), owner.outcome);
            }
        }
        steps_ += search.steps() + besideAll.steps();
        const FWPLACE place = places_[number];
        // A rule of which the first pass was too complex is examined again in the second.
        if (result == Answer::kTooComplex && !neverDecides) {
            findings_.push_back({place, "too complex: whether it changes anything"});
        }
        if (result != Answer::kNo) {
            return std::nullopt;
        }
        owner.gone = true;
        std::vector<FWPLACE> before = placesOf(search.coveringBefore());
        return neverDecides
                   ? FWSHADOW{place, true, std::move(before), {}}
                   : FWSHADOW{place, false, placesOf(search.coveringAfter()), std::move(before)};
    }

    /// The rules but for those that `isLeftOut` names, and those with the same packets as one kept
    /// before: no packet gets to them.
    template <typename IsLeftOut>
    RuleNumbers usefulOf(const RuleNumbers& numbers, IsLeftOut isLeftOut) {
        ++lists_;
        RuleNumbers useful;
        for (const std::uint32_t rule : numbers) {
            std::size_t& kept = keptIn_[twinOf_[rule]];
            if (kept != lists_ && !isLeftOut(rule)) {
                kept = lists_;
                useful.push_back(rule);
            }
        }
        return useful;
    }

    std::vector<FWPLACE> placesOf(const std::set<std::uint32_t>& rules) const {
        std::vector<FWPLACE> places;
        std::set<std::size_t> seen;
        for (const std::uint32_t rule : rules) {
            if (seen.insert(ownerOf_[rule]).second) {
                places.push_back(places_[ownerOf_[rule]]);
            }
        }
        return places;
    }

    const Places& places_;                       // by owner
    const std::vector<std::uint32_t>& ownerOf_;  // by rule
    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    const RuleIndex& index_;
    std::size_t steps_ = 0;
    RuleScan scan_;
    std::vector<Owner> owners_;
    bool hasRulesApart_ = false;         // there are others between the parts of one
    std::vector<std::uint32_t> twinOf_;  // by rule: the first one with the same packets
    std::vector<std::size_t> keptIn_;    // by such a first one: the last list that has one of them
    std::size_t lists_ = 0;              // made so far
    std::vector<FWFINDING> findings_;
};

}  // namespace

FWSHADOWS FW_MEANING::shadows() const {
    return ShadowFinder(state_->places, state_->placeNumbers, state_->space, state_->rules,
                        state_->index)
        .run();
}

}  // namespace FW
