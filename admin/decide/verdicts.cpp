#include "tarnfwadmin/verdicts.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "rules/portWords.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

/// Of the packets that an answer is about.
PacketOutcomes outcomesOf(const Deciders& deciders, const Meaning& meaning) {
    PacketOutcomes outcomes;
    for (const Decider& decider : deciders.all) {
        const bool decides = decider.by < meaning.rules().size();
        outcomes.denied = outcomes.denied || decider.denied;
        outcomes.allowed = outcomes.allowed || (decides && !decider.denied);
        outcomes.undecided = outcomes.undecided || !decides;
    }
    return outcomes;
}

}  // namespace

std::string portQuestionFrom(const std::string& text, FW::PortCompareST& question) {
    if (const std::optional<ProtocolPorts> read = protocolPortsFrom(text)) {
        const std::optional<PortSpan> ends = portEndsWritten(read->ports);
        if (!ends || ends->last < ends->first) {
            return ends ? portEntryError(portSpanText(*ends)) : notAPort(read->ports);
        }
        question = {FW::FW_PORT_DIRECT_DESTINATION, read->protocol, portSpanText(*ends)};
        return {};
    }
    const std::size_t slash = text.find('/');
    const std::string port = slash == std::string::npos ? "" : text.substr(slash + 1);
    const std::string meant = nearest(text.substr(0, slash), portProtocolWords());
    return inQuotes(text) + " is not of the form tcp/22, udp/5000-5010 or both/53" +
           (port.empty() || meant.empty() ? "" : didYouMean(meant + "/" + port));
}

std::string questionText(const FW::PortCompareST& question) {
    const bool source = question.portDirect != FW::FW_PORT_DIRECT_DESTINATION;
    return protocolText(question.protocol)
        .append(source ? " source port " : " ")
        .append(question.port);
}

std::string verdictText(FW::FW_POLICY verdict) {
    switch (verdict) {
        case FW::FW_POLICY_ALLOW:
            return "allowed";
        case FW::FW_POLICY_DENY:
            return "blocked";
        case FW::FW_POLICY_NONE:
            return "undecided";
        case FW::FW_POLICY_MIXED:
            return "mixed";
        default:
            return "unknown verdict " + std::to_string(verdict);
    }
}

PacketQuestion questionAbout(const FW::PortCompareST& port) {
    PacketQuestion question{questionText(port), port, {}};
    const std::optional<PortSpan> span = portSpanFrom(port.port);
    if (!span) {
        return question;
    }
    const FW::FWINTERVALS ports = {
        {static_cast<std::uint16_t>(span->first), static_cast<std::uint16_t>(span->last)}};
    FW::FWPACKETSET packets = newConnections("");
    (port.portDirect != FW::FW_PORT_DIRECT_DESTINATION ? packets.sourcePorts
                                                       : packets.destinationPorts) = ports;
    const auto add = [&](FW::FW_PORT_PROTOCOL protocol, std::uint16_t number) {
        if (port.protocol == protocol || port.protocol == FW::FW_PORT_PROTOCOL_TCP_UDP) {
            packets.protocols = {{number, number}};
            question.packets.push_back(packets);
        }
    };
    add(FW::FW_PORT_PROTOCOL_TCP, IPPROTO_TCP);
    add(FW::FW_PORT_PROTOCOL_UDP, IPPROTO_UDP);
    return question;
}

std::vector<PacketQuestion> questionsAbout(const Service& service) {
    std::vector<PacketQuestion> questions;
    for (const FW::PortCompareST& port : portsOf(service)) {
        questions.push_back(questionAbout(port));
    }
    // Without ports only the further protocols are left.
    for (const FW::FWPACKETSET& further : FW::fwServicePackets(service.name, {})) {
        PacketQuestion& question = questions.emplace_back();
        question.text = "protocol " + std::to_string(further.protocols.front().first);
        FW::FWPACKETSET packets = newConnections("");
        packets.families = further.families;
        packets.protocols = further.protocols;
        question.packets = {packets};
    }
    return questions;
}

std::vector<FW::FWPACKETSET> packetsFor(const PacketQuestion& question,
                                        const std::string& interface) {
    std::vector<FW::FWPACKETSET> sets = question.packets;
    for (FW::FWPACKETSET& set : sets) {
        set.in = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{interface}, {}});
    }
    return sets;
}

namespace {

std::vector<AdapterAnswer> answersTo(const Meaning& meaning,
                                     const std::vector<PacketQuestion>& questions,
                                     const std::vector<std::string>& adapters, bool explained) {
    std::vector<std::string> asked = {FW::FW_ADAPTER_GLOBAL};
    std::copy_if(adapters.begin(), adapters.end(), std::back_inserter(asked),
                 [](const std::string& adapter) { return adapter != FW::FW_ADAPTER_GLOBAL; });
    const PacketAnswers global(meaning, FW::FW_ADAPTER_GLOBAL);
    const PacketAnswers all(meaning);
    const std::vector<std::string> listed = adaptersOf(meaning.profile());
    std::vector<AdapterAnswer> answers;
    for (const std::string& adapter : asked) {
        const bool isGlobal = adapter == FW::FW_ADAPTER_GLOBAL;
        const bool isListed = std::find(listed.begin(), listed.end(), adapter) != listed.end();
        AdapterAnswer& answer = answers.emplace_back();
        answer.adapter = adapter;
        for (const PacketQuestion& question : questions) {
            PortAnswer& port = answer.ports.emplace_back(PortAnswer{question});
            const auto packets = packetsFor(question, interfaceFor(meaning, adapter));
            PacketOutcomes outcomes;
            if (explained) {
                port.deciders = decidersOf(meaning, packets, isGlobal ? adapter : "");
                outcomes = outcomesOf(port.deciders, meaning);
            }
            // Where not all who decide are known, the outcomes may be.
            if (!explained || port.deciders.tooComplex) {
                for (const FW::FWPACKETSET& set : packets) {
                    outcomes.add((isGlobal ? global : all).outcomes(set));
                }
            }
            port.outcomes = outcomes;
            for (const UncountedRule& rule :
                 uncountedFor(meaning, packets, isGlobal ? adapter : "")) {
                if (rule.denied ? outcomes.allowed || outcomes.undecided : outcomes.denied) {
                    port.uncounted.push_back(rule);
                }
            }
            for (const UncountedRule& rule : port.uncounted) {
                (rule.denied ? outcomes.denied : outcomes.allowed) = true;
            }
            port.verdict = isGlobal ? outcomes.verdictOfPart() : outcomes.verdict();
            if (port.verdict == FW::FW_POLICY_NONE && !isGlobal && !isListed) {
                port.verdict = FW::FW_POLICY_ALLOW;
            }
            if (FW::fwVerdictRank(port.verdict) > FW::fwVerdictRank(answer.verdict)) {
                answer.verdict = port.verdict;
            }
        }
    }
    return answers;
}

}  // namespace

std::vector<AdapterAnswer> exactVerdicts(const Meaning& meaning,
                                         const std::vector<PacketQuestion>& questions,
                                         const std::vector<std::string>& adapters) {
    return answersTo(meaning, questions, adapters, /*explained=*/false);
}

std::vector<AdapterAnswer> explainedVerdicts(const Meaning& meaning,
                                             const std::vector<PacketQuestion>& questions,
                                             const std::vector<std::string>& adapters) {
    return answersTo(meaning, questions, adapters, /*explained=*/true);
}

bool allAllowed(const std::vector<AdapterAnswer>& answers) {
    for (const AdapterAnswer& answer : answers) {
        if (answer.verdict == FW::FW_POLICY_DENY || answer.verdict == FW::FW_POLICY_MIXED) {
            return false;
        }
    }
    return true;
}

}  // namespace tarnfw
