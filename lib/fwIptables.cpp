#include "tarnfirewall/fwIptables.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <utility>

#include <boost/algorithm/string/join.hpp>
// Numbers as text, without the thousands separators of a program's locale.
#define BOOST_LEXICAL_CAST_ASSUME_C_LOCALE
#include <boost/lexical_cast.hpp>

#include "tarncore.h"
#include "tarnnetsdk.h"
#include "tarnserviceconf.h"

#include "tarnfirewall/fwGeoip.h"

#include "fwCatalogue.h"
#include "fwCodes.h"
#include "fwInterfaces.h"
#include "fwLog.h"
#include "fwPortMatch.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwIptables";

// Never an adapter of its own: rules for it are those of "pppoe", or of "vpn" where PPPoE runs over
// another interface.
constexpr char kPppoeUsualInterface[] = "ppp0";
constexpr std::size_t kPppoeNameBytes = 256;
// A "tun" interface that belongs to the system, not to a VPN.
constexpr char kSystemTunnel[] = "tun1000";

constexpr char kLoopbackLine[] = " -i lo -j ACCEPT";
constexpr char kEstablishedMatch[] = " -m state --state ESTABLISHED,RELATED -j ACCEPT";
// Without these an IPv6 host loses its neighbours and its router.
constexpr const char* kNeighbourLines[] = {
    " -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
    " -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
    " -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
    " -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
    " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",
};

constexpr char kRouterInterfaceTool[] = "/usr/tarn/sbin/tarnnetdtool";
constexpr char kRouterInterfaceOption[] = "--get-ipv6-router-interface";

/// One address family: its key in both documents, and how its countries are asked for.
struct Family {
    const char* key;
    bool ipv6;
    const char* otherFamilysIcmp;  // a fragment that this family does not take
};

constexpr Family kFamilyV4 = {"v4", false, kIcmpV6};
constexpr Family kFamilyV6 = {"v6", true, kIcmpV4};

/// The families of an `ipType`, IPv4 first; none for a code that is unknown.
std::vector<const Family*> familiesOf(std::int32_t ipType) {
    std::vector<const Family*> families;
    if (ipType == kIpV4Only || ipType == kIpBoth) {
        families.push_back(&kFamilyV4);
    }
    if (ipType == kIpV6Only || ipType == kIpBoth) {
        families.push_back(&kFamilyV6);
    }
    return families;
}

// ---- Addresses ----

/// The text at `index`, or an empty one where the list is too short.
std::string entryAt(const std::vector<std::string>& list, std::size_t index) {
    return index < list.size() ? list[index] : std::string();
}

/// Appends the match of those countries that the family has data for; no entry without any.
void appendCountries(const FWRULE& rule, const char* prefix, const Family& family,
                     Json::Value& fragments) {
    std::vector<std::string> usable;
    if (FW_GEOIP().geoipSanctify(rule.ipList, family.ipv6, usable)) {
        fragments.append(prefix + boost::join(usable, ","));
    }
}

/// The words that open an address match on the source and on the destination side.
struct AddressMatch {
    const char* source;
    const char* destination;

    const char* of(const FWRULE& rule) const { return rule.ipDirect != 0 ? source : destination; }
};

constexpr AddressMatch kAddressMatch = {"-s ", "-d "};
constexpr AddressMatch kRangeMatch = {"-m iprange --src-range ", "-m iprange --dst-range "};
constexpr AddressMatch kCountryMatch = {"-m geoip --source-country ",
                                        "-m geoip --destination-country "};

// ---- Services ----

constexpr std::size_t kMaxRawProtocols = 4;

/// A service that needs IP protocols besides its ports.
struct RawProtocols {
    const char* service;
    std::int32_t numbers[kMaxRawProtocols];  // 0 ends the list early
};

constexpr RawProtocols kRawProtocols[] = {
    {"vpn_server_pptp", {47}},       // GRE
    {"vpn_server_ipsec", {50, 51}},  // ESP and AH
};

using PortsByProtocol = std::map<FW_PORT_PROTOCOL, std::vector<std::string>>;

/// Adds the entries of a platform list, if there are any, to the ports of a protocol.
void addPorts(int protocol, const TLIBCSZLIST* list, PortsByProtocol& out) {
    if (list == nullptr || list->nItem <= 0) {
        return;
    }
    std::vector<std::string>& ports = out[static_cast<FW_PORT_PROTOCOL>(protocol)];
    for (int i = 0; i < list->nItem; ++i) {
        if (const char* const port = TLIBCSzListGet(list, i)) {
            ports.emplace_back(port);
        }
    }
}

void appendServicePorts(const PortsByProtocol& portsByProtocol, bool sourceSide,
                        Json::Value& fragments) {
    for (const auto& [protocol, ports] : portsByProtocol) {
        if (!ports.empty()) {
            appendPorts(protocol, sourceSide, ports, fragments);
        }
    }
}

// ---- Lines ----

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

/// Appends a fragment behind one blank, unless it is empty.
void appendFragment(std::string& line, const Json::Value& fragment) {
    const std::string text = fragment.asString();
    if (!text.empty()) {
        line += ' ';
        line += text;
    }
}

// The loopback address by name as well: a platform may not count it among a host's addresses.
bool isIpv4(const std::string& text) {
    return BlTLIBIsIpAddr(text.c_str()) != 0 || text == "127.0.0.1";
}
bool isIpv6(const std::string& text) {
    return BlTLIBIsv6IpAddrValid(text.c_str()) != 0;
}

bool isUsableLocalIp(const std::string& localIp) {
    return localIp.empty() || isIpv4(localIp) || isIpv6(localIp);
}

/// Whether a rule matches an address, a network or a range of IPv4, whatever its family says.
bool hasIpv4Address(const FWRULE& rule) {
    const bool hasAddress =
        rule.ipGroup == kIpSingle || rule.ipGroup == kIpNetwork || rule.ipGroup == kIpRange;
    return hasAddress && isIpv4(entryAt(rule.ipList, 0));
}

/// The line that lets established connections pass, except from `exceptedIp` unless it is empty.
std::string establishedLine(const std::string& chainStart, const std::string& exceptedIp) {
    return chainStart + (exceptedIp.empty() ? "" : " ! -s " + exceptedIp) + kEstablishedMatch;
}

/// Appends the lines that every ruleset begins with.
void appendFixedLines(bool acceptEstablished, const std::string& localIp, Json::Value& out) {
    const std::string exceptedV4 = !localIp.empty() && isIpv4(localIp) ? localIp : "";
    const std::string exceptedV6 = !localIp.empty() && isIpv6(localIp) ? localIp : "";
    Json::Value& v4 = out[kFamilyV4.key][kGlobalAdapter];
    Json::Value& v6 = out[kFamilyV6.key][kGlobalAdapter];
    for (const std::string& chain : FW_FIREWALL_CHAINS) {
        const std::string start = "-A " + chain;
        v4.append(start + kLoopbackLine);
        if (acceptEstablished) {
            v4.append(establishedLine(start, exceptedV4));
        }
        v6.append(start + kLoopbackLine);
        for (const char* const neighbourLine : kNeighbourLines) {
            v6.append(start + neighbourLine);
        }
        if (acceptEstablished) {
            v6.append(establishedLine(start, exceptedV6));
        }
    }
}

/// The rule that closes an adapter's list: everything that the user's rules let through.
FWRULE defaultRule(FW_POLICY policy) {
    FWRULE rule;
    rule.policy = policy;
    rule.ipType = kIpBoth;
    rule.ipGroup = kIpAny;
    rule.portGroup = kPortAny;
    return rule;
}

struct StreamClose {
    void operator()(FILE* stream) const { (void)TLIBCPclose(stream); }
};

struct MemoryFree {
    void operator()(char* memory) const { std::free(memory); }
};

/// Reads one line, its line feed included. Returns false when nothing can be read.
bool readLine(FILE* stream, std::string& line) {
    char* buffer = nullptr;
    std::size_t capacity = 0;
    const ssize_t length = getline(&buffer, &capacity, stream);
    const std::unique_ptr<char, MemoryFree> owned(buffer);
    if (length < 0) {
        return false;
    }
    line.assign(buffer, static_cast<std::size_t>(length));
    return true;
}

/// The interface that routes IPv6 for `interface`, as the platform's tool tells; `interface` itself
/// when the tool does not tell.
std::string routerInterface(const std::string& interface) {
    const std::unique_ptr<FILE, StreamClose> stream(
        TLIBCPopen(kRouterInterfaceTool, "r", kRouterInterfaceOption, interface.c_str(),
                   static_cast<const char*>(nullptr)));
    if (!stream) {
        FW_LOG_ERR("Failed to exec tarnnetdtool with TLIBCPopen().");
        return interface;
    }
    std::string line;
    if (!readLine(stream.get(), line)) {
        FW_LOG_ERR("Failed to getline after TLIBCPopen().");
        return interface;
    }
    return line;  // as read: the tool prints the bare name
}

}  // namespace

void CatalogueRelease::operator()(TARNFW_SERVICE_LIST* list) const {
    TARNFwServiceFree(list);
}

TARNFW_IPTABLES_RULES::TARNFW_IPTABLES_RULES() = default;
TARNFW_IPTABLES_RULES::~TARNFW_IPTABLES_RULES() = default;

// ---- Rule to argument document, argument document to lines ----

bool TARNFW_IPTABLES_RULES::FwRuleToIptablesArg(const std::string& adapter, const FWRULE& rule,
                                                Json::Value& arg) {
    if (!adapterToIptablesArg(adapter, rule, arg)) {
        FW_LOG_ERR("Failed to adapterToIptablesArg()");
        return false;
    }
    if (!ipToIptablesArg(rule, arg)) {
        FW_LOG_ERR("Failed to ipToIptablesArg()");
        return false;
    }
    if (!portToIptablesArg(rule, arg)) {
        FW_LOG_ERR("Failed to portToIptablesArg()");
        return false;
    }
    if (!chainToIptablesArg(rule, arg)) {
        FW_LOG_ERR("Failed to chainToIptablesArg()");
        return false;
    }
    if (!tableToIptablesArg(rule, arg)) {
        FW_LOG_ERR("Failed to tableToIptablesArg()");
        return false;
    }
    if (!policyToIptablesArg(rule, arg)) {
        FW_LOG_ERR("Failed to policyToIptablesArg()");
        return false;
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::adapterToIptablesArg(const std::string& adapter, const FWRULE& rule,
                                                 Json::Value& arg) {
    const std::string prefix = rule.adapterDirect != 0 ? "-i " : "-o ";
    Json::Value& fragments = arg["adapter"];
    for (const std::string& predefined : FW_PREDEFINED_ADAPTERS) {
        if (adapter != predefined) {
            continue;
        }
        if (predefined == kPppoeAdapter) {
            pppoeAdaterGet();
            if (pppoeInterface_.empty()) {
                FW_LOG_ERR("pppoe interface is empty");
                return false;
            }
            fragments.append(prefix + pppoeInterface_);
        } else if (predefined == kVpnAdapter) {
            if (!vpnAdatperEnum()) {
                FW_LOG_ERR("Failed to vpnAdatperEnum()");
                return false;
            }
            for (const std::string& vpn : vpnAdapters_) {
                fragments.append(prefix + vpn);
            }
        } else if (predefined == kGlobalAdapter) {
            fragments.append("");
        } else {
            // A name added to the list without a meaning here must not pass for an interface.
            FW_LOG_ERR("Failed to convert pre-defined adapter %s", adapter.c_str());
            return false;
        }
    }
    if (fragments.empty()) {
        fragments.append(prefix + adapter);
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::ipToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    Json::Value& ip = arg["ip"];
    const auto appendToEachFamily = [&](const std::string& fragment) {
        for (const Family* const family : familiesOf(rule.ipType)) {
            ip[family->key].append(fragment);
        }
    };
    switch (rule.ipGroup) {
        case kIpSingle:
            appendToEachFamily(kAddressMatch.of(rule) + entryAt(rule.ipList, 0));
            break;
        case kIpNetwork:
            appendToEachFamily(kAddressMatch.of(rule) + entryAt(rule.ipList, 0) + "/" +
                               entryAt(rule.ipList, 1));
            break;
        case kIpNone:
            break;  // no address, so no line: not the same as any address
        case kIpCountries:
            for (const Family* const family : familiesOf(rule.ipType)) {
                appendCountries(rule, kCountryMatch.of(rule), *family, ip[family->key]);
            }
            break;
        case kIpRange:
            appendToEachFamily(kRangeMatch.of(rule) + entryAt(rule.ipList, 0) + "-" +
                               entryAt(rule.ipList, 1));
            break;
        case kIpAny:
            // Whatever the rule's families are; the assembly of the lines keeps to them.
            ip[kFamilyV4.key].append("");
            ip[kFamilyV6.key].append("");
            break;
        default:
            // Logged, yet no failure: the rule yields no line. False would end the translation and
            // leave the machine with no rules at all.
            FW_LOG_ERR("Unknown ip group %d", rule.ipGroup);
            break;
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::portToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    switch (rule.portGroup) {
        case kPortServices:
        case kPortServicesReserved:
            if (!servPortToCmd(rule.portList, arg)) {
                FW_LOG_ERR("Failed to servPortToCmd()");
                return false;
            }
            return true;
        case kPortCustom:
            appendPorts(rule.protocol, rule.portDirect != 0, rule.portList, arg["port"]);
            return true;
        case kPortAny:
            arg["port"].append("");
            return true;
        default:
            // No failure, for the reason given in ipToIptablesArg().
            FW_LOG_ERR("Unknown port group %d", rule.portGroup);
            return true;
    }
}

bool TARNFW_IPTABLES_RULES::chainToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    for (const std::string& chain : rule.chainList) {
        arg["chain"].append("-A " + chain);
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::tableToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    arg["table"].append("-t " + rule.table);
    return true;
}

bool TARNFW_IPTABLES_RULES::policyToIptablesArg(const FWRULE& rule, Json::Value& arg) {
    switch (rule.policy) {
        case FW_POLICY_ALLOW:
            // Back to the calling chain: what other components filter there still applies.
            arg["policy"].append("-j RETURN");
            return true;
        case FW_POLICY_DENY:
            arg["policy"].append("-j DROP");
            return true;
        case FW_POLICY_NONE:
            return true;
        default:
            FW_LOG_ERR("Unknown policy %d", rule.policy);
            return false;
    }
}

void TARNFW_IPTABLES_RULES::iptablesArgToCmd(const std::string& adapter, const FWRULE& rule,
                                             const Json::Value& arg, Json::Value& out) {
    const std::string target = arg["policy"][0U].asString();
    const auto appendLine = [&](const std::string& line, const Family& family) {
        Json::Value& lines = out[family.key][adapter];
        if (rule.blLog) {
            lines.append(line + " -j LOG");
        }
        lines.append(line + " " + target);
    };
    for (const Json::Value& table : arg["table"]) {
        for (const Json::Value& chain : arg["chain"]) {
            const std::string start = table.asString() + " " + chain.asString();
            for (const Family* const family : familiesOf(rule.ipType)) {
                for (const Json::Value& interface : arg["adapter"]) {
                    for (const Json::Value& ip : arg["ip"][family->key]) {
                        std::string match = start;
                        appendFragment(match, interface);
                        appendFragment(match, ip);
                        for (const Json::Value& port : arg["port"]) {
                            if (port == family->otherFamilysIcmp) {
                                continue;
                            }
                            std::string line = match;
                            appendFragment(line, port);
                            appendLine(line, *family);
                        }
                    }
                }
            }
        }
    }
}

// ---- Adapters ----

bool TARNFW_IPTABLES_RULES::enabledAdapterEnum() {
    if (!enabledAdapters_.empty()) {
        return true;
    }
    const int result = interfacesEnum(enabledAdapters_);
    if (result < 0) {
        FW_LOG_INTERFACES_FAILURE(result);
        return false;
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::vpnAdatperEnum() {
    if (!vpnAdapters_.empty()) {
        return true;
    }
    if (!enabledAdapterEnum()) {
        FW_LOG_ERR("Failed to enabledAdapterEnum()");
        return false;
    }
    pppoeAdaterGet();
    for (const std::string& adapter : enabledAdapters_) {
        const bool dialIn = startsWith(adapter, "ppp") && adapter != pppoeInterface_;
        const bool tunnel = startsWith(adapter, "tun") && adapter != kSystemTunnel;
        if (dialIn || tunnel) {
            vpnAdapters_.push_back(adapter);
        }
    }
    return true;
}

void TARNFW_IPTABLES_RULES::pppoeAdaterGet() {
    if (!pppoeInterface_.empty()) {
        return;
    }
    char name[kPppoeNameBytes] = {};
    if (TARNPPPoeIntfGet(name, sizeof(name)) < 0) {
        FW_LOG_DEBUG("Failed to TARNPPPoeIntfGet()");
        return;
    }
    pppoeInterface_.assign(name, strnlen(name, sizeof(name)));
}

bool TARNFW_IPTABLES_RULES::adapterIsEnabled(const std::string& adapter) {
    if (adapter == kGlobalAdapter) {
        return true;
    }
    if (adapter == kVpnAdapter) {
        (void)vpnAdatperEnum();  // logs for itself; a failure leaves the list empty
        return !vpnAdapters_.empty();
    }
    if (adapter == kPppoeAdapter) {
        pppoeAdaterGet();
        return !pppoeInterface_.empty();
    }
    if (!enabledAdapterEnum()) {
        FW_LOG_ERR("Failed to enabledAdapterEnum()");
        return false;
    }
    return std::find(enabledAdapters_.begin(), enabledAdapters_.end(), adapter) !=
           enabledAdapters_.end();
}

// ---- Services ----

bool TARNFW_IPTABLES_RULES::servToPorts(const std::vector<std::string>& services, ServPort& out) {
    if (!services_) {
        services_ = catalogueLoad();
        if (!services_) {
            FW_LOG_ERR("Failed to enum services");
            return false;
        }
    }
    for (const std::string& name : services) {
        const TARNFW_SERVICE* const service = TARNFWServiceFind(services_.get(), name.c_str());
        if (!isUsable(service)) {
            continue;
        }
        addPorts(service->srcProtocol, service->srcPorts, out.srcPorts);
        addPorts(service->dstProtocol, service->dstPorts, out.dstPorts);
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::servPortToCmd(const std::vector<std::string>& services,
                                          Json::Value& arg) {
    ServPort ports;
    if (!servToPorts(services, ports)) {
        FW_LOG_ERR("Failed to servToPorts()");
        return false;
    }
    Json::Value& fragments = arg["port"];
    appendServicePorts(ports.srcPorts, /*sourceSide=*/true, fragments);
    appendServicePorts(ports.dstPorts, /*sourceSide=*/false, fragments);
    for (const std::string& name : services) {
        for (const RawProtocols& entry : kRawProtocols) {
            if (name != entry.service) {
                continue;
            }
            for (const std::int32_t number : entry.numbers) {
                if (number == 0) {
                    break;
                }
                fragments.append("-p " + boost::lexical_cast<std::string>(number) + " ");
            }
        }
    }
    return true;
}

// ---- Whole profiles ----

bool TARNFW_IPTABLES_RULES::fwRulesToIptablesRules(
    const bool& acceptEstablished, const std::map<std::string, std::vector<FWRULE>>& rules,
    const std::map<std::string, FW_POLICY>& adapterPolicy, Json::Value& out,
    const std::string& localIp) {
    if (!isUsableLocalIp(localIp)) {
        FW_LOG_ERR("Invalid input argument '%s' which is not an IP address.", localIp.c_str());
        return false;
    }
    appendFixedLines(acceptEstablished, localIp, out);

    std::map<std::string, std::vector<FWRULE>> completed = rules;
    for (const auto& [adapter, policy] : adapterPolicy) {
        if (adapter != kPppoeUsualInterface && adapterIsEnabled(adapter)) {
            completed[adapter].push_back(defaultRule(policy));
        }
    }

    for (const auto& [adapter, list] : completed) {
        for (const FWRULE& rule : list) {
            if (!rule.enable || adapter == kPppoeUsualInterface || !adapterIsEnabled(adapter) ||
                rule.policy == FW_POLICY_NONE) {
                continue;
            }
            Json::Value arg;
            (void)iptablesRulesInit(arg);
            if (!FwRuleToIptablesArg(adapter, rule, arg)) {
                return false;
            }
            iptablesArgToCmd(adapter, rule, arg, out);
            FWRULE ipv6Rule = rule;
            ipv6Rule.ipType = kIpV6Only;
            iptables6in4ToCmd(adapter, ipv6Rule, out);
        }
    }
    return true;
}

bool TARNFW_IPTABLES_RULES::fwRulesToIptablesRules(
    const bool& acceptEstablished, const std::map<std::string, std::vector<FWRULE>>& rules,
    const std::map<std::string, FW_POLICY>& adapterPolicy, Json::Value& out) {
    return fwRulesToIptablesRules(acceptEstablished, rules, adapterPolicy, out, "");
}

bool TARNFW_IPTABLES_RULES::iptablesRulesInit(Json::Value& arg) {
    for (const char* const kind : {"adapter", "port", "chain", "table", "policy"}) {
        arg[kind] = Json::Value(Json::arrayValue);
    }
    Json::Value& ip = arg["ip"];
    ip = Json::Value(Json::objectValue);
    ip[kFamilyV4.key] = Json::Value(Json::arrayValue);
    ip[kFamilyV6.key] = Json::Value(Json::arrayValue);
    return true;
}

bool TARNFW_IPTABLES_RULES::jIptablesCmdInit(Json::Value& out) {
    out[kFamilyV4.key] = Json::Value();
    out[kFamilyV6.key] = Json::Value();
    return true;
}

void TARNFW_IPTABLES_RULES::iptables6in4ToCmd(const std::string& adapter, const FWRULE& rule,
                                              Json::Value& out) {
    std::string interface = adapter;
    if (adapter == kPppoeAdapter) {
        pppoeAdaterGet();
        interface = pppoeInterface_;
    }
    const std::string router = routerInterfaceOf(interface);
    if (router == interface) {
        return;  // no separate interface for IPv6
    }
    if (routerInterfaces_ && hasIpv4Address(rule)) {
        return;
    }
    Json::Value arg;
    (void)iptablesRulesInit(arg);
    if (!FwRuleToIptablesArg(router, rule, arg)) {
        FW_LOG_ERR("Failed to convert rule to iptables arg in 6in4 over PPPoE.");
        return;
    }
    iptablesArgToCmd(router, rule, arg, out);
}

void TARNFW_IPTABLES_RULES::translateForBatch() {
    routerInterfaces_.emplace();
}

std::string TARNFW_IPTABLES_RULES::routerInterfaceOf(const std::string& interface) {
    if (!routerInterfaces_) {
        return routerInterface(interface);
    }
    const auto known = routerInterfaces_->find(interface);
    if (known != routerInterfaces_->end()) {
        return known->second;
    }
    return routerInterfaces_->emplace(interface, routerInterface(interface)).first->second;
}

}  // namespace FW
