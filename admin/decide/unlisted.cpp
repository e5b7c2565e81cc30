#include "tarnfwadmin/unlisted.h"

#include <algorithm>
#include <cstdint>
#include <set>

#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

/// Whether new packets of a family to this machine can pass "global" with no rule that decides on
/// them, or all of them do, since it allows them.
bool isLeftOpen(const PacketAnswers& global, FW::FW_FAMILY family) {
    FW::FWPACKETSET packets = newConnections("");
    packets.in = nullptr;
    packets.families = static_cast<std::uint8_t>(1U << family);
    const PacketOutcomes outcomes = global.outcomes(packets);
    return outcomes.undecided || !outcomes.denied;
}

/// What "global" does, apart from all other adapters.
PacketAnswers answersOfGlobal(const FW::FWPROFILE& profile, Machine& machine) {
    FW::FWPROFILE alone;
    const auto rules = profile.rules.find(FW::FW_ADAPTER_GLOBAL);
    const auto policy = profile.adapterPolicyMap.find(FW::FW_ADAPTER_GLOBAL);
    if (rules != profile.rules.end()) {
        alone.rules.insert(*rules);
    }
    if (policy != profile.adapterPolicyMap.end()) {
        alone.adapterPolicyMap.insert(*policy);
    }
    return PacketAnswers(Meaning(alone, machine), FW::FW_ADAPTER_GLOBAL);
}

bool decides(FW::FW_POLICY policy) {
    return policy == FW::FW_POLICY_ALLOW || policy == FW::FW_POLICY_DENY;
}

bool hasLines(const FW::FWPROFILE& profile, const std::string& adapter) {
    const auto policy = profile.adapterPolicyMap.find(adapter);
    const auto rules = profile.rules.find(adapter);
    return (policy != profile.adapterPolicyMap.end() && decides(policy->second)) ||
           (rules != profile.rules.end() &&
            std::any_of(rules->second.begin(), rules->second.end(), [](const FW::FWRULE& rule) {
                return rule.enable && decides(rule.policy);
            }));
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
    std::vector<UnlistedAdapter> unlisted;
    for (const std::string& adapter : machineAdapters()) {
        if (others.count(adapter) == 0) {
            unlisted.push_back({adapter, false});
        }
    }
    if (!unlisted.empty()) {
        const PacketAnswers global = answersOfGlobal(profile, machine);
        const bool open =
            isLeftOpen(global, FW::FW_FAMILY_V4) || isLeftOpen(global, FW::FW_FAMILY_V6);
        for (UnlistedAdapter& adapter : unlisted) {
            adapter.open = open;
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
