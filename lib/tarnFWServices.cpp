/// Firewall control: updating profiles from the service catalogue, and the blocked checks.
#include "tarnfirewall/tarnFW.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "tarnserviceconf.h"

#include "fwCatalogue.h"
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
        case FW_PORT_GROUP_SERVICES:
        case FW_PORT_GROUP_RESERVED: {
            ServPort ports;
            if (!firewall.servToPorts(rule.portList, ports)) {
                FW_LOG_ERR("Failed to servToPorts()");
                return false;
            }
            // The rule's direction applies to both maps.
            return anyEntryMatches(query, rule, ports.srcPorts) ||
                   anyEntryMatches(query, rule, ports.dstPorts);
        }
        case FW_PORT_GROUP_PORTS:
            return portsMatch(query, rule.portDirect, rule.protocol, rule.portList,
                              rule.policy == FW_POLICY_DENY);
        case FW_PORT_GROUP_ANY:
            return true;
        default:
            return false;
    }
}

/// The verdicts of one check and, if wanted, the steps that led to them. Verdicts change only
/// through this class, so that no step is missing.
class Evaluation {
public:
    Evaluation(TARNFW& firewall, const PortCompareST& query, const FWPROFILE& profile,
               Verdicts& verdicts, std::vector<FWVERDICTSTEP>* steps)
        : firewall_(firewall),
          query_(query),
          profile_(profile),
          verdicts_(verdicts),
          steps_(steps) {}

    /// `adapter` is the one asked about; empty for all with a default policy.
    void run(const std::string& adapter);

private:
    void begin(const std::string& adapter);
    bool decideGlobally(const std::string& adapter);
    void evaluateRules(const std::vector<FWRULE>& rules, const std::string& key);
    void closeInterimVerdicts();

    /// Makes `step.after` the verdict of `step.adapter`.
    void take(FWVERDICTSTEP step);

    TARNFW& firewall_;
    const PortCompareST& query_;
    const FWPROFILE& profile_;
    Verdicts& verdicts_;
    std::vector<FWVERDICTSTEP>* steps_;
};

/// A step that does not belong to a rule.
FWVERDICTSTEP stepOf(FW_VERDICT_STEP kind, const std::string& adapter, FW_POLICY after) {
    FWVERDICTSTEP step;
    step.kind = kind;
    step.adapter = adapter;
    step.after = after;
    return step;
}

void Evaluation::take(FWVERDICTSTEP step) {
    FW_POLICY& verdict = verdicts_[step.adapter];  // a new entry is "allowed"
    step.before = verdict;
    verdict = step.after;
    if (steps_ != nullptr) {
        steps_->push_back(std::move(step));
    }
}

/// Evaluates one list of rules; the verdict is the entry for `key`. The first match creates a
/// missing entry.
void Evaluation::evaluateRules(const std::vector<FWRULE>& rules, const std::string& key) {
    bool blockingMatched = false;
    std::int32_t position = 0;
    for (const FWRULE& rule : rules) {
        ++position;
        if (!rule.enable || !ruleMatches(firewall_, query_, rule)) {
            continue;
        }
        if (verdicts_.count(key) == 0) {
            take(stepOf(FW_VERDICT_STEP_NO_DEFAULT, key, FW_POLICY_ALLOW));
        }
        blockingMatched = blockingMatched || rule.policy == FW_POLICY_DENY;
        const VerdictStep next =
            nextVerdict(verdicts_[key], rule.policy, rule.ipGroup == FW_IP_GROUP_ANY);
        FWVERDICTSTEP step = stepOf(FW_VERDICT_STEP_RULE, key, next.verdict);
        step.list = key;
        step.position = position;
        step.policy = rule.policy;
        step.last = !next.goesOn;
        take(std::move(step));
        if (!next.goesOn) {
            break;
        }
    }
    // Global rules that allow some addresses and block none leave the verdict to the adapters.
    if (key == FW_ADAPTER_GLOBAL && !blockingMatched) {
        const auto global = verdicts_.find(key);
        if (global != verdicts_.end() && global->second == FW_POLICY_ALLOW_SOME) {
            take(stepOf(FW_VERDICT_STEP_LEFT, key, FW_POLICY_NONE));
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
bool Evaluation::decideGlobally(const std::string& adapter) {
    const auto global = profile_.rules.find(FW_ADAPTER_GLOBAL);
    if (global == profile_.rules.end()) {
        return false;
    }
    evaluateRules(global->second, FW_ADAPTER_GLOBAL);
    const FW_POLICY verdict = verdicts_[FW_ADAPTER_GLOBAL];
    if (!isDecided(verdict)) {
        return false;
    }
    for (const std::string& asked : adaptersAsked(profile_, adapter)) {
        if (asked != FW_ADAPTER_GLOBAL) {
            take(stepOf(FW_VERDICT_STEP_DECIDED, asked, verdict));
        }
    }
    return true;
}

/// The verdicts that the check begins with.
void Evaluation::begin(const std::string& adapter) {
    take(stepOf(FW_VERDICT_STEP_GLOBAL, FW_ADAPTER_GLOBAL, FW_POLICY_NONE));
    for (const std::string& asked : adaptersAsked(profile_, adapter)) {
        const auto policy = profile_.adapterPolicyMap.find(asked);
        if (policy != profile_.adapterPolicyMap.end()) {
            FWVERDICTSTEP step = stepOf(FW_VERDICT_STEP_DEFAULT, asked, policy->second);
            step.policy = policy->second;
            take(std::move(step));
        }
    }
}

void Evaluation::closeInterimVerdicts() {
    for (const auto& [adapter, verdict] : verdicts_) {
        if (verdict == FW_POLICY_ALLOW_SOME || verdict == FW_POLICY_DENY_SOME) {
            take(stepOf(FW_VERDICT_STEP_END, adapter, FW_POLICY_MIXED));
        }
    }
}

void Evaluation::run(const std::string& adapter) {
    begin(adapter);
    if (!decideGlobally(adapter)) {
        if (!adapter.empty() && profile_.adapterPolicyMap.count(adapter) == 0) {
            take(stepOf(FW_VERDICT_STEP_NO_DEFAULT, adapter, FW_POLICY_ALLOW));
            if (profile_.rules.count(adapter) == 0) {
                return;  // interim verdicts stay in this case
            }
        }
        // The adapters' own rules: those of `adapter`, or all, including "global" again.
        for (const auto& [name, rules] : profile_.rules) {
            if (adapter.empty() || name == adapter) {
                evaluateRules(rules, name);
            }
        }
    }
    closeInterimVerdicts();
}

/// The check itself. `steps` may be null.
bool portCheck(TARNFW& firewall, const PortCompareST& port, const std::string& adapter,
               Verdicts& result, std::vector<FWVERDICTSTEP>* steps) {
    bool enabled = false;
    if (!firewall.fwStatus(enabled)) {
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
    if (!firewall.fwProfileConfigGet(active)) {
        FW_LOG_ERR("Failed to fwProfileConfigGet()");
        return false;
    }
    FWPROFILE profile;
    if (!profileGetLogged(active, profile)) {
        return false;
    }
    Evaluation(firewall, port, profile, result, steps).run(adapter);
    return true;
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
    return portCheck(*this, port, adapter, result, nullptr);
}

bool TARNFW::fwPortExplain(const PortCompareST& port, const std::string& adapter,
                           std::map<std::string, FW_POLICY>& result,
                           std::vector<FWVERDICTSTEP>& steps) {
    return portCheck(*this, port, adapter, result, &steps);
}

void TARNFW::fwPortExplainOf(const FWPROFILE& profile, const PortCompareST& port,
                             const std::string& adapter, std::map<std::string, FW_POLICY>& result,
                             std::vector<FWVERDICTSTEP>& steps) {
    Evaluation(*this, port, profile, result, &steps).run(adapter);
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
            FW_POLICY& merged = result[name];  // a new entry is "allowed"
            if (fwVerdictRank(verdict) > fwVerdictRank(merged)) {
                merged = verdict;
            }
        }
    }
    return true;
}

}  // namespace FW
