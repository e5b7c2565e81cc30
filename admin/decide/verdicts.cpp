#include "tarnfwadmin/verdicts.h"

#include <map>
#include <optional>
#include <set>
#include <utility>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "rules/portWords.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/ruleText.h"
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

namespace {

/// No interface has this name, so that "global" alone decides, or leaves it to the default policy.
constexpr char kNoInterface[] = "-";

/// For every packet of a question from any address; nothing where that cannot be told.
std::optional<FW::FW_POLICY> verdictForAll(Decider& decider, const FW::PortCompareST& question,
                                           const std::string& adapter) {
    std::set<std::optional<FW::FW_POLICY>> verdicts;
    for (Packet& packet : packetsFor(question, adapter)) {
        for (const bool ipv6 : {false, true}) {
            packet.source = Address(ipv6, {});
            verdicts.insert(decider.verdictForAll(packet));
        }
    }
    if (verdicts.empty() || verdicts.count(std::nullopt) != 0) {
        return std::nullopt;
    }
    return verdicts.size() > 1 ? FW::FW_POLICY_MIXED : *verdicts.begin();
}

/// The rules of "global" alone, with this policy for what they leave to the adapters.
FW::FWPROFILE globalAlone(const FW::FWPROFILE& profile, FW::FW_POLICY rest) {
    FW::FWPROFILE alone;
    const auto rules = profile.rules.find(FW::FW_ADAPTER_GLOBAL);
    const auto policy = profile.adapterPolicyMap.find(FW::FW_ADAPTER_GLOBAL);
    if (rules != profile.rules.end()) {
        alone.rules.insert(*rules);
    }
    if (policy != profile.adapterPolicyMap.end()) {
        alone.adapterPolicyMap.insert(*policy);
    }
    alone.adapterPolicyMap[kNoInterface] = rest;
    return alone;
}

/// What the deciders of globalAlone() come to, with the rest denied and with the rest allowed.
std::optional<FW::FW_POLICY> globalVerdict(std::optional<FW::FW_POLICY> restDenied,
                                           std::optional<FW::FW_POLICY> restAllowed) {
    if (!restDenied || !restAllowed) {
        return std::nullopt;
    }
    if (restDenied == FW::FW_POLICY_ALLOW || restAllowed != FW::FW_POLICY_ALLOW) {
        return restAllowed;
    }
    return FW::FW_POLICY_NONE;
}

}  // namespace

void makeExact(std::vector<AdapterAnswer>& answers, const FW::FWPROFILE& profile, Machine& machine,
               ApplyMode mode) {
    Decider decider(profile, machine, mode);
    Decider restDenied(globalAlone(profile, FW::FW_POLICY_DENY), machine, mode);
    Decider restAllowed(globalAlone(profile, FW::FW_POLICY_ALLOW), machine, mode);
    for (AdapterAnswer& answer : answers) {
        answer.verdict = FW::FW_POLICY_NONE;
        for (PortAnswer& port : answer.ports) {
            const std::optional<FW::FW_POLICY> exact =
                answer.adapter == FW::FW_ADAPTER_GLOBAL
                    ? globalVerdict(verdictForAll(restDenied, port.question, kNoInterface),
                                    verdictForAll(restAllowed, port.question, kNoInterface))
                    : verdictForAll(decider, port.question, answer.adapter);
            const bool isUndecided =
                port.verdict == FW::FW_POLICY_NONE && exact == FW::FW_POLICY_ALLOW;
            if (exact && !isUndecided) {
                port.verdict = *exact;
            }
            if (FW::fwVerdictRank(port.verdict) > FW::fwVerdictRank(answer.verdict)) {
                answer.verdict = port.verdict;
            }
        }
    }
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
