/// tarnfw blocked, explain: whether a port or a service gets through, and why.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/decision.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

// ---- what both are asked ----

struct BlockedOptions {
    std::string service;  ///< or `port`
    std::string port;     ///< "tcp/22"
    std::string adapter;  ///< empty: all
    std::string from;     ///< of "explain": a sender's address
    std::string to;       ///< the machine's address that the sender uses; may be empty
    bool json = false;
};

/// The machine's adapters that no predefined adapter of the profile covers.
std::vector<std::string> uncovered(const std::vector<std::string>& covered) {
    std::vector<std::string> meant;
    for (const char* const predefined : {FW::FW_ADAPTER_PPPOE, FW::FW_ADAPTER_VPN}) {
        if (std::find(covered.begin(), covered.end(), predefined) != covered.end()) {
            const std::vector<std::string> interfaces = interfacesOf(predefined);
            meant.insert(meant.end(), interfaces.begin(), interfaces.end());
        }
    }
    std::vector<std::string> others;
    for (const std::string& adapter : machineAdapters()) {
        if (std::find(meant.begin(), meant.end(), adapter) == meant.end()) {
            others.push_back(adapter);
        }
    }
    return others;
}

std::string subjectText(const BlockedOptions& options,
                        const std::vector<FW::PortCompareST>& questions) {
    std::string text;
    for (const FW::PortCompareST& question : questions) {
        text.append(text.empty() ? "" : ", ").append(questionText(question));
    }
    return options.service.empty() ? text : "service " + options.service + " (" + text + ")";
}

/// Adds the options but `from` and `to`.
void addBlockedOptions(Command& command, BlockedOptions& options) {
    constexpr char kSubject[] = "What to ask about";
    command.option("--service", options.service, "A service of the catalogue, such as ssh")
        .exactlyOneOf(kSubject);
    command.option("--port", options.port, "Ports: tcp/22, udp/5000-5010, both/53, tcp+udp/53")
        .check([](const std::string& text) {
            FW::PortCompareST question{};
            return portQuestionFrom(text, question);
        })
        .exactlyOneOf(kSubject);
    command.option("--adapter", options.adapter,
                   "One adapter; by default all of the profile and the machine");
    addJsonFlag(command, options.json);
}

/// The queried ports, one question each. Throws Error for an unknown service.
std::vector<FW::PortCompareST> questionsOf(const BlockedOptions& options, Machine& machine) {
    if (options.service.empty()) {
        FW::PortCompareST question{};
        (void)portQuestionFrom(options.port, question);  // has passed as an option
        return {question};
    }
    std::vector<FW::PortCompareST> questions =
        portsOf(machine.requireCatalogue().require(options.service));
    if (questions.empty()) {
        throw Error(ErrorKind::kUnusable, "service " + inQuotes(options.service) + " has no ports");
    }
    return questions;
}

/// The queried adapters: the given one, or those of the profile and of the machine without
/// "global". Throws Error for an unknown one.
std::vector<std::string> adaptersAsked(const BlockedOptions& options,
                                       const FW::FWPROFILE& profile) {
    std::vector<std::string> adapters = adaptersOf(profile);
    if (!options.adapter.empty()) {
        requireAdapter(options.adapter, adapters);
        return {options.adapter};
    }
    for (const std::string& other : uncovered(adapters)) {
        adapters.push_back(other);
    }
    std::sort(adapters.begin(), adapters.end());
    adapters.erase(std::unique(adapters.begin(), adapters.end()), adapters.end());
    adapters.erase(std::remove(adapters.begin(), adapters.end(), FW::FW_ADAPTER_GLOBAL),
                   adapters.end());
    return adapters;
}

/// The packets of a question through an adapter, one for each protocol that has ports.
std::vector<Packet> packetsFor(const FW::PortCompareST& question, const std::string& adapter) {
    Packet packet;
    packet.adapters = isPredefined(adapter) ? std::vector{adapter} : adapterNamesOf(adapter);
    const std::optional<PortSpan> span = portSpanFrom(question.port);
    if (!span) {
        return {};
    }
    if (question.portDirect != FW::FW_PORT_DIRECT_DESTINATION) {
        packet.sourcePorts = span;
    } else {
        packet.ports = *span;
    }
    std::vector<Packet> packets;
    for (const auto protocol : {FW::FW_PORT_PROTOCOL_TCP, FW::FW_PORT_PROTOCOL_UDP}) {
        if (question.protocol == protocol || question.protocol == FW::FW_PORT_PROTOCOL_TCP_UDP) {
            packet.protocol = protocol;
            packets.push_back(packet);
        }
    }
    return packets;
}

/// What the rules do to packets that a rule of others redirects, with the address and the port that
/// they then have. Without a sender: to those of all.
InnerAnswer innerAnswer(Decider& decider, const BeforeFirewall::Redirect& redirect,
                        const std::string& adapter, const std::optional<Address>& from) {
    const Redirection& redirection = redirect.redirection;
    const FW::PortCompareST question{
        FW::FW_PORT_DIRECT_DESTINATION,
        redirect.protocol == "udp" ? FW::FW_PORT_PROTOCOL_UDP : FW::FW_PORT_PROTOCOL_TCP,
        portSpanText(redirection.seenPorts.value_or(redirection.ports))};
    Packet packet = packetsFor(question, adapter).front();
    packet.source = from.value_or(Address(redirect.family == "v6", {}));
    packet.destination = redirection.destination;
    if (!redirection.toThisMachine) {
        const auto out = packet.destination ? interfaceTowards(*packet.destination) : std::nullopt;
        packet.forwardedTo = out ? adapterNamesOf(*out) : std::vector<std::string>();
    }
    InnerAnswer answer{adapter, "", ""};
    if (!from) {
        const std::optional<FW::FW_POLICY> verdict = decider.verdictForAll(packet);
        answer.verdict = verdict ? verdictText(*verdict) : "";
        return answer;
    }
    const std::vector<Decision> decisions = decider.decide(packet);
    if (decisions.size() == 1 && decisions.front().unless.empty()) {
        answer.verdict =
            verdictText(decisions.front().denied ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW);
        answer.by = decider.reason(decisions.front());
    }
    return answer;
}

/// What the kernel does of the answer.
class KernelAnswer {
public:
    KernelAnswer(const StoreSnapshot& store, const BlockedOptions& options,
                 const std::vector<FW::PortCompareST>& questions)
        : report_(kernelReportIfAny(store)), complaints_(complaintsOf(report_)) {
        if (!options.from.empty()) {
            from_ = addressFrom(options.from);
            to_ = options.to.empty() ? std::nullopt : addressFrom(options.to);
        }
        questions_ = questions;
    }

    /// What comes before the firewall's rules on an adapter. Where those block the packets, it may
    /// make the answer wrong.
    const BeforeFirewall& ask(Decider& decider, const std::string& adapter, bool blocked) {
        BeforeFirewall before;
        for (const FW::PortCompareST& question : questions_) {
            addTo(before, beforeFirewall(report_, question, adapter, from_, to_));
        }
        if (adapter == FW::FW_ADAPTER_GLOBAL) {
            before.redirects.clear();  // the adapters' answers have them
        }
        for (BeforeFirewall::Redirect& redirect : before.redirects) {
            redirect.inner.push_back(innerAnswer(decider, redirect, adapter, from_));
        }
        if (!blocked) {
            before.accepts.clear();  // they accept what the firewall accepts
        }
        accepted_ = accepted_ || !before.accepts.empty();
        addTo(all_, before);
        return before_[adapter] = std::move(before);
    }

    /// Whether the kernel does what the answer says, as far as can be seen.
    bool holds() const { return complaints_.empty() && !accepted_ && !hasOtherPorts(all_); }

    /// Before the answer.
    void printFirst() const {
        for (const std::string& text : complaints_) {
            std::cout << painted(printable("The kernel does not do this: " + text), Paint::kBad)
                      << '\n';
        }
    }

    /// After it.
    void printLast() const {
        for (const std::string& line : redirectsText(all_)) {
            std::cout << painted(line, Paint::kDoubtful) << '\n';
        }
        for (const std::string& text : report_.unknownNat) {
            std::cout << painted(printable("It may be redirected: " + text), Paint::kDoubtful)
                      << '\n';
        }
    }

    void addTo(Json::Value& document) const {
        document["holds"] = holds();
        document["complaints"] = Json::Value(Json::arrayValue);
        for (const std::string& text : complaints_) {
            document["complaints"].append(text);
        }
        document["redirects"] = redirectsJson(all_);
    }

    /// Ends the command with the exit status of the answer.
    void end(bool allowed) const {
        if (!holds()) {
            endWith(kExitNotInForce);
        }
        if (!allowed) {
            endWith(kExitBlocked);
        }
    }

private:
    void addTo(BeforeFirewall& all, const BeforeFirewall& more) const { tarnfw::addTo(all, more); }

    KernelReport report_;
    std::vector<std::string> complaints_;
    std::vector<FW::PortCompareST> questions_;
    std::optional<Address> from_;
    std::optional<Address> to_;
    std::map<std::string, BeforeFirewall> before_;
    BeforeFirewall all_;
    bool accepted_ = false;
};

/// The common members of the JSON documents; "adapters" is an empty array.
Json::Value documentOf(const StoreSnapshot& store, const BlockedOptions& options,
                       const std::vector<FW::PortCompareST>& questions, bool enabled,
                       bool allowed) {
    Json::Value document;
    document["enabled"] = enabled;
    document["profile"] = store.activeProfile();
    if (!options.service.empty()) {
        document["service"] = options.service;
    }
    for (const FW::PortCompareST& question : questions) {
        document["ports"].append(questionText(question));
    }
    document["adapters"] = Json::Value(Json::arrayValue);
    document["allowed"] = allowed;
    return document;
}

/// "Profile "home", service ssh (tcp/22)".
void printHeading(const StoreSnapshot& store, const BlockedOptions& options,
                  const std::vector<FW::PortCompareST>& questions) {
    std::cout << "Profile " << inQuotes(store.activeProfile()) << ", "
              << printable(subjectText(options, questions)) << '\n';
}

/// If the firewall is disabled, prints the answer for that. Returns whether it did.
bool answeredDisabled(const StoreSnapshot& store, const BlockedOptions& options,
                      const std::vector<FW::PortCompareST>& questions) {
    if (store.firewallEnabled()) {
        return false;
    }
    if (!options.adapter.empty()) {
        (void)adaptersAsked(options, store.profile(""));  // an unknown name is an error anyway
    }
    const KernelAnswer kernel(store, options, questions);
    if (options.json) {
        Json::Value document = documentOf(store, options, questions, false, true);
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        std::cout << "Firewall disabled: nothing is blocked\n";
    }
    kernel.end(true);
    return true;
}

// ---- 6in4 tunnels ----

/// The answer for IPv6 through an interface that is the 6in4 tunnel of other adapters: the verdict
/// on it does not know that the rules of those are repeated for it.
struct TunnelAnswer {
    std::vector<std::string> owners;       ///< none: it is no such interface
    std::optional<FW::FW_POLICY> verdict;  ///< none: it depends on the packets

    bool blocks() const { return !owners.empty() && verdict != FW::FW_POLICY_ALLOW; }

    std::string text() const {
        if (owners.empty()) {
            return "";
        }
        return "IPv6 through this tunnel of " + boost::join(owners, ", ") + ", where " +
               (owners.size() == 1 ? owners.front() + "'s" : "their") +
               " rules apply too: " + (verdict ? verdictText(*verdict) : "depends on the packet");
    }

    void addTo(Json::Value& entry) const {
        for (const std::string& owner : owners) {
            entry["tunnelOf"].append(owner);
            entry["ipv6Verdict"] = verdict ? Json::Value(verdictText(*verdict)) : Json::Value();
        }
    }
};

TunnelAnswer tunnelAnswer(Decider& decider, const std::vector<FW::PortCompareST>& questions,
                          const std::string& adapter) {
    TunnelAnswer answer;
    if (isPredefined(adapter)) {
        return answer;
    }
    answer.owners = decider.tunnelOwners(adapter);
    if (answer.owners.empty()) {
        return answer;
    }
    std::set<std::optional<FW::FW_POLICY>> verdicts;
    for (const FW::PortCompareST& question : questions) {
        for (Packet& packet : packetsFor(question, adapter)) {
            packet.source = Address(true, {});
            verdicts.insert(decider.verdictForAll(packet));
        }
    }
    if (verdicts.size() > 1 && verdicts.count(std::nullopt) == 0) {
        answer.verdict = FW::FW_POLICY_MIXED;
    } else if (verdicts.size() == 1) {
        answer.verdict = *verdicts.begin();
    }
    return answer;
}

// ---- blocked ----

/// A note on a verdict that needs one.
std::string noteOn(const AdapterAnswer& answer) {
    const bool global = answer.adapter == FW::FW_ADAPTER_GLOBAL;
    if (!FW::TARNFW_IPTABLES_RULES().adapterIsEnabled(answer.adapter)) {
        return "absent";
    }
    switch (answer.verdict) {
        case FW::FW_POLICY_NONE:
            return global ? "left to the adapters" : "no rule or default policy decides: allowed";
        case FW::FW_POLICY_MIXED:
            return "allowed from some addresses, blocked from others";
        default:
            return global ? "for every adapter" : "";
    }
}

/// Whether a verdict says that packets do not get through.
bool isBlocked(FW::FW_POLICY verdict) {
    return verdict == FW::FW_POLICY_DENY || verdict == FW::FW_POLICY_MIXED;
}

std::string joined(const std::string& one, const std::string& other) {
    return one.empty() || other.empty() ? one + other : one + "; " + other;
}

void blocked(const BlockedOptions& options) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const std::vector<FW::PortCompareST> questions = questionsOf(options, *machine);
    Context context(StoreSession::Access::kRead, std::move(machine));
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    const std::vector<AdapterAnswer> answers =
        askVerdicts(questions, adaptersAsked(options, store.profile("")));
    KernelAnswer kernel(store, options, questions);
    Decider decider(store.profile(""), context.machine(), store.applyMode());
    bool allowed = allAllowed(answers);
    Json::Value document = documentOf(store, options, questions, true, allowed);
    Table table({"Adapter", "Verdict", ""});
    for (const AdapterAnswer& answer : answers) {
        const TunnelAnswer tunnel = tunnelAnswer(decider, questions, answer.adapter);
        allowed = allowed && !tunnel.blocks();
        const BeforeFirewall& before =
            kernel.ask(decider, answer.adapter, isBlocked(answer.verdict) || tunnel.blocks());
        Json::Value entry;
        tunnel.addTo(entry);
        entry["name"] = answer.adapter;
        entry["verdict"] = verdictText(answer.verdict);
        entry["acceptedBefore"] = acceptsJson(before);
        document["adapters"].append(entry);
        table.addRow(
            {{answer.adapter, Paint::kPlain},
             {verdictText(answer.verdict), policyPaint(answer.verdict)},
             {joined(joined(noteOn(answer), tunnel.text()), acceptsText(before)), Paint::kPlain}});
    }
    if (options.json) {
        document["allowed"] = allowed;
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        printHeading(store, options, questions);
        table.print();
        kernel.printLast();
    }
    kernel.end(allowed);
}

// ---- explain ----

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
        document["list"] = step.list;
        document["position"] = step.position;
        document["rule"] = ruleText(ruleOf(profile, step));
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

void printAnswer(const FW::FWPROFILE& profile, const AdapterAnswer& answer,
                 const TunnelAnswer& tunnel, const BeforeFirewall& before) {
    std::cout << '\n'
              << printable(answer.adapter) << ": "
              << painted(verdictText(answer.verdict), policyPaint(answer.verdict)) << '\n';
    if (!tunnel.owners.empty()) {
        std::cout << "  " << printable(tunnel.text()) << '\n';
    }
    const std::string accepted = acceptsText(before);
    if (!accepted.empty()) {
        std::cout << "  " << painted(printable(accepted), Paint::kBad) << '\n';
    }
    Table table;
    for (const PortAnswer& port : answer.ports) {
        if (answer.ports.size() > 1) {
            table.addRow({{questionText(port.question), Paint::kStrong},
                          {verdictText(port.verdict), policyPaint(port.verdict)}});
        }
        for (const FW::FWVERDICTSTEP& step : port.steps) {
            table.addRow({{stepText(profile, step), Paint::kPlain},
                          {outcomeText(step), policyPaint(step.after)}});
        }
    }
    table.print(2);
}

void explain(const BlockedOptions& options) {
    auto machine = std::make_unique<Machine>();
    const std::vector<FW::PortCompareST> questions = questionsOf(options, *machine);
    Context context(StoreSession::Access::kRead, std::move(machine));
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    const FW::FWPROFILE& profile = store.profile("");
    const std::vector<AdapterAnswer> answers =
        askVerdicts(questions, adaptersAsked(options, profile));
    KernelAnswer kernel(store, options, questions);
    Decider decider(profile, context.machine(), store.applyMode());
    std::map<std::string, TunnelAnswer> tunnels;
    bool allowed = allAllowed(answers);
    for (const AdapterAnswer& answer : answers) {
        TunnelAnswer& tunnel = tunnels[answer.adapter];
        tunnel = tunnelAnswer(decider, questions, answer.adapter);
        allowed = allowed && !tunnel.blocks();
    }
    const auto before = [&](const AdapterAnswer& answer) {
        return kernel.ask(decider, answer.adapter,
                          isBlocked(answer.verdict) || tunnels[answer.adapter].blocks());
    };
    if (options.json) {
        Json::Value document = documentOf(store, options, questions, true, allowed);
        for (const AdapterAnswer& answer : answers) {
            Json::Value entry = answerDocument(profile, answer);
            tunnels[answer.adapter].addTo(entry);
            entry["acceptedBefore"] = acceptsJson(before(answer));
            document["adapters"].append(entry);
        }
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        printHeading(store, options, questions);
        for (const AdapterAnswer& answer : answers) {
            printAnswer(profile, answer, tunnels[answer.adapter], before(answer));
        }
        kernel.printLast();
    }
    kernel.end(allowed);
}

// ---- explain --from: the one rule that decides for a sender ----

/// The decisions on one adapter, protocol by protocol.
struct AdapterDecisions {
    std::string adapter;
    std::vector<std::pair<FW::FW_PORT_PROTOCOL, Decision>> decisions;
    BeforeFirewall before;
};

AdapterDecisions decisionsOn(Decider& decider, const BlockedOptions& options,
                             const std::vector<FW::PortCompareST>& questions,
                             const std::string& adapter) {
    AdapterDecisions found{adapter, {}, {}};
    for (const FW::PortCompareST& question : questions) {
        for (Packet& packet : packetsFor(question, adapter)) {
            packet.source = addressFrom(options.from).value();
            packet.destination = options.to.empty() ? std::nullopt : addressFrom(options.to);
            for (Decision& decision : decider.decide(packet)) {
                found.decisions.emplace_back(packet.protocol, std::move(decision));
            }
        }
    }
    if (found.decisions.empty()) {
        throw Error(ErrorKind::kUnusable, "--from needs tcp or udp ports");
    }
    return found;
}

Json::Value placeDocument(const Decider& decider, const RulePlace& place) {
    Json::Value document;
    document["list"] = place.adapter;
    document["position"] = static_cast<Json::UInt64>(place.position);
    document["rule"] = ruleText(decider.ruleAt(place));
    return document;
}

const char* deciderWord(DecidedBy by) {
    switch (by) {
        case DecidedBy::kRule:
            return "rule";
        case DecidedBy::kDefaultPolicy:
            return "defaultPolicy";
        case DecidedBy::kLoopback:
            return "loopback";
        case DecidedBy::kEstablished:
            return "established";
        default:
            return "nothing";
    }
}

Json::Value decisionDocument(const Decider& decider, FW::FW_PORT_PROTOCOL protocol,
                             const Decision& decision) {
    Json::Value document(Json::objectValue);
    if (decision.by == DecidedBy::kRule) {
        document = placeDocument(decider, decision.place);
    } else if (decision.by == DecidedBy::kDefaultPolicy) {
        document["list"] = decision.place.adapter;
    }
    document["port"] = protocolText(protocol) + "/" + portSpanText(decision.ports);
    document["by"] = deciderWord(decision.by);
    document["allowed"] = !decision.denied;
    if (!decision.tunnel.empty()) {
        document["tunnel"] = decision.tunnel;
    }
    document["unless"] = Json::Value(Json::arrayValue);
    for (const RulePlace& place : decision.unless) {
        document["unless"].append(placeDocument(decider, place));
    }
    return document;
}

void printDecisions(const Decider& decider, const std::vector<AdapterDecisions>& found) {
    Table table({"Adapter", "Port", "Verdict", "Decided by"});
    for (const AdapterDecisions& adapter : found) {
        for (const auto& [protocol, decision] : adapter.decisions) {
            std::string reason = decider.reason(decision);
            for (const RulePlace& place : decision.unless) {
                reason.append("; unless this matches: ")
                    .append(placeText(place) + ": " + ruleText(decider.ruleAt(place)));
            }
            if (decision.denied) {
                reason = joined(reason, acceptsText(adapter.before));
            }
            const FW::FW_POLICY verdict =
                decision.denied ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW;
            table.addRow(
                {{adapter.adapter, Paint::kPlain},
                 {protocolText(protocol) + "/" + portSpanText(decision.ports), Paint::kPlain},
                 {verdictText(verdict), policyPaint(verdict)},
                 {reason, Paint::kPlain}});
        }
    }
    table.print();
}

/// Prints what decides, adapter by adapter; ends the command with kExitBlocked when something is
/// denied.
void explainSender(const BlockedOptions& options) {
    if (!options.to.empty() &&
        addressFrom(options.to)->isIpv6() != addressFrom(options.from)->isIpv6()) {
        throw UsageError("--to: not of the same family as --from");
    }
    if (options.adapter == FW::FW_ADAPTER_GLOBAL) {
        throw UsageError(
            "--adapter: no packet comes in through \"global\"; name another adapter, or none for "
            "all");
    }
    auto machine = std::make_unique<Machine>();
    const std::vector<FW::PortCompareST> questions = questionsOf(options, *machine);
    Context context(StoreSession::Access::kRead, std::move(machine));
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    Decider decider(store.profile(""), context.machine(), store.applyMode());
    KernelAnswer kernel(store, options, questions);
    std::vector<AdapterDecisions> found;
    bool allowed = true;
    for (const std::string& adapter : adaptersAsked(options, decider.profile())) {
        found.push_back(decisionsOn(decider, options, questions, adapter));
        bool denied = false;
        for (const auto& [protocol, decision] : found.back().decisions) {
            denied = denied || decision.denied;
        }
        allowed = allowed && !denied;
        found.back().before = kernel.ask(decider, adapter, denied);
    }
    if (options.json) {
        Json::Value document = documentOf(store, options, questions, true, allowed);
        document["from"] = options.from;
        if (!options.to.empty()) {
            document["to"] = options.to;
        }
        for (const AdapterDecisions& adapter : found) {
            Json::Value entry;
            entry["name"] = adapter.adapter;
            for (const auto& [protocol, decision] : adapter.decisions) {
                entry["decisions"].append(decisionDocument(decider, protocol, decision));
            }
            entry["acceptedBefore"] = acceptsJson(adapter.before);
            document["adapters"].append(entry);
        }
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        printHeading(store, options, questions);
        printDecisions(decider, found);
        kernel.printLast();
    }
    kernel.end(allowed);
}

// ---- The command line ----

constexpr char kFooter[] =
    "Exit status 0 when nothing is blocked, 10 when something is blocked or mixed, 11 when the "
    "kernel "
    "does not do what the answer says.\nUndecided does not block: \"global\" then leaves the "
    "verdict "
    "to the adapters, and an adapter allows what no rule decides. The verdicts are for the stored "
    "rules of the active profile; a disabled firewall blocks nothing. Where the kernel does not "
    "have "
    "those rules, where rules of other programs may accept what they block, and where packets are "
    "handed to another port before they meet them, the answer says so.";

/// The error of an address; empty for a valid one.
std::string addressComplaint(const std::string& text) {
    return addressFrom(text) ? std::string() : inQuotes(text) + " is not an address";
}

void addBlocked(Command& app) {
    Command& command = app.subcommand(
        "blocked", "Show whether a port or a service gets through, adapter by adapter");
    const auto options = std::make_shared<BlockedOptions>();
    addBlockedOptions(command, *options);
    command.footer(kFooter);
    command.run([options] { blocked(*options); });
}

void addExplain(Command& app) {
    Command& command =
        app.subcommand("explain", "Show the same, with the rules that lead to each verdict");
    const auto options = std::make_shared<BlockedOptions>();
    addBlockedOptions(command, *options);
    Option& from =
        command.option("--from", options->from, "Show the one rule that decides for a sender")
            .check(addressComplaint);
    command.option("--to", options->to, "The machine's address that the sender uses")
        .check(addressComplaint)
        .needs(from);
    command.footer(std::string(kFooter) +
                   "\nWith --from, the rules are evaluated as in the kernel; country rules count "
                   "as in a kernel that has the \"geoip\" match. \"unless\" names rules that "
                   "depend on the source port or on --to.\nExample: tarnfw explain --port "
                   "tcp/20-25 --adapter eth0 --from 192.168.1.20");
    command.run([options] {
        requireRoot();
        if (options->from.empty()) {
            explain(*options);
        } else {
            explainSender(*options);
        }
    });
}

}  // namespace

void addBlockedCommands(Command& app) {
    addBlocked(app);
    addExplain(app);
}

}  // namespace tarnfw
