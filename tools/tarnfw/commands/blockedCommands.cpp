/// tarnfw blocked, explain: whether a port or a service gets through, and why.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/blockedOptions.h"
#include "commands/commands.h"
#include "commands/context.h"
#include "commands/explainSender.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

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

void blocked(const BlockedOptions& options) {
    requireRoot();
    const std::vector<FW::PortCompareST> questions = questionsOf(options);
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    const std::vector<AdapterAnswer> answers =
        askVerdicts(questions, adaptersAsked(options, store.profile("")));
    const bool allowed = allAllowed(answers);
    if (options.json) {
        Json::Value document = documentOf(store, options, questions, true, allowed);
        for (const AdapterAnswer& answer : answers) {
            Json::Value entry;
            entry["name"] = answer.adapter;
            entry["verdict"] = verdictText(answer.verdict);
            document["adapters"].append(entry);
        }
        printJson(document);
    } else {
        printHeading(store, options, questions);
        Table table({"Adapter", "Verdict", ""});
        for (const AdapterAnswer& answer : answers) {
            table.addRow({{answer.adapter, Paint::kPlain},
                          {verdictText(answer.verdict), policyPaint(answer.verdict)},
                          {noteOn(answer), Paint::kPlain}});
        }
        table.print();
    }
    if (!allowed) {
        endWith(kExitBlocked);
    }
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
            return "no default policy";
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

void printAnswer(const FW::FWPROFILE& profile, const AdapterAnswer& answer) {
    std::cout << '\n'
              << printable(answer.adapter) << ": "
              << painted(verdictText(answer.verdict), policyPaint(answer.verdict)) << '\n';
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
    const std::vector<FW::PortCompareST> questions = questionsOf(options);
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    const FW::FWPROFILE& profile = store.profile("");
    const std::vector<AdapterAnswer> answers =
        askVerdicts(questions, adaptersAsked(options, profile));
    const bool allowed = allAllowed(answers);
    if (options.json) {
        Json::Value document = documentOf(store, options, questions, true, allowed);
        for (const AdapterAnswer& answer : answers) {
            document["adapters"].append(answerDocument(profile, answer));
        }
        printJson(document);
    } else {
        printHeading(store, options, questions);
        for (const AdapterAnswer& answer : answers) {
            printAnswer(profile, answer);
        }
    }
    if (!allowed) {
        endWith(kExitBlocked);
    }
}

// ---- The command line ----

constexpr char kFooter[] =
    "Exit status 0 when nothing is blocked, 10 when something is blocked or mixed.\nUndecided does "
    "not block: \"global\" then leaves the verdict to the adapters, and an adapter allows what no "
    "rule decides. The verdicts are for the stored rules of the active profile; a disabled "
    "firewall blocks nothing.";

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
