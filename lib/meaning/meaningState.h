/// What FW_MEANING keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "packetSpace.h"
#include "ruleIndex.h"

namespace FW {

struct FW_MEANING::State {
    explicit State(const std::vector<FWRESOLVEDRULE>& resolved)
        : space(resolved), rules(addAll(resolved)), index(space, rules) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    const FWPLACE& placeOf(std::size_t rule) const { return places[placeNumbers[rule]]; }

    PacketSpace space;
    std::vector<FWPLACE> places;              // each one once, in the order of the rules
    std::vector<std::uint32_t> placeNumbers;  // by rule
    std::vector<SpaceRule> rules;
    RuleIndex index;

private:
    std::vector<SpaceRule> addAll(const std::vector<FWRESOLVEDRULE>& resolved) {
        std::map<std::tuple<FW_ORIGIN, std::string, std::int32_t>, std::uint32_t> numbers;
        PacketSpace::AddressIds known;
        std::vector<SpaceRule> added;
        added.reserve(resolved.size());
        placeNumbers.reserve(resolved.size());
        for (const FWRESOLVEDRULE& rule : resolved) {
            added.push_back({space.add(rule.packets, known), rule.verdict, rule.log});
            const FWPLACE& place = rule.place;
            const auto next = static_cast<std::uint32_t>(places.size());
            const auto number =
                numbers.emplace(std::tuple(place.origin, place.adapter, place.position), next)
                    .first->second;
            if (number == next) {
                places.push_back(place);
            }
            placeNumbers.push_back(number);
        }
        places.shrink_to_fit();
        return added;
    }
};

}  // namespace FW
