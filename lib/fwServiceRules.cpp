#include "fwServiceRules.h"

#include <algorithm>

namespace FW {
namespace {

FWRULE reservedRule(const std::string& service, FW_POLICY policy) {
    FWRULE rule;
    rule.policy = policy;
    rule.name = "Service";
    rule.ipType = FW_IP_TYPE_BOTH;
    rule.ipGroup = FW_IP_GROUP_ANY;
    rule.portGroup = FW_PORT_GROUP_RESERVED;
    rule.protocol = FW_PORT_PROTOCOL_TCP_UDP;
    rule.portList = {service};
    return rule;
}

void removeFirst(std::vector<std::string>& names, const std::string& name) {
    const auto found = std::find(names.begin(), names.end(), name);
    if (found != names.end()) {
        names.erase(found);
    }
}

void dropRulesWithoutService(std::vector<FWRULE>& list) {
    list.erase(std::remove_if(list.begin(), list.end(),
                              [](const FWRULE& rule) {
                                  return fwRuleNamesServices(rule) && rule.portList.empty();
                              }),
               list.end());
}

/// Removes unusable names, and records which protocols the others need.
void updateRule(FWRULE& rule, const ServiceProtocol& protocolOf) {
    bool needsTcp = false;
    bool needsUdp = false;
    const auto unusable = [&](const std::string& name) {
        const std::optional<int> protocol = protocolOf(name);
        needsTcp = needsTcp || protocol == FW_PORT_PROTOCOL_TCP;
        needsUdp = needsUdp || protocol == FW_PORT_PROTOCOL_UDP;
        return !protocol;
    };
    rule.portList.erase(std::remove_if(rule.portList.begin(), rule.portList.end(), unusable),
                        rule.portList.end());
    if (needsTcp && needsUdp) {
        rule.protocol = FW_PORT_PROTOCOL_TCP_UDP;
    } else if (needsTcp) {
        rule.protocol = FW_PORT_PROTOCOL_TCP;
    } else if (needsUdp) {
        rule.protocol = FW_PORT_PROTOCOL_UDP;
    }
}

}  // namespace

void reserveService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& adapter,
                    const std::string& service, FW_POLICY policy) {
    std::vector<FWRULE>& list = rules[adapter];
    if (!list.empty() && fwRuleIsReserved(list[0]) && list[0].enable && list[0].policy == policy) {
        std::vector<std::string>& names = list[0].portList;
        if (std::find(names.begin(), names.end(), service) == names.end()) {
            names.push_back(service);
        }
        return;
    }
    for (FWRULE& rule : list) {
        if (fwRuleIsReserved(rule)) {
            removeFirst(rule.portList, service);
        }
    }
    dropRulesWithoutService(list);
    list.insert(list.begin(), reservedRule(service, policy));
}

void removeService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& service) {
    for (auto& [adapter, list] : rules) {
        for (FWRULE& rule : list) {
            if (fwRuleNamesServices(rule)) {
                removeFirst(rule.portList, service);
            }
        }
        dropRulesWithoutService(list);
    }
}

void updateServices(std::vector<FWRULE>& list, const ServiceProtocol& protocolOf) {
    for (FWRULE& rule : list) {
        if (fwRuleNamesServices(rule)) {
            updateRule(rule, protocolOf);
        }
    }
    dropRulesWithoutService(list);
}

}  // namespace FW
