/// Looks for a packet that a rule decides about, or for which it counts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "pieces.h"
#include "regions.h"

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

/// Cuts the packets of a rule along other rules, to find one for which the rule counts. Spends up
/// to FW_MEANING_STEPS_PER_RULE on all of its questions.
class Search {
public:
    Search(const PacketSpace& space, const std::vector<SpaceRule>& rules)
        : space_(space), rules_(rules) {
        effort_.limit = FW_MEANING_STEPS_PER_RULE;
    }

    // All of `earlier` and `later` overlap the region.

    /// Whether `earlier` leaves any packet of the region. If not, `coveringBefore()` does that.
    Answer leavesAny(const Region& region, const RuleNumbers& earlier);

    /// Whether there is a packet of the region that `earlier` leaves, and with which `later`, or
    /// the end of the rules, do not what `outcome` says.
    Answer leavesOther(const Region& region, const RuleNumbers& earlier, const RuleNumbers& later,
                       const Outcome& outcome);

    /// The rules that do, of `earlier` and of `later`.
    const std::set<std::uint32_t>& coveringBefore() const { return before_; }
    const std::set<std::uint32_t>& coveringAfter() const { return after_; }
    void addCoveringBefore(std::size_t rule) { before_.insert(static_cast<std::uint32_t>(rule)); }

    std::size_t steps() const { return effort_.steps; }

private:
    Answer leaves(const Region& region, const RuleNumbers& earlier, const RuleNumbers& later,
                  const Outcome* outcome);
    bool isLeft(ListedPiece piece, const Outcome* outcome, WaitingPieces& waiting);
    Outcome outcomeOf(std::uint32_t rule) const { return {rules_[rule].verdict, rules_[rule].log}; }
    std::size_t piecesOf(const Region& region, std::uint32_t rule) const;
    std::pair<std::size_t, std::size_t> bestCut(const Region& region, const RuleNumbers& numbers);
    bool truncate(const Region& region, RuleNumbers& numbers);

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    Effort effort_;
    std::set<std::uint32_t> before_;
    std::set<std::uint32_t> after_;
};

}  // namespace FW
