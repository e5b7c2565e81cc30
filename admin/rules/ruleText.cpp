#include "tarnfwadmin/ruleText.h"

#include <optional>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"

namespace tarnfw {
namespace {

std::string joined(const std::vector<std::string>& texts) {
    std::string line;
    for (const std::string& text : texts) {
        line += (line.empty() ? "" : ",") + text;
    }
    return line;
}

std::string at(const std::vector<std::string>& list, std::size_t index) {
    return index < list.size() ? list[index] : "";
}

/// "192.168.1.0/24", whether the rule has the prefix length or the mask.
std::string networkText(const FW::FWRULE& rule) {
    const std::string mask = at(rule.ipList, 1);
    const std::optional<int> length = prefixLengthFrom(mask, /*ipv6=*/false);
    return at(rule.ipList, 0) + "/" + (length ? std::to_string(*length) : mask);
}

}  // namespace

std::string policyText(FW::FW_POLICY policy) {
    switch (policy) {
        case FW::FW_POLICY_ALLOW:
            return "allow";
        case FW::FW_POLICY_DENY:
            return "deny";
        case FW::FW_POLICY_NONE:
            return "none";
        default:
            return "unknown policy " + std::to_string(policy);
    }
}

std::string protocolText(std::int32_t protocol) {
    switch (protocol) {
        case FW::FW_PORT_PROTOCOL_TCP:
            return "tcp";
        case FW::FW_PORT_PROTOCOL_UDP:
            return "udp";
        case FW::FW_PORT_PROTOCOL_TCP_UDP:
            return "tcp/udp";
        case FW::FW_PORT_PROTOCOL_ICMP:
            return "icmp";
        case FW::FW_PORT_PROTOCOL_IGMP:
            return "igmp";
        default:
            return "unknown protocol " + std::to_string(protocol);
    }
}

std::string portText(const FW::FWRULE& rule) {
    switch (rule.portGroup) {
        case FW::FW_PORT_GROUP_SERVICES:
        case FW::FW_PORT_GROUP_RESERVED:
            return "service " + joined(rule.portList);
        case FW::FW_PORT_GROUP_PORTS: {
            std::string text = protocolText(rule.protocol);
            if (!rule.portList.empty()) {
                text +=
                    (rule.portDirect != FW::FW_PORT_DIRECT_DESTINATION ? " source port " : " ") +
                    joined(rule.portList);
            }
            return text;
        }
        case FW::FW_PORT_GROUP_ANY:
            return "everything";
        default:
            return "unknown port group " + std::to_string(rule.portGroup);
    }
}

std::string addressText(const FW::FWRULE& rule) {
    const std::string side = rule.ipDirect != FW::FW_IP_DIRECT_DESTINATION ? "from " : "to ";
    switch (rule.ipGroup) {
        case FW::FW_IP_GROUP_SINGLE:
            return side + at(rule.ipList, 0);
        case FW::FW_IP_GROUP_NETWORK:
            return side + networkText(rule);
        case FW::FW_IP_GROUP_NONE:
            return side + "nowhere";
        case FW::FW_IP_GROUP_COUNTRIES:
            return side + "country " + joined(rule.ipList);
        case FW::FW_IP_GROUP_RANGE:
            return side + at(rule.ipList, 0) + "-" + at(rule.ipList, 1);
        case FW::FW_IP_GROUP_ANY:
            return side + "anywhere";
        default:
            return side + "unknown ip group " + std::to_string(rule.ipGroup);
    }
}

std::string familyText(std::int32_t ipType) {
    switch (ipType) {
        case FW::FW_IP_TYPE_V4:
            return "IPv4";
        case FW::FW_IP_TYPE_V6:
            return "IPv6";
        case FW::FW_IP_TYPE_BOTH:
            return "both";
        default:
            return "unknown address family " + std::to_string(ipType);
    }
}

std::string ruleText(const FW::FWRULE& rule) {
    std::string text = rule.enable ? "" : "[off] ";
    text += policyText(rule.policy) + " " + portText(rule) + " " + addressText(rule);
    if (rule.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT) {
        text += ", outgoing";
    }
    if (rule.blLog) {
        text += ", logged";
    }
    if (rule.ipType != FW::FW_IP_TYPE_BOTH) {
        text += " (" + familyText(rule.ipType) + ")";
    }
    if (!rule.name.empty()) {
        text += "  \"" + rule.name + "\"";
    }
    return text;
}

}  // namespace tarnfw
