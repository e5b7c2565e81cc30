/// Rules in plain words.
#pragma once

#include <cstdint>
#include <string>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

/// "allow", "deny", "no default", or "unknown policy 7".
std::string policyText(FW::FW_POLICY policy);

/// "tcp", "udp", "tcp/udp", "icmp", "igmp", or "unknown protocol 7".
std::string protocolText(std::int32_t protocol);

/// "tcp 22,6000-6010", "service ssh", "everything".
std::string portText(const FW::FWRULE& rule);

/// "from 192.168.1.0/24": masks as lengths, where they have one.
std::string addressText(const FW::FWRULE& rule);

/// "IPv4", "IPv6", "both", or "unknown address family 3".
std::string familyText(std::int32_t ipType);

/// "deny tcp 22,6000-6010 from 192.168.1.0/24, logged (IPv4)".
std::string ruleText(const FW::FWRULE& rule);

}  // namespace tarnfw
