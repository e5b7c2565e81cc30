/// The records that every part of the library passes around: rules, profiles, policies, protocols,
/// the codes of a rule's fields and the three constant lists. Plain values: public fields, no
/// invariants, no state shared between copies. The store reads and writes them as JSON; the
/// translation turns them into iptables lines.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace FW {

/// What happens to a matching packet, and the verdict of a blocked check. The type is fixed because
/// a profile file can hold any number; the translation rejects all but the first three.
enum FW_POLICY : std::int32_t {
    FW_POLICY_ALLOW = 0,       ///< target "-j RETURN"; as a verdict: allowed
    FW_POLICY_DENY = 1,        ///< target "-j DROP"; as a verdict: blocked
    FW_POLICY_NONE = 2,        ///< none: the rule yields no line; as a verdict: undecided
    FW_POLICY_MIXED = 3,       ///< verdict only: allowed from some addresses, blocked from others
    FW_POLICY_ALLOW_SOME = 4,  ///< interim verdict: some addresses allowed so far
    FW_POLICY_DENY_SOME = 5    ///< interim verdict: some addresses blocked so far
};

/// How the verdicts for several ports merge: the one with the highest rank applies to all.
/// Blocked comes before mixed, mixed before allowed, allowed before undecided.
inline int fwVerdictRank(FW_POLICY verdict) {
    switch (verdict) {
        case FW_POLICY_DENY:
            return 3;
        case FW_POLICY_MIXED:
            return 2;
        case FW_POLICY_ALLOW:
            return 1;
        default:
            return 0;
    }
}

/// Protocol codes of rules, of queries and of the service catalogue.
enum FW_PORT_PROTOCOL : std::int32_t {
    FW_PORT_PROTOCOL_TCP = 1,
    FW_PORT_PROTOCOL_UDP = 2,
    FW_PORT_PROTOCOL_TCP_UDP = 3,  ///< handled as TCP and then as UDP
    FW_PORT_PROTOCOL_ICMP = 4,     ///< "-p icmp " for IPv4, "-p icmpv6 " for IPv6
    FW_PORT_PROTOCOL_IGMP = 32
};

// The codes of a rule's fields, each enumeration named after its field. The fields are plain
// integers, because a profile file can hold any number: the translation logs an unknown `ipGroup`
// or `portGroup`, and reads any direction but 0 like 1.

/// FWRULE::adapterDirect.
enum FW_ADAPTER_DIRECT : std::int32_t {
    FW_ADAPTER_DIRECT_OUT = 0,  ///< the interface through which a packet leaves: "-o "
    FW_ADAPTER_DIRECT_IN = 1    ///< the interface through which it came in: "-i "
};

/// FWRULE::ipType.
enum FW_IP_TYPE : std::int32_t { FW_IP_TYPE_V4 = 0, FW_IP_TYPE_V6 = 1, FW_IP_TYPE_BOTH = 2 };

/// FWRULE::ipDirect.
enum FW_IP_DIRECT : std::int32_t { FW_IP_DIRECT_DESTINATION = 0, FW_IP_DIRECT_SOURCE = 1 };

/// FWRULE::ipGroup: how `ipList` is read.
enum FW_IP_GROUP : std::int32_t {
    FW_IP_GROUP_SINGLE = 0,     ///< one address: "10.0.0.1"
    FW_IP_GROUP_NETWORK = 1,    ///< an address and its mask or prefix length: "10.0.0.0", "8"
    FW_IP_GROUP_NONE = 2,       ///< not read: the rule matches no address and yields no line
    FW_IP_GROUP_COUNTRIES = 3,  ///< country codes: "CN"
    FW_IP_GROUP_RANGE = 4,      ///< the first and the last address: "10.0.0.1", "10.0.0.9"
    FW_IP_GROUP_ANY = 5         ///< not read: the rule matches any address
};

/// FWRULE::portDirect.
enum FW_PORT_DIRECT : std::int32_t { FW_PORT_DIRECT_DESTINATION = 0, FW_PORT_DIRECT_SOURCE = 1 };

/// FWRULE::portGroup: how `portList` is read.
enum FW_PORT_GROUP : std::int32_t {
    FW_PORT_GROUP_SERVICES = 0,  ///< service names: "ssh"
    FW_PORT_GROUP_PORTS = 1,     ///< ports of FWRULE::protocol: "80", "6000-6010"
    FW_PORT_GROUP_RESERVED = 2,  ///< service names too; see fwRuleIsReserved()
    FW_PORT_GROUP_ANY = 3        ///< not read: the rule matches any port
};

// Adapter names with a meaning of their own. Every other adapter is named after its interface.
inline constexpr char FW_ADAPTER_GLOBAL[] = "global";  ///< every interface
inline constexpr char FW_ADAPTER_PPPOE[] = "pppoe";    ///< the interface of the PPPoE connection
inline constexpr char FW_ADAPTER_VPN[] = "vpn";        ///< the interfaces of VPN connections

/// The usual interface of a PPPoE connection, never an adapter: rules for it are skipped. Those of
/// "pppoe" apply to it, or those of "vpn" when PPPoE runs over another interface.
inline constexpr char FW_PPPOE_INTERFACE[] = "ppp0";

/// The adapters that are not named after an interface.
inline const std::vector<std::string> FW_PREDEFINED_ADAPTERS = {FW_ADAPTER_GLOBAL, FW_ADAPTER_PPPOE,
                                                                FW_ADAPTER_VPN};

/// The settings' member for the apply mode, and its values; see TARNFW::fwApplyMode().
inline constexpr char FW_APPLY_KEY[] = "apply";
inline constexpr char FW_APPLY_LINES[] = "lines";
inline constexpr char FW_APPLY_BATCH[] = "batch";

/// The chains of the filter table that the library fills and flushes, in the order of their use.
inline const std::vector<std::string> FW_FIREWALL_CHAINS = {"INPUT_FIREWALL", "FORWARD_FIREWALL"};

/// The kernel modules that the firewall loads besides the core modules, in loading order.
inline const std::vector<std::string> FW_FIREWALL_MODULES = {"compat_xtables.ko", "xt_geoip.ko",
                                                             "xt_mac.ko"};

/// One firewall rule. Every field but `ruleID` is stored under its own name; a fresh rule holds the
/// values below.
struct FWRULE {
    std::int32_t ruleID = 0;                            ///< read from "ruleID", never written back
    bool enable = true;                                 ///< the rule is in use
    std::int32_t adapterDirect = FW_ADAPTER_DIRECT_IN;  ///< FW_ADAPTER_DIRECT code
    FW_POLICY policy = FW_POLICY_ALLOW;                 ///< what happens to a matching packet
    bool blLog = false;                                 ///< log matching packets as well
    std::vector<std::string> labelList;                 ///< free texts of the user
    std::string name;                                   ///< free text of the user
    std::string table = "filter";                       ///< netfilter table
    std::set<std::string> chainList = {                 ///< chains that the rule is appended to
        "FORWARD_FIREWALL", "INPUT_FIREWALL"};
    std::int32_t ipType = FW_IP_TYPE_V4;          ///< address family: FW_IP_TYPE code
    std::int32_t ipDirect = FW_IP_DIRECT_SOURCE;  ///< address side: FW_IP_DIRECT code
    std::int32_t ipGroup = FW_IP_GROUP_SINGLE;    ///< FW_IP_GROUP code
    std::vector<std::string> ipList;              ///< by `ipGroup`: "10.0.0.1", "255.0.0.0", "CN"
    std::int32_t portDirect = FW_PORT_DIRECT_DESTINATION;  ///< port side: FW_PORT_DIRECT code
    std::int32_t portGroup = FW_PORT_GROUP_SERVICES;       ///< FW_PORT_GROUP code
    std::int32_t protocol = FW_PORT_PROTOCOL_TCP;          ///< FW_PORT_PROTOCOL code of the ports
    std::vector<std::string> portList;  ///< by `portGroup`: "ssh", or "80" and "6000-6010"
};

/// Whether the ports of a rule are those of the services in `portList`.
inline bool fwRuleNamesServices(const FWRULE& rule) {
    return rule.portGroup == FW_PORT_GROUP_SERVICES || rule.portGroup == FW_PORT_GROUP_RESERVED;
}

/// Whether the library maintains the rule: one of the rules for any address at the head of an
/// adapter's list that allow or deny the services reserved there.
inline bool fwRuleIsReserved(const FWRULE& rule) {
    return rule.portGroup == FW_PORT_GROUP_RESERVED && rule.ipGroup == FW_IP_GROUP_ANY;
}

/// One profile: the rules and the default policy of every adapter. An adapter is an interface name
/// or one of FW_PREDEFINED_ADAPTERS.
struct FWPROFILE {
    std::string name;                                   ///< the name by which the store finds it
    std::map<std::string, std::vector<FWRULE>> rules;   ///< by adapter, in rule order
    std::map<std::string, FW_POLICY> adapterPolicyMap;  ///< by adapter: the default policies
};

/// What a blocked check asks about.
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
    std::string adapter;                 ///< the adapter whose verdict it is, or "global"
    std::string list;                    ///< of a rule: the adapter whose list it is in
    std::int32_t position = 0;           ///< of a rule: its position in that list, from 1
    FW_POLICY policy = FW_POLICY_NONE;   ///< the rule's, or the default policy
    FW_POLICY before = FW_POLICY_ALLOW;  ///< the verdict so far; without any, allowed
    FW_POLICY after = FW_POLICY_ALLOW;   ///< the verdict from here on
    bool last = false;                   ///< the rules after this one were not evaluated
};

/// The ports of one or more services, from the service catalogue: "80" or "6000-6010" by protocol.
struct ServPort {
    std::map<FW_PORT_PROTOCOL, std::vector<std::string>> srcPorts;  ///< matched as source ports
    std::map<FW_PORT_PROTOCOL, std::vector<std::string>> dstPorts;  ///< as destination ports
};

}  // namespace FW
