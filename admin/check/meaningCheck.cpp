#include "check/meaningCheck.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "tarnfirewall/fwTypes.h"

#include "base/iptablesAddress.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using Json::Value;

constexpr std::size_t kChainBytes = 28;  // the kernel's limit

constexpr char kNoEffect[] = ": the rule has no effect";

// ---- Reading members of any type ----------------------------------------------------------------

std::optional<int> codeOf(const Value& rule, const char* member) {
    const Value& value = rule[member];
    return value.isInt() ? std::optional<int>(value.asInt()) : std::nullopt;
}

std::optional<std::vector<std::string>> textsOf(const Value& rule, const char* member) {
    const Value& list = rule[member];
    if (!list.isArray() ||
        !std::all_of(list.begin(), list.end(), [](const Value& text) { return text.isString(); })) {
        return std::nullopt;
    }
    std::vector<std::string> texts;
    for (const Value& text : list) {
        texts.push_back(text.asString());
    }
    return texts;
}

bool isOff(const Value& rule) {
    return rule["enable"].isBool() && !rule["enable"].asBool();
}

// ---- One rule -----------------------------------------------------------------------------------

/// The checks of one rule. Each reads only the members that it needs.
class RuleCheck {
public:
    RuleCheck(const Value& rule, RulePlace place, Machine& machine, Findings& findings)
        : rule_(rule), place_(std::move(place)), machine_(machine), findings_(findings) {}

    void run() {
        checkAddresses();
        checkPorts();
        checkPolicy();
        checkChains();
        checkTable();
    }

private:
    void error(const std::string& path, const std::string& text) {
        findings_.error(place_, path, text);
    }
    void warning(const std::string& path, const std::string& text) {
        findings_.warning(place_, path, text);
    }

    /// Warns, unless the rule is off.
    void warningIfOn(const std::string& path, const std::string& text) {
        if (!isOff(rule_)) {
            warning(path, text);
        }
    }

    void checkAddresses();
    void checkSingle(const std::vector<std::string>& list);
    void checkNetwork(const std::vector<std::string>& list);
    void checkRange(const std::vector<std::string>& list);
    void checkEnds(const std::vector<std::string>& list);
    void checkCountries(const std::vector<std::string>& list);
    void checkCountry(const std::string& code, const std::string& where);
    bool requireEntries(const std::vector<std::string>& list, std::size_t needed, const char* what);
    bool hasFamily() const;
    std::vector<bool> families() const;
    template <typename Read>
    bool isReadInAll(const Read& read) const;
    std::string familyText() const;
    void checkAddress(const std::string& text, std::size_t index);
    void checkReading(const std::string& path, const std::string& text);
    bool checkFamily(const std::string& text);
    void checkTunnel(const std::string& network);
    void warnIgnored(const char* member, std::size_t first, std::size_t size,
                     const std::string& reason);

    void checkPorts();
    void checkServices(const std::vector<std::string>& names);
    void checkPortEntries(const std::vector<std::string>& entries);
    void checkPolicy();
    void checkChains();
    void checkTable();

    const Value& rule_;
    RulePlace place_;
    Machine& machine_;
    Findings& findings_;
};

// ---- Addresses

void RuleCheck::checkAddresses() {
    const std::optional<int> group = codeOf(rule_, "ipGroup");
    const auto list = textsOf(rule_, "ipList");
    if (!group || !list) {
        return;
    }
    switch (*group) {
        case FW::FW_IP_GROUP_SINGLE:
            checkSingle(*list);
            break;
        case FW::FW_IP_GROUP_NETWORK:
            checkNetwork(*list);
            break;
        case FW::FW_IP_GROUP_NONE:
            warningIfOn("ipGroup", std::string("2 matches no address") + kNoEffect);
            break;
        case FW::FW_IP_GROUP_COUNTRIES:
            checkCountries(*list);
            break;
        case FW::FW_IP_GROUP_RANGE:
            checkRange(*list);
            break;
        case FW::FW_IP_GROUP_ANY:
            warnIgnored("ipList", 0, list->size(), "ipGroup 5 matches any address");
            break;
        default:
            break;
    }
}

/// Warns about entries that the library ignores: the rule may match more than its author expects.
void RuleCheck::warnIgnored(const char* member, std::size_t first, std::size_t size,
                            const std::string& reason) {
    for (std::size_t i = first; i < size; ++i) {
        warning(elementPath(member, i), "is ignored: " + reason);
    }
}

bool RuleCheck::requireEntries(const std::vector<std::string>& list, std::size_t needed,
                               const char* what) {
    if (list.size() < needed) {
        error("ipList", std::string("needs ") + what);
        return false;
    }
    return true;
}

/// Whether "ipType" says which families the rule is for.
bool RuleCheck::hasFamily() const {
    const std::optional<int> type = codeOf(rule_, "ipType");
    return type && *type >= FW::FW_IP_TYPE_V4 && *type <= FW::FW_IP_TYPE_BOTH;
}

/// Whether the programs that get lines of the rule are those of IPv6.
std::vector<bool> RuleCheck::families() const {
    switch (codeOf(rule_, "ipType").value_or(FW::FW_IP_TYPE_BOTH)) {
        case FW::FW_IP_TYPE_V4:
            return {false};
        case FW::FW_IP_TYPE_V6:
            return {true};
        default:
            return {false, true};
    }
}

/// Whether the programs of the rule's families read something; without families, whether one does.
template <typename Read>
bool RuleCheck::isReadInAll(const Read& read) const {
    const std::vector<bool> all = families();
    const auto isRead = [&](bool ipv6) { return read(ipv6).has_value(); };
    return hasFamily() ? std::all_of(all.begin(), all.end(), isRead)
                       : std::any_of(all.begin(), all.end(), isRead);
}

std::string RuleCheck::familyText() const {
    const std::vector<bool> all = families();
    return all.size() > 1 ? "an address" : all.front() ? "an IPv6 address" : "an IPv4 address";
}

/// An error when the address is one of the other family. Returns whether it is.
bool RuleCheck::checkFamily(const std::string& text) {
    const std::optional<int> type = codeOf(rule_, "ipType");
    const std::optional<Address> address = addressFrom(text.substr(0, text.find('/')));
    if (!address || !hasFamily() ||
        *type == (address->isIpv6() ? FW::FW_IP_TYPE_V6 : FW::FW_IP_TYPE_V4)) {
        return false;
    }
    const std::string means = *type == FW::FW_IP_TYPE_BOTH ? " means both families"
                              : *type == FW::FW_IP_TYPE_V4 ? " means IPv4"
                                                           : " means IPv6";
    error("ipType", std::to_string(*type) + means + ", but the address is " +
                        (address->isIpv6() ? "IPv6 (1)" : "IPv4 (0)"));
    return true;
}

/// Reports an address that a program refuses.
void RuleCheck::checkAddress(const std::string& text, std::size_t index) {
    if (!checkFamily(text)) {
        error(elementPath("ipList", index), inQuotes(text) + " is not " + familyText());
    }
}

/// Whether iptables reads an address and a mask as everybody does.
bool isPlain(const std::string& text, bool ipv6) {
    const std::size_t slash = text.find('/');
    const std::optional<Address> address = addressFrom(text.substr(0, slash));
    if (!address || address->isIpv6() != ipv6) {
        return false;
    }
    const std::string mask = slash == std::string::npos ? "0" : text.substr(slash + 1);
    const std::optional<Address> dotted = addressFrom(mask);
    return dotted ? dotted->isIpv6() == ipv6
                  : mask == "0" || (mask.front() != '0' &&
                                    mask.find_first_not_of("0123456789") == std::string::npos);
}

/// Warns about an address that iptables takes for something else than most people would.
void RuleCheck::checkReading(const std::string& path, const std::string& text) {
    for (const bool ipv6 : families()) {
        const auto addresses = addressesRead(text, ipv6);
        if (!addresses || isPlain(text, ipv6)) {
            continue;
        }
        std::string read;
        for (const MaskedAddress& one : *addresses) {
            read += (read.empty() ? "" : ", ") + spelled(one);
        }
        warning(path, inQuotes(text) + " is read as " + read);
    }
}

/// Of all IPv4 networks, ip6tables takes this one for an IPv6 network.
void RuleCheck::checkTunnel(const std::string& network) {
    if (isEveryIpv4Address(network) && codeOf(rule_, "policy") == FW::FW_POLICY_ALLOW) {
        warningIfOn("ipList",
                    "\"/0\" is every address: in apply mode \"lines\" it opens a 6in4 tunnel of "
                    "the adapter to all of IPv6 as well");
    }
}

void RuleCheck::checkSingle(const std::vector<std::string>& list) {
    if (!requireEntries(list, 1, "an address")) {
        return;
    }
    checkTunnel(list[0]);
    if (isReadInAll([&](bool ipv6) { return addressesRead(list[0], ipv6); })) {
        checkReading(elementPath("ipList", 0), list[0]);
    } else {
        checkAddress(list[0], 0);
    }
    warnIgnored("ipList", 1, list.size(), "ipGroup 0 uses one address");
}

void RuleCheck::checkNetwork(const std::vector<std::string>& list) {
    if (!requireEntries(list, 2,
                        list.empty() ? "an address and a mask" : "a mask or prefix length")) {
        return;
    }
    const std::string network = list[0] + "/" + list[1];
    const bool ipv6 = families().front();
    checkTunnel(network);
    if (isReadInAll([&](bool v6) { return addressesRead(network, v6); })) {
        checkReading("ipList", network);
    } else if (checkFamily(list[0])) {
        // Its mask is one of that family.
    } else if (!maskRead(list[1], ipv6)) {
        error(elementPath("ipList", 1),
              inQuotes(list[1]) + (ipv6 ? " is not a prefix length (0-128) or mask of IPv6"
                                        : " is not a prefix length (0-32) or mask of IPv4"));
    } else {
        checkAddress(list[0], 0);
    }
    warnIgnored("ipList", 2, list.size(), "ipGroup 1 uses an address and a mask");
}

void RuleCheck::checkRange(const std::vector<std::string>& list) {
    if (!requireEntries(
            list, 2,
            list.empty() ? "the first and the last address" : "the last address of the range")) {
        return;
    }
    warnIgnored("ipList", 2, list.size(), "ipGroup 4 uses a first and a last address");
    const auto read = [&](bool ipv6) { return endsRead(list[0], list[1], ipv6); };
    std::optional<std::pair<Address, Address>> ends;
    for (const bool ipv6 : families()) {
        ends = ends ? ends : read(ipv6);
    }
    if (!ends || !isReadInAll(read)) {
        checkEnds(list);
        return;
    }
    for (std::size_t i = 0; i < 2; ++i) {
        const Address& end = i == 0 ? ends->first : ends->second;
        if (!addressFrom(list[i])) {
            warning(elementPath("ipList", i), inQuotes(list[i]) + " is read as " + spelled(end));
        }
    }
    if (ends->second < ends->first) {
        warningIfOn("ipList", "the range runs backwards: " + inQuotes(list[1]) + " is before " +
                                  inQuotes(list[0]) + kNoEffect);
    }
}

/// Reports the ends of a range that a program refuses.
void RuleCheck::checkEnds(const std::vector<std::string>& list) {
    const std::optional<Address> first = addressFrom(list[0]);
    const std::optional<Address> last = addressFrom(list[1]);
    if (first && last) {
        if (first->isIpv6() != last->isIpv6()) {
            error("ipList",
                  inQuotes(list[0]) + " and " + inQuotes(list[1]) + " are of different families");
        } else {
            checkAddress(list[0], 0);
        }
        return;
    }
    const std::vector<bool> all = families();
    bool isRead = true;
    for (std::size_t i = 0; i < 2; ++i) {
        const bool one = std::any_of(all.begin(), all.end(), [&](bool ipv6) {
            return endsRead(list[i], list[i], ipv6).has_value();
        });
        isRead = isRead && one;
        if (!one) {
            error(elementPath("ipList", i), inQuotes(list[i]) + " is not " + familyText());
        }
    }
    if (isRead) {
        error("ipList", inQuotes(list[0]) + " and " + inQuotes(list[1]) +
                            " are not the ends of a range in both families");
    }
}

void RuleCheck::checkCountries(const std::vector<std::string>& list) {
    if (list.empty()) {
        warningIfOn("ipList", std::string("names no country") + kNoEffect);
    }
    for (std::size_t i = 0; i < list.size(); ++i) {
        checkCountry(list[i], elementPath("ipList", i));
    }
}

void RuleCheck::checkCountry(const std::string& code, const std::string& path) {
    const auto isCapital = [](char c) { return c >= 'A' && c <= 'Z'; };
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (code.size() != 2 || !isCapital(code[0]) || (!isCapital(code[1]) && !isDigit(code[1]))) {
        error(path, inQuotes(code) + " is not a country code (two capital letters)");
        return;
    }
    const std::optional<int> type = codeOf(rule_, "ipType");
    const bool lacksV4 = type != FW::FW_IP_TYPE_V6 && !machine_.hasCountry(code, false);
    const bool lacksV6 = type != FW::FW_IP_TYPE_V4 && !machine_.hasCountry(code, true);
    if (lacksV4 || lacksV6) {
        const bool both = lacksV4 && lacksV6;
        warning(path, "there is no " +
                          std::string(both      ? "data"
                                      : lacksV4 ? "IPv4 data"
                                                : "IPv6 data") +
                          " for country " + inQuotes(code) + ", which is left out");
    }
}

// ---- Ports

void RuleCheck::checkPorts() {
    const std::optional<int> group = codeOf(rule_, "portGroup");
    const auto list = textsOf(rule_, "portList");
    if (!group || !list) {
        return;
    }
    switch (*group) {
        case FW::FW_PORT_GROUP_SERVICES:
        case FW::FW_PORT_GROUP_RESERVED:
            checkServices(*list);
            break;
        case FW::FW_PORT_GROUP_PORTS:
            checkPortEntries(*list);
            break;
        case FW::FW_PORT_GROUP_ANY:
            warnIgnored("portList", 0, list->size(), "portGroup 3 matches any port");
            break;
        default:
            break;
    }
}

void RuleCheck::checkServices(const std::vector<std::string>& names) {
    if (names.empty()) {
        warningIfOn("portList", std::string("names no service") + kNoEffect);
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (machine_.hasCatalogue() && !machine_.hasService(names[i])) {
            error(elementPath("portList", i), inQuotes(names[i]) +
                                                  " is not a service that the firewall knows" +
                                                  didYouMean(machine_.nearestService(names[i])));
        }
    }
}

void RuleCheck::checkPortEntries(const std::vector<std::string>& entries) {
    const int protocol = codeOf(rule_, "protocol").value_or(0);
    if (protocol == FW::FW_PORT_PROTOCOL_ICMP || protocol == FW::FW_PORT_PROTOCOL_IGMP) {
        warnIgnored("portList", 0, entries.size(), "ICMP and IGMP have no ports");
        return;
    }
    if (entries.empty()) {
        warningIfOn("portList", std::string("names no port") + kNoEffect);
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::string wrong = portEntryError(entries[i]);
        if (!wrong.empty()) {
            error(elementPath("portList", i), wrong);
        }
    }
}

// ---- Policy, chains and table

void RuleCheck::checkPolicy() {
    if (codeOf(rule_, "policy") == FW::FW_POLICY_NONE) {
        warningIfOn("policy", std::string("2 means none") + kNoEffect);
    }
}

void RuleCheck::checkChains() {
    const auto chains = textsOf(rule_, "chainList");
    if (!chains) {
        return;
    }
    const auto& own = FW::FW_FIREWALL_CHAINS;
    for (std::size_t i = 0; i < chains->size(); ++i) {
        const std::string& chain = (*chains)[i];
        if (!isWord(chain) || chain.size() > kChainBytes) {
            error(elementPath("chainList", i), inQuotes(chain) + " is not the name of a chain");
        } else if (std::find(own.begin(), own.end(), chain) == own.end()) {
            warning(elementPath("chainList", i),
                    inQuotes(chain) +
                        " is not one of the firewall's chains: each reload adds the rule "
                        "there again and never removes it");
        }
    }
    for (const std::string& chain : own) {
        if (std::find(chains->begin(), chains->end(), chain) == chains->end()) {
            warning("chainList", "the rule is added to " + inQuotes(chain) + " anyway");
        }
    }
}

void RuleCheck::checkTable() {
    const Value& table = rule_["table"];
    if (!table.isString() || table.asString() == "filter") {
        return;
    }
    const std::string name = table.asString();
    if (!isWord(name)) {
        error("table", inQuotes(name) + " is not the name of a table");
        return;
    }
    warning("table", inQuotes(name) + " is not \"filter\", the table with the firewall's chains");
}

// ---- The document -------------------------------------------------------------------------------

void checkAdapter(const std::string& adapter, const std::string& path, Machine& machine,
                  Findings& findings) {
    if (!isAdapterName(adapter)) {
        findings.error(path, inQuotes(adapter) + " is not the name of an adapter");
    } else if (const std::string absence = machine.absenceOf(adapter); !absence.empty()) {
        findings.warning(path, absence);
    } else if (isNeverApplied(adapter)) {
        findings.warning(path, kPppoeInterfaceText);
    }
}

/// A profile with services is not applied without the catalogue.
void checkCatalogue(const Catalogue& catalogue, Findings& findings) {
    if (catalogue.readable()) {
        return;
    }
    const std::vector<CatalogueError> errors = catalogue.errors();
    for (const CatalogueError& error : errors) {
        findings.error("", "the service catalogue cannot be read: " + textOf(error));
    }
    if (errors.empty()) {
        findings.warning("", "the service catalogue is empty: services are not checked");
    }
}

/// Reports each text with a NUL character. A program sees it only up to there, whatever it is for,
/// so no other check can say what it means.
class NulCheck {
public:
    explicit NulCheck(Findings& findings) : findings_(findings) {}

    void checkDocument(const Value& document) {
        if (!hasNul(document)) {
            return;  // as nearly all: no path has to be made
        }
        for (const std::string& name : document.getMemberNames()) {
            checkText(name, std::nullopt, name);
            const Value& member = document[name];
            if (name == "rules" && member.isObject()) {
                checkRules(member);
            } else {
                check(member, std::nullopt, memberPath("", name));
            }
        }
    }

private:
    static bool hasNul(const Value& value) {
        const char* begin = nullptr;
        const char* end = nullptr;
        if (value.isString()) {
            return value.getString(&begin, &end) && std::find(begin, end, '\0') != end;
        }
        for (auto member = value.begin(); member != value.end(); ++member) {
            if (value.isObject()) {
                begin = member.memberName(&end);
            }
            if (std::find(begin, end, '\0') != end || hasNul(*member)) {
                return true;
            }
        }
        return false;
    }

    void checkRules(const Value& byAdapter) {
        for (const std::string& adapter : byAdapter.getMemberNames()) {
            const std::string path = memberPath("rules", adapter);
            checkText(adapter, std::nullopt, path);
            const Value& list = byAdapter[adapter];
            if (!list.isArray()) {
                check(list, std::nullopt, path);
                continue;
            }
            for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
                check(list[i], RulePlace{adapter, i + 1}, "");
            }
        }
    }

    void check(const Value& value, const std::optional<RulePlace>& rule, const std::string& path) {
        if (value.isString()) {
            checkText(value.asString(), rule, path);
        }
        for (Json::ArrayIndex i = 0; value.isArray() && i < value.size(); ++i) {
            check(value[i], rule, elementPath(path, i));
        }
        for (const std::string& name :
             value.isObject() ? value.getMemberNames() : std::vector<std::string>()) {
            checkText(name, rule, memberPath(path, name));
            check(value[name], rule, memberPath(path, name));
        }
    }

    void checkText(const std::string& text, const std::optional<RulePlace>& rule,
                   const std::string& path) {
        if (text.find('\0') != std::string::npos) {
            findings_.error(rule, path, inQuotes(text) + " contains a NUL character");
        }
    }

    Findings& findings_;
};

void checkName(const Value& name, Findings& findings) {
    if (!name.isString()) {
        return;
    }
    if (name.asString().empty()) {
        findings.error("name", "a profile needs a name");
    } else if (name.asString().rfind(kTestPrefix, 0) == 0) {
        findings.warning(
            "name", inQuotes(name.asString()) + " is a test profile's name: lists do not show it");
    }
}

}  // namespace

std::vector<Finding> checkMeaning(const Json::Value& document, Machine& machine) {
    Findings findings;
    if (!document.isObject()) {
        return {};
    }
    NulCheck(findings).checkDocument(document);
    checkName(document["name"], findings);
    const Value& rules = document["rules"];
    const Value none(Json::objectValue);
    const Value& byAdapter = rules.isObject() ? rules : none;
    bool services = false;
    for (const std::string& adapter : byAdapter.getMemberNames()) {
        checkAdapter(adapter, memberPath("rules", adapter), machine, findings);
        const Value& list = byAdapter[adapter];
        for (Json::ArrayIndex i = 0; list.isArray() && i < list.size(); ++i) {
            if (!list[i].isObject()) {
                continue;
            }
            RuleCheck(list[i], {adapter, i + 1}, machine, findings).run();
            const std::optional<int> group = codeOf(list[i], "portGroup");
            services = services || group == FW::FW_PORT_GROUP_SERVICES ||
                       group == FW::FW_PORT_GROUP_RESERVED;
        }
    }
    const Value& policies = document["adapterPolicyMap"];
    for (const std::string& adapter :
         policies.isObject() ? policies.getMemberNames() : std::vector<std::string>()) {
        if (!byAdapter.isMember(adapter)) {
            checkAdapter(adapter, memberPath("adapterPolicyMap", adapter), machine, findings);
        }
    }
    if (services) {
        checkCatalogue(machine.catalogue(), findings);
    }
    return findings.take();
}

}  // namespace tarnfw
