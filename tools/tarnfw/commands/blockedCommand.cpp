/// tarnfw blocked: whether a port or a service gets through, adapter by adapter.
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
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
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// Whether the packets of each question differ in their addresses alone.
bool areSinglePorts(const AdapterAnswer& answer) {
    return std::all_of(answer.ports.begin(), answer.ports.end(), [](const PortAnswer& port) {
        if (!port.question.port) {
            return true;
        }
        const std::optional<PortSpan> span = portSpanFrom(port.question.port->port);
        return port.question.port->protocol != FW::FW_PORT_PROTOCOL_TCP_UDP && span &&
               span->first == span->last;
    });
}

/// A note on a verdict that needs one.
std::string noteOn(const AdapterAnswer& answer) {
    const bool global = answer.adapter == FW::FW_ADAPTER_GLOBAL;
    switch (answer.verdict) {
        case FW::FW_POLICY_NONE:
            return global ? "left to the adapters" : "no rule or default policy decides: allowed";
        case FW::FW_POLICY_MIXED:
            return areSinglePorts(answer) ? "allowed from some addresses, blocked from others"
                                          : "allowed for some of the packets, blocked for others";
        default:
            return global ? "for every adapter" : "";
    }
}

void blocked(const PortQuery& options) {
    auto machine = std::make_unique<Machine>();
    const std::vector<PacketQuestion> questions = questionsOf(options, *machine);
    Context context(StoreSession::Access::kRead, std::move(machine));
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    const Meaning meaning(store.profile(""), context.machine());
    warnNotCounted(meaning);
    const std::vector<AdapterAnswer> answers =
        exactVerdicts(meaning, questions, adaptersAsked(options, meaning.profile()));
    KernelAnswer kernel(store, options, questions);
    const bool allowed = allAllowed(answers);
    Json::Value document = documentOf(store.activeProfile(), options, questions, true, allowed);
    Table table({"Adapter", "Verdict", ""});
    for (const AdapterAnswer& answer : answers) {
        const TunnelAnswer tunnel = tunnelAnswer(meaning, questions, answer.adapter);
        const BeforeFirewall before =
            kernel.ask(meaning, answer.adapter, verdictOf(answer.verdict));
        const AdapterNow now = adapterNow(answer.adapter, store.profile(""));
        const std::string note =
            joined(tunnel.owners.empty() ? now.text() : "", joined(noteOn(answer), tunnel.text()));
        Json::Value entry;
        now.addTo(entry);
        tunnel.addTo(entry);
        entry["name"] = answer.adapter;
        entry["verdict"] = verdictText(answer.verdict);
        entry["acceptedBefore"] = acceptsJson(before);
        entry["droppedBy"] = dropsJson(before);
        document["adapters"].append(entry);
        table.addRow(
            {{answer.adapter, Paint::kPlain},
             {verdictText(answer.verdict), policyPaint(answer.verdict)},
             {joined(joined(note, acceptsText(before)), dropsText(before)), Paint::kPlain}});
    }
    if (options.json) {
        kernel.addTo(document);
        printJson(document);
    } else {
        kernel.printFirst();
        printHeading(store.activeProfile(), options, questions);
        table.print();
        kernel.printLast();
    }
    kernel.end(allowed);
}

}  // namespace

void addBlockedCommand(Command& app) {
    Command& command = app.subcommand(
        "blocked", "Show whether a port or a service gets through, adapter by adapter");
    const auto options = std::make_shared<PortQuery>();
    addQueryOptions(command, *options);
    command.footer(kPortQueryFooter);
    command.run([options] { blocked(*options); });
}

}  // namespace tarnfw
