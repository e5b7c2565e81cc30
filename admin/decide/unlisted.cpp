#include "tarnfwadmin/unlisted.h"

#include <algorithm>
#include <optional>
#include <set>

#include "machine/ruleMatch.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

constexpr char kInputChain[] = "INPUT_FIREWALL";
constexpr char kFilterTable[] = "filter";

// ---- What "global" leaves open ----

/// Those of `ranges` that are not in `taken`, which is of the same family.
std::vector<AddressRange> without(const std::vector<AddressRange>& ranges,
                                  const AddressRange& taken) {
    std::vector<AddressRange> left;
    for (const AddressRange& range : ranges) {
        if (range.last < taken.first || taken.last < range.first) {
            left.push_back(range);
            continue;
        }
        if (range.first < taken.first) {
            left.push_back({range.first, *addressBefore(taken.first)});
        }
        if (taken.last < range.last) {
            left.push_back({*addressAfter(taken.last), range.last});
        }
    }
    return left;
}

bool matchesEveryProtocol(const FW::FWRULE& rule, Machine& machine) {
    const auto matches = portMatchesOf(rule, machine);
    return matches && std::any_of(matches->begin(), matches->end(),
                                  [](const PortMatch& match) { return match.protocol.empty(); });
}

/// The senders of a family that a rule decides on, whatever the protocol. Without those of a
/// country, of a mask with gaps, and without a rule that depends on the machine's own address.
std::vector<AddressRange> sendersOf(const FW::FWRULE& rule, bool ipv6, Machine& machine) {
    if (!hasLine(rule) || rule.table != kFilterTable || rule.chainList.count(kInputChain) == 0 ||
        !matchesEveryProtocol(rule, machine)) {
        return {};
    }
    const std::optional<AddressMatch> match = addressMatchOf(rule, ipv6, machine);
    if (!match) {
        return {};
    }
    return match->any()    ? std::vector<AddressRange>{wholeFamily(ipv6)}
           : match->source ? match->ranges
                           : std::vector<AddressRange>();
}

/// Whether packets of a family to this machine can pass "global" with no rule that decides on
/// them, or all of them do, since it allows them. The first rule for a sender counts.
bool isLeftOpen(const FW::FWPROFILE& profile, bool ipv6, Machine& machine) {
    std::vector<AddressRange> left = {wholeFamily(ipv6)};
    bool denies = false;
    const auto global = profile.rules.find(FW::FW_ADAPTER_GLOBAL);
    for (const FW::FWRULE& rule :
         global == profile.rules.end() ? std::vector<FW::FWRULE>() : global->second) {
        for (const AddressRange& senders : sendersOf(rule, ipv6, machine)) {
            const auto isIn = [&](const AddressRange& range) {
                return range.first <= senders.last && senders.first <= range.last;
            };
            denies = denies || (rule.policy == FW::FW_POLICY_DENY &&
                                std::any_of(left.begin(), left.end(), isIn));
            left = without(left, senders);
        }
    }
    const auto policy = profile.adapterPolicyMap.find(FW::FW_ADAPTER_GLOBAL);
    if (policy != profile.adapterPolicyMap.end() && policy->second == FW::FW_POLICY_DENY &&
        !left.empty()) {
        return false;
    }
    return !left.empty() || !denies;
}

bool hasLines(const FW::FWPROFILE& profile, const std::string& adapter) {
    const auto policy = profile.adapterPolicyMap.find(adapter);
    const auto rules = profile.rules.find(adapter);
    return (policy != profile.adapterPolicyMap.end() &&
            (policy->second == FW::FW_POLICY_ALLOW || policy->second == FW::FW_POLICY_DENY)) ||
           (rules != profile.rules.end() &&
            std::any_of(rules->second.begin(), rules->second.end(), hasLine));
}

}  // namespace

std::vector<UnlistedAdapter> unlistedAdapters(const FW::FWPROFILE& profile, Machine& machine) {
    std::set<std::string> others;
    for (const InterfaceKind& interface : interfaceKindsNow()) {
        if (!interface.portOf.empty()) {
            others.insert(interface.name);
        }
    }
    for (const std::string& adapter : adaptersOf(profile)) {
        others.insert(adapter);
        others.insert(machine.tunnelOf(adapter));
        for (const std::string& interface : interfacesOf(adapter)) {
            others.insert(interface);
        }
    }
    const bool open = isLeftOpen(profile, false, machine) || isLeftOpen(profile, true, machine);
    std::vector<UnlistedAdapter> unlisted;
    for (const std::string& adapter : machineAdapters()) {
        if (others.count(adapter) == 0) {
            unlisted.push_back({adapter, open});
        }
    }
    return unlisted;
}

bool hasLinesFor(const FW::FWPROFILE& profile, const std::string& interface, Machine& machine) {
    const std::vector<std::string> names = adapterNamesOf(interface);
    const std::vector<std::string> adapters = adaptersOf(profile);
    return std::any_of(adapters.begin(), adapters.end(), [&](const std::string& adapter) {
        if (adapter == FW::FW_ADAPTER_GLOBAL || isNeverApplied(adapter) ||
            !hasLines(profile, adapter)) {
            return false;
        }
        return std::find(names.begin(), names.end(), adapter) != names.end() ||
               machine.tunnelOf(adapter) == interface;
    });
}

std::string textOf(const UnlistedAdapter& adapter) {
    return adapter.open ? "open: not in the profile" : "not in the profile";
}

}  // namespace tarnfw
