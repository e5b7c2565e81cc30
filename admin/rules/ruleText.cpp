#include "tarnfwadmin/ruleText.h"

#include <optional>

#include "fwCodes.h"
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
            return "no default";
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
        case FW::kPortServices:
        case FW::kPortServicesReserved:
            return "service " + joined(rule.portList);
        case FW::kPortCustom: {
            std::string text = protocolText(rule.protocol);
            if (!rule.portList.empty()) {
                text += (rule.portDirect != 0 ? " source port " : " ") + joined(rule.portList);
            }
            return text;
        }
        case FW::kPortAny:
            return "everything";
        default:
            return "unknown port group " + std::to_string(rule.portGroup);
    }
}

std::string addressText(const FW::FWRULE& rule) {
    const std::string side = rule.ipDirect != 0 ? "from " : "to ";
    switch (rule.ipGroup) {
        case FW::kIpSingle:
            return side + at(rule.ipList, 0);
        case FW::kIpNetwork:
            return side + networkText(rule);
        case FW::kIpNone:
            return side + "nowhere";
        case FW::kIpCountries:
            return side + "country " + joined(rule.ipList);
        case FW::kIpRange:
            return side + at(rule.ipList, 0) + "-" + at(rule.ipList, 1);
        case FW::kIpAny:
            return side + "anywhere";
        default:
            return side + "unknown ip group " + std::to_string(rule.ipGroup);
    }
}

std::string familyText(std::int32_t ipType) {
    switch (ipType) {
        case FW::kIpV4Only:
            return "IPv4";
        case FW::kIpV6Only:
            return "IPv6";
        case FW::kIpBoth:
            return "both";
        default:
            return "unknown address family " + std::to_string(ipType);
    }
}

std::string ruleText(const FW::FWRULE& rule) {
    std::string text = rule.enable ? "" : "[off] ";
    text += policyText(rule.policy) + " " + portText(rule) + " " + addressText(rule);
    if (rule.adapterDirect == 0) {
        text += ", outgoing";
    }
    if (rule.blLog) {
        text += ", logged";
    }
    if (rule.ipType != FW::kIpBoth) {
        text += " (" + familyText(rule.ipType) + ")";
    }
    if (!rule.name.empty()) {
        text += "  \"" + rule.name + "\"";
    }
    return text;
}

}  // namespace tarnfw
