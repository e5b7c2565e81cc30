#include "fwServiceRules.h"

#include <algorithm>

#include "fwCodes.h"

namespace FW {
namespace {

bool namesServices(const FWRULE& rule) {
    return (rule.portGroup & ~kPortServicesReserved) == kPortServices;
}

bool isReserved(const FWRULE& rule) {
    return rule.portGroup == kPortServicesReserved && rule.ipGroup == kIpAny;
}

FWRULE reservedRule(const std::string& service, FW_POLICY policy) {
    FWRULE rule;
    rule.policy = policy;
    rule.name = "Service";
    rule.ipType = kIpBoth;
    rule.ipGroup = kIpAny;
    rule.portGroup = kPortServicesReserved;
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
    list.erase(std::remove_if(
                   list.begin(), list.end(),
                   [](const FWRULE& rule) { return namesServices(rule) && rule.portList.empty(); }),
               list.end());
}

/// Removes the names that are not usable, and notes what the others need.
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
    if (!list.empty() && isReserved(list[0]) && list[0].enable && list[0].policy == policy) {
        std::vector<std::string>& names = list[0].portList;
        if (std::find(names.begin(), names.end(), service) == names.end()) {
            names.push_back(service);
        }
        return;
    }
    for (FWRULE& rule : list) {
        if (isReserved(rule)) {
            removeFirst(rule.portList, service);
        }
    }
    dropRulesWithoutService(list);
    list.insert(list.begin(), reservedRule(service, policy));
}

void removeService(std::map<std::string, std::vector<FWRULE>>& rules, const std::string& service) {
    for (auto& [adapter, list] : rules) {
        for (FWRULE& rule : list) {
            if (namesServices(rule)) {
                removeFirst(rule.portList, service);
            }
        }
        dropRulesWithoutService(list);
    }
}

void updateServices(std::vector<FWRULE>& list, const ServiceProtocol& protocolOf) {
    for (FWRULE& rule : list) {
        if (namesServices(rule)) {
            updateRule(rule, protocolOf);
        }
    }
    dropRulesWithoutService(list);
}

}  // namespace FW
