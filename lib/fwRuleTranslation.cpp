#include "fwRuleTranslation.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>

#include <boost/algorithm/string/join.hpp>
// Writes numbers without the thousands separators of a program's locale.
#define BOOST_LEXICAL_CAST_ASSUME_C_LOCALE
#include <boost/lexical_cast.hpp>

#include "tarncore.h"

#include "tarnfirewall/fwGeoip.h"

#include "fwLog.h"
#include "fwPortTexts.h"
#include "fwRawProtocols.h"
#include "fwText.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwIptables";

// ---- Addresses ----

/// The words that start an address match on the source and on the destination side.
struct AddressMatch {
    const char* source;
    const char* destination;

    const char* of(const FWRULE& rule) const {
        return rule.ipDirect != FW_IP_DIRECT_DESTINATION ? source : destination;
    }
};

constexpr AddressMatch kAddressMatch = {"-s ", "-d "};
constexpr AddressMatch kRangeMatch = {"-m iprange --src-range ", "-m iprange --dst-range "};
constexpr AddressMatch kCountryMatch = {"-m geoip --source-country ",
                                        "-m geoip --destination-country "};

/// Appends the text at `index`, or nothing if the list is too short.
void appendEntry(std::string& text, const Texts& list, std::size_t index) {
    if (index < list.size()) {
        text += list[index];
    }
}

/// The match of the first address of a list, or of the first two with `separator` in between.
std::string addressMatch(const char* words, const FWRULE& rule, char separator = '\0') {
    std::string match = words;
    appendEntry(match, rule.ipList, 0);
    if (separator != '\0') {
        match += separator;
        appendEntry(match, rule.ipList, 1);
    }
    return match;
}

// ---- Tunnels ----

constexpr char kRouterInterfaceTool[] = "/usr/tarn/sbin/tarnnetdtool";
constexpr char kRouterInterfaceOption[] = "--get-ipv6-router-interface";

struct StreamClose {
    void operator()(FILE* stream) const { (void)TLIBCPclose(stream); }
};

struct MemoryFree {
    void operator()(char* memory) const { std::free(memory); }
};

/// Reads one line. Returns false when it is empty.
bool readLine(FILE* stream, std::string& line) {
    char* buffer = nullptr;
    std::size_t capacity = 0;
    const ssize_t length = getline(&buffer, &capacity, stream);
    const std::unique_ptr<char, MemoryFree> owned(buffer);
    if (length < 0) {
        return false;
    }
    line.assign(buffer, static_cast<std::size_t>(length));
    // The platform's tool prints the bare name. A name with a line feed means no other interface,
    // and would end the rule's line early.
    if (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    return !line.empty();
}

/// The interface that routes IPv6 for `interface`, as the platform's tool names it; `interface`
/// itself when the tool names none, which is logged.
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
    return line;
}

// ---- Ports ----

constexpr char kIgmp[] = "-p igmp ";

/// Appends the matches of one protocol name ("tcp", "udp").
void appendPortMatches(const char* protocolName, bool sourceSide,
                       const std::vector<std::string>& ports, std::vector<std::string>& fragments) {
    std::string start = "-p ";
    start += protocolName;
    if (isSinglePort(ports)) {
        start += sourceSide ? " --sport " : " --dport ";
        start += ports[0];
        fragments.push_back(std::move(start));
        return;
    }
    start += sourceSide ? " -m multiport --sports " : " -m multiport --dports ";
    for (std::size_t first = 0; first < ports.size(); first += kPortsPerLine) {
        const std::size_t end = std::min(first + kPortsPerLine, ports.size());
        std::string& match = fragments.emplace_back(start);
        for (std::size_t i = first; i < end; ++i) {
            if (i > first) {
                match += ',';
            }
            appendPort(match, ports[i]);
        }
    }
}

// ---- Services ----

using PortsByProtocol = std::map<FW_PORT_PROTOCOL, Texts>;

void appendServicePorts(const PortsByProtocol& portsByProtocol, bool sourceSide, Texts& fragments) {
    for (const auto& [protocol, ports] : portsByProtocol) {
        if (!ports.empty()) {
            appendPortFragments(protocol, sourceSide, ports, fragments);
        }
    }
}

void appendRawProtocols(const std::string& service, Texts& fragments) {
    forEachRawProtocol(service, [&](std::int32_t number) {
        fragments.push_back("-p " + boost::lexical_cast<std::string>(number) + " ");
    });
}

}  // namespace

FWRULE defaultRule(FW_POLICY policy) {
    FWRULE rule;
    rule.policy = policy;
    rule.ipType = FW_IP_TYPE_BOTH;
    rule.ipGroup = FW_IP_GROUP_ANY;
    rule.portGroup = FW_PORT_GROUP_ANY;
    return rule;
}

bool hasAddressText(const FWRULE& rule) {
    return rule.ipGroup == FW_IP_GROUP_SINGLE || rule.ipGroup == FW_IP_GROUP_NETWORK ||
           rule.ipGroup == FW_IP_GROUP_RANGE;
}

bool hasIpv4Address(const FWRULE& rule) {
    return hasAddressText(rule) && !rule.ipList.empty() && beginsWithIpv4(rule.ipList[0]);
}

bool holdsNul(const FWRULE& rule) {
    const auto anyHolds = [](const auto& texts) {
        return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
            return text.find('\0') != std::string::npos;
        });
    };
    return anyHolds(Texts{rule.table}) || anyHolds(rule.chainList) || anyHolds(rule.ipList) ||
           anyHolds(rule.portList);
}

std::string addressFragment(const FWRULE& rule) {
    switch (rule.ipGroup) {
        case FW_IP_GROUP_NETWORK:
            return addressMatch(kAddressMatch.of(rule), rule, '/');
        case FW_IP_GROUP_RANGE:
            return addressMatch(kRangeMatch.of(rule), rule, '-');
        default:
            return addressMatch(kAddressMatch.of(rule), rule);
    }
}

std::string countryFragment(const FWRULE& rule, const Texts& countries) {
    return kCountryMatch.of(rule) + boost::join(countries, ",");
}

void appendPortFragments(std::int32_t protocol, bool sourceSide, const Texts& ports,
                         Texts& fragments) {
    switch (protocol) {
        case FW_PORT_PROTOCOL_TCP:
            appendPortMatches("tcp", sourceSide, ports, fragments);
            break;
        case FW_PORT_PROTOCOL_UDP:
            appendPortMatches("udp", sourceSide, ports, fragments);
            break;
        case FW_PORT_PROTOCOL_TCP_UDP:
            appendPortMatches("tcp", sourceSide, ports, fragments);
            appendPortMatches("udp", sourceSide, ports, fragments);
            break;
        case FW_PORT_PROTOCOL_ICMP:
            // Both spellings: when the lines are made, the other family's is left out.
            fragments.emplace_back(kIcmpV4);
            fragments.emplace_back(kIcmpV6);
            break;
        case FW_PORT_PROTOCOL_IGMP:
            fragments.emplace_back(kIgmp);
            break;
        default:
            break;  // an unknown protocol: no fragment and so no line
    }
}

bool RuleTranslation::interfaces(std::vector<std::string>& names) {
    if (!translator_.enabledAdapterEnum()) {
        return false;
    }
    names = translator_.enabledAdapters_;
    return true;
}

const std::string& RuleTranslation::interfaceOf(const std::string& adapter) {
    if (adapter != FW_ADAPTER_PPPOE) {
        return adapter;
    }
    translator_.pppoeAdaterGet();
    return translator_.pppoeInterface_;
}

std::string RuleTranslation::routerInterfaceOf(const std::string& interface) {
    if (!isForBatch()) {
        return routerInterface(interface);
    }
    const auto known = routerInterfaces_.find(interface);
    if (known != routerInterfaces_.end()) {
        return known->second;
    }
    return routerInterfaces_.emplace(interface, routerInterface(interface)).first->second;
}

bool RuleTranslation::convert(const std::string& adapter, const FWRULE& rule,
                              Fragments& fragments) {
    // Addresses, chains and tables cannot fail now. Their messages stay, because each step promises
    // one, for a mapping that can fail.
    if (!adapterFragments(adapter, rule, fragments.adapter)) {
        FW_LOG_ERR("Failed to adapterToIptablesArg()");
        return false;
    }
    if (!ipFragments(rule, fragments.ip)) {
        FW_LOG_ERR("Failed to ipToIptablesArg()");
        return false;
    }
    if (!portFragments(rule, fragments.port)) {
        FW_LOG_ERR("Failed to portToIptablesArg()");
        return false;
    }
    if (!chainFragments(rule, fragments.chain)) {
        FW_LOG_ERR("Failed to chainToIptablesArg()");
        return false;
    }
    if (!tableFragments(rule, fragments.table)) {
        FW_LOG_ERR("Failed to tableToIptablesArg()");
        return false;
    }
    if (!policyFragments(rule, fragments.policy)) {
        FW_LOG_ERR("Failed to policyToIptablesArg()");
        return false;
    }
    return true;
}

bool RuleTranslation::adapterFragments(const std::string& adapter, const FWRULE& rule,
                                       Texts& fragments) {
    const char* const prefix = rule.adapterDirect != FW_ADAPTER_DIRECT_OUT ? "-i " : "-o ";
    for (const std::string& predefined : FW_PREDEFINED_ADAPTERS) {
        if (adapter != predefined) {
            continue;
        }
        if (predefined == FW_ADAPTER_PPPOE) {
            translator_.pppoeAdaterGet();
            if (translator_.pppoeInterface_.empty()) {
                FW_LOG_ERR("pppoe interface is empty");
                return false;
            }
            fragments.push_back(prefix + translator_.pppoeInterface_);
        } else if (predefined == FW_ADAPTER_VPN) {
            if (!translator_.vpnAdatperEnum()) {
                FW_LOG_ERR("Failed to vpnAdatperEnum()");
                return false;
            }
            for (const std::string& vpn : translator_.vpnAdapters_) {
                fragments.push_back(prefix + vpn);
            }
        } else if (predefined == FW_ADAPTER_GLOBAL) {
            fragments.emplace_back();
        } else {
            // A name added to the list but not handled here must not be taken for an interface.
            FW_LOG_ERR("Failed to convert pre-defined adapter %s", adapter.c_str());
            return false;
        }
    }
    if (fragments.empty()) {
        fragments.push_back(prefix + adapter);
    }
    return true;
}

bool RuleTranslation::ipFragments(const FWRULE& rule, std::array<Texts, 2>& fragments) {
    const auto appendToEachFamily = [&](const std::string& match) {
        for (const Family& family : kFamilies) {
            if (family.isOf(rule.ipType)) {
                fragments[family.index].push_back(match);
            }
        }
    };
    switch (rule.ipGroup) {
        case FW_IP_GROUP_SINGLE:
        case FW_IP_GROUP_NETWORK:
        case FW_IP_GROUP_RANGE:
            appendToEachFamily(addressFragment(rule));
            break;
        case FW_IP_GROUP_NONE:
            break;  // no address, so no line; unlike any address
        case FW_IP_GROUP_COUNTRIES:
            for (const Family& family : kFamilies) {
                if (family.isOf(rule.ipType)) {
                    appendCountries(rule, family, fragments[family.index]);
                }
            }
            break;
        case FW_IP_GROUP_ANY:
            // For both families; when the lines are made, only the rule's families are used.
            fragments[0].emplace_back();
            fragments[1].emplace_back();
            break;
        default:
            // Logged, but not a failure: the rule yields no line. False would end the translation
            // and leave the machine with no rules at all.
            FW_LOG_ERR("Unknown ip group %d", rule.ipGroup);
            break;
    }
    return true;
}

/// Appends a match for the countries with data for the family; nothing without any.
void RuleTranslation::appendCountries(const FWRULE& rule, const Family& family, Texts& fragments) {
    std::map<Texts, std::string>& known = countries_[family.index];
    auto usable = known.find(rule.ipList);
    if (usable == known.end()) {
        Texts found;
        if (!FW_GEOIP().geoipSanctify(rule.ipList, family.ipv6(), found)) {
            return;  // not kept, so that the next rule logs it again
        }
        usable = known.emplace(rule.ipList, boost::join(found, ",")).first;
    }
    fragments.push_back(kCountryMatch.of(rule) + usable->second);
}

bool RuleTranslation::portFragments(const FWRULE& rule, Texts& fragments) {
    switch (rule.portGroup) {
        case FW_PORT_GROUP_SERVICES:
        case FW_PORT_GROUP_RESERVED:
            if (!serviceFragments(rule.portList, fragments)) {
                FW_LOG_ERR("Failed to servPortToCmd()");
                return false;
            }
            return true;
        case FW_PORT_GROUP_PORTS:
            appendPortFragments(rule.protocol, rule.portDirect != FW_PORT_DIRECT_DESTINATION,
                                rule.portList, fragments);
            return true;
        case FW_PORT_GROUP_ANY:
            fragments.emplace_back();
            return true;
        default:
            // Not a failure, for the reason given in ipFragments().
            FW_LOG_ERR("Unknown port group %d", rule.portGroup);
            return true;
    }
}

bool RuleTranslation::serviceFragments(const Texts& services, Texts& fragments) {
    auto known = services_.find(services);
    if (known == services_.end()) {
        ServPort ports;
        if (!translator_.servToPorts(services, ports)) {
            FW_LOG_ERR("Failed to servToPorts()");
            return false;
        }
        Texts found;
        appendServicePorts(ports.srcPorts, /*sourceSide=*/true, found);
        appendServicePorts(ports.dstPorts, /*sourceSide=*/false, found);
        for (const std::string& name : services) {
            appendRawProtocols(name, found);
        }
        known = services_.emplace(services, std::move(found)).first;
    }
    fragments.insert(fragments.end(), known->second.begin(), known->second.end());
    return true;
}

bool RuleTranslation::chainFragments(const FWRULE& rule, Texts& fragments) {
    for (const std::string& chain : rule.chainList) {
        fragments.push_back("-A " + chain);
    }
    return true;
}

bool RuleTranslation::tableFragments(const FWRULE& rule, Texts& fragments) {
    fragments.push_back("-t " + rule.table);
    return true;
}

bool RuleTranslation::policyFragments(const FWRULE& rule, Texts& fragments) {
    switch (rule.policy) {
        case FW_POLICY_ALLOW:
            // Back to the calling chain: what other components filter there still applies.
            fragments.emplace_back("-j RETURN");
            return true;
        case FW_POLICY_DENY:
            fragments.emplace_back("-j DROP");
            return true;
        case FW_POLICY_NONE:
            return true;
        default:
            FW_LOG_ERR("Unknown policy %d", rule.policy);
            return false;
    }
}

}  // namespace FW
