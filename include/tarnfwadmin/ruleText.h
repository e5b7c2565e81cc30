/// Rules in plain words, for people: the texts may change. Unknown codes are named as such; nothing
/// here throws. The texts are not made printable.
#pragma once

#include <cstdint>
#include <string>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// "allow", "deny", "none", or "unknown policy 7".
std::string policyText(FW::FW_POLICY policy);

/// For an FW_PORT_PROTOCOL code: "tcp", "udp", "tcp/udp", "icmp", "igmp", or "unknown protocol 7".
std::string protocolText(std::int32_t protocol);

/// The ports of a rule: "tcp 22,6000-6010", "udp source port 53", "service ssh", "everything".
std::string portText(const FW::FWRULE& rule);

/// The addresses of a rule: "from 192.168.1.0/24" (masks as lengths, where they have one), "to
/// 10.0.0.5-10.0.0.9", "from country CN,RU", "from anywhere".
std::string addressText(const FW::FWRULE& rule);

/// For an FW_IP_TYPE code: "IPv4", "IPv6", "both", or "unknown address family 3".
std::string familyText(std::int32_t ipType);

/// A whole rule: "deny tcp 22,6000-6010 from 192.168.1.0/24, logged (IPv4)"; "[off] " before one
/// that is switched off, its name in quotes after it.
std::string ruleText(const FW::FWRULE& rule);

}  // namespace tarnfw
