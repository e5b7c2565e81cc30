// A profile as sets of packets. This follows the translation into iptables lines step by step;
// where the translation makes several lines of a rule that differ only in what one field matches,
// it is one set here.

#include <algorithm>
#include <array>
#include <utility>

#include "tarnfirewall/fwMeaning.h"

#include "../fwRawProtocols.h"
#include "addressText.h"

namespace FW {
namespace {

using Texts = std::vector<std::string>;

constexpr FW_FAMILY kFamilies[] = {FW_FAMILY_V4, FW_FAMILY_V6};
constexpr std::size_t kMaxNameLength = 15;  // of an interface

// A line has at most this many ports after "--dports", where a range counts twice. The translation
// cuts lists after seven entries, but an entry may have commas in it.
constexpr std::size_t kPortsPerMatch = 15;
constexpr std::size_t kEntriesPerMatch = 7;

constexpr std::size_t kCountriesPerMatch = 15;  // what the kernel's match takes

constexpr std::uint16_t kIcmp = 1;
constexpr std::uint16_t kIgmp = 2;
constexpr std::uint16_t kTcp = 6;
constexpr std::uint16_t kUdp = 17;
constexpr std::uint16_t kIcmpv6 = 58;
// In IPv6 an extension header, which ip6tables skips: its "-p 51" never matches.
constexpr std::uint16_t kAuthentication = 51;

constexpr char kSystemTunnel[] = "tun1000";

constexpr std::uint8_t maskOf(std::uint8_t code) {
    return static_cast<std::uint8_t>(1U << code);
}

std::string inQuotes(const std::string& text) {
    return '"' + text + '"';
}

std::string entryAt(const Texts& list, std::size_t index) {
    return index < list.size() ? list[index] : std::string();
}

/// Thrown for a rule that is left out, or a line of one.
struct LeftOut {
    std::string why;
};

/// The addresses of a rule in the families of `families`; null for any.
struct AddressMatch {
    std::uint8_t families;
    std::shared_ptr<const FWADDRESSES> addresses;
};

/// What one "-p ..." of a rule matches.
struct ProtocolMatch {
    std::uint8_t families = FW_BOTH_FAMILIES;
    FWINTERVALS protocols;
    FWINTERVALS ports;
    bool sourceSide = false;
};

/// What the lines of a rule match, and why some of them are left out.
template <typename Match>
struct Matches {
    std::vector<Match> of;
    Texts leftOut;
};

using AddressMatches = Matches<AddressMatch>;
using ProtocolMatches = Matches<ProtocolMatch>;

// ---- Addresses ----

std::shared_ptr<const FWADDRESSES> listOf(const Intervals& intervals) {
    auto list = std::make_shared<FWADDRESSES>();
    list->reserve(intervals.size());
    for (const Interval& one : intervals) {
        list->push_back({addressOf(one.first), addressOf(one.last)});
    }
    return list;
}

bool isAny(const Intervals& addresses) {
    return addresses.size() == 1 && addresses[0].first == 0 && addresses[0].last == kMaxNumber;
}

/// The addresses that `text` was read as.
AddressMatch addressMatch(TextResult result, const std::string& text, const Intervals& addresses,
                          FW_FAMILY family) {
    switch (result) {
        case TextResult::kInvalid:
            throw LeftOut{inQuotes(text) + (family == FW_FAMILY_V4 ? " is not an IPv4 address"
                                                                   : " is not an IPv6 address")};
        case TextResult::kTooComplex:
            throw LeftOut{inQuotes(text) + " is too complex: its mask makes more than " +
                          std::to_string(FW_MASK_INTERVALS) + " intervals"};
        default:
            return {maskOf(family), isAny(addresses) ? nullptr : listOf(addresses)};
    }
}

// ---- Ports ----

std::uint16_t portFrom(const std::string& text, const std::string& entry, int base = 0) {
    const auto port = numberFrom(text, 65535, base);
    if (!port || text.find(' ') != std::string::npos) {
        throw LeftOut{inQuotes(entry) + " is not a port or a range of ports"};
    }
    return static_cast<std::uint16_t>(*port);
}

void requireOrder(bool ordered, const std::string& entry) {
    if (!ordered) {
        throw LeftOut{"the range " + inQuotes(entry) + " runs backwards"};
    }
}

/// "--dport TEXT": "80", "80:90", ":90" and "80:". The match for UDP reads decimal numbers only.
FWINTERVAL singleMatch(const std::string& text, std::uint16_t protocol) {
    const int base = protocol == kUdp ? 10 : 0;
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        const std::uint16_t port = portFrom(text, text, base);
        return {port, port};
    }
    const std::string last = text.substr(colon + 1);
    FWINTERVAL ports;
    ports.first = colon == 0 ? 0 : portFrom(text.substr(0, colon), text, base);
    ports.last = last.empty() ? 65535 : portFrom(last, text, base);
    requireOrder(ports.first <= ports.last, text);
    return ports;
}

/// Appends one of the texts between the commas of "--dports ...". Returns the ports that it counts.
std::size_t appendMultiport(const std::string& text, FWINTERVALS& ports) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) {
        const std::uint16_t port = portFrom(text, text);
        ports.push_back({port, port});
        return 1;
    }
    const std::uint16_t first = portFrom(text.substr(0, colon), text);
    const std::uint16_t last = portFrom(text.substr(colon + 1), text);
    requireOrder(first < last, text);
    ports.push_back({first, last});
    return 2;
}

/// An entry as it is in a line: "6000-6010" as "6000:6010", and "80-80" as "80".
std::string lineEntry(std::string entry) {
    const std::size_t dash = entry.find('-');
    if (dash == std::string::npos) {
        return entry;
    }
    if (entry.compare(0, dash, entry, dash + 1, std::string::npos) == 0) {
        return entry.substr(0, dash);
    }
    std::replace(entry.begin(), entry.end(), '-', ':');
    return entry;
}

void sortPorts(FWINTERVALS& ports) {
    std::sort(ports.begin(), ports.end(),
              [](const FWINTERVAL& a, const FWINTERVAL& b) { return a.first < b.first; });
    FWINTERVALS joined;
    for (const FWINTERVAL& one : ports) {
        if (!joined.empty() && one.first <= joined.back().last + 1) {
            joined.back().last = std::max(joined.back().last, one.last);
        } else {
            joined.push_back(one);
        }
    }
    ports = std::move(joined);
}

/// The ports of the entries of one line after "--dports".
FWINTERVALS multiportMatch(const std::string* begin, const std::string* end) {
    FWINTERVALS ports;
    std::size_t counted = 0;
    for (; begin != end; ++begin) {
        const std::string entry = lineEntry(*begin);
        std::size_t start = 0;
        for (std::size_t comma = 0; comma != std::string::npos; start = comma + 1) {
            comma = entry.find(',', start);
            counted += appendMultiport(
                entry.substr(start, comma == std::string::npos ? comma : comma - start), ports);
        }
        if (counted > kPortsPerMatch) {
            throw LeftOut{inQuotes(*begin) + " makes too many ports for one line"};
        }
    }
    return ports;
}

/// The ports of a list that is not empty: those of the lines that iptables takes.
FWINTERVALS portsFrom(const Texts& entries, std::uint16_t protocol, Texts& leftOut) {
    const bool isSingle = entries.size() == 1 && entries[0].find('-') == std::string::npos;
    FWINTERVALS ports;
    for (std::size_t first = 0; first < entries.size(); first += kEntriesPerMatch) {
        const std::size_t end = std::min(first + kEntriesPerMatch, entries.size());
        try {
            const FWINTERVALS line = isSingle ? FWINTERVALS{singleMatch(entries[0], protocol)}
                                              : multiportMatch(&entries[first], &entries[0] + end);
            ports.insert(ports.end(), line.begin(), line.end());
        } catch (const LeftOut& left) {
            if (std::find(leftOut.begin(), leftOut.end(), left.why) == leftOut.end()) {
                leftOut.push_back(left.why);
            }
        }
    }
    sortPorts(ports);
    return ports;
}

ProtocolMatch protocolMatch(std::uint16_t number, std::uint8_t families = FW_BOTH_FAMILIES) {
    ProtocolMatch match;
    match.families = families;
    match.protocols = {{number, number}};
    return match;
}

/// Appends what a protocol (an FW_PORT_PROTOCOL code; others match nothing) and its ports match.
void appendPorts(std::int32_t protocol, bool sourceSide, const Texts& entries,
                 ProtocolMatches& matches) {
    switch (protocol) {
        case FW_PORT_PROTOCOL_ICMP:
            matches.of.push_back(protocolMatch(kIcmp, maskOf(FW_FAMILY_V4)));
            matches.of.push_back(protocolMatch(kIcmpv6, maskOf(FW_FAMILY_V6)));
            return;
        case FW_PORT_PROTOCOL_IGMP:
            matches.of.push_back(protocolMatch(kIgmp));
            return;
        case FW_PORT_PROTOCOL_TCP:
        case FW_PORT_PROTOCOL_UDP:
        case FW_PORT_PROTOCOL_TCP_UDP:
            break;
        default:
            return;
    }
    if (entries.empty()) {
        return;
    }
    ProtocolMatch match;
    match.sourceSide = sourceSide;
    for (const auto& [code, number] :
         {std::pair(FW_PORT_PROTOCOL_TCP, kTcp), std::pair(FW_PORT_PROTOCOL_UDP, kUdp)}) {
        if (protocol == code || protocol == FW_PORT_PROTOCOL_TCP_UDP) {
            match.protocols = {{number, number}};
            match.ports = portsFrom(entries, number, matches.leftOut);
            if (!match.ports.empty()) {
                matches.of.push_back(match);
            }
        }
    }
}

void appendPorts(const std::map<FW_PORT_PROTOCOL, Texts>& ports, bool sourceSide,
                 ProtocolMatches& matches) {
    for (const auto& [protocol, entries] : ports) {
        if (!entries.empty()) {
            appendPorts(protocol, sourceSide, entries, matches);
        }
    }
}

void addPorts(const std::map<FW_PORT_PROTOCOL, Texts>& from,
              std::map<FW_PORT_PROTOCOL, Texts>& to) {
    for (const auto& [protocol, entries] : from) {
        Texts& list = to[protocol];
        list.insert(list.end(), entries.begin(), entries.end());
    }
}

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

bool startsWith(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

// ---- Rules ----

bool holdsNul(const Texts& texts) {
    return std::any_of(texts.begin(), texts.end(), [](const std::string& text) {
        return text.find('\0') != std::string::npos;
    });
}

/// Whether the translation leaves a rule out because of a NUL character in one of its texts.
bool holdsNul(const FWRULE& rule) {
    return holdsNul(rule.ipList) || holdsNul(rule.portList) || holdsNul({rule.table}) ||
           holdsNul(Texts(rule.chainList.begin(), rule.chainList.end()));
}

/// Whether a rule matches an address, network or range.
bool hasAddressText(const FWRULE& rule) {
    return rule.ipGroup == FW_IP_GROUP_SINGLE || rule.ipGroup == FW_IP_GROUP_NETWORK ||
           rule.ipGroup == FW_IP_GROUP_RANGE;
}

/// Whether it is one of IPv4, whatever the rule's family.
bool hasIpv4Address(const FWRULE& rule) {
    const std::string text = entryAt(rule.ipList, 0);
    const std::string address = text.substr(0, text.find_first_of("/,"));
    return hasAddressText(rule) && !address.empty() &&
           address.find_first_not_of("0123456789.") == std::string::npos;
}

/// Whether a name is that of one of the firewall's chains.
bool isFirewallChain(const std::string& chain) {
    return std::find(FW_FIREWALL_CHAINS.begin(), FW_FIREWALL_CHAINS.end(), chain) !=
           FW_FIREWALL_CHAINS.end();
}

/// The mask of those of the firewall's chains that a rule is for.
std::uint8_t chainsOf(const FWRULE& rule) {
    std::uint8_t chains = 0;
    for (const FW_CHAIN chain : {FW_CHAIN_INPUT, FW_CHAIN_FORWARD}) {
        if (rule.chainList.count(FW_FIREWALL_CHAINS[chain]) != 0) {
            chains |= maskOf(chain);
        }
    }
    return chains;
}

/// The rule that stands for a default policy.
FWRULE defaultRule(FW_POLICY policy) {
    FWRULE rule;
    rule.policy = policy;
    rule.ipType = FW_IP_TYPE_BOTH;
    rule.ipGroup = FW_IP_GROUP_ANY;
    rule.portGroup = FW_PORT_GROUP_ANY;
    return rule;
}

/// Resolves one profile.
class Resolver {
public:
    Resolver(const FWPROFILE& profile, const FWENVIRONMENT& environment)
        : profile_(profile), environment_(environment) {}

    FWRESOLVED run();

private:
    void addFixedLines();
    void addFixed(FW_ORIGIN origin, const FWPACKETSET& packets);
    void addAdapter(const std::string& adapter, const FWINTERFACES& interfaces);
    void add(const FWRULE& rule, const FWPLACE& place, const FWINTERFACES& interfaces);
    void addForTunnel(const FWRULE& rule, const FWPLACE& place);
    Texts addTo(const std::string& list, const FWRULE& rule, const FWPLACE& place,
                const std::shared_ptr<const FWINTERFACES>& interfaces);

    AddressMatches addressMatches(const FWRULE& rule);
    AddressMatch textMatch(const FWRULE& rule, FW_FAMILY family) const;
    std::shared_ptr<const FWADDRESSES> countries(const Texts& codes, FW_FAMILY family);
    const ProtocolMatches& protocolMatches(const FWRULE& rule);
    const ProtocolMatches& serviceMatches(const Texts& names);

    const FWPROFILE& profile_;
    const FWENVIRONMENT& environment_;
    std::vector<FWFINDING> findings_;

    // The packet filter's order: the fixed lines and "global", then the other lists by name. A
    // tunnel's rules are in the list of its interface.
    std::vector<FWRESOLVEDRULE> global_;
    std::map<std::string, std::vector<FWRESOLVEDRULE>> lists_;

    ProtocolMatches protocols_;  // of the rule at hand
    std::map<Texts, ProtocolMatches> services_;
    std::map<std::pair<Texts, FW_FAMILY>, std::shared_ptr<const FWADDRESSES>> countries_;
    std::map<std::string, std::shared_ptr<const FWINTERFACES>> interfaces_;  // by adapter
};

FWRESOLVED Resolver::run() {
    const std::string& excepted = environment_.exceptedIp;
    if (!excepted.empty() && !fwAddressFrom(excepted, FW_FAMILY_V4) &&
        !fwAddressFrom(excepted, FW_FAMILY_V6)) {
        return {{}, {{{FW_ORIGIN_ESTABLISHED, "", 0}, inQuotes(excepted) + " is not an address"}}};
    }
    addFixedLines();

    std::map<std::string, const FWINTERFACES*> present;
    const auto find = [&](const std::string& adapter) {
        const auto found = environment_.adapters.find(adapter);
        if (adapter != FW_PPPOE_INTERFACE && found != environment_.adapters.end()) {
            present[adapter] = &found->second;
        }
    };
    for (const auto& [adapter, list] : profile_.rules) {
        find(adapter);
    }
    for (const auto& [adapter, policy] : profile_.adapterPolicyMap) {
        find(adapter);
    }
    for (const auto& [adapter, interfaces] : present) {
        addAdapter(adapter, *interfaces);
    }

    FWRESOLVED resolved;
    resolved.findings = std::move(findings_);
    resolved.rules = std::move(global_);
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
    for (const FW_FAMILY family : kFamilies) {
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
        if (holdsNul(rule)) {
            throw LeftOut{"a text holds a NUL character"};
        }
        if (rule.policy != FW_POLICY_ALLOW && rule.policy != FW_POLICY_DENY) {
            throw LeftOut{"there is no policy " + std::to_string(rule.policy)};
        }
        auto known = interfaces_.find(place.adapter);
        if (known == interfaces_.end()) {
            known = interfaces_.emplace(place.adapter, interfacesOf(interfaces)).first;
        }
        if (rule.table != "filter") {
            throw LeftOut{"the table " + inQuotes(rule.table) + " is not the firewall's"};
        }
        for (const std::string& why : addTo(place.adapter, rule, place, known->second)) {
            findings_.push_back({place, why});
        }
        for (const std::string& chain : rule.chainList) {
            if (!isFirewallChain(chain)) {
                findings_.push_back(
                    {place, "the chain " + inQuotes(chain) + " is not the firewall's"});
            }
        }
    } catch (const LeftOut& left) {
        findings_.push_back({place, left.why});
        return;
    }
    addForTunnel(rule, place);
}

/// Repeats a rule for IPv6 where a tunnel routes it. ip6tables refuses lines with an IPv4 address,
/// which is no finding: the profile is as it should be.
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
    try {
        if (router == FW_ADAPTER_GLOBAL) {
            (void)addTo(router, ipv6Rule, place, nullptr);
        } else if (isPredefined && predefined != environment_.adapters.end()) {
            (void)addTo(router, ipv6Rule, place, interfacesOf(predefined->second));
        } else if (router != FW_ADAPTER_PPPOE) {
            (void)addTo(router, ipv6Rule, place, interfacesOf({{router}, {}}));
        }
    } catch (const LeftOut&) {
    }
}

/// Appends the sets of a rule to a list. Returns why lines of it are left out.
Texts Resolver::addTo(const std::string& list, const FWRULE& rule, const FWPLACE& place,
                      const std::shared_ptr<const FWINTERFACES>& interfaces) {
    // A rule without lines is no finding, whatever its texts are.
    AddressMatches addresses = addressMatches(rule);
    const ProtocolMatches& protocols = protocolMatches(rule);
    const bool hasAddresses = !addresses.of.empty() || !addresses.leftOut.empty();
    const bool hasProtocols = !protocols.of.empty() || !protocols.leftOut.empty();
    if (!hasAddresses || !hasProtocols || rule.chainList.empty()) {
        return {};
    }
    Texts leftOut = std::move(addresses.leftOut);
    leftOut.insert(leftOut.end(), protocols.leftOut.begin(), protocols.leftOut.end());

    FWPACKETSET packets;
    packets.chains = chainsOf(rule);
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

// ---- The matches of a rule

AddressMatches Resolver::addressMatches(const FWRULE& rule) {
    std::uint8_t families = 0;
    if (rule.ipType == FW_IP_TYPE_V4 || rule.ipType == FW_IP_TYPE_BOTH) {
        families |= maskOf(FW_FAMILY_V4);
    }
    if (rule.ipType == FW_IP_TYPE_V6 || rule.ipType == FW_IP_TYPE_BOTH) {
        families |= maskOf(FW_FAMILY_V6);
    }
    if (rule.ipGroup == FW_IP_GROUP_ANY && families != 0) {
        return {{{families, nullptr}}, {}};
    }
    AddressMatches matches;
    for (const FW_FAMILY family : kFamilies) {
        if ((families & maskOf(family)) == 0) {
            continue;
        }
        AddressMatch match{maskOf(family), nullptr};
        try {
            if (hasAddressText(rule)) {
                match = textMatch(rule, family);
            } else if (rule.ipGroup == FW_IP_GROUP_COUNTRIES) {
                match.addresses = countries(rule.ipList, family);
            } else {
                continue;
            }
        } catch (const LeftOut& left) {
            matches.leftOut.push_back(left.why);
            continue;
        }
        // No country, or a range that runs backwards, which is in the kernel and matches nothing.
        if (match.addresses == nullptr || !match.addresses->empty()) {
            matches.of.push_back(std::move(match));
        }
    }
    return matches;
}

/// A rule's address, network or range.
AddressMatch Resolver::textMatch(const FWRULE& rule, FW_FAMILY family) const {
    const std::string first = entryAt(rule.ipList, 0);
    const std::string second = entryAt(rule.ipList, 1);
    const auto isBlank = [](char c) { return c == ' '; };
    Intervals addresses;
    if (rule.ipGroup == FW_IP_GROUP_RANGE) {
        // The tool takes the text up to the first dash for the first address.
        const std::string text = first + '-' + second;
        const std::size_t dash = text.find('-');
        const TextResult result =
            std::any_of(text.begin(), text.end(), isBlank)
                ? TextResult::kInvalid
                : readRange(text.substr(0, dash), text.substr(dash + 1), family, addresses);
        return addressMatch(result, text, addresses, family);
    }
    const std::string text = rule.ipGroup == FW_IP_GROUP_NETWORK ? first + '/' + second : first;
    const TextResult result = std::any_of(text.begin(), text.end(), isBlank)
                                  ? TextResult::kInvalid
                                  : readAddresses(text, family, addresses);
    return addressMatch(result, text, addresses, family);
}

std::shared_ptr<const FWADDRESSES> Resolver::countries(const Texts& codes, FW_FAMILY family) {
    auto known = countries_.find({codes, family});
    if (known == countries_.end()) {
        std::shared_ptr<const FWADDRESSES> all = std::make_shared<FWADDRESSES>();
        std::size_t usable = 0;
        for (const std::string& code : codes) {
            const auto addresses =
                environment_.countries ? environment_.countries(code, family) : nullptr;
            if (addresses == nullptr || addresses->empty()) {
                continue;
            }
            if (++usable > kCountriesPerMatch) {
                throw LeftOut{"there are more than " + std::to_string(kCountriesPerMatch) +
                              " countries in one rule"};
            }
            if (all->empty()) {
                all = addresses;  // one country's list is shared, not copied
                continue;
            }
            FWADDRESSES both = *all;
            both.insert(both.end(), addresses->begin(), addresses->end());
            all = std::make_shared<FWADDRESSES>(fwAddressesFrom(both));
        }
        known = countries_.emplace(std::pair(codes, family), std::move(all)).first;
    }
    return known->second;
}

const ProtocolMatches& Resolver::protocolMatches(const FWRULE& rule) {
    if (fwRuleNamesServices(rule)) {
        return serviceMatches(rule.portList);
    }
    protocols_.of.clear();
    protocols_.leftOut.clear();
    if (rule.portGroup == FW_PORT_GROUP_ANY) {
        protocols_.of.emplace_back();
    } else if (rule.portGroup == FW_PORT_GROUP_PORTS) {
        appendPorts(rule.protocol, rule.portDirect != FW_PORT_DIRECT_DESTINATION, rule.portList,
                    protocols_);
    }
    return protocols_;
}

/// The ports of all services of a protocol are one list, as in the translation.
const ProtocolMatches& Resolver::serviceMatches(const Texts& names) {
    const auto known = services_.find(names);
    if (known != services_.end()) {
        return known->second;
    }
    ServPort ports;
    for (const std::string& name : names) {
        const auto service = environment_.services.find(name);
        if (service != environment_.services.end()) {
            addPorts(service->second.srcPorts, ports.srcPorts);
            addPorts(service->second.dstPorts, ports.dstPorts);
        }
    }
    ProtocolMatches matches;
    appendPorts(ports.srcPorts, /*sourceSide=*/true, matches);
    appendPorts(ports.dstPorts, /*sourceSide=*/false, matches);
    for (const std::string& name : names) {
        forEachRawProtocol(name, [&](std::int32_t number) {
            matches.of.push_back(
                protocolMatch(static_cast<std::uint16_t>(number),
                              number == kAuthentication ? maskOf(FW_FAMILY_V4) : FW_BOTH_FAMILIES));
        });
    }
    return services_.emplace(names, std::move(matches)).first->second;
}

}  // namespace

std::map<std::string, FWINTERFACES> fwAdaptersNow(const std::vector<std::string>& interfaces,
                                                  const std::string& pppoe) {
    std::map<std::string, FWINTERFACES> adapters;
    FWINTERFACES vpn;
    for (const std::string& name : interfaces) {
        adapters[name] = {{name}, {}};
        const bool dialIn = startsWith(name, "ppp") && name != pppoe;
        const bool tunnel = startsWith(name, "tun") && name != kSystemTunnel;
        if (dialIn || tunnel) {
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
    std::vector<std::string> names;
    for (const auto& [adapter, list] : profile.rules) {
        names.push_back(adapter);
    }
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        names.push_back(adapter);
    }
    std::map<std::string, FWINTERFACES> adapters = fwAdaptersNow(names, pppoe);
    adapters[FW_ADAPTER_VPN] = {{"ppp+", "tun+"}, {kSystemTunnel}};
    if (!pppoe.empty()) {
        adapters[FW_ADAPTER_VPN].except.push_back(pppoe);
    }
    return adapters;
}

FWRESOLVED fwResolve(const FWPROFILE& profile, const FWENVIRONMENT& environment) {
    return Resolver(profile, environment).run();
}

}  // namespace FW
