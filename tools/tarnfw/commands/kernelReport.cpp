#include "commands/kernelReport.h"

#include <netinet/in.h>

#include <algorithm>
#include <future>
#include <map>
#include <set>
#include <utility>

#include <boost/algorithm/string/join.hpp>

#include "cli/command.h"
#include "cli/output.h"
#include "tarnfwadmin/baseRecord.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

// As many rules are named in one answer.
constexpr std::size_t kMostNamed = 3;

/// The firewall's chains without a rule in families that have other rules than the profile's:
/// "INPUT_FIREWALL of IPv4".
std::vector<std::string> emptyChains(const FilterListings& listings,
                                     const std::vector<FamilyInForce>& families) {
    std::vector<std::string> names;
    for (const FamilyInForce& family : families) {
        const auto listing = listings.find(family.key);
        if (family.state != InForce::kDifferent || listing == listings.end() ||
            !listing->second.rules) {
            continue;
        }
        for (const std::string& chain : FW::FW_FIREWALL_CHAINS) {
            if (listing->second.rules->rulesOf(chain).empty()) {
                names.push_back(chain + " of " + titleOf(family.key));
            }
        }
    }
    return names;
}

/// Looks again at what a reload in apply mode "lines" leaves: it may be running, or have ended.
void lookAgain(KernelReport& report, const StoreSnapshot& store) {
    const FileLock lock(kReloadLock, 0);
    report.reloading = !lock.held();
    if (lock.held()) {
        report.listings = filterListings();
        report.families = familiesInForce(report.listings, store);
    }
}

std::vector<Address> ownAddresses() {
    std::vector<Address> own;
    for (const Interface& interface : interfacesNow()) {
        own.insert(own.end(), interface.addresses.begin(), interface.addresses.end());
    }
    return own;
}

/// Why it is not known which policies dropped at "base up"; empty when it is.
std::string unreadRecord() {
    try {
        (void)loadBaseRecord();
        return "";
    } catch (const Error& error) {
        return error.what();
    }
}

/// The families in a state: "IPv4 and IPv6"; empty without one.
std::string familiesIn(const KernelReport& report, InForce state) {
    std::vector<std::string> titles;
    for (const FamilyInForce& family : report.families) {
        if (family.state == state) {
            titles.push_back(titleOf(family.key));
        }
    }
    return boost::join(titles, " and ");
}

/// Whether a family in this state lets everything through.
bool isOpen(const KernelReport& report, InForce state) {
    return std::any_of(
        report.families.begin(), report.families.end(),
        [state](const FamilyInForce& family) { return family.state == state && family.open; });
}

std::string closedText(const KernelReport& report) {
    if (report.reloading) {
        return "a reload is running; new connections are dropped meanwhile";
    }
    return interruptedText(report.enabled);
}

/// Of a machine without any rules, though the active profile has some.
std::string noneText(const KernelReport& report) {
    const bool open = std::all_of(report.families.begin(), report.families.end(),
                                  [](const FamilyInForce& family) {
                                      return family.open || family.state == InForce::kAbsent;
                                  });
    return std::string("no rules are in force") + (open ? " and the machine is open" : "");
}

constexpr char kFixBase[] =
    ": the base filter is not set up; \"tarnfw base up\" and then \"tarnfw reload\" fix this";

std::string noBaseText(const KernelReport& report) {
    if (isNothingInForce(report)) {
        return noneText(report) + kFixBase;
    }
    return familiesIn(report, InForce::kNoBase) + " packets bypass the rules" +
           (isOpen(report, InForce::kNoBase) ? ", which leaves the machine open" : "") + kFixBase;
}

std::string nothingText(const KernelReport& report) {
    if (isNothingInForce(report)) {
        return noneText(report) + "; \"tarnfw reload\" applies them or shows why";
    }
    return "no rules are in force for " + familiesIn(report, InForce::kNothing) +
           (isOpen(report, InForce::kNothing) ? ", which is open" : "") +
           "; \"tarnfw reload\" applies them or shows why";
}

std::string differentText(const KernelReport& report) {
    const std::string families = familiesIn(report, InForce::kDifferent);
    if (!report.enabled) {
        return "rules are still in force for " + families + "; \"tarnfw disable\" removes them";
    }
    const std::string empty =
        report.emptyChains.empty()
            ? ""
            : " (" + boost::join(report.emptyChains, ", ") +
                  (report.emptyChains.size() == 1 ? " is empty)" : " are empty)");
    return "the rules in force for " + families + " are not those of the profile" + empty +
           "; \"tarnfw diff\" shows how they differ, \"tarnfw "
           "reload\" applies the profile or shows why not";
}

int protocolNumber(FW::FW_PORT_PROTOCOL protocol, bool ipv6) {
    switch (protocol) {
        case FW::FW_PORT_PROTOCOL_TCP:
            return IPPROTO_TCP;
        case FW::FW_PORT_PROTOCOL_UDP:
            return IPPROTO_UDP;
        case FW::FW_PORT_PROTOCOL_ICMP:
            if (ipv6) {
                return IPPROTO_ICMPV6;
            }
            return IPPROTO_ICMP;
        case FW::FW_PORT_PROTOCOL_IGMP:
            return IPPROTO_IGMP;
        default:
            return 0;
    }
}

/// The protocols of a question, apart.
std::vector<FW::FW_PORT_PROTOCOL> protocolsOf(const FW::PortCompareST& question) {
    if (question.protocol == FW::FW_PORT_PROTOCOL_TCP_UDP) {
        return {FW::FW_PORT_PROTOCOL_TCP, FW::FW_PORT_PROTOCOL_UDP};
    }
    return {static_cast<FW::FW_PORT_PROTOCOL>(question.protocol)};
}

std::string protocolName(FW::FW_PORT_PROTOCOL protocol) {
    return protocol == FW::FW_PORT_PROTOCOL_UDP ? "udp" : "tcp";
}

/// The part of an answer about the packets of one family and protocol.
BeforeFirewall beforeIn(const ForeignRules& rules, ForeignQuestion question,
                        const std::string& protocol) {
    BeforeFirewall before;
    const auto addAccepts = [&](const char* chain, const ForeignQuestion& asked) {
        for (EarlyAccept& accept : rules.earlyAccepts(chain, asked)) {
            before.accepts.push_back({rules.family(), std::move(accept)});
        }
    };
    const auto addDrops = [&](Hook hook, const ForeignQuestion& asked, bool certain) {
        for (ForeignDrop& drop : rules.drops(hook, asked)) {
            drop.certain = drop.certain && certain;
            before.drops.push_back({rules.family(), std::move(drop)});
        }
    };
    addDrops(Hook::kPrerouting, question, true);
    bool stays = true;
    const std::vector<Redirection> redirections = rules.redirections(question);
    for (const Redirection& redirection : redirections) {
        ForeignQuestion seen = question;
        seen.ports = redirection.seenPorts ? redirection.seenPorts : redirection.ports;
        seen.destination = redirection.destination;
        seen.toThisMachine = redirection.toThisMachine;
        addAccepts(redirection.toThisMachine ? "INPUT" : "FORWARD", seen);
        addDrops(redirection.toThisMachine ? Hook::kInput : Hook::kForward, seen,
                 redirection.certain);
        stays = stays && !redirection.certain;
        before.redirects.push_back({rules.family(), protocol, redirection, {}});
    }
    if (stays) {
        addDrops(Hook::kInput, question, redirections.empty());
        addAccepts("INPUT", question);
        question.toThisMachine = false;
        addAccepts("FORWARD", question);
    }
    if (std::any_of(before.drops.begin(), before.drops.end(),
                    [](const BeforeFirewall::Drop& item) { return item.drop.certain; })) {
        before.accepts.clear();  // to be accepted in one place does not help
    }
    return before;
}

template <typename Item>
std::string keyOf(const Item& item);

template <>
std::string keyOf(const BeforeFirewall::Accept& item) {
    return item.family + (item.accept.certain ? "!" : "?") + rulesText(item.accept.rules);
}

template <>
std::string keyOf(const BeforeFirewall::Drop& item) {
    return item.family + (item.drop.certain ? "!" : "?") + rulesText(item.drop.rules);
}

template <>
std::string keyOf(const BeforeFirewall::Redirect& item) {
    return item.family + item.protocol + portSpanText(item.redirection.ports) +
           rulesText(item.redirection.rules);
}

template <typename Item>
void addMissing(std::vector<Item>& all, const std::vector<Item>& more) {
    for (const Item& item : more) {
        if (std::none_of(all.begin(), all.end(),
                         [&item](const Item& known) { return keyOf(known) == keyOf(item); })) {
            all.push_back(item);
        }
    }
}

const EarlyAccept& ruleOf(const BeforeFirewall::Accept& item) {
    return item.accept;
}

const ForeignDrop& ruleOf(const BeforeFirewall::Drop& item) {
    return item.drop;
}

/// "-A INPUT -j ACCEPT (IPv4); ... and 4 more".
template <typename Item>
std::string named(const std::vector<Item>& items, bool certain) {
    std::vector<std::string> texts;
    std::size_t more = 0;
    for (const Item& item : items) {
        if (ruleOf(item).certain != certain) {
            continue;
        }
        if (texts.size() < kMostNamed) {
            texts.push_back(boost::join(ruleOf(item).rules, ", ") + " (" + titleOf(item.family) +
                            ")");
        } else {
            ++more;
        }
    }
    std::string text = boost::join(texts, "; ");
    return more == 0 ? text : text + "; and " + std::to_string(more) + " more";
}

/// As certain ones, or where there are none as others: "but dropped by: ...".
template <typename Item>
std::string namedFirst(const std::vector<Item>& items, const char* certainly, const char* maybe) {
    const std::string certain = named(items, true);
    if (!certain.empty()) {
        return certainly + certain;
    }
    const std::string others = named(items, false);
    return others.empty() ? "" : maybe + others;
}

template <typename Item>
Json::Value itemsJson(const std::vector<Item>& items) {
    Json::Value document(Json::arrayValue);
    for (const Item& item : items) {
        Json::Value entry;
        entry["family"] = item.family;
        entry["certain"] = ruleOf(item).certain;
        for (const std::string& rule : ruleOf(item).rules) {
            entry["rules"].append(rule);
        }
        document.append(entry);
    }
    return document;
}

/// ": eth0 blocked, wlan0 allowed"; empty without answers.
std::string innerText(const std::vector<InnerAnswer>& answers) {
    std::vector<std::string> texts;
    texts.reserve(answers.size());
    for (const InnerAnswer& answer : answers) {
        texts.push_back(answer.adapter + " " +
                        (answer.verdict.empty() ? "depends on the packet" : answer.verdict) +
                        (answer.by.empty() ? "" : " (" + answer.by + ")"));
    }
    return (texts.empty() ? "" : ": ") + boost::join(texts, ", ");
}

const char* chainSeenBy(const Redirection& redirection) {
    return redirection.toThisMachine ? "INPUT_FIREWALL" : "FORWARD_FIREWALL";
}

}  // namespace

KernelReport kernelReport(const StoreSnapshot& store) {
    KernelReport report;
    if (!isRoot()) {
        report.hidden = true;
        report.enabled = store.firewallEnabled();
        return report;
    }
    std::future<HookTables> listing = std::async(std::launch::async, hookTables);
    report.listings = filterListings();
    const std::vector<Address> own = ownAddresses();
    HookTables others = listing.get();
    report.unknownRules = std::move(others.unknown);
    for (const auto& [family, filter] : report.listings) {
        if (filter.rules) {
            for (const std::string& chain : openedPolicies(family, *filter.rules)) {
                report.opened.push_back(chain + " of " + titleOf(family));
            }
            report.foreign.emplace_back(family, *filter.rules, std::move(others.byFamily[family]),
                                        own);
        }
    }
    report.unknownOpened = unreadRecord();
    report.enabled = store.firewallEnabled();
    report.families = familiesInForce(report.listings, store);
    report.emptyChains = emptyChains(report.listings, report.families);
    if (isClosed(report)) {
        lookAgain(report, store);
    }
    return report;
}

KernelReport kernelReportIfAny(const StoreSnapshot& store) {
    try {
        return kernelReport(store);
    } catch (const Error& failure) {
        KernelReport report;
        report.enabled = store.firewallEnabled();
        report.unknown = failure.what();
        return report;
    }
}

bool isClosed(const KernelReport& report) {
    return !familiesIn(report, InForce::kClosed).empty();
}

std::string interruptedText(bool enabled) {
    // A reload does nothing while the firewall is disabled.
    return std::string("a reload was interrupted: the machine is closed to new connections; \"")
        .append(enabled ? "tarnfw reload" : "tarnfw enable")
        .append("\" opens it");
}

bool isNothingInForce(const KernelReport& report) {
    std::size_t rules = 0;
    bool wanted = false;
    for (const FamilyInForce& family : report.families) {
        if (family.state == InForce::kUnknown) {
            return false;
        }
        rules += family.loadedRules;
        wanted = wanted || family.state == InForce::kNothing || family.state == InForce::kNoBase;
    }
    return report.enabled && wanted && rules == 0;
}

std::vector<std::string> complaintsOf(const KernelReport& report) {
    std::vector<std::string> texts;
    const bool noBase = !familiesIn(report, InForce::kNoBase).empty();
    if (noBase) {
        texts.push_back(noBaseText(report));
    }
    if (!familiesIn(report, InForce::kNothing).empty() && !(noBase && isNothingInForce(report))) {
        texts.push_back(nothingText(report));
    }
    if (isClosed(report)) {
        texts.push_back(closedText(report));
    }
    if (!familiesIn(report, InForce::kDifferent).empty()) {
        texts.push_back(differentText(report));
    }
    for (const FamilyInForce& family : report.families) {
        if (family.state == InForce::kUnknown) {
            texts.push_back("what is in force for " + titleOf(family.key) +
                            " is not known: " + family.failure);
        }
    }
    if (!report.unknown.empty()) {
        texts.push_back("what the kernel does is not known: " + report.unknown);
    }
    return texts;
}

std::string openedComplaint(const KernelReport& report) {
    if (!report.unknownOpened.empty()) {
        return "policies that were DROP at \"tarnfw base up\" may be ACCEPT now: " +
               report.unknownOpened;
    }
    if (report.opened.empty()) {
        return "";
    }
    const bool one = report.opened.size() == 1;
    return std::string(one ? "the policy of " : "the policies of ") +
           boost::join(report.opened, ", ") +
           (one ? " was DROP at \"tarnfw base up\" and is ACCEPT now; \"tarnfw "
                : " were DROP at \"tarnfw base up\" and are ACCEPT now; \"tarnfw ") +
           (report.enabled ? "reload" : "disable") +
           (one ? "\" puts it back" : "\" puts them back");
}

std::string aheadComplaint(const KernelReport& report) {
    if (!report.enabled) {
        return "";
    }
    std::vector<std::string> places;
    bool inReloading = false;
    for (const ForeignRules& rules : report.foreign) {
        std::set<std::string> chains;
        for (const EarlyAccept& accept : rules.anyEarlyAccepts()) {
            inReloading = inReloading || accept.chain == kReloadingChain;
            if (chains.insert(accept.chain).second) {
                places.push_back(accept.chain + " (" + titleOf(rules.family()) + ")");
            }
        }
    }
    return places.empty() ? ""
                          : "other programs' rules in " + boost::join(places, ", ") +
                                " may accept packets before the firewall's; \"tarnfw reload\" puts "
                                "the firewall's first" +
                                (inReloading ? std::string(" and empties ") + kReloadingChain : "");
}

BeforeFirewall beforeFirewall(const KernelReport& report, const FW::PortCompareST& question,
                              const std::string& adapter, const std::optional<Address>& from,
                              const std::optional<Address>& to) {
    ForeignQuestion asked;
    if (adapter != FW::FW_ADAPTER_GLOBAL) {
        asked.interfaces = isPredefined(adapter) ? interfacesOf(adapter) : std::vector{adapter};
        if (asked.interfaces.empty()) {
            return {};  // no packet comes in through it
        }
    }
    const std::optional<PortSpan> ports = portSpanFrom(question.port);
    (question.portDirect == FW::FW_PORT_DIRECT_DESTINATION ? asked.ports : asked.sourcePorts) =
        ports;
    asked.source = from;
    asked.destination = to;
    BeforeFirewall before;
    for (const ForeignRules& rules : report.foreign) {
        const bool ipv6 = rules.family() == "v6";
        if (from && from->isIpv6() != ipv6) {
            continue;
        }
        for (const FW::FW_PORT_PROTOCOL protocol : protocolsOf(question)) {
            asked.protocol = protocolNumber(protocol, ipv6);
            addTo(before, beforeIn(rules, asked, protocolName(protocol)));
        }
    }
    return before;
}

void addTo(BeforeFirewall& all, const BeforeFirewall& more) {
    addMissing(all.accepts, more.accepts);
    addMissing(all.drops, more.drops);
    for (const BeforeFirewall::Redirect& item : more.redirects) {
        const auto known =
            std::find_if(all.redirects.begin(), all.redirects.end(),
                         [&item](const auto& other) { return keyOf(other) == keyOf(item); });
        if (known == all.redirects.end()) {
            all.redirects.push_back(item);
        } else {
            known->inner.insert(known->inner.end(), item.inner.begin(), item.inner.end());
        }
    }
}

bool hasOtherPorts(const BeforeFirewall& before) {
    return std::any_of(before.redirects.begin(), before.redirects.end(), [](const auto& item) {
        const Redirection& redirection = item.redirection;
        return redirection.seenPorts && (redirection.seenPorts->first != redirection.ports.first ||
                                         redirection.seenPorts->last != redirection.ports.last);
    });
}

std::string acceptsText(const BeforeFirewall& before) {
    return namedFirst(before.accepts,
                      "but accepted before it by: ", "but may be accepted before it by: ");
}

std::string dropsText(const BeforeFirewall& before) {
    return namedFirst(before.drops, "but dropped by: ", "but may be dropped by: ");
}

std::vector<std::string> redirectsText(const BeforeFirewall& before) {
    std::vector<std::string> lines;
    for (const auto& [family, protocol, redirection, inner] : before.redirects) {
        const PortSpan seen = redirection.seenPorts.value_or(redirection.ports);
        lines.push_back(printable(
            protocol + " " + portSpanText(redirection.ports) +
            (redirection.certain ? " is" : " may be") + " handed to " + redirection.target + " (" +
            titleOf(family) + ": " + boost::join(redirection.rules, ", ") + "); the rules of " +
            chainSeenBy(redirection) + " see port " + portSpanText(seen) + innerText(inner)));
    }
    return lines;
}

Json::Value acceptsJson(const BeforeFirewall& before) {
    return itemsJson(before.accepts);
}

Json::Value dropsJson(const BeforeFirewall& before) {
    return itemsJson(before.drops);
}

Json::Value redirectsJson(const BeforeFirewall& before) {
    Json::Value document(Json::arrayValue);
    for (const auto& [family, protocol, redirection, inner] : before.redirects) {
        Json::Value entry;
        entry["family"] = family;
        entry["port"] = protocol + " " + portSpanText(redirection.ports);
        entry["target"] = redirection.target;
        entry["chain"] = chainSeenBy(redirection);
        entry["seenPort"] =
            protocol + " " + portSpanText(redirection.seenPorts.value_or(redirection.ports));
        entry["certain"] = redirection.certain;
        for (const std::string& rule : redirection.rules) {
            entry["rules"].append(rule);
        }
        entry["verdicts"] = Json::Value(Json::arrayValue);
        for (const InnerAnswer& answer : inner) {
            Json::Value item;
            item["adapter"] = answer.adapter;
            item["verdict"] = answer.verdict.empty() ? Json::Value() : Json::Value(answer.verdict);
            if (!answer.by.empty()) {
                item["by"] = answer.by;
            }
            entry["verdicts"].append(item);
        }
        document.append(entry);
    }
    return document;
}

}  // namespace tarnfw
