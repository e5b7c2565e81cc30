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

/// Makes it match what "-s" and this text do; false when the kernel gets no such line.
bool matchText(const std::string& text, bool ipv6, AddressMatch& match) {
    const auto addresses = addressesRead(text, ipv6);
    for (const MaskedAddress& one : addresses.value_or(std::vector<MaskedAddress>())) {
        if (const std::optional<AddressRange> range = one.range()) {
            match.ranges.push_back(*range);
        } else {
            match.masked.push_back(one);
        }
    }
    return addresses.has_value();
}

/// The same for a range; false also for one that runs backwards, which matches no address.
bool matchRange(const Texts& ends, bool ipv6, AddressMatch& match) {
    const auto range = endsRead(at(ends, 0), at(ends, 1), ipv6);
    if (!range || range->second < range->first) {
        return false;
    }
    match.ranges.push_back({range->first, range->second});
    return true;
}

/// Whether `outer` contains a whole range: none of the bits in which its addresses differ counts.
/// False also for a few that it contains.
bool isInside(const AddressRange& range, const MaskedAddress& outer) {
    if (!outer.contains(range.first)) {
        return false;
    }
    const Address::Bytes& mask = outer.mask.bytes();
    const Address::Bytes& first = range.first.bytes();
    const Address::Bytes& last = range.last.bytes();
    bool differs = false;
    for (std::size_t i = 0; i < mask.size(); ++i) {
        unsigned varying = differs ? 0xffU : 0U;
        for (unsigned bit = 0x80; bit != 0 && !differs; bit >>= 1U) {
            differs = ((first[i] ^ last[i]) & bit) != 0;
            varying = differs ? (bit << 1U) - 1 : 0;
        }
        if ((mask[i] & varying) != 0) {
            return false;
        }
    }
    return true;
}

/// Whether `outer` contains all of `inner`.
bool isInside(const MaskedAddress& inner, const MaskedAddress& outer) {
    for (std::size_t i = 0; i < inner.mask.bytes().size(); ++i) {
        if ((outer.mask.bytes()[i] & ~inner.mask.bytes()[i]) != 0) {
            return false;
        }
    }
    return outer.contains(inner.base);
}

/// Whether one of a match's ranges and masked addresses contains all of `inner`.
template <typename Inner>
bool isInOne(const Inner& inner, const AddressRange& hull, const AddressMatch& match) {
    return std::any_of(match.ranges.begin(), match.ranges.end(),
                       [&](const AddressRange& mine) { return mine.contains(hull); }) ||
           std::any_of(match.masked.begin(), match.masked.end(),
                       [&](const MaskedAddress& mine) { return isInside(inner, mine); });
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
            return matchText(at(rule.ipList, 0), ipv6, match);
        case FW::FW_IP_GROUP_NETWORK:
            return matchText(at(rule.ipList, 0) + "/" + at(rule.ipList, 1), ipv6, match);
        case FW::FW_IP_GROUP_COUNTRIES:
            return matchCountries(rule.ipList, ipv6, machine, match);
        case FW::FW_IP_GROUP_RANGE:
            return matchRange(rule.ipList, ipv6, match);
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

bool AddressMatch::contains(const AddressMatch& other) const {
    if (any()) {
        return true;
    }
    if (other.any() || source != other.source) {
        return false;
    }
    return std::all_of(
               other.ranges.begin(), other.ranges.end(),
               [this](const AddressRange& range) { return isInOne(range, range, *this); }) &&
           std::all_of(
               other.masked.begin(), other.masked.end(),
               [this](const MaskedAddress& one) { return isInOne(one, one.hull(), *this); }) &&
           std::includes(countries.begin(), countries.end(), other.countries.begin(),
                         other.countries.end());
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
    if (!matchGroup(rule, ipv6, machine, match)) {
        return std::nullopt;
    }
    const bool whole =
        std::any_of(match.ranges.begin(), match.ranges.end(),
                    [&](const AddressRange& range) { return range.contains(wholeFamily(ipv6)); });
    if (whole) {
        match.ranges.clear();
        match.masked.clear();
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
