/// tarnfw blocked: whether a port or a service gets through, adapter by adapter.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

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
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/packetWords.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// Rules that are not counted which a note names; "--json" has all.
constexpr std::size_t kMostUncounted = 5;

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

/// What it depends on, besides the ports of the questions, whether packets are allowed.
struct Differences {
    bool sender = false;
    bool sourcePort = false;
    bool destination = false;

    /// Those of the packets of one protocol and family.
    void add(const PacketParts& parts) {
        const PacketSenders senders = parts.senders();
        if (senders.depends.empty()) {
            sender = sender || !parts.denied.empty();
            return;
        }
        sender = sender || !isEverybody(senders.depends);
        for (const auto* const sets : {&parts.allowed, &parts.denied}) {
            for (const FW::FWPACKETSET& set : *sets) {
                sourcePort = sourcePort || !set.sourcePorts.empty();
                destination = destination || set.destinations != nullptr;
            }
        }
    }

    std::string text() const {
        std::vector<std::string> texts;
        for (const auto& [differs, text] :
             {std::pair(sender, "the sender"), std::pair(sourcePort, "the source port"),
              std::pair(destination, "the destination address")}) {
            if (differs) {
                texts.emplace_back(text);
            }
        }
        const std::string last = texts.back();
        texts.pop_back();
        return texts.empty() ? last : boost::join(texts, ", ") + " and " + last;
    }

private:
    static bool isEverybody(const FW::FWADDRESSES& addresses) {
        const FW::FWADDRESSINTERVAL all = allAddresses().front();
        const FW::FWADDRESSINTERVAL& first = addresses.front();
        return first.first.high == all.first.high && first.first.low == all.first.low &&
               first.last.high == all.last.high && first.last.low == all.last.low;
    }
};

/// Of packets to single ports some of which are allowed.
std::string mixedNote(const Meaning& meaning, const AdapterAnswer& answer) {
    const PacketAnswers answers = answer.adapter == FW::FW_ADAPTER_GLOBAL
                                      ? PacketAnswers(meaning, FW::FW_ADAPTER_GLOBAL)
                                      : PacketAnswers(meaning);
    Differences differences;
    for (const PortAnswer& port : answer.ports) {
        for (FW::FWPACKETSET& set :
             packetsFor(port.question, interfaceFor(meaning, answer.adapter))) {
            const std::uint8_t families = set.families;
            for (const FW::FW_FAMILY family : {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6}) {
                set.families = static_cast<std::uint8_t>(families & (1U << family));
                if (set.families != 0) {
                    differences.add(answers.parts(set));
                }
            }
        }
    }
    if (differences.sourcePort || differences.destination) {
        return "it depends on " + differences.text();
    }
    return "allowed from some addresses, blocked from others";
}

/// What the rules of "global" do to packets where they leave some to the adapters; empty where they
/// decide about all.
std::string partNote(const AdapterAnswer& answer) {
    PacketOutcomes outcomes;
    for (const PortAnswer& port : answer.ports) {
        outcomes.add(port.outcomes);
    }
    if (!outcomes.denied || !outcomes.undecided) {
        return "";
    }
    return outcomes.allowed
               ? "allowed for some packets, blocked for some, the others left to the adapters"
               : "blocked for some packets, the others left to the adapters";
}

/// Of packets that are mixed only since rules may match that are not counted; empty for others.
std::string uncountedNote(const AdapterAnswer& answer) {
    PacketOutcomes outcomes;
    std::vector<FW::FWPLACE> places;
    for (const PortAnswer& port : answer.ports) {
        outcomes.add(port.outcomes);
        for (const UncountedRule& rule : port.uncounted) {
            const bool isNew = std::none_of(
                places.begin(), places.end(),
                [&rule](const FW::FWPLACE& known) { return isSamePlace(known, rule.place); });
            if (isNew) {
                places.push_back(rule.place);
            }
        }
    }
    if (places.empty() || outcomes.verdict() == FW::FW_POLICY_MIXED) {
        return "";
    }
    const char* const others = outcomes.denied    ? "blocked"
                               : outcomes.allowed ? "allowed"
                               : answer.adapter == FW::FW_ADAPTER_GLOBAL
                                   ? "left to the adapters"
                                   : "no rule or default policy decides: allowed";
    return std::string(others) + ", but " + placesText(places, kMostUncounted) + " may " +
           (outcomes.denied ? "allow" : "block") + " some and " +
           (places.size() == 1 ? "is" : "are") + " too complex to be counted";
}

/// A note on a verdict that needs one.
std::string noteOn(const Meaning& meaning, const AdapterAnswer& answer) {
    const bool global = answer.adapter == FW::FW_ADAPTER_GLOBAL;
    switch (answer.verdict) {
        case FW::FW_POLICY_NONE:
            return global ? "left to the adapters" : "no rule or default policy decides: allowed";
        case FW::FW_POLICY_MIXED:
            if (const std::string note = global ? partNote(answer) : ""; !note.empty()) {
                return note;
            }
            if (const std::string note = uncountedNote(answer); !note.empty()) {
                return note;
            }
            return areSinglePorts(answer) ? mixedNote(meaning, answer)
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
    const std::vector<AdapterAnswer> answers =
        exactVerdicts(meaning, questions, adaptersAsked(options, meaning.profile()));
    KernelAnswer kernel(store, options, questions);
    const bool allowed = allAllowed(answers);
    Json::Value document = documentOf(store.activeProfile(), options, questions, true, allowed);
    addNotCounted(meaning, document);
    Table table({"Adapter", "Verdict", ""});
    for (const AdapterAnswer& answer : answers) {
        const TunnelAnswer tunnel = tunnelAnswer(meaning, questions, answer.adapter);
        const BeforeFirewall before =
            kernel.ask(meaning, answer.adapter, verdictOf(answer.verdict));
        const AdapterNow now = adapterNow(answer.adapter, store.profile(""));
        const std::string note = joined(tunnel.owners.empty() ? now.text() : "",
                                        joined(noteOn(meaning, answer), tunnel.text()));
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
