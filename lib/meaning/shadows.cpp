// Rules that change nothing.

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "meaningState.h"
#include "regions.h"
#include "ruleScan.h"

namespace FW {
namespace {

constexpr unsigned kSamples = 8;  // packets that are tried first, for each part of a rule

/// What happens to packets.
struct Outcome {
    FW_PACKET_VERDICT verdict = FW_PACKET_NEXT;
    bool log = false;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.verdict == b.verdict && a.log == b.log;
}

/// A rule of the profile: its resolved rules.
struct Owner {
    std::vector<std::uint32_t> parts;
    Outcome outcome;
    bool gone = false;  // found to change nothing
};

/// What is known of a rule.
enum class Answer { kYes, kNo, kTooComplex };

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

/// Cuts the packets of a rule along other rules, to find one for which the rule counts.
class Search {
public:
    Search(const PacketSpace& space, const std::vector<SpaceRule>& rules, std::size_t limit)
        : space_(space), rules_(rules), limit_(limit) {}

    // All of `earlier` and `later` overlap the region.

    /// Whether `earlier` leaves any packet of the region. If not, `covering()` does that.
    Answer leavesAny(const Region& region, const RuleNumbers& earlier) {
        return leaves(region, earlier, nullptr, {});
    }

    /// Whether there is a packet of the region that `earlier` leaves, and with which `later`, or
    /// the end of the rules, do not what `outcome` says. If not, `covering()` does.
    Answer leavesOther(const Region& region, const RuleNumbers& earlier, const RuleNumbers& later,
                       const Outcome& outcome) {
        return leaves(region, earlier, &later, outcome);
    }

    const std::set<std::uint32_t>& covering() const { return covering_; }
    std::size_t steps() const { return steps_; }

private:
    Outcome outcomeOf(std::uint32_t rule) const { return {rules_[rule].verdict, rules_[rule].log}; }

    RuleNumbers overlapping(const Region& region, const RuleNumbers& numbers) {
        RuleNumbers found;
        OverlapTest overlapsRegion(space_, region);
        for (const std::uint32_t number : numbers) {
            if (overlapsRegion(rules_[number])) {
                found.push_back(number);
            }
        }
        steps_ += numbers.size();
        return found;
    }

    /// In how many fields a rule does not have all values of a region: the pieces that a cut makes.
    std::size_t piecesOf(const Region& region, std::uint32_t rule) const {
        std::size_t count = 0;
        for (std::size_t field = 0; field < kFields; ++field) {
            const std::uint32_t id = rules_[rule].values[field];
            if (id == 0) {
                continue;
            }
            const Values& values = space_.values(id);
            if (isAny(region[field]) ||
                (values != region[field] && !includes(*values, *region[field]))) {
                ++count;
            }
        }
        return count;
    }

    /// The rule that cuts off the most: with the fewest pieces left. That of `numbers` at the
    /// result's place.
    std::pair<std::size_t, std::size_t> bestCut(const Region& region, const RuleNumbers& numbers) {
        std::size_t best = 0;
        std::size_t fewest = kFields + 1;
        for (std::size_t i = 0; i < numbers.size() && fewest > 0; ++i) {
            const std::size_t pieces = piecesOf(region, numbers[i]);
            if (pieces < fewest) {
                fewest = pieces;
                best = i;
            }
        }
        steps_ += numbers.size();
        return {best, fewest};
    }

    /// Ends a list after the first rule that covers the region. Returns whether one does.
    bool truncate(const Region& region, RuleNumbers& numbers) {
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            ++steps_;
            if (covers(space_, rules_[numbers[i]], region)) {
                numbers.resize(i + 1);
                return true;
            }
        }
        return false;
    }

    Answer leavesOutside(const Region& region, std::uint32_t rule, const RuleNumbers& earlier,
                         const RuleNumbers* later, const Outcome& outcome) {
        std::vector<Region> pieces;
        appendWithout(space_, region, rules_[rule], pieces);
        for (const Region& piece : pieces) {
            const RuleNumbers laterOnes =
                later != nullptr ? overlapping(piece, *later) : RuleNumbers();
            const Answer answer = leaves(piece, overlapping(piece, earlier),
                                         later != nullptr ? &laterOnes : nullptr, outcome);
            if (answer != Answer::kNo) {
                return answer;
            }
        }
        return Answer::kNo;
    }

    Answer leaves(const Region& region, RuleNumbers earlier, const RuleNumbers* allLater,
                  const Outcome& outcome) {
        if (steps_ > limit_) {
            return Answer::kTooComplex;
        }
        RuleNumbers later;
        bool ends = true;  // whether packets may reach the end of `later`
        bool othersFollow = true;
        if (allLater != nullptr) {
            later = *allLater;
            ends = !truncate(region, later);
            othersFollow = (ends && !(outcome == Outcome())) ||
                           std::any_of(later.begin(), later.end(), [&](std::uint32_t rule) {
                               return !(outcomeOf(rule) == outcome);
                           });
        }
        if (!othersFollow) {
            covering_.insert(later.begin(), later.end());
            return Answer::kNo;
        }
        if (earlier.empty()) {
            if (later.empty() || !(outcomeOf(later.front()) == outcome)) {
                return Answer::kYes;
            }
            const std::uint32_t rule = later.front();
            covering_.insert(rule);
            later.erase(later.begin());
            return leavesOutside(region, rule, earlier, &later, outcome);
        }
        const auto [best, pieces] = bestCut(region, earlier);
        const std::uint32_t rule = earlier[best];
        covering_.insert(rule);
        if (pieces == 0) {
            return Answer::kNo;
        }
        earlier.erase(earlier.begin() + static_cast<std::ptrdiff_t>(best));
        return leavesOutside(region, rule, earlier, allLater != nullptr ? &later : nullptr,
                             outcome);
    }

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    std::size_t limit_;
    std::size_t steps_ = 0;
    std::set<std::uint32_t> covering_;
};

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
          scan_(space, rules),
          owners_(places.size()) {
        for (std::size_t i = 0; i < rules.size(); ++i) {
            Owner& owner = owners_[ownerOf[i]];
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
        for (std::size_t i = 0; i < owners_.size(); ++i) {
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

    Sampled sample(const Owner& owner) const {
        Sampled sampled;
        for (const std::uint32_t part : owner.parts) {
            const Region region = space_.regionOf(rules_[part].values);
            for (unsigned i = 0; i < kSamples && !sampled.changes; ++i) {
                const Point point = sampleOf(space_, region, i);
                const std::size_t first = index_.firstMatch(point);
                if (ownerOf(first) != ownerOf(part)) {
                    continue;
                }
                sampled.decides = true;
                const std::size_t next = index_.nextMatch(point, first + 1);
                // The index knows two rules for certain: not what is after two of one owner.
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
        Search search(space_, rules_, FW_MEANING_STEPS_PER_RULE);
        Search besideAll(space_, rules_, FW_MEANING_STEPS_PER_RULE);
        Answer result = Answer::kNo;
        for (std::size_t i = 0; i < owner.parts.size() && result == Answer::kNo; ++i) {
            const std::uint32_t part = owner.parts[i];
            const Region region = space_.regionOf(rules_[part].values);
            ++examined_;
            RuleNumbers earlier = scan_.overlapping(region, 0, part);
            keepUseful(earlier, [&](std::uint32_t rule) { return ownerOf_[rule] == number; });
            if (neverDecides) {
                result = search.leavesAny(region, earlier);
                continue;
            }
            // It has to be needless beside those that stay, and beside all.
            const RuleNumbers all = scan_.overlapping(region, part + 1, rules_.size());
            RuleNumbers staying = all;
            keepUseful(staying, [&](std::uint32_t rule) {
                return owners_[ownerOf_[rule]].gone || ownerOf_[rule] == number;
            });
            result = search.leavesOther(region, earlier, staying, owner.outcome);
            if (result == Answer::kNo && std::any_of(all.begin(), all.end(), [&](auto rule) {
                    return owners_[ownerOf_[rule]].gone;
                })) {
                ++examined_;
                RuleNumbers later = all;
                keepUseful(later, [&](std::uint32_t rule) { return ownerOf_[rule] == number; });
                result = besideAll.leavesOther(region, earlier, later, owner.outcome);
            }
        }
        steps_ += search.steps() + besideAll.steps();
        const FWPLACE place = places_[number];
        if (result == Answer::kTooComplex) {
            findings_.push_back({place, neverDecides ? "too complex: whether it never takes effect"
                                                     : "too complex: whether it changes anything"});
        }
        if (result != Answer::kNo) {
            return std::nullopt;
        }
        owner.gone = true;
        return FWSHADOW{place, neverDecides, placesOf(search.covering())};
    }

    /// Removes the rules that `isLeftOut` names, and those with the same packets as a rule kept
    /// before: no packet gets to them.
    template <typename IsLeftOut>
    void keepUseful(RuleNumbers& numbers, IsLeftOut isLeftOut) {
        numbers.erase(std::remove_if(numbers.begin(), numbers.end(),
                                     [&](std::uint32_t rule) {
                                         std::size_t& kept = keptIn_[twinOf_[rule]];
                                         if (kept == examined_ || isLeftOut(rule)) {
                                             return true;
                                         }
                                         kept = examined_;
                                         return false;
                                     }),
                      numbers.end());
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
    RuleScan scan_;
    std::vector<Owner> owners_;
    std::vector<std::uint32_t> twinOf_;  // by rule: the first one with the same packets
    std::vector<std::size_t> keptIn_;    // by such a first one: the last search that it is part of
    std::size_t examined_ = 0;           // searches so far
    std::vector<FWFINDING> findings_;
    std::size_t steps_ = 0;
};

}  // namespace

FWSHADOWS FW_MEANING::shadows() const {
    return ShadowFinder(state_->places, state_->placeNumbers, state_->space, state_->rules,
                        state_->index)
        .run();
}

}  // namespace FW
