#include "machine/ruleMatch.h"

#include <algorithm>
#include <iterator>

#include <json/json.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarnfwadmin/interfaces.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

std::string at(const Texts& list, std::size_t index) {
    return index < list.size() ? list[index] : std::string();
}

// ---- Addresses ----

bool isIn(const MaskedAddress& network, const Address& address) {
    if (network.base.isIpv6() != address.isIpv6()) {
        return false;
    }
    const Address::Bytes& mask = network.mask.bytes();
    for (std::size_t i = 0; i < mask.size(); ++i) {
        if (((network.base.bytes()[i] ^ address.bytes()[i]) & mask[i]) != 0) {
            return false;
        }
    }
    return true;
}

/// Makes it match a network; false for texts that are none.
bool matchNetwork(const std::string& base, const std::string& mask, AddressMatch& match) {
    match.range = networkFrom(base, mask);
    if (match.range) {
        return true;
    }
    const std::optional<Address> address = addressFrom(base);
    const std::optional<Address> bits = addressFrom(mask);
    if (!address || !bits || address->isIpv6() != bits->isIpv6()) {
        return false;
    }
    match.masked = MaskedAddress{*address, *bits};
    return true;
}

/// "10.0.0.1", or with a mask, which iptables takes in the same place.
bool matchSingle(const std::string& text, AddressMatch& match) {
    const std::size_t slash = text.find('/');
    if (slash != std::string::npos) {
        return matchNetwork(text.substr(0, slash), text.substr(slash + 1), match);
    }
    match.range = rangeFrom(text, text);
    return match.range.has_value();
}

bool matchCountries(const Texts& codes, bool ipv6, Machine& machine, AddressMatch& match) {
    std::copy_if(codes.begin(), codes.end(), std::inserter(match.countries, match.countries.end()),
                 [&](const std::string& code) { return machine.hasCountry(code, ipv6); });
    return !match.countries.empty();
}

/// Makes it match what the rule's address group says; false when there is no line for that.
bool matchGroup(const FW::FWRULE& rule, bool ipv6, Machine& machine, AddressMatch& match) {
    switch (rule.ipGroup) {
        case FW::FW_IP_GROUP_SINGLE:
            return matchSingle(at(rule.ipList, 0), match);
        case FW::FW_IP_GROUP_NETWORK:
            return matchNetwork(at(rule.ipList, 0), at(rule.ipList, 1), match);
        case FW::FW_IP_GROUP_COUNTRIES:
            return matchCountries(rule.ipList, ipv6, machine, match);
        case FW::FW_IP_GROUP_RANGE:
            match.range = rangeFrom(at(rule.ipList, 0), at(rule.ipList, 1));
            return match.range.has_value();
        default:
            return rule.ipGroup == FW::FW_IP_GROUP_ANY;
    }
}

// ---- Ports ----

/// The ports of a line, "22" or "53,6000:6010" with a multiport match; none when one of them is no
/// port, for then the kernel refuses the line.
std::vector<PortSpan> spansFrom(const std::string& text, bool multiport) {
    Texts entries = {text};
    if (multiport) {
        boost::split(entries, text, boost::is_any_of(","));
    }
    std::vector<PortSpan> spans;
    for (const std::string& entry : entries) {
        const auto span = portSpanFrom(boost::replace_all_copy(entry, ":", "-"));
        if (!span) {
            return {};
        }
        spans.push_back(*span);
    }
    return spans;
}

/// Adds what one of the translation's port matches says: "-p tcp --dport 22",
/// "-p udp -m multiport --sports 53,6000:6010", "-p 47 ", or "" for any packet.
void append(const std::string& fragment, std::vector<PortMatch>& matches) {
    Texts words;
    boost::split(words, fragment, boost::is_any_of(" "));
    words.erase(std::remove(words.begin(), words.end(), ""), words.end());
    switch (words.size()) {
        case 0:
            matches.push_back({});
            break;
        case 2:
            matches.push_back({words[1], std::nullopt, false});
            break;
        case 4:
        case 6: {
            const bool source = words[words.size() - 2].rfind("--s", 0) == 0;
            for (const PortSpan& span : spansFrom(words.back(), words.size() == 6)) {
                matches.push_back({words[1], span, source});
            }
            break;
        }
        default:
            break;  // a port with a blank in it: the kernel refuses the line
    }
}

}  // namespace

bool AddressMatch::contains(const Address& address, Machine& machine) const {
    if (range) {
        return range->contains(address);
    }
    if (masked) {
        return isIn(*masked, address);
    }
    return countries.empty() ||
           std::any_of(countries.begin(), countries.end(), [&](const std::string& code) {
               const std::vector<AddressRange>& ranges =
                   machine.countryRanges(code, address.isIpv6());
               return std::any_of(ranges.begin(), ranges.end(),
                                  [&](const AddressRange& one) { return one.contains(address); });
           });
}

bool AddressMatch::contains(const AddressMatch& other) const {
    if (any()) {
        return true;
    }
    if (other.any() || source != other.source || masked || other.masked) {
        return false;
    }
    if (range) {
        return other.range && range->contains(*other.range);
    }
    return !other.range && std::includes(countries.begin(), countries.end(),
                                         other.countries.begin(), other.countries.end());
}

bool hasLine(const FW::FWRULE& rule) {
    return rule.enable && (rule.policy == FW::FW_POLICY_ALLOW || rule.policy == FW::FW_POLICY_DENY);
}

std::vector<std::string> listsOf(const std::vector<std::string>& adapters) {
    std::vector<std::string> lists = {FW::FW_ADAPTER_GLOBAL};
    for (const std::string& adapter : std::set<std::string>(adapters.begin(), adapters.end())) {
        if (adapter != FW::FW_ADAPTER_GLOBAL && !isNeverApplied(adapter)) {
            lists.push_back(adapter);
        }
    }
    return lists;
}

std::optional<AddressMatch> addressMatchOf(const FW::FWRULE& rule, bool ipv6, Machine& machine) {
    if (rule.ipType != FW::FW_IP_TYPE_BOTH &&
        rule.ipType != (ipv6 ? FW::FW_IP_TYPE_V6 : FW::FW_IP_TYPE_V4)) {
        return std::nullopt;
    }
    AddressMatch match;
    match.source = rule.ipDirect != FW::FW_IP_DIRECT_DESTINATION;
    if (!matchGroup(rule, ipv6, machine, match) ||
        (match.range && match.range->first.isIpv6() != ipv6) ||
        (match.masked && match.masked->base.isIpv6() != ipv6)) {
        return std::nullopt;
    }
    if (match.range && match.range->contains(wholeFamily(ipv6))) {
        match.range.reset();
    }
    return match;
}

bool isTakenForAllOfIpv6(const FW::FWRULE& rule) {
    const std::string first = at(rule.ipList, 0);
    return rule.ipGroup == FW::FW_IP_GROUP_SINGLE
               ? isEveryIpv4Address(first)
               : rule.ipGroup == FW::FW_IP_GROUP_NETWORK &&
                     isEveryIpv4Address(first + "/" + at(rule.ipList, 1));
}

std::optional<std::vector<PortMatch>> portMatchesOf(const FW::FWRULE& rule, Machine& machine) {
    const Json::Value fragments = machine.portMatches(rule);
    if (fragments.isNull()) {
        return std::nullopt;
    }
    std::vector<PortMatch> matches;
    for (const Json::Value& fragment : fragments) {
        append(fragment.asString(), matches);
    }
    return matches;
}

}  // namespace tarnfw
