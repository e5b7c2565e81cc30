/// The fixed command lines around a ruleset, as the fake platform's journal has them.
#pragma once

#include <string>
#include <vector>

inline const std::vector<std::string> kDrop = {
    "exec /sbin/iptables --policy INPUT DROP",
    "exec /sbin/iptables --policy FORWARD DROP",
    "exec /sbin/iptables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
    "exec /sbin/ip6tables --policy INPUT DROP",
    "exec /sbin/ip6tables --policy FORWARD DROP",
    "exec /sbin/ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
};
inline const std::vector<std::string> kAccept = {
    "exec /sbin/iptables --policy INPUT ACCEPT",
    "exec /sbin/iptables --policy FORWARD ACCEPT",
    "exec /sbin/iptables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
    "exec /sbin/ip6tables --policy INPUT ACCEPT",
    "exec /sbin/ip6tables --policy FORWARD ACCEPT",
    "exec /sbin/ip6tables -D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT",
};
inline const std::vector<std::string> kFlush = {
    "exec /sbin/iptables -F INPUT_FIREWALL", "exec /sbin/ip6tables -F INPUT_FIREWALL",
    "exec /sbin/iptables -F FORWARD_FIREWALL", "exec /sbin/ip6tables -F FORWARD_FIREWALL"};
