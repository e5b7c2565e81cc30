// What another list of rules does otherwise.
//
// Rules that are in both lists, in the same order, are matched with each other. A packet that is
// treated differently is decided about by a rule without a match in one of the lists at least: were
// both deciders matched, the earlier one would decide in both. So only the packets of rules without
// a match are examined: first those about which such a rule decided before, then those about which
// such a rule decides now, and a matched one or none before.

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "meaningState.h"
#include "pieces.h"
#include "regions.h"
#include "ruleScan.h"
#include "search.h"

namespace FW {
namespace {

constexpr std::uint32_t kNoMatch = ~std::uint32_t(0);

// What is spent on recognising rules that never decide: milliseconds.
constexpr std::size_t kSearchSteps = 300000;

// ---- Matches ----

bool same(const SpaceRule& a, const SpaceRule& b) {
    return a.values == b.values && a.verdict == b.verdict && a.log == b.log;
}

/// Equal rules have equal hashes.
std::uint64_t hashOf(const SpaceRule& rule) {
    std::uint64_t hash = static_cast<std::uint64_t>(rule.verdict) * 2 + (rule.log ? 1 : 0);
    for (const std::uint32_t id : rule.values) {
        hash = mixedHash(hash, id);
    }
    return hash;
}

/// The match of each rule of `b` in `a`, or kNoMatch; in the same order in both.
std::vector<std::uint32_t> matchesOf(const std::vector<SpaceRule>& a,
                                     const std::vector<SpaceRule>& b) {
    std::vector<std::uint32_t> matches(b.size(), kNoMatch);
    const std::size_t shorter = std::min(a.size(), b.size());
    std::size_t begin = 0;
    while (begin < shorter && same(a[begin], b[begin])) {
        matches[begin] = static_cast<std::uint32_t>(begin);
        ++begin;
    }
    std::size_t end = 0;  // counted from the ends
    while (end < shorter - begin && same(a[a.size() - 1 - end], b[b.size() - 1 - end])) {
        ++end;
        matches[b.size() - end] = static_cast<std::uint32_t>(a.size() - end);
    }

    // Of those in between, equal ones are paired in their order; of the pairs the longest list that
    // rises on both sides stays.
    std::unordered_map<std::uint64_t, std::vector<std::uint32_t>> open;
    for (std::size_t i = a.size() - end; i > begin; --i) {
        open[hashOf(a[i - 1])].push_back(static_cast<std::uint32_t>(i - 1));
    }
    std::vector<std::pair<std::uint32_t, std::size_t>> pairs;  // numbers in a and in b
    for (std::size_t i = begin; i < b.size() - end; ++i) {
        std::vector<std::uint32_t>& candidates = open[hashOf(b[i])];
        if (!candidates.empty() && same(a[candidates.back()], b[i])) {
            pairs.emplace_back(candidates.back(), i);
            candidates.pop_back();
        }
    }
    std::vector<std::size_t> ends;                    // by length: the pair that ends the list
    std::vector<std::size_t> previous(pairs.size());  // by pair: the one before it, or itself
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        const auto place =
            std::lower_bound(ends.begin(), ends.end(), i, [&](std::size_t one, std::size_t other) {
                return pairs[one].first < pairs[other].first;
            });
        previous[i] = place == ends.begin() ? i : *(place - 1);
        if (place == ends.end()) {
            ends.push_back(i);
        } else {
            *place = i;
        }
    }
    for (std::size_t i = ends.empty() ? pairs.size() : ends.back(); i < pairs.size();) {
        matches[pairs[i].second] = pairs[i].first;
        i = previous[i] == i ? pairs.size() : previous[i];
    }
    return matches;
}

// ---- Packets ----

/// One of the two lists.
struct Side {
    std::vector<SpaceRule> rules;
    std::vector<bool> isMatched;
};

/// What a difference counts.
struct Effect {
    bool drops = false;
    bool logs = false;
};

bool operator==(const Effect& a, const Effect& b) {
    return a.drops == b.drops && a.logs == b.logs;
}

Effect effectOf(const Side& side, std::size_t rule) {
    return rule < side.rules.size()
               ? Effect{side.rules[rule].verdict == FW_PACKET_DROP, side.rules[rule].log}
               : Effect{};
}

/// By the numbers of the two deciders, in the list that is examined and in the other one.
using Found = std::map<std::pair<std::size_t, std::size_t>, std::vector<Region>>;

/// Finds packets about which rules of `own` without a match decide, and with which `other` does
/// something else.
class Examination {
public:
    Examination(const PacketSpace& space, const Side& own, const Side& other, bool onlyMatched,
                Effort& effort, Found& found)
        : space_(space),
          own_(own),
          other_(other),
          onlyMatched_(onlyMatched),
          effort_(effort),
          found_(found),
          ownScan_(space, own.rules, effort.steps),
          otherScan_(space, other.rules, effort.steps) {}

    void run() {
        for (std::size_t i = 0; i < own_.rules.size() && !effort_.isSpent(); ++i) {
            if (own_.isMatched[i] || !hasPackets(own_.rules[i])) {
                continue;
            }
            decider_ = i;
            const Region region = space_.regionOf(own_.rules[i].values);
            RuleNumbers earlier = ownScan_.overlapping(region, 0, i);
            if (!neverDecides(region, earlier)) {
                WaitingPieces waiting(space_, own_.rules, other_.rules, effort_);
                waiting.add(region, std::move(earlier),
                            otherScan_.overlapping(region, 0, other_.rules.size()));
                ListedPiece piece;
                while (waiting.take(piece)) {
                    examine(std::move(piece), waiting);
                }
            }
        }
    }

private:
    /// Whether `earlier` rules are seen to leave nothing of a region. Rules that many others cover
    /// together are quicker to recognise as such than to cut in the order of the rules.
    bool neverDecides(const Region& region, const RuleNumbers& earlier) {
        if (searchSteps_ > kSearchSteps) {
            return false;
        }
        Search search(space_, own_.rules);
        const bool neverDecides = search.leavesAny(region, earlier) == Answer::kNo;
        searchSteps_ += search.steps();
        effort_.steps += search.steps();
        return neverDecides;
    }

    /// Whether the packets that `rule` of the other list decides about are to be found.
    bool isWanted(std::size_t rule) const {
        const bool isExamined = rule < other_.rules.size() && !other_.isMatched[rule];
        return !(onlyMatched_ && isExamined) &&
               !(effectOf(other_, rule) == effectOf(own_, decider_));
    }

    void add(std::size_t rule, const Piece& piece, Region region) {
        effort_.bytes += bytesOf(piece);
        found_[{decider_, rule}].push_back(std::move(region));
    }

    /// Finds the packets of a piece that rules of the own list leave, before the first of either
    /// list cuts it; the rest waits.
    void examine(ListedPiece piece, WaitingPieces& waiting) {
        const Region& region = piece.piece.region;
        RuleNumbers& earlier = piece.rules;
        RuleNumbers& others = piece.others;
        effort_.steps += earlier.size() + others.size();
        if (std::any_of(earlier.begin(), earlier.end(), [&](std::uint32_t rule) {
                return covers(space_, own_.rules[rule], region);
            })) {
            return;
        }
        const auto last = std::find_if(others.begin(), others.end(), [&](std::uint32_t rule) {
            return covers(space_, other_.rules[rule], region);
        });
        const bool ends = last == others.end();
        if (!ends) {
            others.erase(last + 1, others.end());
        }
        const auto wanted = [this](std::uint32_t rule) { return isWanted(rule); };
        if (!(ends && isWanted(other_.rules.size())) &&
            std::none_of(others.begin(), others.end(), wanted)) {
            return;
        }
        if (!earlier.empty()) {
            const std::uint32_t rule = earlier.front();
            earlier.erase(earlier.begin());
            waiting.addOutside(std::move(piece), own_.rules[rule]);
            return;
        }
        if (others.empty()) {
            add(other_.rules.size(), piece.piece, region);
            return;
        }
        const std::uint32_t rule = others.front();
        others.erase(others.begin());
        if (isWanted(rule)) {
            add(rule, piece.piece, intersected(space_, region, other_.rules[rule]));
        }
        waiting.addOutside(std::move(piece), other_.rules[rule]);
    }

    const PacketSpace& space_;
    const Side& own_;
    const Side& other_;
    bool onlyMatched_;
    Effort& effort_;
    Found& found_;
    RuleScan ownScan_;
    RuleScan otherScan_;
    std::size_t decider_ = 0;
    std::size_t searchSteps_ = 0;
};

FW_CHANGE changeOf(const Effect& before, const Effect& after) {
    return before.drops == after.drops ? FW_CHANGE_LOGGING
           : after.drops               ? FW_CHANGE_CLOSED
                                       : FW_CHANGE_OPENED;
}

}  // namespace

FWDIFFERENCE FW_MEANING::differenceFrom(const FW_MEANING& before) const {
    const State& old = *before.state_;
    // The rules of both in one space: that of the old rules, unless there are new interfaces.
    const std::vector<std::string>& entries = state_->space.interfaceEntries();
    const bool knowsAll = old.space.knows({entries, {}});
    PacketSpace space = knowsAll ? old.space : PacketSpace(old.space, entries);
    Side oldSide;
    oldSide.rules = knowsAll ? old.rules : space.addAll(old.space, old.rules);
    oldSide.isMatched.resize(oldSide.rules.size());
    Side newSide;
    newSide.rules = space.addAll(state_->space, state_->rules);
    for (const std::uint32_t match : matchesOf(oldSide.rules, newSide.rules)) {
        newSide.isMatched.push_back(match != kNoMatch);
        if (match != kNoMatch) {
            oldSide.isMatched[match] = true;
        }
    }

    Effort effort;
    Found oldFirst;
    Examination(space, oldSide, newSide, /*onlyMatched=*/false, effort, oldFirst).run();
    Found newFirst;
    Examination(space, newSide, oldSide, /*onlyMatched=*/true, effort, newFirst).run();
    for (auto& [deciders, regions] : newFirst) {
        oldFirst.emplace(std::pair(deciders.second, deciders.first), std::move(regions));
    }

    FWDIFFERENCE difference;
    Effort joining;
    for (auto& [deciders, regions] : oldFirst) {
        join(space, regions, joining);
        FWCHANGE& change = difference.changes.emplace_back();
        change.change =
            changeOf(effectOf(oldSide, deciders.first), effectOf(newSide, deciders.second));
        for (const Region& region : regions) {
            change.packets.push_back(space.packetsOf(region));
            change.witnesses.push_back(space.exampleOf(region));
        }
        change.before = deciders.first;
        change.after = deciders.second;
    }
    if (effort.isSpent()) {
        difference.findings.push_back({{}, "too complex: there may be more differences"});
    }
    return difference;
}

}  // namespace FW
