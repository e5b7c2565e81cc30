/// tarnfw explain, for packets from anywhere: the steps to each verdict.
#include <cstddef>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "cli/output.h"
#include "commands/explain.h"
#include "commands/kernelReport.h"
#include "commands/portQuery.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

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

}  // namespace

void explainSteps(const ExplainQuery& query) {
    Asked asked(query);
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
    printExplanation(query, asked, kernel, std::move(document), allowed, [&] {
        printHeading(asked.profile, query.ports, asked.questions);
        for (std::size_t i = 0; i < answers.size(); ++i) {
            printAnswer(profile, answers[i], answers.front(),
                        tunnelAnswer(meaning, asked.questions, answers[i].adapter), before[i]);
        }
    });
}

}  // namespace tarnfw
