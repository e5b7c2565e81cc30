#include "tarnfwadmin/inForce.h"

#include <algorithm>
#include <map>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "kernel/kernelRule.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

/// Adds those of an adapter's lines that are for the firewall's chains.
void append(std::vector<std::string>& lines, const Json::Value& adapterLines) {
    const std::vector<std::string>& chains = FW::FW_FIREWALL_CHAINS;
    for (const Json::Value& line : adapterLines) {
        const KernelRule rule = kernelRuleFrom(line.asString());
        if (rule.table == "filter" &&
            std::find(chains.begin(), chains.end(), rule.chain) != chains.end()) {
            lines.push_back(rule.text);
        }
    }
}

/// Whether a chain of the kernel has what the lines put there.
bool hasLines(const RuleListing& listing, const std::string& chain,
              const std::vector<std::string>& lines) {
    std::vector<KernelRule> wanted;
    for (const std::string& line : lines) {
        KernelRule rule = kernelRuleFrom(line);
        if (rule.chain == chain) {
            wanted.push_back(std::move(rule));
        }
    }
    const std::vector<std::string>& held = listing.rulesOf(chain);
    return std::equal(wanted.begin(), wanted.end(), held.begin(), held.end(),
                      [](const KernelRule& rule, const std::string& line) {
                          return isSameAsFarAsRead(rule, kernelRuleFrom(line));
                      });
}

/// Whether the firewall's chains have these lines, and nothing else.
bool hasAllLines(const RuleListing& listing, const std::vector<std::string>& lines) {
    const std::vector<std::string>& chains = FW::FW_FIREWALL_CHAINS;
    return std::all_of(chains.begin(), chains.end(),
                       [&](const auto& chain) { return hasLines(listing, chain, lines); });
}

InForce stateOf(const BaseFilter& filter, const RuleListing& listing,
                const std::optional<std::vector<std::string>>& wanted) {
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
    return wanted && hasAllLines(listing, *wanted) ? InForce::kAsStored : InForce::kDifferent;
}

/// The lines of the active profile for the firewall's chains, by family, in order. Nothing when it
/// cannot be read or translated.
std::optional<std::map<std::string, std::vector<std::string>>> wantedLines(
    const StoreSnapshot& store, ApplyMode mode) {
    Json::Value commands;
    try {
        if (!commandsFor(store.profile(""), mode, commands)) {
            return std::nullopt;
        }
    } catch (const Error&) {
        return std::nullopt;
    }
    std::map<std::string, std::vector<std::string>> wanted;
    for (const char* const family : {"v4", "v6"}) {
        const Json::Value& adapters = commands[family];
        std::vector<std::string>& lines = wanted[family];
        if (!adapters.isObject()) {
            continue;
        }
        append(lines, adapters[FW::FW_ADAPTER_GLOBAL]);  // runs first
        for (const std::string& adapter : adapters.getMemberNames()) {
            if (adapter != FW::FW_ADAPTER_GLOBAL) {
                append(lines, adapters[adapter]);
            }
        }
    }
    return wanted;
}

std::vector<FamilyInForce> familiesByMode(const FilterListings& listings,
                                          const StoreSnapshot& store, ApplyMode mode) {
    using Lines = std::map<std::string, std::vector<std::string>>;
    const std::optional<Lines> wanted =
        store.firewallEnabled() ? wantedLines(store, mode) : Lines();
    std::vector<FamilyInForce> families;
    for (const auto& [key, listing] : listings) {
        families.push_back(
            inForceOf(key, listing,
                      wanted ? std::optional(wanted->count(key) == 0 ? std::vector<std::string>()
                                                                     : wanted->at(key))
                             : std::nullopt));
    }
    return families;
}

}  // namespace

FilterListings filterListings() {
    const std::map<std::string, RuleListing> present = MachineKernel().listFilters();
    FilterListings listings;
    for (const char* const family : {"v4", "v6"}) {
        const auto found = present.find(family);
        listings[family] =
            found == present.end() ? std::nullopt : std::optional<RuleListing>(found->second);
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

bool hasActiveProfile(const SavedRules& rules, const StoreSnapshot& store) {
    std::vector<ApplyMode> modes = {ApplyMode::kBatch};
    if (store.applyMode() == ApplyMode::kLines) {
        modes.push_back(ApplyMode::kLines);
    }
    return std::any_of(modes.begin(), modes.end(), [&](ApplyMode mode) {
        const auto wanted = wantedLines(store, mode);
        return wanted &&
               std::all_of(rules.families().begin(), rules.families().end(),
                           [&](const auto& family) {
                               return hasAllLines(family.second, wanted->at(family.first));
                           });
    });
}

FamilyInForce inForceOf(const std::string& key, const std::optional<RuleListing>& listing,
                        const std::optional<std::vector<std::string>>& wanted) {
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
        case InForce::kAbsent:
            break;
    }
    return "absent";
}

}  // namespace tarnfw
