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

using FamilyLines = std::map<std::string, std::vector<std::string>>;

/// The lines of a translation for the firewall's chains, by family, in order.
FamilyLines linesOf(const Json::Value& commands) {
    FamilyLines all;
    for (const char* const family : {"v4", "v6"}) {
        const Json::Value& adapters = commands[family];
        std::vector<std::string>& lines = all[family];
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
    return all;
}

/// The same of the active profile; nothing when it cannot be read or translated.
std::optional<FamilyLines> wantedLines(const StoreSnapshot& store, ApplyMode mode) {
    Json::Value commands;
    try {
        if (!commandsFor(store.profile(""), mode, commands)) {
            return std::nullopt;
        }
    } catch (const Error&) {
        return std::nullopt;
    }
    return linesOf(commands);
}

bool hasFamilyLines(const SavedRules& rules, const FamilyLines& wanted) {
    return std::all_of(rules.families().begin(), rules.families().end(), [&](const auto& family) {
        return hasAllLines(family.second, wanted.at(family.first));
    });
}

std::vector<FamilyInForce> familiesByMode(const FilterListings& listings,
                                          const StoreSnapshot& store, ApplyMode mode) {
    const std::optional<FamilyLines> wanted =
        store.firewallEnabled() ? wantedLines(store, mode) : FamilyLines();
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

bool hasTranslation(const SavedRules& rules, const Json::Value& commands) {
    return commands.isObject() && hasFamilyLines(rules, linesOf(commands));
}

bool hasActiveProfile(const SavedRules& rules, const StoreSnapshot& store) {
    const auto has = [&](ApplyMode mode) {
        const std::optional<FamilyLines> wanted = wantedLines(store, mode);
        return wanted && hasFamilyLines(rules, *wanted);
    };
    // As in familiesInForce().
    return has(ApplyMode::kBatch) ||
           (store.applyMode() == ApplyMode::kLines && has(ApplyMode::kLines));
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
