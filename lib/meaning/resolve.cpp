// A profile as sets of packets. This follows the translation into iptables lines step by step;
// where the translation makes several lines of a rule that differ only in what one field matches,
// it is one set here.

#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "../fwAdapters.h"
#include "../fwInterfaces.h"
#include "../fwLineLimits.h"
#include "../fwRestoreText.h"
#include "../fwRuleTranslation.h"
#include "addressText.h"
#include "ruleMatches.h"

namespace FW {
namespace {

constexpr std::size_t kMaxNameLength = 15;  // of an interface

// At most what a command has besides its table and chains, the address and the ports.
constexpr std::size_t kOtherBytes = 64;

constexpr char kAbsentPppoe[] = "/pppoe";  // no interface of the kernel has a '/' in its name

constexpr std::uint16_t kIcmpv6 = IPPROTO_ICMPV6;

// ---- Interfaces ----

/// Whether a set has every name.
bool hasEveryName(const FWINTERFACES& interfaces) {
    return interfaces.except.empty() && std::find(interfaces.names.begin(), interfaces.names.end(),
                                                  "+") != interfaces.names.end();
}

/// Null for every interface.
std::shared_ptr<const FWINTERFACES> interfacesOf(const FWINTERFACES& interfaces) {
    for (const Texts* const names : {&interfaces.names, &interfaces.except}) {
        for (const std::string& name : *names) {
            if (name.empty() || name.size() > kMaxNameLength ||
                name.find_first_of(std::string(" \0", 2)) != std::string::npos) {
                throw LeftOut{inQuotes(name) + " is not the name of an interface"};
            }
        }
    }
    return hasEveryName(interfaces) ? nullptr : std::make_shared<FWINTERFACES>(interfaces);
}

// ---- Rules ----

/// The name of a table or chain as it is in a line, which is cut into words at blanks.
std::string wordOf(const std::string& name) {
    const std::size_t first = name.find_first_not_of(' ');
    return first == std::string::npos ? std::string()
                                      : name.substr(first, name.find_last_not_of(' ') + 1 - first);
}

/// The mask of those of the firewall's chains that a rule is for. Other chains are left out.
std::uint8_t chainsOf(const FWRULE& rule, std::vector<LeftOut>& leftOut) {
    std::uint8_t chains = 0;
    for (const std::string& name : rule.chainList) {
        const auto chain =
            std::find(FW_FIREWALL_CHAINS.begin(), FW_FIREWALL_CHAINS.end(), wordOf(name));
        if (chain != FW_FIREWALL_CHAINS.end()) {
            chains |= maskOf(static_cast<std::uint8_t>(chain - FW_FIREWALL_CHAINS.begin()));
        } else {
            leftOut.push_back(
                {"the chain " + inQuotes(name) + " is not the firewall's", FW_FINDING_OF_OTHERS});
        }
    }
    return chains;
}

/// The longest of some texts; empty without any.
template <typename Texts>
std::string longestOf(const Texts& texts) {
    std::string longest;
    for (const std::string& text : texts) {
        if (text.size() > longest.size()) {
            longest = text;
        }
    }
    return longest;
}

/// Resolves one profile.
class Resolver {
public:
    Resolver(const FWPROFILE& profile, const FWENVIRONMENT& environment)
        : profile_(profile), environment_(environment), matches_(environment) {}

    FWRESOLVED run();

private:
    void addFixedLines();
    void addFixed(FW_ORIGIN origin, const FWPACKETSET& packets);
    void addAdapter(const std::string& adapter, const FWINTERFACES& interfaces);
    void add(const FWRULE& rule, const FWPLACE& place, const FWINTERFACES& interfaces);
    void addForTunnel(const FWRULE& rule, const FWPLACE& place);
    template <typename InterfacesOf>
    std::vector<LeftOut> addTo(const std::string& list, const FWRULE& rule, const FWPLACE& place,
                               InterfacesOf interfacesOfList);
    std::optional<LeftOut> tooLongFor(const FWRULE& rule, const AddressMatches& addresses,
                                      const ProtocolMatches& protocols,
                                      const FWINTERFACES* interfaces) const;
    void report(const FWPLACE& place, const LeftOut& left);

    const FWPROFILE& profile_;
    const FWENVIRONMENT& environment_;
    std::vector<FWFINDING> findings_;

    // The packet filter's order: the fixed lines and "global", then the other lists by name. A
    // tunnel's rules are in the list of its interface.
    std::vector<FWRESOLVEDRULE> global_;
    std::map<std::string, std::vector<FWRESOLVEDRULE>> lists_;

    RuleMatches matches_;
    std::map<std::string, std::shared_ptr<const FWINTERFACES>> interfaces_;  // by adapter
};

FWRESOLVED Resolver::run() {
    const std::string& excepted = environment_.exceptedIp;
    if (!excepted.empty() && !fwAddressFrom(excepted, FW_FAMILY_V4) &&
        !fwAddressFrom(excepted, FW_FAMILY_V6)) {
        return {{},
                {{{FW_ORIGIN_ESTABLISHED, "", 0},
                  inQuotes(excepted) + " is not an address",
                  FW_FINDING_REFUSED}}};
    }
    addFixedLines();

    for (const std::string& adapter : adaptersOf(profile_)) {
        const auto found = environment_.adapters.find(adapter);
        if (adapter != FW_PPPOE_INTERFACE && found != environment_.adapters.end()) {
            addAdapter(adapter, found->second);
        }
    }

    FWRESOLVED resolved;
    resolved.findings = std::move(findings_);
    std::size_t count = global_.size();
    for (const auto& [adapter, list] : lists_) {
        count += list.size();
    }
    resolved.rules.reserve(count);
    std::move(global_.begin(), global_.end(), std::back_inserter(resolved.rules));
    for (auto& [adapter, list] : lists_) {
        std::move(list.begin(), list.end(), std::back_inserter(resolved.rules));
    }
    return resolved;
}

// ---- Fixed lines

void Resolver::addFixed(FW_ORIGIN origin, const FWPACKETSET& packets) {
    FWRESOLVEDRULE& rule = global_.emplace_back();
    rule.packets = packets;
    rule.verdict = FW_PACKET_ACCEPT;
    rule.place.origin = origin;
}

void Resolver::addFixedLines() {
    FWPACKETSET loopback;
    loopback.in = std::make_shared<FWINTERFACES>(FWINTERFACES{{"lo"}, {}});
    addFixed(FW_ORIGIN_LOOPBACK, loopback);

    // Router solicitations and advertisements and redirects from link-local addresses only,
    // neighbour solicitations and advertisements from any.
    FWPACKETSET neighbours;
    neighbours.families = maskOf(FW_FAMILY_V6);
    neighbours.protocols = {{kIcmpv6, kIcmpv6}};
    neighbours.icmpTypes = {{135, 136}};
    addFixed(FW_ORIGIN_NEIGHBOURS, neighbours);
    Intervals linkLocal;
    (void)readAddresses("fe80::/10", FW_FAMILY_V6, linkLocal);
    neighbours.icmpTypes = {{133, 134}, {137, 137}};
    neighbours.sources = listOf(linkLocal);
    addFixed(FW_ORIGIN_NEIGHBOURS, neighbours);

    if (!environment_.acceptEstablished) {
        return;
    }
    FWPACKETSET established;
    established.states = maskOf(FW_STATE_ESTABLISHED) | maskOf(FW_STATE_RELATED);
    for (const FW_FAMILY family : kBothFamilies) {
        established.families = maskOf(family);
        established.sources = nullptr;
        if (const auto excepted = fwAddressFrom(environment_.exceptedIp, family)) {
            established.sources = listOf(without(
                {{0, kMaxNumber}}, {{numberOf(excepted->first), numberOf(excepted->last)}}));
        }
        addFixed(FW_ORIGIN_ESTABLISHED, established);
    }
}

// ---- The rules of an adapter

void Resolver::addAdapter(const std::string& adapter, const FWINTERFACES& interfaces) {
    const auto rules = profile_.rules.find(adapter);
    if (rules != profile_.rules.end()) {
        for (std::size_t i = 0; i < rules->second.size(); ++i) {
            add(rules->second[i], {FW_ORIGIN_RULE, adapter, static_cast<std::int32_t>(i + 1)},
                interfaces);
        }
    }
    const auto policy = profile_.adapterPolicyMap.find(adapter);
    if (policy != profile_.adapterPolicyMap.end()) {
        add(defaultRule(policy->second), {FW_ORIGIN_DEFAULT, adapter, 0}, interfaces);
    }
}

void Resolver::add(const FWRULE& rule, const FWPLACE& place, const FWINTERFACES& interfaces) {
    if (!rule.enable || rule.policy == FW_POLICY_NONE) {
        return;
    }
    try {
        if (rule.policy != FW_POLICY_ALLOW && rule.policy != FW_POLICY_DENY) {
            throw LeftOut{"there is no policy " + std::to_string(rule.policy)};
        }
        const auto interfacesOfAdapter = [&] {
            auto known = interfaces_.find(place.adapter);
            if (known == interfaces_.end()) {
                known = interfaces_.emplace(place.adapter, interfacesOf(interfaces)).first;
            }
            return known->second;
        };
        for (const LeftOut& left : addTo(place.adapter, rule, place, interfacesOfAdapter)) {
            report(place, left);
        }
    } catch (const LeftOut& left) {
        report(place, left);
        return;
    }
    addForTunnel(rule, place);
}

/// Repeats a rule for IPv6 where a tunnel routes it. ip6tables refuses lines with an IPv4 address,
/// which is no finding: the profile is as it should be. What is too complex is one.
void Resolver::addForTunnel(const FWRULE& rule, const FWPLACE& place) {
    const auto tunnel = environment_.tunnels.find(place.adapter);
    if (tunnel == environment_.tunnels.end() || (environment_.batch && hasIpv4Address(rule))) {
        return;
    }
    const std::string& router = tunnel->second;
    FWRULE ipv6Rule = rule;
    ipv6Rule.ipType = FW_IP_TYPE_V6;
    const auto predefined = environment_.adapters.find(router);
    const bool isPredefined = router == FW_ADAPTER_VPN || router == FW_ADAPTER_PPPOE;
    std::vector<LeftOut> leftOut;
    try {
        const auto addToRouter = [&](const FWINTERFACES& interfaces) {
            leftOut = addTo(router, ipv6Rule, place, [&] { return interfacesOf(interfaces); });
        };
        if (router == FW_ADAPTER_GLOBAL) {
            addToRouter({{"+"}, {}});
        } else if (isPredefined && predefined != environment_.adapters.end()) {
            addToRouter(predefined->second);
        } else if (router != FW_ADAPTER_PPPOE) {
            addToRouter({{router}, {}});
        }
    } catch (const LeftOut&) {
    }
    for (const LeftOut& left : leftOut) {
        if (left.kind != FW_FINDING_REFUSED) {
            report(place, left);
        }
    }
}

/// Adds a finding about a rule, each once: lines for a tunnel have those of the rule's own.
void Resolver::report(const FWPLACE& place, const LeftOut& left) {
    for (auto finding = findings_.rbegin();
         finding != findings_.rend() && finding->place.adapter == place.adapter &&
         finding->place.position == place.position;
         ++finding) {
        if (finding->text == left.why) {
            return;
        }
    }
    findings_.push_back({place, left.why, left.kind});
}

/// Why the apply mode cannot run the longest line of a rule, if it cannot.
std::optional<LeftOut> Resolver::tooLongFor(const FWRULE& rule, const AddressMatches& addresses,
                                            const ProtocolMatches& protocols,
                                            const FWINTERFACES* interfaces) const {
    std::size_t others = kOtherBytes + rule.table.size();
    for (const std::string& chain : rule.chainList) {
        others += chain.size();
    }
    for (const FW_FAMILY family : kBothFamilies) {
        const auto& address = addresses.longest[family];
        const auto& protocol = protocols.longest[family];
        if (!address || !protocol || address->size() + protocol->size() + others <= kCommandBytes) {
            continue;  // as nearly all: short enough for both modes
        }
        std::string line = "-t " + rule.table + " -A " + longestOf(rule.chainList);
        if (interfaces != nullptr) {
            line += rule.adapterDirect != FW_ADAPTER_DIRECT_OUT ? " -i " : " -o ";
            line += longestOf(interfaces->names);
        }
        line += ' ' + *address + ' ' + *protocol;
        line += rule.policy == FW_POLICY_ALLOW ? " -j RETURN" : " -j DROP";
        if (environment_.batch) {
            if (!isRestoreLine(line)) {
                return LeftOut{"a line is longer than the " + std::to_string(kRestoreLineBytes) +
                                   " bytes that apply mode \"batch\" takes",
                               FW_FINDING_NOT_RUN};
            }
        } else if (commandBytes((family == FW_FAMILY_V4 ? "/sbin/iptables " : "/sbin/ip6tables ") +
                                line) > kCommandBytes) {
            return LeftOut{"a line is longer than the " + std::to_string(kCommandBytes) +
                               " bytes that apply mode \"lines\" runs",
                           FW_FINDING_NOT_RUN};
        }
    }
    return std::nullopt;
}

/// Appends the sets of a rule to a list. Returns why lines of it are left out.
template <typename InterfacesOf>
std::vector<LeftOut> Resolver::addTo(const std::string& list, const FWRULE& rule,
                                     const FWPLACE& place, InterfacesOf interfacesOfList) {
    // A rule without lines is no finding, whatever its texts are.
    AddressMatches addresses = matches_.addresses(rule);
    const ProtocolMatches& protocols = matches_.protocols(rule);
    const bool hasAddresses = !addresses.of.empty() || !addresses.leftOut.empty();
    const bool hasProtocols = !protocols.of.empty() || !protocols.leftOut.empty();
    if (!hasAddresses || !hasProtocols || rule.chainList.empty()) {
        return {};
    }
    if (holdsNul(rule)) {
        return {{"a text holds a NUL character"}};
    }
    if (wordOf(rule.table) != "filter") {
        return {
            {"the table " + inQuotes(rule.table) + " is not the firewall's", FW_FINDING_OF_OTHERS}};
    }
    const std::shared_ptr<const FWINTERFACES> interfaces = interfacesOfList();
    std::vector<LeftOut> leftOut = std::move(addresses.leftOut);
    leftOut.insert(leftOut.end(), protocols.leftOut.begin(), protocols.leftOut.end());

    if (const auto tooLong = tooLongFor(rule, addresses, protocols, interfaces.get())) {
        return {*tooLong};
    }

    FWPACKETSET packets;
    packets.chains = chainsOf(rule, leftOut);
    if (rule.adapterDirect != FW_ADAPTER_DIRECT_OUT) {
        packets.in = interfaces;
    } else if (interfaces != nullptr) {
        // A packet for the machine itself leaves through no interface.
        packets.out = interfaces;
        packets.chains &= maskOf(FW_CHAIN_FORWARD);
    }
    if (packets.chains == 0) {
        return leftOut;
    }

    std::vector<FWRESOLVEDRULE>& rules = list == FW_ADAPTER_GLOBAL ? global_ : lists_[list];
    for (const AddressMatch& address : addresses.of) {
        for (const ProtocolMatch& protocol : protocols.of) {
            packets.families = address.families & protocol.families;
            if (packets.families == 0) {
                continue;
            }
            FWRESOLVEDRULE& resolved = rules.emplace_back();
            resolved.packets = packets;
            FWPACKETSET& set = resolved.packets;
            (rule.ipDirect != FW_IP_DIRECT_DESTINATION ? set.sources : set.destinations) =
                address.addresses;
            set.protocols = protocol.protocols;
            (protocol.sourceSide ? set.sourcePorts : set.destinationPorts) = protocol.ports;
            resolved.verdict = rule.policy == FW_POLICY_ALLOW ? FW_PACKET_NEXT : FW_PACKET_DROP;
            resolved.log = rule.blLog;
            resolved.place = place;
        }
    }
    return leftOut;
}

}  // namespace

std::map<std::string, FWINTERFACES> fwAdaptersNow(const std::vector<std::string>& interfaces,
                                                  const std::string& pppoe) {
    std::map<std::string, FWINTERFACES> adapters;
    FWINTERFACES vpn;
    for (const std::string& name : interfaces) {
        adapters[name] = {{name}, {}};
        if (isVpnInterface(name, pppoe)) {
            vpn.names.push_back(name);
        }
    }
    // An interface of one of these names is not reached by it.
    adapters.erase(FW_ADAPTER_VPN);
    adapters.erase(FW_ADAPTER_PPPOE);
    if (!vpn.names.empty()) {
        adapters[FW_ADAPTER_VPN] = vpn;
    }
    if (!pppoe.empty()) {
        adapters[FW_ADAPTER_PPPOE] = {{pppoe}, {}};
    }
    adapters[FW_ADAPTER_GLOBAL] = {{"+"}, {}};
    return adapters;
}

std::map<std::string, FWINTERFACES> fwAdaptersByName(const FWPROFILE& profile,
                                                     const std::string& pppoe) {
    const std::set<std::string> names = adaptersOf(profile);
    std::map<std::string, FWINTERFACES> adapters =
        fwAdaptersNow({names.begin(), names.end()}, pppoe);
    adapters[FW_ADAPTER_VPN] = {{"ppp+", "tun+"}, {kSystemTunnel}};
    if (pppoe.empty()) {
        adapters[FW_ADAPTER_PPPOE] = {{kAbsentPppoe}, {}};
    } else {
        adapters[FW_ADAPTER_VPN].except.push_back(pppoe);
    }
    return adapters;
}

FWRESOLVED fwResolve(const FWPROFILE& profile, const FWENVIRONMENT& environment) {
    return Resolver(profile, environment).run();
}

}  // namespace FW
