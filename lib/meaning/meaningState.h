/// What FW_MEANING keeps.
#pragma once

#include <algorithm>
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

/// The places of rules, each one once, in the order of the rules.
class Places {
public:
    /// The number of a place, which is added if it is new.
    std::uint32_t add(const FWPLACE& place) {
        const Key key(place.origin, adapterNumber(place.adapter), place.position);
        const auto [known, isNew] =
            numbers_.emplace(key, static_cast<std::uint32_t>(places_.size()));
        if (isNew) {
            places_.push_back(key);
        }
        return known->second;
    }

    /// To be called when all have been added.
    void finish() {
        numbers_.clear();
        places_.shrink_to_fit();
    }

    std::size_t size() const { return places_.size(); }
    FW_ORIGIN origin(std::size_t number) const { return std::get<0>(places_[number]); }
    FWPLACE operator[](std::size_t number) const {
        const auto& [origin, adapter, position] = places_[number];
        return {origin, adapters_[adapter], position};
    }

private:
    using Key = std::tuple<FW_ORIGIN, std::uint32_t, std::int32_t>;

    std::uint32_t adapterNumber(const std::string& adapter) {
        const auto known = std::find(adapters_.rbegin(), adapters_.rend(), adapter);
        if (known != adapters_.rend()) {
            return static_cast<std::uint32_t>(adapters_.rend() - known - 1);
        }
        adapters_.push_back(adapter);
        return static_cast<std::uint32_t>(adapters_.size() - 1);
    }

    std::vector<std::string> adapters_;
    std::vector<Key> places_;
    std::map<Key, std::uint32_t> numbers_;
};

struct FW_MEANING::State {
    explicit State(const std::vector<FWRESOLVEDRULE>& resolved)
        : space(resolved), rules(addAll(resolved)), index(space, rules) {}
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    PacketSpace space;
    Places places;
    std::vector<std::uint32_t> placeNumbers;  // by rule
    std::vector<SpaceRule> rules;
    RuleIndex index;

private:
    std::vector<SpaceRule> addAll(const std::vector<FWRESOLVEDRULE>& resolved) {
        PacketSpace::AddressIds known;
        std::vector<SpaceRule> added;
        added.reserve(resolved.size());
        placeNumbers.reserve(resolved.size());
        for (const FWRESOLVEDRULE& rule : resolved) {
            added.push_back({space.add(rule.packets, known), rule.verdict, rule.log});
            placeNumbers.push_back(places.add(rule.place));
        }
        places.finish();
        space.finish();
        return added;
    }
};

}  // namespace FW
