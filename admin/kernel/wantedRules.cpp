#include "kernel/wantedRules.h"

#include <algorithm>
#include <future>
#include <utility>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {
namespace {

bool isFirewallChain(const std::string& chain) {
    const std::vector<std::string>& chains = FW::FW_FIREWALL_CHAINS;
    return std::find(chains.begin(), chains.end(), chain) != chains.end();
}

/// Whether the rules of one chain are these.
bool hasChain(const RuleListing& listing, const ChainRules& wanted, const std::string& chain) {
    const auto found = wanted.find(chain);
    const std::vector<KernelRule> none;
    const std::vector<KernelRule>& rules = found == wanted.end() ? none : found->second;
    const std::vector<std::string>& held = listing.rulesOf(chain);
    return std::equal(rules.begin(), rules.end(), held.begin(), held.end(),
                      [](const KernelRule& rule, const std::string& line) {
                          return isSameAsFarAsRead(rule, kernelRuleFrom(line));
                      });
}

}  // namespace

FamilyLines commandLinesOf(const Json::Value& commands) {
    FamilyLines all;
    for (const char* const family : {"v4", "v6"}) {
        std::vector<std::string>& lines = all[family];
        const Json::Value& adapters = commands[family];
        const auto append = [&](const std::string& adapter) {
            for (const Json::Value& line : adapters[adapter]) {
                lines.push_back(line.asString());
            }
        };
        if (!adapters.isObject()) {
            continue;
        }
        append(FW::FW_ADAPTER_GLOBAL);  // runs first
        for (const std::string& adapter : adapters.getMemberNames()) {
            if (adapter != FW::FW_ADAPTER_GLOBAL) {
                append(adapter);
            }
        }
    }
    return all;
}

ChainRules chainRulesFrom(const std::vector<std::string>& lines) {
    ChainRules chains;
    for (const std::string& line : lines) {
        KernelRule rule = kernelRuleFrom(line);
        if (rule.table == "filter" && isFirewallChain(rule.chain)) {
            std::vector<KernelRule>& rules = chains[rule.chain];
            rules.push_back(std::move(rule));
        }
    }
    return chains;
}

std::map<std::string, ChainRules> familyRulesFrom(const FamilyLines& lines) {
    std::map<std::string, ChainRules> rules;
    for (const auto& [family, own] : lines) {
        rules.emplace(family, chainRulesFrom(own));
    }
    return rules;
}

bool hasRules(const RuleListing& listing, const ChainRules& wanted) {
    // At the same time: there may be thousands of rules.
    std::vector<std::future<bool>> chains;
    chains.reserve(FW::FW_FIREWALL_CHAINS.size());
    for (const std::string& chain : FW::FW_FIREWALL_CHAINS) {
        chains.push_back(std::async(std::launch::async,
                                    [&, chain] { return hasChain(listing, wanted, chain); }));
    }
    return std::all_of(chains.begin(), chains.end(), [](auto& has) { return has.get(); });
}

bool hasRules(const SavedRules& rules, const std::map<std::string, ChainRules>& wanted) {
    return std::all_of(rules.families().begin(), rules.families().end(), [&](const auto& family) {
        return hasRules(family.second, wanted.at(family.first));
    });
}

}  // namespace tarnfw
