/// tarnfw explain: the rules that lead to a verdict, or the one that decides about a packet.
#include <netinet/in.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// What "explain" can be asked besides.
struct ExplainQuery {
    PortQuery ports;
    std::string protocol;  ///< instead of ports: "icmp/8"
    std::string profile;   ///< empty: the active one
    std::string out;       ///< of forwarded packets: the adapter that they leave through

    /// Whether the answer is the rule that decides about a packet.
    bool isAboutPackets() const { return !ports.from.empty() || !protocol.empty() || !out.empty(); }
};

/// A protocol without ports.
struct ProtocolAsked {
    std::uint8_t number = 0;
    std::optional<std::uint8_t> icmpType;
    std::string name;  ///< "icmp type 8", "igmp", "protocol 47"
};

/// Reads "icmp", "icmp/8", "igmp" or a number; of IPv6 packets "icmp" is ICMPv6.
std::optional<ProtocolAsked> protocolFrom(const std::string& text, bool ipv6) {
    constexpr char kIcmpWithType[] = "icmp/";
    constexpr int kHighest = 255;
    ProtocolAsked asked;
    const auto byte = [](const std::string& digits) {
        const std::optional<int> number = portFrom(digits);
        return number && *number <= kHighest ? std::optional(static_cast<std::uint8_t>(*number))
                                             : std::nullopt;
    };
    if (text == "igmp") {
        asked.number = IPPROTO_IGMP;
        asked.name = text;
        return asked;
    }
    const bool typed = boost::starts_with(text, kIcmpWithType);
    if (typed || text == "icmp") {
        asked.number = ipv6 ? std::uint8_t{IPPROTO_ICMPV6} : std::uint8_t{IPPROTO_ICMP};
        asked.name = "icmp";
        if (typed) {
            asked.icmpType = byte(text.substr(sizeof kIcmpWithType - 1));
            asked.name += " type " + text.substr(sizeof kIcmpWithType - 1);
        }
        return typed && !asked.icmpType ? std::nullopt : std::optional(asked);
    }
    const std::optional<std::uint8_t> number = byte(text);
    if (!number) {
        return std::nullopt;
    }
    asked.number = *number;
    asked.name = "protocol " + text;
    return asked;
}

// ---- Without a sender: the steps of each verdict ----

const FW::FWRULE& ruleOf(const FW::FWPROFILE& profile, const FW::FWVERDICTSTEP& step) {
    return profile.rules.at(step.list).at(static_cast<std::size_t>(step.position) - 1);
}

std::string stepText(const FW::FWPROFILE& profile, const FW::FWVERDICTSTEP& step) {
    switch (step.kind) {
        case FW::FW_VERDICT_STEP_DEFAULT:
            return "default policy: " + policyText(step.policy);
        case FW::FW_VERDICT_STEP_NO_DEFAULT:
        case FW::FW_VERDICT_STEP_GLOBAL:
            return "no default policy";
        case FW::FW_VERDICT_STEP_RULE:
            return "rule " + std::to_string(step.position) + ": " + ruleText(ruleOf(profile, step));
        case FW::FW_VERDICT_STEP_DECIDED:
            return "decided by global";
        case FW::FW_VERDICT_STEP_LEFT:
            return "no rule of global denies: left to the adapters";
        default:
            return "end of the list: not all addresses";
    }
}

std::string outcomeText(const FW::FWVERDICTSTEP& step) {
    std::string text = verdictText(step.after);
    if (step.kind != FW::FW_VERDICT_STEP_RULE) {
        return text;
    }
    if (step.policy == FW::FW_POLICY_DENY && step.after == FW::FW_POLICY_ALLOW) {
        // Intended: callers rely on this answer.
        text += ": in this check a second denial for some addresses allows";
    }
    return step.last ? text + "; later rules are not evaluated" : text;
}

const char* kindWord(FW::FW_VERDICT_STEP kind) {
    switch (kind) {
        case FW::FW_VERDICT_STEP_DEFAULT:
            return "default";
        case FW::FW_VERDICT_STEP_NO_DEFAULT:
            return "noDefault";
        case FW::FW_VERDICT_STEP_GLOBAL:
            return "global";
        case FW::FW_VERDICT_STEP_RULE:
            return "rule";
        case FW::FW_VERDICT_STEP_DECIDED:
            return "decidedByGlobal";
        case FW::FW_VERDICT_STEP_LEFT:
            return "leftToAdapters";
        default:
            return "end";
    }
}

Json::Value stepDocument(const FW::FWPROFILE& profile, const FW::FWVERDICTSTEP& step) {
    Json::Value document;
    document["kind"] = kindWord(step.kind);
    document["before"] = verdictText(step.before);
    document["after"] = verdictText(step.after);
    if (step.kind == FW::FW_VERDICT_STEP_RULE) {
        document["adapter"] = step.list;
        document["position"] = step.position;
        document["text"] = ruleText(ruleOf(profile, step));
        document["last"] = step.last;
    }
    return document;
}

Json::Value answerDocument(const FW::FWPROFILE& profile, const AdapterAnswer& answer) {
    Json::Value document;
    document["name"] = answer.adapter;
    document["verdict"] = verdictText(answer.verdict);
    for (const PortAnswer& port : answer.ports) {
        Json::Value entry;
        entry["port"] = questionText(port.question);
        entry["verdict"] = verdictText(port.verdict);
        entry["steps"] = Json::Value(Json::arrayValue);
        for (const FW::FWVERDICTSTEP& step : port.steps) {
            entry["steps"].append(stepDocument(profile, step));
        }
        document["ports"].append(entry);
    }
    return document;
}

/// What follows the steps to a verdict, where they do not lead to it: the library's check does not
/// add up the addresses of several rules. `global` is the verdict of "global" for all packets.
std::string restText(const PortAnswer& port, FW::FW_POLICY global, const AdapterNow& now) {
    const FW::FWVERDICTSTEP& last = port.steps.back();
    if (last.kind == FW::FW_VERDICT_STEP_DECIDED && global != last.after && !now.inProfile) {
        return "the other packets: not in the profile";
    }
    return last.after != port.verdict ? "all packets together" : "";
}

/// Puts the verdicts on all packets in place of those of the library's checks. The steps stay: they
/// lead to these.
void takeVerdicts(std::vector<AdapterAnswer>& answers, const std::vector<AdapterAnswer>& exact) {
    for (std::size_t i = 0; i < answers.size(); ++i) {
        answers[i].verdict = exact[i].verdict;
        for (std::size_t port = 0; port < answers[i].ports.size(); ++port) {
            answers[i].ports[port].verdict = exact[i].ports[port].verdict;
        }
    }
}

void printAnswer(const FW::FWPROFILE& profile, const AdapterAnswer& answer,
                 const AdapterAnswer& global, const TunnelAnswer& tunnel,
                 const BeforeFirewall& before) {
    const AdapterNow now = adapterNow(answer.adapter, profile);
    const std::string note = tunnel.owners.empty() ? now.text() : "";
    std::cout << '\n'
              << printable(answer.adapter) << (note.empty() ? "" : " (" + note + ")") << ": "
              << painted(verdictText(answer.verdict), policyPaint(answer.verdict)) << '\n';
    if (!tunnel.owners.empty()) {
        std::cout << "  " << printable(tunnel.text()) << '\n';
    }
    for (const std::string& text : {acceptsText(before), dropsText(before)}) {
        if (!text.empty()) {
            std::cout << "  " << painted(printable(text), Paint::kBad) << '\n';
        }
    }
    Table table;
    for (std::size_t i = 0; i < answer.ports.size(); ++i) {
        const PortAnswer& port = answer.ports[i];
        const FW::FW_POLICY all = global.ports[i].verdict;
        if (answer.ports.size() > 1) {
            table.addRow({{questionText(port.question), Paint::kStrong},
                          {verdictText(port.verdict), policyPaint(port.verdict)}});
        }
        for (const FW::FWVERDICTSTEP& step : port.steps) {
            const bool some = step.kind == FW::FW_VERDICT_STEP_DECIDED && all != step.after;
            table.addRow({{some ? "decided by global for some packets" : stepText(profile, step),
                           Paint::kPlain},
                          {outcomeText(step), policyPaint(step.after)}});
        }
        const std::string rest = port.steps.empty() ? "" : restText(port, all, now);
        if (!rest.empty()) {
            table.addRow(
                {{rest, Paint::kPlain}, {verdictText(port.verdict), policyPaint(port.verdict)}});
        }
    }
    table.print(2);
}

/// What is asked, and what it is answered by.
class Asked {
public:
    Asked(const ExplainQuery& query, std::unique_ptr<Machine> machine)
        : questions(query.protocol.empty() ? questionsOf(query.ports, *machine)
                                           : std::vector<FW::PortCompareST>()),
          context(StoreSession::Access::kRead, std::move(machine)),
          profile(query.profile.empty() ? store().activeProfile() : query.profile),
          isActive(profile == store().activeProfile()) {
        if (!isActive) {
            (void)store().profile(profile);  // that there is one
        }
    }

    const StoreSnapshot& store() const { return context.store(); }
    bool isInForce() const { return isActive && store().firewallEnabled(); }

    /// The profile was not named, and the firewall is disabled.
    bool isUnfiltered(const ExplainQuery& query) const {
        return query.profile.empty() && !store().firewallEnabled();
    }

    std::vector<FW::PortCompareST> questions;
    Context context;
    std::string profile;
    bool isActive;
};

/// Prints a document, or by `print`, and ends the command with its exit status. What the kernel
/// does is in it when the profile is in force.
template <typename Print>
void answer(const ExplainQuery& query, const Asked& asked,
            const std::optional<KernelAnswer>& kernel, Json::Value document, bool allowed,
            const Print& print) {
    if (query.ports.json) {
        if (kernel) {
            kernel->addTo(document);
        } else {
            document["holds"] = Json::Value();
            document["complaints"] = Json::Value(Json::arrayValue);
            document["redirects"] = Json::Value(Json::arrayValue);
        }
        printJson(document);
    } else {
        if (kernel) {
            kernel->printFirst();
        } else {
            std::cout << "Not in force: "
                      << (asked.isActive ? "the firewall is disabled" : "another profile is active")
                      << '\n';
        }
        print();
        if (kernel) {
            kernel->printLast();
        }
    }
    if (kernel) {
        kernel->end(allowed);
    } else if (!allowed) {
        endWith(kExitBlocked);
    }
}

void explainSteps(const ExplainQuery& query) {
    Asked asked(query, std::make_unique<Machine>());
    if (asked.isUnfiltered(query)) {
        (void)answeredDisabled(asked.store(), query.ports, asked.questions);
        return;
    }
    const Meaning meaning(asked.store().profile(asked.profile), asked.context.machine());
    warnNotCounted(meaning);
    const FW::FWPROFILE& profile = meaning.profile();
    const std::vector<std::string> adapters = adaptersAsked(query.ports, profile);
    std::vector<AdapterAnswer> answers = askVerdicts(profile, asked.questions, adapters);
    takeVerdicts(answers, exactVerdicts(meaning, asked.questions, adapters));
    std::optional<KernelAnswer> kernel;
    if (asked.isInForce()) {
        kernel.emplace(asked.store(), query.ports, asked.questions);
    }
    const bool allowed = allAllowed(answers);
    Json::Value document = documentOf(asked.profile, query.ports, asked.questions,
                                      asked.store().firewallEnabled(), allowed);
    std::vector<BeforeFirewall> before;
    for (const AdapterAnswer& found : answers) {
        before.push_back(kernel ? kernel->ask(meaning, found.adapter, verdictOf(found.verdict))
                                : BeforeFirewall());
        Json::Value entry = answerDocument(profile, found);
        adapterNow(found.adapter, profile).addTo(entry);
        tunnelAnswer(meaning, asked.questions, found.adapter).addTo(entry);
        entry["acceptedBefore"] = acceptsJson(before.back());
        entry["droppedBy"] = dropsJson(before.back());
        document["adapters"].append(entry);
    }
    answer(query, asked, kernel, std::move(document), allowed, [&] {
        printHeading(asked.profile, query.ports, asked.questions);
        for (std::size_t i = 0; i < answers.size(); ++i) {
            printAnswer(profile, answers[i], answers.front(),
                        tunnelAnswer(meaning, asked.questions, answers[i].adapter), before[i]);
        }
    });
}

// ---- For one packet, as far as it is known: the one rule that decides ---------------------------

/// Packets of one protocol, and what they are called before their ports.
struct NamedPackets {
    std::string name;  ///< "tcp", "icmp type 8"
    PortPackets packets;
};

/// Without the adapter.
std::vector<NamedPackets> packetsAsked(const ExplainQuery& query,
                                       const std::vector<FW::PortCompareST>& questions) {
    FW::FWPACKET packet;
    packet.chain = query.out.empty() ? FW::FW_CHAIN_INPUT : FW::FW_CHAIN_FORWARD;
    packet.state = FW::FW_STATE_NEW;
    const auto from = addressFrom(query.ports.from);
    const auto to = addressFrom(query.ports.to);
    if (from) {
        packet.source = addressNumber(*from);
    }
    if (to) {
        packet.destination = addressNumber(*to);
    }
    if (from || to) {
        packet.family = familyOf(from ? *from : *to);
    }
    std::vector<NamedPackets> all;
    for (const bool ipv6 : {false, true}) {
        const FW::FW_FAMILY family = ipv6 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4;
        if (query.protocol.empty() || packet.family.value_or(family) != family) {
            continue;
        }
        // ICMP is another protocol in each family.
        const ProtocolAsked asked = *protocolFrom(query.protocol, ipv6);
        FW::FWPACKET one = packet;
        one.family = family;
        one.protocol = asked.number;
        one.icmpType = asked.icmpType;
        all.push_back({asked.name + (ipv6 ? " (IPv6)" : " (IPv4)"), {one, std::nullopt}});
    }
    for (const FW::PortCompareST& question : questions) {
        for (const FW::FWPACKETSET& set : packetsFor(question, "")) {
            FW::FWPACKET one = packet;
            one.protocol = static_cast<std::uint8_t>(set.protocols.front().first);
            PortSpan ports;
            if (!set.sourcePorts.empty() &&
                set.sourcePorts.front().first == set.sourcePorts.front().last) {
                one.sourcePort = set.sourcePorts.front().first;
            }
            if (!set.destinationPorts.empty()) {
                ports = {set.destinationPorts.front().first, set.destinationPorts.front().last};
            }
            all.push_back({one.protocol == IPPROTO_TCP ? "tcp" : "udp", {one, ports}});
        }
    }
    if (all.empty()) {
        throw Error(ErrorKind::kUnusable, "--from needs tcp or udp ports");
    }
    return all;
}

struct NamedDecision {
    std::string packets;  ///< "tcp 20-25", "icmp type 8"
    PortDecision decision;

    /// Without a sender, rules for some of them are no exception.
    FW::FW_POLICY verdict(const ExplainQuery& query) const {
        const bool depends = query.ports.from.empty() && !decision.unless.empty();
        return depends           ? FW::FW_POLICY_MIXED
               : decision.denied ? FW::FW_POLICY_DENY
                                 : FW::FW_POLICY_ALLOW;
    }
};

/// The decisions on one adapter, protocol by protocol.
struct AdapterDecisions {
    std::string adapter;
    AdapterNow now;
    std::vector<NamedDecision> decisions;
    BeforeFirewall before;
};

AdapterDecisions decisionsOn(const Meaning& meaning, const std::string& adapter,
                             std::vector<NamedPackets> asked, const std::string& out) {
    AdapterDecisions found{adapter, adapterNow(adapter, meaning.profile()), {}, {}};
    for (NamedPackets& named : asked) {
        named.packets.packet.in = interfaceFor(meaning, adapter);
        if (!out.empty()) {
            named.packets.packet.out = interfaceFor(meaning, out);
        }
        for (PortDecision& decision : decisionsFor(meaning, named.packets)) {
            const std::string ports =
                decision.ports ? " " + portSpanText(*decision.ports) : std::string();
            found.decisions.push_back({named.name + ports, std::move(decision)});
        }
    }
    return found;
}

const char* deciderWord(FW::FW_ORIGIN origin) {
    switch (origin) {
        case FW::FW_ORIGIN_RULE:
            return "rule";
        case FW::FW_ORIGIN_DEFAULT:
            return "defaultPolicy";
        case FW::FW_ORIGIN_LOOPBACK:
            return "loopback";
        case FW::FW_ORIGIN_NEIGHBOURS:
            return "neighbours";
        case FW::FW_ORIGIN_ESTABLISHED:
            return "established";
        default:
            return "nothing";
    }
}

/// "adapter" of a rule or default policy, and of a rule "position" and "text".
Json::Value placeDocument(const Meaning& meaning, std::size_t number) {
    Json::Value document(Json::objectValue);
    const FW::FWPLACE place = placeOf(meaning, number);
    if (rulePlaceOf(place)) {
        document["adapter"] = place.adapter;
    }
    if (place.origin == FW::FW_ORIGIN_RULE) {
        document["position"] = place.position;
        document["text"] = ruleText(meaning.profile()
                                        .rules.at(place.adapter)
                                        .at(static_cast<std::size_t>(place.position) - 1));
    }
    return document;
}

Json::Value decisionDocument(const Meaning& meaning, const NamedDecision& named) {
    const PortDecision& decision = named.decision;
    Json::Value document = placeDocument(meaning, decision.by);
    document["port"] = named.packets;
    document["by"] = deciderWord(placeOf(meaning, decision.by).origin);
    document["allowed"] = !decision.denied;
    const std::string tunnel = tunnelOf(meaning, decision.by);
    if (!tunnel.empty()) {
        document["tunnel"] = tunnel;
    }
    document["unless"] = Json::Value(Json::arrayValue);
    for (const std::size_t number : decision.unless) {
        const FW::FWPLACE place = placeOf(meaning, number);
        Json::Value other = placeDocument(meaning, number);
        if (place.origin != FW::FW_ORIGIN_RULE) {
            other["by"] = deciderWord(place.origin);
        }
        document["unless"].append(other);
    }
    return document;
}

void printDecisions(const ExplainQuery& query, const Meaning& meaning,
                    const std::vector<AdapterDecisions>& found) {
    Table table({"Adapter", query.protocol.empty() ? "Port" : "Protocol", "Verdict", "Decided by"});
    for (const AdapterDecisions& adapter : found) {
        for (const NamedDecision& named : adapter.decisions) {
            const PortDecision& decision = named.decision;
            std::string reason = reasonText(meaning, decision.by);
            for (const std::size_t number : decision.unless) {
                reason.append("; unless this matches: ").append(reasonText(meaning, number));
            }
            if (decision.tooComplex) {
                reason.append("; too complex: some of these cannot match");
            }
            reason =
                joined(reason, tunnelOf(meaning, decision.by).empty() ? adapter.now.text() : "");
            reason = joined(
                reason, decision.denied ? acceptsText(adapter.before) : dropsText(adapter.before));
            const FW::FW_POLICY verdict = named.verdict(query);
            table.addRow({{adapter.adapter, Paint::kPlain},
                          {named.packets, Paint::kPlain},
                          {verdictText(verdict), policyPaint(verdict)},
                          {reason, Paint::kPlain}});
        }
    }
    table.print();
}

/// Prints what decides, adapter by adapter; ends the command with kExitBlocked when something is
/// denied.
void explainPackets(const ExplainQuery& query) {
    const PortQuery& options = query.ports;
    if (!options.to.empty() && !options.from.empty() &&
        addressFrom(options.to)->isIpv6() != addressFrom(options.from)->isIpv6()) {
        throw UsageError("--to: not of the same family as --from");
    }
    if (options.adapter == FW::FW_ADAPTER_GLOBAL || query.out == FW::FW_ADAPTER_GLOBAL) {
        throw UsageError(options.adapter == FW::FW_ADAPTER_GLOBAL
                             ? "--adapter: no packet comes in through \"global\"; name another "
                               "adapter, or none for all"
                             : "--out: no packet leaves through \"global\"; name another adapter");
    }
    Asked asked(query, std::make_unique<Machine>());
    if (asked.isUnfiltered(query)) {
        (void)answeredDisabled(asked.store(), options, asked.questions);
        return;
    }
    const Meaning meaning(asked.store().profile(asked.profile), asked.context.machine());
    warnNotCounted(meaning);
    if (!query.out.empty()) {
        requireCoveredAdapter(query.out, adaptersOf(meaning.profile()));
    }
    std::optional<KernelAnswer> kernel;
    if (asked.isInForce()) {
        kernel.emplace(asked.store(), options, asked.questions);
    }
    const std::vector<NamedPackets> packets = packetsAsked(query, asked.questions);
    std::vector<AdapterDecisions> found;
    bool allowed = true;
    for (const std::string& adapter : adaptersAsked(options, meaning.profile())) {
        found.push_back(decisionsOn(meaning, adapter, packets, query.out));
        KernelAnswer::Verdict verdict;
        for (const NamedDecision& named : found.back().decisions) {
            const FW::FW_POLICY one = named.verdict(query);
            verdict.blocks = verdict.blocks || one != FW::FW_POLICY_ALLOW;
            verdict.allows = verdict.allows || one != FW::FW_POLICY_DENY;
        }
        allowed = allowed && !verdict.blocks;
        // Rules of others are known for packets to this machine only.
        if (kernel && query.out.empty()) {
            found.back().before = kernel->ask(meaning, adapter, verdict);
        }
    }
    Json::Value document = documentOf(asked.profile, options, asked.questions,
                                      asked.store().firewallEnabled(), allowed);
    if (!query.protocol.empty()) {
        document["protocol"] = query.protocol;
        document["ports"] = Json::Value(Json::arrayValue);
    }
    for (const auto& [key, value] : {std::pair<const char*, std::string>("from", options.from),
                                     {"to", options.to},
                                     {"out", query.out}}) {
        if (!value.empty()) {
            document[key] = value;
        }
    }
    for (const AdapterDecisions& adapter : found) {
        Json::Value entry;
        entry["name"] = adapter.adapter;
        adapter.now.addTo(entry);
        for (const NamedDecision& named : adapter.decisions) {
            entry["decisions"].append(decisionDocument(meaning, named));
        }
        entry["acceptedBefore"] = acceptsJson(adapter.before);
        entry["droppedBy"] = dropsJson(adapter.before);
        document["adapters"].append(entry);
    }
    answer(query, asked, kernel, std::move(document), allowed, [&] {
        std::string subject = query.protocol.empty() ? "" : "protocol " + query.protocol;
        subject += query.out.empty() ? ""
                                     : (subject.empty() ? "" : ", ") +
                                           std::string("forwarded out through ") + query.out;
        printHeading(asked.profile, options, asked.questions, subject);
        printDecisions(query, meaning, found);
    });
}

// ---- The command line
// ----------------------------------------------------------------------------

/// The error of a protocol; empty for a valid one.
std::string protocolComplaint(const std::string& text) {
    return protocolFrom(text, false)
               ? std::string()
               : inQuotes(text) + " is not a protocol such as icmp, icmp/8, igmp or 47";
}

/// The error of an address; empty for a valid one.
std::string addressComplaint(const std::string& text) {
    return addressFrom(text) ? std::string() : inQuotes(text) + " is not an address";
}

}  // namespace

void addExplainCommand(Command& app) {
    Command& command =
        app.subcommand("explain",
                       "Show whether a port or a service gets through, and the rules that lead to "
                       "each verdict");
    const auto query = std::make_shared<ExplainQuery>();
    addQueryOptions(command, query->ports);
    command
        .option("--protocol", query->protocol,
                "A protocol without ports: icmp, icmp/8 (a type), igmp, or a number such as 47")
        .check(protocolComplaint)
        .exactlyOneOf(kQuerySubject);
    command.option("--from", query->ports.from, "Show the one rule that decides for a sender")
        .placeholder("ADDRESS")
        .check(addressComplaint);
    command
        .option("--to", query->ports.to,
                "The machine's address that the sender uses, or with --out the receiver's")
        .placeholder("ADDRESS")
        .check(addressComplaint);
    command.option("--out", query->out, "Of packets that are forwarded: through this adapter")
        .placeholder("NAME");
    command
        .option("--profile", query->profile,
                "Ask about a stored profile, active or not; by default about the active one")
        .placeholder("NAME");
    command.footer(std::string(kPortQueryFooter) +
                   "\nWith --from, --out or --protocol, the rules are evaluated as in the kernel; "
                   "country rules count as in a kernel that has the \"geoip\" match. \"unless\" "
                   "names rules that depend on what is not said: the source port, --to, --from. "
                   "Rules of other programs are not looked up for forwarded packets and protocols "
                   "without ports. A profile that is not in force is answered for as if it were.\n"
                   "Examples:\n"
                   "  tarnfw explain --port tcp/20-25 --adapter eth0 --from 192.168.1.20\n"
                   "  tarnfw explain --port tcp/80 --adapter eth0 --out eth1 --to 10.0.0.5\n"
                   "  tarnfw explain --protocol icmp/8 --profile default");
    command.run([query] {
        if (!query->ports.to.empty() && query->ports.from.empty() && query->out.empty()) {
            throw UsageError("--to needs --from or --out");
        }
        if (query->isAboutPackets()) {
            explainPackets(*query);
        } else {
            explainSteps(*query);
        }
    });
}

}  // namespace tarnfw
