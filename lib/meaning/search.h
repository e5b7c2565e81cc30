/// Looks for a packet that a rule decides about, or for which it counts.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "regions.h"
#include "ruleScan.h"

namespace FW {

/// What happens to packets.
struct Outcome {
    FW_PACKET_VERDICT verdict = FW_PACKET_NEXT;
    bool log = false;
};

inline bool operator==(const Outcome& a, const Outcome& b) {
    return a.verdict == b.verdict && a.log == b.log;
}

/// What is known of a rule.
enum class Answer { kYes, kNo, kTooComplex };

/// Cuts the packets of a rule along other rules, to find one for which the rule counts.
class Search {
public:
    Search(const PacketSpace& space, const std::vector<SpaceRule>& rules, std::size_t limit)
        : space_(space), rules_(rules), limit_(limit) {}

    // All of `earlier` and `later` overlap the region.

    /// Whether `earlier` leaves any packet of the region. If not, `coveringBefore()` does that.
    Answer leavesAny(const Region& region, const RuleNumbers& earlier) {
        return leaves(region, earlier, nullptr, {});
    }

    /// Whether there is a packet of the region that `earlier` leaves, and with which `later`, or
    /// the end of the rules, do not what `outcome` says.
    Answer leavesOther(const Region& region, const RuleNumbers& earlier, const RuleNumbers& later,
                       const Outcome& outcome) {
        return leaves(region, earlier, &later, outcome);
    }

    /// The rules that do, of `earlier` and of `later`.
    const std::set<std::uint32_t>& coveringBefore() const { return before_; }
    void addCoveringBefore(std::size_t rule) { before_.insert(static_cast<std::uint32_t>(rule)); }
    const std::set<std::uint32_t>& coveringAfter() const { return after_; }
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
            after_.insert(later.begin(), later.end());
            return Answer::kNo;
        }
        if (earlier.empty()) {
            if (later.empty() || !(outcomeOf(later.front()) == outcome)) {
                return Answer::kYes;
            }
            const std::uint32_t rule = later.front();
            after_.insert(rule);
            later.erase(later.begin());
            return leavesOutside(region, rule, earlier, &later, outcome);
        }
        const auto [best, pieces] = bestCut(region, earlier);
        const std::uint32_t rule = earlier[best];
        before_.insert(rule);
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
    std::set<std::uint32_t> before_;
    std::set<std::uint32_t> after_;
};

}  // namespace FW
