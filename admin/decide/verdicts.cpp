#include "tarnfwadmin/verdicts.h"

#include <map>
#include <optional>
#include <utility>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "rules/portWords.h"
#include "tarnfwadmin/error.h"
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

bool allAllowed(const std::vector<AdapterAnswer>& answers) {
    for (const AdapterAnswer& answer : answers) {
        if (answer.verdict == FW::FW_POLICY_DENY || answer.verdict == FW::FW_POLICY_MIXED) {
            return false;
        }
    }
    return true;
}

}  // namespace tarnfw
