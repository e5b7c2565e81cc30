#include "commands/explainSender.h"

#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/context.h"
#include "tarnfwadmin/decision.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// The decisions on one adapter, protocol by protocol.
struct AdapterDecisions {
    std::string adapter;
    std::vector<std::pair<FW::FW_PORT_PROTOCOL, Decision>> decisions;
};

/// The packets of a question from one address, one for each protocol that has ports.
std::vector<Packet> packetsOf(const BlockedOptions& options, const FW::PortCompareST& question,
                              const std::string& adapter) {
    Packet packet;
    packet.adapters = isPredefined(adapter) ? std::vector{adapter} : adapterNamesOf(adapter);
    packet.source = addressFrom(options.from).value();
    packet.destination = options.to.empty() ? std::nullopt : addressFrom(options.to);
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

AdapterDecisions decisionsOn(Decider& decider, const BlockedOptions& options,
                             const std::vector<FW::PortCompareST>& questions,
                             const std::string& adapter) {
    AdapterDecisions found{adapter, {}};
    for (const FW::PortCompareST& question : questions) {
        for (const Packet& packet : packetsOf(options, question, adapter)) {
            for (Decision& decision : decider.decide(packet)) {
                found.decisions.emplace_back(packet.protocol, std::move(decision));
            }
        }
    }
    if (found.decisions.empty()) {
        throw Error(ErrorKind::kSystem, "--from needs tcp or udp ports");
    }
    return found;
}

std::string placeText(const Decider& decider, const RulePlace& place) {
    return "rule " + std::to_string(place.position) + " of " + place.adapter + ": " +
           ruleText(decider.ruleAt(place));
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
                reason.append("; unless this matches: ").append(placeText(decider, place));
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

}  // namespace

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
    const std::vector<FW::PortCompareST> questions = questionsOf(options);
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    if (answeredDisabled(store, options, questions)) {
        return;
    }
    Decider decider(store.profile(""));
    std::vector<AdapterDecisions> found;
    bool allowed = true;
    for (const std::string& adapter : adaptersAsked(options, decider.profile())) {
        found.push_back(decisionsOn(decider, options, questions, adapter));
        for (const auto& [protocol, decision] : found.back().decisions) {
            allowed = allowed && !decision.denied;
        }
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
            document["adapters"].append(entry);
        }
        printJson(document);
    } else {
        printHeading(store, options, questions);
        printDecisions(decider, found);
    }
    if (!allowed) {
        endWith(kExitBlocked);
    }
}

}  // namespace tarnfw
