#include "tarnfwadmin/verdicts.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
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

/// The library returns interim verdicts of "global" unchanged if the profile does not have the
/// adapter.
FW::FW_POLICY closed(FW::FW_POLICY verdict) {
    return verdict == FW::FW_POLICY_ALLOW_SOME || verdict == FW::FW_POLICY_DENY_SOME
               ? FW::FW_POLICY_MIXED
               : verdict;
}

AdapterAnswer answerFor(const FW::FWPROFILE& profile, const std::string& adapter,
                        const std::string& asked, const std::vector<FW::PortCompareST>& questions) {
    AdapterAnswer answer;
    answer.adapter = adapter;
    FW::TARNFW firewall;
    for (const FW::PortCompareST& question : questions) {
        std::map<std::string, FW::FW_POLICY> verdicts;
        std::vector<FW::FWVERDICTSTEP> steps;
        firewall.fwPortExplainOf(profile, question, asked, verdicts, steps);
        PortAnswer port{question, closed(verdicts[adapter]), {}};
        for (FW::FWVERDICTSTEP& step : steps) {
            if (step.adapter == adapter) {
                port.steps.push_back(std::move(step));
            }
        }
        if (FW::fwVerdictRank(port.verdict) > FW::fwVerdictRank(answer.verdict)) {
            answer.verdict = port.verdict;
        }
        answer.ports.push_back(std::move(port));
    }
    return answer;
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
        case FW::FW_POLICY_ALLOW_SOME:
            return "allowed for some addresses";
        case FW::FW_POLICY_DENY_SOME:
            return "blocked for some addresses";
    }
    return "unknown verdict " + std::to_string(verdict);
}

std::vector<AdapterAnswer> askVerdicts(const FW::FWPROFILE& profile,
                                       const std::vector<FW::PortCompareST>& questions,
                                       const std::vector<std::string>& adapters) {
    std::vector<AdapterAnswer> answers;
    for (const std::string& adapter : adapters) {
        if (answers.empty()) {
            answers.push_back(answerFor(profile, FW::FW_ADAPTER_GLOBAL, adapter, questions));
        }
        if (adapter != FW::FW_ADAPTER_GLOBAL) {
            answers.push_back(answerFor(profile, adapter, adapter, questions));
        }
    }
    if (answers.empty()) {
        answers.push_back(
            answerFor(profile, FW::FW_ADAPTER_GLOBAL, FW::FW_ADAPTER_GLOBAL, questions));
    }
    return answers;
}

std::vector<FW::FWPACKETSET> packetsFor(const FW::PortCompareST& question,
                                        const std::string& interface) {
    const std::optional<PortSpan> span = portSpanFrom(question.port);
    if (!span) {
        return {};
    }
    const FW::FWINTERVALS ports = {
        {static_cast<std::uint16_t>(span->first), static_cast<std::uint16_t>(span->last)}};
    FW::FWPACKETSET packets = newConnections(interface);
    (question.portDirect != FW::FW_PORT_DIRECT_DESTINATION ? packets.sourcePorts
                                                           : packets.destinationPorts) = ports;
    std::vector<FW::FWPACKETSET> sets;
    const auto add = [&](FW::FW_PORT_PROTOCOL protocol, std::uint16_t number) {
        if (question.protocol == protocol || question.protocol == FW::FW_PORT_PROTOCOL_TCP_UDP) {
            packets.protocols = {{number, number}};
            sets.push_back(packets);
        }
    };
    add(FW::FW_PORT_PROTOCOL_TCP, IPPROTO_TCP);
    add(FW::FW_PORT_PROTOCOL_UDP, IPPROTO_UDP);
    return sets;
}

std::vector<AdapterAnswer> exactVerdicts(const Meaning& meaning,
                                         const std::vector<FW::PortCompareST>& questions,
                                         const std::vector<std::string>& adapters) {
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
        for (const FW::PortCompareST& question : questions) {
            PacketOutcomes outcomes;
            for (const FW::FWPACKETSET& set :
                 packetsFor(question, interfaceFor(meaning, adapter))) {
                outcomes.add((isGlobal ? global : all).outcomes(set));
            }
            FW::FW_POLICY verdict = isGlobal ? outcomes.verdictOfPart() : outcomes.verdict();
            if (verdict == FW::FW_POLICY_NONE && !isGlobal && !isListed) {
                verdict = FW::FW_POLICY_ALLOW;
            }
            if (FW::fwVerdictRank(verdict) > FW::fwVerdictRank(answer.verdict)) {
                answer.verdict = verdict;
            }
            answer.ports.push_back({question, verdict, {}});
        }
    }
    return answers;
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
