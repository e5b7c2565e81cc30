// What is not dropped.

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "meaningState.h"
#include "pieces.h"
#include "regions.h"
#include "ruleScan.h"

namespace FW {
namespace {

/// Finds the packets of regions that are not dropped.
class Passage {
public:
    Passage(const PacketSpace& space, const std::vector<SpaceRule>& rules)
        : space_(space), rules_(rules), scan_(space, rules, effort_.steps) {}

    std::vector<Region> of(const Region& region) {
        found_.clear();
        WaitingPieces waiting(space_, rules_, rules_, effort_);
        waiting.add(region, scan_.overlapping(region, 0, rules_.size()));
        ListedPiece piece;
        while (waiting.take(piece)) {
            cut(std::move(piece), waiting);
        }
        join(space_, found_, joining_);
        return std::move(found_);
    }

    bool isTooComplex() const { return effort_.isSpent(); }

private:
    bool drops(std::uint32_t rule) const { return rules_[rule].verdict == FW_PACKET_DROP; }

    void add(const Piece& piece, Region region) {
        effort_.bytes += bytesOf(piece);
        found_.push_back(std::move(region));
    }

    /// Finds what passes of a piece before the second of its rules; the rest waits.
    void cut(ListedPiece piece, WaitingPieces& waiting) {
        const Region& region = piece.piece.region;
        RuleNumbers& rules = piece.rules;
        effort_.steps += rules.size();
        const auto last = std::find_if(rules.begin(), rules.end(), [&](std::uint32_t rule) {
            return covers(space_, rules_[rule], region);
        });
        const bool ends = last == rules.end();
        if (!ends) {
            rules.erase(last + 1, rules.end());
        }
        const auto count = std::count_if(rules.begin(), rules.end(),
                                         [this](std::uint32_t rule) { return drops(rule); });
        if (count == 0) {
            add(piece.piece, region);
            return;
        }
        if (!ends && static_cast<std::size_t>(count) == rules.size()) {
            return;
        }
        const SpaceRule& first = rules_[rules.front()];
        if (!drops(rules.front())) {
            add(piece.piece, intersected(space_, region, first));
        }
        rules.erase(rules.begin());
        waiting.addOutside(std::move(piece), first);
    }

    const PacketSpace& space_;
    const std::vector<SpaceRule>& rules_;
    Effort effort_;
    Effort joining_;
    RuleScan scan_;
    std::vector<Region> found_;
};

/// Whether regions are the same but for the incoming interface.
bool sameButForInterface(const std::vector<Region>& a, const std::vector<Region>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Region& one, const Region& other) {
                          for (std::size_t field = 0; field < kFields; ++field) {
                              if (field != kIn && compare(one[field], other[field]) != 0) {
                                  return false;
                              }
                          }
                          return true;
                      });
}

}  // namespace

FWREACHABLE FW_MEANING::reach(const FWPACKETSET& query) const {
    // Where the query names interfaces that no rule names, all rules go into a space of their own.
    std::vector<std::string> entries;
    for (const auto& interfaces : {query.in, query.out}) {
        if (interfaces != nullptr && !state_->space.knows(*interfaces)) {
            entries.insert(entries.end(), interfaces->names.begin(), interfaces->names.end());
            entries.insert(entries.end(), interfaces->except.begin(), interfaces->except.end());
        }
    }
    PacketSpace space = entries.empty() ? state_->space : PacketSpace(state_->space, entries);
    const std::vector<SpaceRule> rules =
        entries.empty() ? state_->rules : space.addAll(state_->space, state_->rules);
    PacketSpace::AddressIds known;
    const Region region = space.regionOf(space.add(query, known));

    // Each interface on its own; then those with the same packets together.
    struct Group {
        Intervals interfaces;
        std::vector<Region> regions;
    };
    std::vector<Group> groups;
    Passage passage(space, rules);
    for (const Interval& interval : space.valuesIn(region, kIn)) {
        for (Number number = interval.first; number <= interval.last; ++number) {
            const Intervals own = {{number, number}};
            Region piece = region;
            piece[kIn] = valuesOf(own);
            std::vector<Region> found = passage.of(piece);
            const auto group = std::find_if(groups.begin(), groups.end(), [&](const Group& one) {
                return sameButForInterface(one.regions, found);
            });
            if (group == groups.end()) {
                groups.push_back({own, std::move(found)});
            } else {
                group->interfaces = united(group->interfaces, own);
            }
        }
    }

    FWREACHABLE reachable;
    for (Group& group : groups) {
        FWREACH& reach = reachable.reach.emplace_back();
        reach.interfaces = space.interfacesOf(group.interfaces);
        const Values all = valuesOf(group.interfaces);
        for (Region& one : group.regions) {
            one[kIn] = group.interfaces == space.all(kIn) ? nullptr : all;
            reach.packets.push_back(space.packetsOf(one));
        }
    }
    if (passage.isTooComplex()) {
        reachable.findings.push_back({{}, "too complex: more may get through"});
    }
    return reachable;
}

}  // namespace FW
