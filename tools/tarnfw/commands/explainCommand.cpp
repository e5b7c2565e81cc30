/// tarnfw explain: the rules that lead to a verdict, or the one that decides for a sender.
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/decision.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

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

void explain(const PortQuery& options) {
    auto machine = std::make_unique<Machine>();
    const std::vector<FW::PortCompareST> questions = questionsOf(options, *machine);
    Context context(StoreSession::Access::kRead, std::move(machine));
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    const FW::FWPROFILE& profile = store.profile("");
    std::vector<AdapterAnswer> answers =
        askVerdicts(profile, questions, adaptersAsked(options, profile));
    makeExact(answers, profile, context.machine(), store.applyMode());
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
                          verdictOf(answer.verdict, tunnels[answer.adapter]));
    };
    if (options.json) {
        Json::Value document = documentOf(store, options, questions, true, allowed);
        for (const AdapterAnswer& answer : answers) {
            Json::Value entry = answerDocument(profile, answer);
            adapterNow(answer.adapter, profile).addTo(entry);
            tunnels[answer.adapter].addTo(entry);
            const BeforeFirewall others = before(answer);
            entry["acceptedBefore"] = acceptsJson(others);
            entry["droppedBy"] = dropsJson(others);
            document["adapters"].append(entry);
        }
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        printHeading(store, options, questions);
        for (const AdapterAnswer& answer : answers) {
            printAnswer(profile, answer, answers.front(), tunnels[answer.adapter], before(answer));
        }
        kernel.printLast();
    }
    kernel.end(allowed);
}

// ---- For a sender: the one rule that decides ----

/// The decisions on one adapter, protocol by protocol.
struct AdapterDecisions {
    std::string adapter;
    AdapterNow now;
    std::vector<std::pair<FW::FW_PORT_PROTOCOL, Decision>> decisions;
    BeforeFirewall before;
};

AdapterDecisions decisionsOn(Decider& decider, const PortQuery& options,
                             const std::vector<FW::PortCompareST>& questions,
                             const std::string& adapter) {
    AdapterDecisions found{adapter, adapterNow(adapter, decider.profile()), {}, {}};
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
    document["adapter"] = place.adapter;
    document["position"] = static_cast<Json::UInt64>(place.position);
    document["text"] = ruleText(decider.ruleAt(place));
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
        document["adapter"] = decision.place.adapter;
    }
    document["port"] = protocolText(protocol) + " " + portSpanText(decision.ports);
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
            reason = joined(reason, decision.tunnel.empty() ? adapter.now.text() : "");
            reason = joined(
                reason, decision.denied ? acceptsText(adapter.before) : dropsText(adapter.before));
            const FW::FW_POLICY verdict =
                decision.denied ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW;
            table.addRow(
                {{adapter.adapter, Paint::kPlain},
                 {protocolText(protocol) + " " + portSpanText(decision.ports), Paint::kPlain},
                 {verdictText(verdict), policyPaint(verdict)},
                 {reason, Paint::kPlain}});
        }
    }
    table.print();
}

/// Prints what decides, adapter by adapter; ends the command with kExitBlocked when something is
/// denied.
void explainSender(const PortQuery& options) {
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
        KernelAnswer::Verdict verdict;
        for (const auto& [protocol, decision] : found.back().decisions) {
            verdict.blocks = verdict.blocks || decision.denied;
            verdict.allows = verdict.allows || !decision.denied;
        }
        allowed = allowed && !verdict.blocks;
        found.back().before = kernel.ask(decider, adapter, verdict);
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
            adapter.now.addTo(entry);
            for (const auto& [protocol, decision] : adapter.decisions) {
                entry["decisions"].append(decisionDocument(decider, protocol, decision));
            }
            entry["acceptedBefore"] = acceptsJson(adapter.before);
            entry["droppedBy"] = dropsJson(adapter.before);
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
    const auto options = std::make_shared<PortQuery>();
    addQueryOptions(command, *options);
    Option& from =
        command.option("--from", options->from, "Show the one rule that decides for a sender")
            .placeholder("ADDRESS")
            .check(addressComplaint);
    command.option("--to", options->to, "The machine's address that the sender uses")
        .placeholder("ADDRESS")
        .check(addressComplaint)
        .needs(from);
    command.footer(std::string(kPortQueryFooter) +
                   "\nWith --from, the rules are evaluated as in the kernel; country rules count "
                   "as in a kernel that has the \"geoip\" match. \"unless\" names rules that "
                   "depend on the source port or on --to.\nExample: tarnfw explain --port "
                   "tcp/20-25 --adapter eth0 --from 192.168.1.20");
    command.run([options] {
        if (options->from.empty()) {
            explain(*options);
        } else {
            explainSender(*options);
        }
    });
}

}  // namespace tarnfw
