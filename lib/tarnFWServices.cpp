/// Firewall control: services. Profiles follow the catalogue, and the blocked checks.
#include "tarnfirewall/tarnFW.h"

#include <algorithm>
#include <optional>

#include "tarnserviceconf.h"

#include "fwCatalogue.h"
#include "fwCodes.h"
#include "fwServiceRules.h"
#include "fwVerdict.h"
#include "tarnFWInternal.h"

namespace FW {
namespace {

constexpr const char* kSource = kFirewallSource;

using Verdicts = std::map<std::string, FW_POLICY>;

/// Whether one protocol's ports of a service rule match the query.
bool anyEntryMatches(const PortCompareST& query, const FWRULE& rule,
                     const std::map<FW_PORT_PROTOCOL, std::vector<std::string>>& entries) {
    return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
        return portsMatch(query, rule.portDirect, entry.first, entry.second,
                          rule.policy == FW_POLICY_DENY);
    });
}

bool ruleMatches(TARNFW& firewall, const PortCompareST& query, const FWRULE& rule) {
    switch (rule.portGroup) {
        case kPortServices:
        case kPortServicesReserved: {
            ServPort ports;
            if (!firewall.servToPorts(rule.portList, ports)) {
                FW_LOG_ERR("Failed to servToPorts()");
                return false;
            }
            // The rule's direction holds for both maps.
            return anyEntryMatches(query, rule, ports.srcPorts) ||
                   anyEntryMatches(query, rule, ports.dstPorts);
        }
        case kPortCustom:
            return portsMatch(query, rule.portDirect, rule.protocol, rule.portList,
                              rule.policy == FW_POLICY_DENY);
        case kPortAny:
            return true;
        default:
            return false;
    }
}

/// Walks one list of rules; the verdict lives in the entry of `verdicts` for `key`, which a match
/// makes where there is none.
void evaluateRules(TARNFW& firewall, const PortCompareST& query, const std::vector<FWRULE>& rules,
                   const std::string& key, Verdicts& verdicts) {
    bool blockingMatched = false;
    for (const FWRULE& rule : rules) {
        if (!rule.enable || !ruleMatches(firewall, query, rule)) {
            continue;
        }
        blockingMatched = blockingMatched || rule.policy == FW_POLICY_DENY;
        FW_POLICY& verdict = verdicts[key];
        const VerdictStep step = nextVerdict(verdict, rule.policy, rule.ipGroup == kIpAny);
        verdict = step.verdict;
        if (!step.goesOn) {
            break;
        }
    }
    // Global rules that allow some addresses and block none leave the word to the adapters' own.
    if (key == kGlobalAdapter && !blockingMatched) {
        const auto global = verdicts.find(key);
        if (global != verdicts.end() && global->second == FW_POLICY_ALLOW_SOME) {
            global->second = FW_POLICY_NONE;
        }
    }
}

bool isDecided(FW_POLICY verdict) {
    return verdict == FW_POLICY_ALLOW || verdict == FW_POLICY_DENY || verdict == FW_POLICY_MIXED;
}

/// The adapters that a check is about: the one asked for, or all with a default policy.
std::vector<std::string> adaptersAsked(const FWPROFILE& profile, const std::string& adapter) {
    if (!adapter.empty()) {
        return {adapter};
    }
    std::vector<std::string> adapters;
    for (const auto& [name, policy] : profile.adapterPolicyMap) {
        adapters.push_back(name);
    }
    return adapters;
}

/// Lets the rules of "global" decide. Returns whether they did, for every adapter asked about.
bool decideGlobally(TARNFW& firewall, const PortCompareST& query, const FWPROFILE& profile,
                    const std::string& adapter, Verdicts& verdicts) {
    const auto global = profile.rules.find(kGlobalAdapter);
    if (global == profile.rules.end()) {
        return false;
    }
    evaluateRules(firewall, query, global->second, kGlobalAdapter, verdicts);
    const FW_POLICY verdict = verdicts[kGlobalAdapter];
    if (!isDecided(verdict)) {
        return false;
    }
    for (const std::string& asked : adaptersAsked(profile, adapter)) {
        verdicts[asked] = verdict;
    }
    return true;
}

/// Lets the adapters' own rules decide: those of `adapter`, or all when it is empty, "global" again
/// among them.
void decideByAdapter(TARNFW& firewall, const PortCompareST& query, const FWPROFILE& profile,
                     const std::string& adapter, Verdicts& verdicts) {
    for (const auto& [name, rules] : profile.rules) {
        if (adapter.empty() || name == adapter) {
            evaluateRules(firewall, query, rules, name, verdicts);
        }
    }
}

void closeInterimVerdicts(Verdicts& verdicts) {
    for (auto& [adapter, verdict] : verdicts) {
        if (verdict == FW_POLICY_ALLOW_SOME || verdict == FW_POLICY_DENY_SOME) {
            verdict = FW_POLICY_MIXED;
        }
    }
}

/// Appends a query for each port of a map.
void appendQueries(const std::map<FW_PORT_PROTOCOL, std::vector<std::string>>& entries,
                   std::int32_t portDirect, std::vector<PortCompareST>& queries) {
    for (const auto& [protocol, ports] : entries) {
        for (const std::string& port : ports) {
            queries.push_back({portDirect, protocol, port});
        }
    }
}

}  // namespace

bool TARNFW::fwUpdate() {
    TARNFW_PROFILE store;
    std::map<std::string, FWPROFILE> profiles;
    if (!store.profileEnum(profiles)) {
        FW_LOG_ERR("Failed to enum profiles to profile list");
        return false;
    }
    const ServiceCatalogue catalogue = catalogueLoad();
    if (!catalogue) {
        FW_LOG_ERR("Failed to enum FW services");
        return false;
    }
    const auto protocolOf = [&](const std::string& name) -> std::optional<int> {
        const TARNFW_SERVICE* const service = TARNFWServiceFind(catalogue.get(), name.c_str());
        return isUsable(service) ? std::optional<int>(service->dstProtocol) : std::nullopt;
    };
    for (auto& [name, profile] : profiles) {
        for (auto& [adapter, rules] : profile.rules) {
            updateServices(rules, protocolOf);
        }
        if (!store.profileSet(name, profile)) {
            FW_LOG_ERR("Failed to set profile");
            return false;
        }
    }
    return true;
}

bool TARNFW::fwPortIsBlocked(const PortCompareST& port, const std::string& adapter,
                             std::map<std::string, FW_POLICY>& result) {
    bool enabled = false;
    if (!fwStatus(enabled)) {
        FW_LOG_ERR("Failed to check firewall status");
        return false;
    }
    if (!enabled) {
        if (!adapter.empty()) {
            result[adapter] = FW_POLICY_ALLOW;
        }
        return true;
    }
    std::string active;
    if (!fwProfileConfigGet(active)) {
        FW_LOG_ERR("Failed to fwProfileConfigGet()");
        return false;
    }
    FWPROFILE profile;
    if (!profileGetLogged(active, profile)) {
        return false;
    }

    result[kGlobalAdapter] = FW_POLICY_NONE;
    for (const std::string& asked : adaptersAsked(profile, adapter)) {
        const auto policy = profile.adapterPolicyMap.find(asked);
        if (policy != profile.adapterPolicyMap.end()) {
            result[asked] = policy->second;
        }
    }
    if (!decideGlobally(*this, port, profile, adapter, result)) {
        if (!adapter.empty() && profile.adapterPolicyMap.count(adapter) == 0) {
            result[adapter] = FW_POLICY_ALLOW;
            if (profile.rules.count(adapter) == 0) {
                return true;  // interim verdicts stay as they are on this way out
            }
        }
        decideByAdapter(*this, port, profile, adapter, result);
    }
    closeInterimVerdicts(result);
    return true;
}

bool TARNFW::fwServIsBlocked(const std::string& servName, const std::string& adapter,
                             std::map<std::string, FW_POLICY>& result) {
    ServPort ports;
    if (!servToPorts({servName}, ports)) {
        FW_LOG_ERR("Failed to servToPorts()");
        return false;
    }
    std::vector<PortCompareST> queries;
    appendQueries(ports.srcPorts, 1, queries);
    appendQueries(ports.dstPorts, 0, queries);
    for (const PortCompareST& query : queries) {
        std::map<std::string, FW_POLICY> verdicts;
        if (!fwPortIsBlocked(query, adapter, verdicts)) {
            FW_LOG_ERR("Failed to fwPortIsBlocked()");
            return false;
        }
        for (const auto& [name, verdict] : verdicts) {
            FW_POLICY& merged = result[name];  // a new entry says "allowed"
            if (severityOf(verdict) > severityOf(merged)) {
                merged = verdict;
            }
        }
    }
    return true;
}

}  // namespace FW
