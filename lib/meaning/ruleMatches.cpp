#include "ruleMatches.h"

#include <netinet/in.h>

#include <algorithm>
#include <utility>

#include "../fwFragments.h"
#include "../fwPortTexts.h"
#include "../fwRawProtocols.h"
#include "../fwRuleTranslation.h"
#include "addressText.h"

namespace FW {
namespace {

// A line has at most this many ports after "--dports", where a range counts twice. The translation
// cuts lists so that they fit, but an entry may have commas in it.
constexpr std::size_t kPortsPerMatch = 15;

constexpr std::size_t kCountriesPerMatch = 15;  // what the kernel's match takes, equal ones, too

constexpr std::uint16_t kIcmp = IPPROTO_ICMP;
constexpr std::uint16_t kIgmp = IPPROTO_IGMP;
constexpr std::uint16_t kTcp = IPPROTO_TCP;
constexpr std::uint16_t kUdp = IPPROTO_UDP;
constexpr std::uint16_t kIcmpv6 = IPPROTO_ICMPV6;
// In IPv6 an extension header, which ip6tables skips: its "-p 51" never matches.
constexpr std::uint16_t kAuthentication = IPPROTO_AH;

/// Whether a text is more than one word of a line, or of a batch more than a line.
bool hasBlank(const std::string& text) {
    return text.find_first_of(" \n") != std::string::npos;
}

std::string entryAt(const Texts& list, std::size_t index) {
    return index < list.size() ? list[index] : std::string();
}

// ---- Addresses ----

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
                              std::to_string(FW_MASK_INTERVALS) + " intervals",
                          FW_FINDING_TOO_COMPLEX};
        default:
            return {maskOf(family), isAny(addresses) ? nullptr : listOf(addresses)};
    }
}

/// Whether the kernel's match reads the file of a code: others it refuses, and for "us" it reads
/// that of "US".
bool isCountryCode(const std::string& code) {
    const auto isCapital = [](char c) { return c >= 'A' && c <= 'Z'; };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    return code.size() == 2 && std::all_of(code.begin(), code.end(),
                                           [&](char c) { return isCapital(c) || isDigit(c); });
}

// ---- Ports ----

std::uint16_t portFrom(const std::string& text, const std::string& entry, int base = 0) {
    const auto port = numberFrom(text, 65535, base);
    if (!port || hasBlank(text)) {
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
        std::string entry;
        appendPort(entry, *begin);
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
FWINTERVALS portsFrom(const Texts& entries, std::uint16_t protocol, std::vector<LeftOut>& leftOut) {
    const bool isSingle = isSinglePort(entries);
    FWINTERVALS ports;
    for (std::size_t first = 0; first < entries.size(); first += kPortsPerLine) {
        const std::size_t end = std::min(first + kPortsPerLine, entries.size());
        try {
            const FWINTERVALS line = isSingle ? FWINTERVALS{singleMatch(entries[0], protocol)}
                                              : multiportMatch(&entries[first], &entries[0] + end);
            ports.insert(ports.end(), line.begin(), line.end());
        } catch (const LeftOut& left) {
            appendOnce(leftOut, left);
        }
    }
    sortPorts(ports);
    return ports;
}

/// Removes the entries that are no ports, of which one would have a whole line refused.
void keepPorts(Texts& entries) {
    if (entries.size() < 2) {
        return;
    }
    const auto isNone = [](const std::string& entry) {
        try {
            (void)multiportMatch(&entry, &entry + 1);
        } catch (const LeftOut&) {
            return true;
        }
        return false;
    };
    entries.erase(std::remove_if(entries.begin(), entries.end(), isNone), entries.end());
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
    Texts lines;
    appendPortFragments(protocol, sourceSide, entries, lines);
    for (const std::string& words : lines) {
        matches.measure(words == kIcmpV4   ? maskOf(FW_FAMILY_V4)
                        : words == kIcmpV6 ? maskOf(FW_FAMILY_V6)
                                           : FW_BOTH_FAMILIES,
                        words);
    }
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

/// What services with these ports match.
ProtocolMatches matchesOf(const Texts& names, const ServPort& ports) {
    ProtocolMatches matches;
    appendPorts(ports.srcPorts, /*sourceSide=*/true, matches);
    appendPorts(ports.dstPorts, /*sourceSide=*/false, matches);
    for (const std::string& name : names) {
        forEachRawProtocol(name, [&](std::int32_t number) {
            matches.measure(FW_BOTH_FAMILIES, "-p " + std::to_string(number));
            matches.of.push_back(
                protocolMatch(static_cast<std::uint16_t>(number),
                              number == kAuthentication ? maskOf(FW_FAMILY_V4) : FW_BOTH_FAMILIES));
        });
    }
    return matches;
}

}  // namespace

AddressMatches RuleMatches::addresses(const FWRULE& rule) {
    std::uint8_t families = 0;
    if (rule.ipType == FW_IP_TYPE_V4 || rule.ipType == FW_IP_TYPE_BOTH) {
        families |= maskOf(FW_FAMILY_V4);
    }
    if (rule.ipType == FW_IP_TYPE_V6 || rule.ipType == FW_IP_TYPE_BOTH) {
        families |= maskOf(FW_FAMILY_V6);
    }
    AddressMatches matches;
    if (rule.ipGroup == FW_IP_GROUP_ANY && families != 0) {
        matches.of.push_back({families, nullptr});
        matches.measure(families, "");
        return matches;
    }
    if (hasAddressText(rule)) {
        matches.measure(families, addressFragment(rule));
    }
    for (const FW_FAMILY family : kBothFamilies) {
        if ((families & maskOf(family)) == 0) {
            continue;
        }
        AddressMatch match{maskOf(family), nullptr};
        try {
            if (hasAddressText(rule)) {
                match = textMatch(rule, family);
            } else if (rule.ipGroup == FW_IP_GROUP_COUNTRIES) {
                const Countries& usable = countries(rule.ipList, family);
                if (!usable.codes.empty()) {
                    matches.measure(match.families, countryFragment(rule, usable.codes));
                }
                if (usable.leftOut) {
                    throw LeftOut{usable.leftOut->why, usable.leftOut->kind};
                }
                match.addresses = usable.addresses;
            } else {
                continue;
            }
        } catch (const LeftOut& left) {
            matches.leftOut.push_back(left);
            continue;
        }
        // No country, or a range that runs backwards, which is in the kernel and matches nothing.
        if (match.addresses == nullptr || !match.addresses->empty()) {
            matches.of.push_back(std::move(match));
        }
    }
    return matches;
}

/// Counts the intervals of a list that is to be kept.
void RuleMatches::count(std::size_t intervals) {
    if (intervals > FW_PROFILE_INTERVALS - intervals_) {
        throw LeftOut{"the profile is too complex: its addresses make more than " +
                          std::to_string(FW_PROFILE_INTERVALS) + " intervals",
                      FW_FINDING_TOO_COMPLEX};
    }
    intervals_ += intervals;
}

/// A rule's address, network or range.
AddressMatch RuleMatches::textMatch(const FWRULE& rule, FW_FAMILY family) {
    const std::string first = entryAt(rule.ipList, 0);
    const std::string second = entryAt(rule.ipList, 1);
    const bool isRange = rule.ipGroup == FW_IP_GROUP_RANGE;
    const std::string text = isRange                               ? first + '-' + second
                             : rule.ipGroup == FW_IP_GROUP_NETWORK ? first + '/' + second
                                                                   : first;
    Intervals addresses;
    TextResult result = TextResult::kInvalid;
    if (!hasBlank(text)) {
        // The tool takes the text of a range up to the first dash for the first address.
        const std::size_t dash = text.find('-');
        result = isRange ? readRange(text.substr(0, dash), text.substr(dash + 1), family, addresses)
                         : readAddresses(text, family, addresses);
    }
    if (result == TextResult::kRead) {
        count(addresses.size());
    }
    return addressMatch(result, text, addresses, family);
}

const RuleMatches::Countries& RuleMatches::countries(const Texts& codes, FW_FAMILY family) {
    auto known = countries_.find({codes, family});
    if (known == countries_.end()) {
        known = countries_.emplace(std::pair(codes, family), united(codes, family)).first;
    }
    return known->second;
}

/// The addresses of all these countries. The list of a single one is shared, not copied.
RuleMatches::Countries RuleMatches::united(const Texts& codes, FW_FAMILY family) {
    Countries usable;
    std::vector<std::shared_ptr<const FWADDRESSES>> lists;
    std::size_t intervals = 0;
    for (const std::string& code : codes) {
        const auto addresses =
            environment_.countries ? environment_.countries(code, family) : nullptr;
        const bool isBroken = environment_.brokenCountries.count({code, family}) != 0;
        if (isBroken || (addresses != nullptr && !addresses->empty())) {
            if (isBroken || !isCountryCode(code)) {
                usable.leftOut = {isBroken ? "the file of country " + inQuotes(code) +
                                                 " ends within a record"
                                           : inQuotes(code) + " is not the code of a country"};
            }
            usable.codes.push_back(code);
            lists.push_back(addresses != nullptr ? addresses : std::make_shared<FWADDRESSES>());
            intervals += lists.back()->size();
        }
    }
    if (usable.leftOut) {
        return usable;
    }
    if (lists.size() > kCountriesPerMatch) {
        usable.leftOut = {"there are more than " + std::to_string(kCountriesPerMatch) +
                          " countries in one rule"};
        return usable;
    }
    if (lists.size() == 1) {
        usable.addresses = lists.front();
        return usable;
    }
    try {
        count(intervals);
    } catch (const LeftOut& left) {
        usable.leftOut = left;
        return usable;
    }
    FWADDRESSES all;
    all.reserve(intervals);
    for (const auto& list : lists) {
        all.insert(all.end(), list->begin(), list->end());
    }
    usable.addresses = std::make_shared<FWADDRESSES>(fwAddressesFrom(all));
    return usable;
}

const ProtocolMatches& RuleMatches::protocols(const FWRULE& rule) {
    if (fwRuleNamesServices(rule)) {
        return ofServices(rule.portList);
    }
    protocols_ = {};
    if (rule.portGroup == FW_PORT_GROUP_ANY) {
        protocols_.of.emplace_back();
        protocols_.measure(FW_BOTH_FAMILIES, "");
    } else if (rule.portGroup == FW_PORT_GROUP_PORTS) {
        appendPorts(rule.protocol, rule.portDirect != FW_PORT_DIRECT_DESTINATION, rule.portList,
                    protocols_);
    }
    return protocols_;
}

/// The ports of all services of a protocol are one list, as in the translation.
const ProtocolMatches& RuleMatches::ofServices(const Texts& names) {
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
    return services_.emplace(names, matchesOf(names, ports)).first->second;
}

std::vector<FWPACKETSET> fwServicePackets(const std::string& service, const ServPort& ports) {
    ServPort readable = ports;
    for (auto* const side : {&readable.srcPorts, &readable.dstPorts}) {
        for (auto& [protocol, entries] : *side) {
            keepPorts(entries);
        }
    }
    std::vector<FWPACKETSET> packets;
    for (const ProtocolMatch& match : matchesOf({service}, readable).of) {
        FWPACKETSET& set = packets.emplace_back();
        set.families = match.families;
        set.protocols = match.protocols;
        (match.sourceSide ? set.sourcePorts : set.destinationPorts) = match.ports;
    }
    return packets;
}

}  // namespace FW
