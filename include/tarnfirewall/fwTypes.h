/// The records that every part of the library passes around: rules, profiles, policies, protocols,
/// and the three constant lists. Plain values: public fields, no invariants, nothing shared between
/// copies. The store reads and writes them as JSON; the translation turns them into iptables lines.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace FW {

/// What a matching packet gets, and the verdict of a blocked check. The type is fixed because a
/// profile file can hold any number; the translation refuses all but the first three.
enum FW_POLICY : std::int32_t {
    FW_POLICY_ALLOW = 0,       ///< target "-j RETURN"; as a verdict: allowed
    FW_POLICY_DENY = 1,        ///< target "-j DROP"; as a verdict: blocked
    FW_POLICY_NONE = 2,        ///< no target, the rule yields no line; as a verdict: undecided
    FW_POLICY_MIXED = 3,       ///< verdict only: allowed from some addresses, blocked from others
    FW_POLICY_ALLOW_SOME = 4,  ///< interim verdict: some addresses allowed so far
    FW_POLICY_DENY_SOME = 5    ///< interim verdict: some addresses blocked so far
};

/// Protocol codes of rules, of queries and of the service catalogue.
enum FW_PORT_PROTOCOL : std::int32_t {
    FW_PORT_PROTOCOL_TCP = 1,
    FW_PORT_PROTOCOL_UDP = 2,
    FW_PORT_PROTOCOL_TCP_UDP = 3,  ///< handled as TCP and then as UDP
    FW_PORT_PROTOCOL_ICMP = 4,     ///< "-p icmp " for IPv4, "-p icmpv6 " for IPv6
    FW_PORT_PROTOCOL_IGMP = 32
};

/// Adapter names that stand for more than one interface, or for one whose name changes.
inline const std::vector<std::string> FW_PREDEFINED_ADAPTERS = {"global", "pppoe", "vpn"};

/// The chains of the filter table that the library fills and flushes, in the order of their use.
inline const std::vector<std::string> FW_FIREWALL_CHAINS = {"INPUT_FIREWALL", "FORWARD_FIREWALL"};

/// The kernel modules that the firewall loads besides the core modules, in loading order.
inline const std::vector<std::string> FW_FIREWALL_MODULES = {"compat_xtables.ko", "xt_geoip.ko",
                                                             "xt_mac.ko"};

/// One firewall rule. Every field but `ruleID` is stored under its own name; a fresh rule holds the
/// values below.
struct FWRULE {
    std::int32_t ruleID = 0;             ///< read from "ruleID", never written back
    bool enable = true;                  ///< the rule is in use
    std::int32_t adapterDirect = 1;      ///< 0: outgoing interface "-o", else incoming "-i"
    FW_POLICY policy = FW_POLICY_ALLOW;  ///< what a matching packet gets
    bool blLog = false;                  ///< log matching packets as well
    std::vector<std::string> labelList;  ///< free texts of the user
    std::string name;                    ///< free text of the user
    std::string table = "filter";        ///< netfilter table
    std::set<std::string> chainList = {  ///< chains that the rule is appended to
        "FORWARD_FIREWALL", "INPUT_FIREWALL"};
    std::int32_t ipType = 0;    ///< address family: 0 IPv4, 1 IPv6, 2 both
    std::int32_t ipDirect = 1;  ///< address side: 0 destination, else source
    /// How `ipList` is read: 0 one address, 1 address and mask, 2 no line at all, 3 country codes,
    /// 4 first and last address of a range, 5 any address.
    std::int32_t ipGroup = 0;
    std::vector<std::string> ipList;  ///< by `ipGroup`: "10.0.0.1", "255.0.0.0", "CN"
    std::int32_t portDirect = 0;      ///< port side: 0 destination, else source
    /// How `portList` is read: 0 and 2 service names, 1 ports, 3 any port. Code 2 together with
    /// `ipGroup` 5 marks the reserved service rule at the head of an adapter's list.
    std::int32_t portGroup = 0;
    std::int32_t protocol = FW_PORT_PROTOCOL_TCP;  ///< FW_PORT_PROTOCOL code, for portGroup 1
    std::vector<std::string> portList;  ///< by `portGroup`: "ssh", or "80" and "6000-6010"
};

/// One profile: the rules and the default policy of every adapter. Adapters are interface names or
/// names of FW_PREDEFINED_ADAPTERS.
struct FWPROFILE {
    std::string name;                                   ///< the key under which the store finds it
    std::map<std::string, std::vector<FWRULE>> rules;   ///< by adapter, in rule order
    std::map<std::string, FW_POLICY> adapterPolicyMap;  ///< by adapter: what no rule decided
};

/// The question of a blocked check.
struct PortCompareST {
    std::int32_t portDirect;  ///< as FWRULE::portDirect
    std::int32_t protocol;    ///< FW_PORT_PROTOCOL code: 1, 2 or 3
    std::string port;         ///< "80", or "6000-6010"
};

/// What one step of a blocked check was.
enum FW_VERDICT_STEP : std::int32_t {
    FW_VERDICT_STEP_DEFAULT = 0,     ///< began with the adapter's default policy
    FW_VERDICT_STEP_NO_DEFAULT = 1,  ///< began allowed: the profile has no default policy for it
    FW_VERDICT_STEP_GLOBAL = 2,      ///< "global" began undecided
    FW_VERDICT_STEP_RULE = 3,        ///< a rule matched
    FW_VERDICT_STEP_DECIDED = 4,     ///< the rules of "global" had decided, for every adapter
    FW_VERDICT_STEP_LEFT = 5,        ///< the rules of "global" only allow some: the adapters decide
    FW_VERDICT_STEP_END = 6          ///< an interim verdict at the end: mixed
};

/// One step on the way to a blocked check's verdict.
struct FWVERDICTSTEP {
    FW_VERDICT_STEP kind = FW_VERDICT_STEP_RULE;
    std::string adapter;                 ///< whose verdict it was about, or "global"
    std::string list;                    ///< of a rule, the adapter whose list it stands in
    std::int32_t position = 0;           ///< of a rule, its place in that list, from 1
    FW_POLICY policy = FW_POLICY_NONE;   ///< the rule's, or the default policy
    FW_POLICY before = FW_POLICY_ALLOW;  ///< the verdict so far; without any, allowed
    FW_POLICY after = FW_POLICY_ALLOW;   ///< the verdict from here on
    bool last = false;                   ///< the rules behind this one were not looked at
};

/// The ports of one or more services, from the service catalogue: "80" or "6000-6010" by protocol.
struct ServPort {
    std::map<FW_PORT_PROTOCOL, std::vector<std::string>> srcPorts;  ///< matched as source ports
    std::map<FW_PORT_PROTOCOL, std::vector<std::string>> dstPorts;  ///< as destination ports
};

}  // namespace FW
