/// The translation of rules and profiles into iptables argument lines.
#pragma once

#include <json/json.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

struct TARNFW_SERVICE_LIST;

namespace FW {

class RuleTranslation;

/// Releases the platform's service catalogue.
struct CatalogueRelease {
    void operator()(TARNFW_SERVICE_LIST* list) const;
};

/// Translates profiles. Nothing here touches the packet filter.
///
/// Two documents pass through these operations:
/// - the argument document of one rule: "adapter", "port", "chain", "table" and "policy" are arrays
///   of alternative fragments such as "-i eth0" or "-p tcp --dport 22"; "ip" holds one such array
///   for each of "v4" and "v6";
/// - the command document of a profile: "v4" and "v6" map an adapter to an array of argument lines
///   such as "-t filter -A INPUT_FIREWALL -i eth0 -j DROP", in the order in which they must be run.
///   "global" holds the fixed lines, which run first, and those of the adapter of that name.
///
/// A rule yields no line, which is logged, when there is a NUL character in its adapter, table,
/// chains, addresses or ports: a program would see the text only up to it.
///
/// Use one object for one translation: it keeps the interface lists, the name of the PPPoE
/// interface and the service catalogue that it has got from the platform. After an empty answer it
/// asks again.
class TARNFW_EXPORT TARNFW_IPTABLES_RULES {
public:
    TARNFW_IPTABLES_RULES();
    ~TARNFW_IPTABLES_RULES();
    TARNFW_IPTABLES_RULES(const TARNFW_IPTABLES_RULES&) = delete;
    TARNFW_IPTABLES_RULES& operator=(const TARNFW_IPTABLES_RULES&) = delete;

    // ---- Rule to argument document, argument document to lines ----

    /// Fills the argument document of one rule from the operations below, in their order. Adds
    /// nothing, which is logged, for a rule with a NUL character; the operations below do not look
    /// for one.
    /// Returns false, logged, when one fails; what was appended before stays in `arg`.
    bool FwRuleToIptablesArg(const std::string& adapter, const FWRULE& rule, Json::Value& arg);

    /// Appends the interface matches of `adapter` to "adapter": "-i eth0", or "-o eth0" by
    /// `adapterDirect`; for "vpn" one for each of its interfaces ("-i vpn" without any); an empty
    /// text for "global".
    /// Returns false, logged, when "pppoe" has no interface or those of "vpn" cannot be listed.
    bool adapterToIptablesArg(const std::string& adapter, const FWRULE& rule, Json::Value& arg);

    /// Appends the address match to "ip", for each family of `ipType`; any address for both. The
    /// addresses are used as stored; a missing one reads as empty. Countries without a database
    /// file for the family are left out; if none remains, the family gets no match and so no line.
    /// Always true; an unknown `ipGroup` is logged and appends nothing.
    bool ipToIptablesArg(const FWRULE& rule, Json::Value& arg);

    /// Appends the protocol and port matches to "port", by `portGroup`.
    /// Returns false, logged, when the service catalogue cannot be read. An unknown `portGroup` is
    /// logged and appends nothing, but is not a failure.
    bool portToIptablesArg(const FWRULE& rule, Json::Value& arg);

    /// Appends "-A " + name to "chain" for each chain of the rule. Always true.
    bool chainToIptablesArg(const FWRULE& rule, Json::Value& arg);

    /// Appends "-t " + table to "table". Always true.
    bool tableToIptablesArg(const FWRULE& rule, Json::Value& arg);

    /// Appends "-j RETURN" (allow) or "-j DROP" (deny) to "policy"; nothing for none.
    /// Returns false, logged, for any other policy.
    bool policyToIptablesArg(const FWRULE& rule, Json::Value& arg);

    /// Appends one line for each combination of the fragments to out[family][adapter], preceded
    /// by its " -j LOG" copy when the rule logs. Without a combination it adds nothing.
    void iptablesArgToCmd(const std::string& adapter, const FWRULE& rule, const Json::Value& arg,
                          Json::Value& out);

    // ---- Adapters ----

    /// Fetches the machine's interfaces, once. Returns false, logged, when they cannot be listed.
    bool enabledAdapterEnum();

    /// Finds the VPN interfaces, once: "ppp..." other than the PPPoE interface, and "tun..." other
    /// than "tun1000". Returns false, logged, when the interfaces cannot be listed.
    bool vpnAdatperEnum();

    /// Fetches the name of the PPPoE interface, once; without one it stays empty, which is logged
    /// at LOG_DEBUG.
    void pppoeAdaterGet();

    /// Whether an adapter has an interface now: "global" always, "vpn" and "pppoe" when there is
    /// one, any other name when the machine has that interface ("wlan0" on every model with
    /// wireless). Interfaces that cannot be listed are logged and read as false.
    bool adapterIsEnabled(const std::string& adapter);

    // ---- Services ----

    /// The platform's service catalogue, loaded once; it belongs to this object. Null when it is
    /// empty or cannot be read.
    const TARNFW_SERVICE_LIST* serviceCatalogue();

    /// Collects the ports of the services from the service catalogue, in service order. Names that
    /// are unknown or not usable for the firewall are skipped.
    /// Returns false, logged, when the catalogue is empty or cannot be read.
    bool servToPorts(const std::vector<std::string>& services, ServPort& out);

    /// Appends the port matches of the services to "port", and after them "-p 47 " for
    /// "vpn_server_pptp" and "-p 50 ", "-p 51 " for "vpn_server_ipsec".
    /// Returns false, logged, when the catalogue is empty or cannot be read.
    bool servPortToCmd(const std::vector<std::string>& services, Json::Value& arg);

    // ---- Whole profiles ----

    /// Translates a profile into its command document: the fixed lines, then each adapter's rules
    /// followed by its default policy. Rules and policies of adapters that the machine does not
    /// have now, of "ppp0", disabled ones and those with policy "none" are skipped.
    /// `acceptEstablished` asks for the line that lets packets of established connections pass;
    /// `localIp`, an IPv4 or IPv6 address or empty, excepts packets from that address from it.
    /// Returns false, logged, when `localIp` is not an address (`out` is untouched) or a rule
    /// cannot be converted (the lines before it stay in `out`).
    bool fwRulesToIptablesRules(const bool& acceptEstablished,
                                const std::map<std::string, std::vector<FWRULE>>& rules,
                                const std::map<std::string, FW_POLICY>& adapterPolicy,
                                Json::Value& out, const std::string& localIp);

    /// The same with an empty `localIp`.
    bool fwRulesToIptablesRules(const bool& acceptEstablished,
                                const std::map<std::string, std::vector<FWRULE>>& rules,
                                const std::map<std::string, FW_POLICY>& adapterPolicy,
                                Json::Value& out);

    /// The same for FW_BATCH, which takes all lines or none: asks for the router interface of an
    /// adapter once, not for every rule, and repeats no rule with an IPv4 address for it. ip6tables
    /// refuses such a line; in apply mode "lines" it is left out.
    bool fwRulesToBatchRules(bool acceptEstablished,
                             const std::map<std::string, std::vector<FWRULE>>& rules,
                             const std::map<std::string, FW_POLICY>& adapterPolicy,
                             Json::Value& out, const std::string& localIp);

    /// Turns `arg` into an argument document without fragments. Always true.
    bool iptablesRulesInit(Json::Value& arg);

    /// Sets the two families of a command document to null. Always true.
    bool jIptablesCmdInit(Json::Value& out);

    /// Repeats the IPv6 lines of a rule for the interface that routes IPv6 for `adapter`, when that
    /// is a different one: a 6in4 tunnel, as "/usr/tarn/sbin/tarnnetdtool" names it. `rule` is IPv6
    /// only. Failures are logged and add nothing.
    void iptables6in4ToCmd(const std::string& adapter, const FWRULE& rule, Json::Value& out);

private:
    friend class RuleTranslation;  // the mappings themselves, for use without documents

    std::vector<std::string> enabledAdapters_;
    std::vector<std::string> vpnAdapters_;
    std::string pppoeInterface_;
    std::unique_ptr<TARNFW_SERVICE_LIST, CatalogueRelease> services_;
};

}  // namespace FW
