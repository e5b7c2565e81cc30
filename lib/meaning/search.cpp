#include "search.h"

#include <algorithm>

namespace FW {

Answer Search::leavesAny(const Region& region, const RuleNumbers& earlier) {
    return leaves(region, earlier, {}, nullptr);
}

Answer Search::leavesOther(const Region& region, const RuleNumbers& earlier,
                           const RuleNumbers& later, const Outcome& outcome) {
    return leaves(region, earlier, later, &outcome);
}

Answer Search::leaves(const Region& region, const RuleNumbers& earlier, const RuleNumbers& later,
                      const Outcome* outcome) {
    WaitingPieces waiting(space_, rules_, rules_, effort_);
    waiting.add(region, earlier, later);
    ListedPiece piece;
    while (waiting.take(piece)) {
        if (isLeft(std::move(piece), outcome, waiting)) {
            return Answer::kYes;
        }
    }
    return effort_.isSpent() ? Answer::kTooComplex : Answer::kNo;
}

/// Whether a piece is seen to have such a packet. Otherwise what may have one waits. Without an
/// outcome any packet that is left will do.
bool Search::isLeft(ListedPiece piece, const Outcome* outcome, WaitingPieces& waiting) {
    const Region& region = piece.piece.region;
    RuleNumbers& earlier = piece.rules;
    RuleNumbers& later = piece.others;
    if (outcome != nullptr) {
        const bool ends = !truncate(region, later);
        const bool othersFollow = (ends && !(*outcome == Outcome())) ||
                                  std::any_of(later.begin(), later.end(), [&](std::uint32_t rule) {
                                      return !(outcomeOf(rule) == *outcome);
                                  });
        if (!othersFollow) {
            after_.insert(later.begin(), later.end());
            return false;
        }
    }
    if (earlier.empty()) {
        if (outcome == nullptr || later.empty() || !(outcomeOf(later.front()) == *outcome)) {
            return true;
        }
        const std::uint32_t rule = later.front();
        after_.insert(rule);
        later.erase(later.begin());
        waiting.addOutside(std::move(piece), rules_[rule]);
        return false;
    }
    const auto [best, pieces] = bestCut(region, earlier);
    const std::uint32_t rule = earlier[best];
    before_.insert(rule);
    if (pieces > 0) {
        earlier.erase(earlier.begin() + static_cast<std::ptrdiff_t>(best));
        waiting.addOutside(std::move(piece), rules_[rule]);
    }
    return false;
}

/// In how many fields a rule does not have all values of a region: the pieces that a cut makes.
std::size_t Search::piecesOf(const Region& region, std::uint32_t rule) const {
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

/// The rule that cuts off the most: with the fewest pieces left. That of `numbers` at the result's
/// place.
std::pair<std::size_t, std::size_t> Search::bestCut(const Region& region,
                                                    const RuleNumbers& numbers) {
    std::size_t best = 0;
    std::size_t fewest = kFields + 1;
    for (std::size_t i = 0; i < numbers.size() && fewest > 0; ++i) {
        const std::size_t pieces = piecesOf(region, numbers[i]);
        if (pieces < fewest) {
            fewest = pieces;
            best = i;
        }
    }
    effort_.steps += numbers.size();
    return {best, fewest};
}

/// Ends a list after the first rule that covers the region. Returns whether one does.
bool Search::truncate(const Region& region, RuleNumbers& numbers) {
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        ++effort_.steps;
        if (covers(space_, rules_[numbers[i]], region)) {
            numbers.resize(i + 1);
            return true;
        }
    }
    return false;
}

}  // namespace FW
