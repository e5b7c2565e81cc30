// Single packets.

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "meaningState.h"
#include "pieces.h"
#include "regions.h"

namespace FW {
namespace {

/// Whether every field that matters has one value. One IPv4 address is many numbers, but rules
/// never tell them apart.
bool isPoint(const Region& region, const FWPACKET& packet) {
    const bool isInput = packet.chain == FW_CHAIN_INPUT;
    const Number protocol = packet.protocol.value_or(0);
    const bool hasPorts = protocol == kTcp || protocol == kUdp;
    const bool hasType = protocol == kIcmp || protocol == kIcmpv6;
    for (std::size_t field = 0; field < kFields; ++field) {
        const bool matters = !(field == kOut && isInput) &&
                             !((field == kSourcePort || field == kDestinationPort) && !hasPorts) &&
                             !(field == kIcmpType && !hasType);
        if (matters && isAny(region[field])) {
            return false;
        }
    }
    return packet.family.has_value() && packet.protocol.has_value();
}

/// Takes the packets of a rule away from the pieces. Returns whether there are any, or may be: it
/// stops when the effort is spent.
bool cut(const PacketSpace& space, const SpaceRule& rule, std::vector<Piece>& open,
         Effort& effort) {
    bool decides = false;
    std::vector<Piece> rest;
    std::size_t bytes = 0;
    for (Piece& piece : open) {
        ++effort.steps;
        if (effort.isSpent()) {
            return true;
        }
        const std::size_t before = rest.size();
        if (overlaps(space, piece.region, rule)) {
            decides = true;
            effort.addIntervals(appendWithout(space, std::move(piece), rule, rest));
        } else {
            rest.push_back(std::move(piece));
        }
        for (std::size_t i = before; i < rest.size(); ++i) {
            bytes += bytesOf(rest[i]);
        }
        effort.bytes = std::max(effort.bytes, bytes);
    }
    effort.bytes = bytes;
    open = std::move(rest);
    return decides;
}

}  // namespace

FW_MEANING::FW_MEANING(const std::vector<FWRESOLVEDRULE>& rules)
    : state_(std::make_unique<const State>(rules)) {}
FW_MEANING::~FW_MEANING() = default;
FW_MEANING::FW_MEANING(FW_MEANING&& other) noexcept = default;
FW_MEANING& FW_MEANING::operator=(FW_MEANING&& other) noexcept = default;

std::size_t FW_MEANING::size() const {
    return state_->rules.size();
}

FWRESOLVEDRULE FW_MEANING::rule(std::size_t number) const {
    FWRESOLVEDRULE rule;
    if (number < size()) {
        const SpaceRule& own = state_->rules[number];
        rule.packets = state_->space.packetsOf(state_->space.regionOf(own.values));
        rule.verdict = own.verdict;
        rule.log = own.log;
        rule.place = state_->places[state_->placeNumbers[number]];
    }
    return rule;
}

FWDECISION FW_MEANING::decide(const FWPACKET& packet) const {
    const PacketSpace& space = state_->space;
    const std::vector<SpaceRule>& rules = state_->rules;
    const Region region = space.regionOf(packet);
    if (isPoint(region, packet)) {
        return {{state_->index.firstMatch(space.pointOf(region))}, false};
    }
    FWDECISION decision;
    Effort effort;
    std::vector<Piece> open = {{region, {}}};
    for (std::size_t i = 0; i < rules.size() && (decision.tooComplex || !open.empty()); ++i) {
        const SpaceRule& rule = rules[i];
        ++effort.steps;
        if (!overlaps(space, region, rule)) {
            continue;
        }
        const bool decides = decision.tooComplex || cut(space, rule, open, effort);
        if (effort.isSpent()) {
            decision.tooComplex = true;
            open = {};
        }
        if (decides) {
            decision.deciders.push_back(i);
            if (decision.tooComplex && covers(space, rule, region)) {
                return decision;
            }
        }
    }
    if (decision.tooComplex || !open.empty()) {
        decision.deciders.push_back(rules.size());
    }
    return decision;
}

}  // namespace FW
