// Single packets.

#include <algorithm>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "meaningState.h"
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
    std::size_t steps = 0;
    std::vector<Region> open = {region};
    for (std::size_t i = 0; i < rules.size() && !open.empty(); ++i) {
        const SpaceRule& rule = rules[i];
        if (!overlaps(space, region, rule)) {
            continue;
        }
        bool decides = false;
        steps += open.size();
        std::vector<Region> rest;
        for (Region& piece : open) {
            if (!overlaps(space, piece, rule)) {
                rest.push_back(std::move(piece));
                continue;
            }
            decides = true;
            if (decision.tooComplex) {
                rest.push_back(std::move(piece));
            } else {
                appendWithout(space, std::move(piece), rule, rest);
            }
        }
        open = std::move(rest);
        decision.tooComplex = decision.tooComplex || steps > FW_MEANING_STEPS;
        if (decides) {
            decision.deciders.push_back(i);
            if (decision.tooComplex && covers(space, rule, region)) {
                return decision;
            }
        }
    }
    if (!open.empty()) {
        decision.deciders.push_back(rules.size());
    }
    return decision;
}

}  // namespace FW
