#include "tarnfwadmin/inForce.h"

#include <algorithm>
#include <future>
#include <map>
#include <utility>

#include <json/json.h>

#include "kernel/wantedRules.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

InForce stateOf(const BaseFilter& filter, const RuleListing& listing,
                const std::optional<ChainRules>& wanted) {
    const bool wantsRules = !wanted || !wanted->empty();
    if (filter.isClosed()) {
        return InForce::kClosed;
    }
    if (wantsRules && !filter.missing().empty()) {
        return InForce::kNoBase;
    }
    if (filter.loadedRules() == 0) {
        return wantsRules ? InForce::kNothing : InForce::kAsStored;
    }
    return wanted && hasRules(listing, *wanted) ? InForce::kAsStored : InForce::kDifferent;
}

/// What is in force in a family; see inForceOf().
FamilyInForce familyInForce(const std::string& key, const std::optional<RuleListing>& listing,
                            const std::optional<ChainRules>& wanted) {
    FamilyInForce family;
    family.key = key;
    if (!listing) {
        family.state = InForce::kAbsent;
        return family;
    }
    const BaseFilter filter(key, *listing);
    family.state = stateOf(filter, *listing, wanted);
    family.open = listing->hasPolicy("INPUT", "ACCEPT") && listing->hasPolicy("FORWARD", "ACCEPT");
    family.inOrder = filter.inOrder();
    family.missing = filter.missing();
    family.loadedRules = filter.loadedRules();
    return family;
}

using FamilyChainRules = std::map<std::string, ChainRules>;

/// The rules of the active profile; nothing when it cannot be read or translated.
std::optional<FamilyChainRules> wantedRules(const StoreSnapshot& store, ApplyMode mode) {
    Json::Value commands;
    try {
        if (!commandsFor(store.profile(""), mode, commands)) {
            return std::nullopt;
        }
    } catch (const Error&) {
        return std::nullopt;
    }
    return familyRulesFrom(commandLinesOf(commands));
}

std::vector<FamilyInForce> familiesByMode(const FilterListings& listings,
                                          const StoreSnapshot& store, ApplyMode mode) {
    const std::optional<FamilyChainRules> wanted =
        store.firewallEnabled() ? wantedRules(store, mode) : FamilyChainRules();
    std::vector<FamilyInForce> families;
    for (const auto& [key, filter] : listings) {
        if (!filter.failure.empty()) {
            FamilyInForce family;
            family.key = key;
            family.state = InForce::kUnknown;
            family.failure = filter.failure;
            families.push_back(std::move(family));
            continue;
        }
        std::optional<ChainRules> own;
        if (wanted) {
            const auto found = wanted->find(key);
            own = found == wanted->end() ? ChainRules() : found->second;
        }
        families.push_back(familyInForce(key, filter.rules, own));
    }
    return families;
}

}  // namespace

FilterListings filterListings() {
    const auto listingOf = [](const char* family) {
        FilterListing filter;
        try {
            filter.rules = MachineKernel().listPresent(family, "filter");
        } catch (const Error& error) {
            filter.failure = error.what();
        }
        return filter;
    };
    // Most of the time goes into the start of the programs.
    std::future<FilterListing> second = std::async(std::launch::async, listingOf, "v6");
    FilterListings listings;
    listings["v4"] = listingOf("v4");
    listings["v6"] = second.get();
    const FilterListing& first = listings["v4"];
    if (!first.failure.empty() && !listings["v6"].rules) {
        throw Error(ErrorKind::kSystem, first.failure);
    }
    return listings;
}

std::vector<FamilyInForce> familiesInForce(const FilterListings& listings,
                                           const StoreSnapshot& store) {
    // Apply mode "lines" has also lines that the kernel refuses, those for IPv4 addresses in a
    // tunnel of IPv6; and where it takes one, the kernel has that.
    std::vector<FamilyInForce> families = familiesByMode(listings, store, ApplyMode::kBatch);
    const bool different = std::any_of(
        families.begin(), families.end(),
        [](const FamilyInForce& family) { return family.state == InForce::kDifferent; });
    if (different && store.applyMode() == ApplyMode::kLines) {
        const std::vector<FamilyInForce> more = familiesByMode(listings, store, ApplyMode::kLines);
        for (std::size_t i = 0; i < families.size(); ++i) {
            if (families[i].state == InForce::kDifferent) {
                families[i] = more[i];
            }
        }
    }
    return families;
}

bool hasTranslation(const SavedRules& rules, const Json::Value& commands) {
    return commands.isObject() && hasRules(rules, familyRulesFrom(commandLinesOf(commands)));
}

bool hasActiveProfile(const SavedRules& rules, const StoreSnapshot& store) {
    const auto has = [&](ApplyMode mode) {
        const std::optional<FamilyChainRules> wanted = wantedRules(store, mode);
        return wanted && hasRules(rules, *wanted);
    };
    // As in familiesInForce().
    return has(ApplyMode::kBatch) ||
           (store.applyMode() == ApplyMode::kLines && has(ApplyMode::kLines));
}

FamilyInForce inForceOf(const std::string& key, const std::optional<RuleListing>& listing,
                        const std::optional<std::vector<std::string>>& wanted) {
    return familyInForce(key, listing,
                         wanted ? std::optional(chainRulesFrom(*wanted)) : std::nullopt);
}

std::string inForceWord(InForce state) {
    switch (state) {
        case InForce::kAsStored:
            return "asStored";
        case InForce::kDifferent:
            return "different";
        case InForce::kNothing:
            return "nothing";
        case InForce::kNoBase:
            return "noBase";
        case InForce::kClosed:
            return "closed";
        case InForce::kUnknown:
            return "unknown";
        case InForce::kAbsent:
            break;
    }
    return "absent";
}

}  // namespace tarnfw
