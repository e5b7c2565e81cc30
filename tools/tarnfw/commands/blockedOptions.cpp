#include "commands/blockedOptions.h"

#include <algorithm>
#include <iostream>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/verdicts.h"

namespace tarnfw {
namespace {

/// The machine's adapters that no predefined adapter of the profile covers.
std::vector<std::string> uncovered(const std::vector<std::string>& covered) {
    std::vector<std::string> meant;
    for (const char* const predefined : {FW::FW_ADAPTER_PPPOE, FW::FW_ADAPTER_VPN}) {
        if (std::find(covered.begin(), covered.end(), predefined) != covered.end()) {
            const std::vector<std::string> interfaces = standsFor(predefined);
            meant.insert(meant.end(), interfaces.begin(), interfaces.end());
        }
    }
    std::vector<std::string> others;
    for (const std::string& adapter : machineAdapters()) {
        if (std::find(meant.begin(), meant.end(), adapter) == meant.end()) {
            others.push_back(adapter);
        }
    }
    return others;
}

std::string subjectText(const BlockedOptions& options,
                        const std::vector<FW::PortCompareST>& questions) {
    std::string text;
    for (const FW::PortCompareST& question : questions) {
        text.append(text.empty() ? "" : ", ").append(questionText(question));
    }
    return options.service.empty() ? text : "service " + options.service + " (" + text + ")";
}

}  // namespace

void addBlockedOptions(Command& command, BlockedOptions& options) {
    constexpr char kSubject[] = "What to ask about";
    command.option("--service", options.service, "A service of the catalogue, such as ssh")
        .exactlyOneOf(kSubject);
    command.option("--port", options.port, "Ports: tcp/22, udp/5000-5010, both/53, tcp+udp/53")
        .check([](const std::string& text) {
            FW::PortCompareST question{};
            return portQuestionFrom(text, question);
        })
        .exactlyOneOf(kSubject);
    command.option("--adapter", options.adapter,
                   "One adapter; by default all of the profile and the machine");
    addJsonFlag(command, options.json);
}

std::vector<FW::PortCompareST> questionsOf(const BlockedOptions& options) {
    if (options.service.empty()) {
        FW::PortCompareST question{};
        (void)portQuestionFrom(options.port, question);  // has passed as an option
        return {question};
    }
    std::vector<FW::PortCompareST> questions = portsOf(requireCatalogue().require(options.service));
    if (questions.empty()) {
        throw Error(ErrorKind::kSystem, "service " + inQuotes(options.service) + " has no ports");
    }
    return questions;
}

std::vector<std::string> adaptersAsked(const BlockedOptions& options,
                                       const FW::FWPROFILE& profile) {
    std::vector<std::string> adapters = adaptersOf(profile);
    if (!options.adapter.empty()) {
        requireAdapter(options.adapter, adapters);
        return {options.adapter};
    }
    for (const std::string& other : uncovered(adapters)) {
        adapters.push_back(other);
    }
    std::sort(adapters.begin(), adapters.end());
    adapters.erase(std::unique(adapters.begin(), adapters.end()), adapters.end());
    adapters.erase(std::remove(adapters.begin(), adapters.end(), FW::FW_ADAPTER_GLOBAL),
                   adapters.end());
    return adapters;
}

Json::Value documentOf(const StoreSnapshot& store, const BlockedOptions& options,
                       const std::vector<FW::PortCompareST>& questions, bool enabled,
                       bool allowed) {
    Json::Value document;
    document["enabled"] = enabled;
    document["profile"] = store.activeProfile();
    if (!options.service.empty()) {
        document["service"] = options.service;
    }
    for (const FW::PortCompareST& question : questions) {
        document["ports"].append(questionText(question));
    }
    document["adapters"] = Json::Value(Json::arrayValue);
    document["allowed"] = allowed;
    return document;
}

void printHeading(const StoreSnapshot& store, const BlockedOptions& options,
                  const std::vector<FW::PortCompareST>& questions) {
    std::cout << "Profile " << inQuotes(store.activeProfile()) << ", "
              << printable(subjectText(options, questions)) << '\n';
}

bool answeredDisabled(const StoreSnapshot& store, const BlockedOptions& options,
                      const std::vector<FW::PortCompareST>& questions) {
    if (store.firewallEnabled()) {
        return false;
    }
    if (!options.adapter.empty()) {
        (void)adaptersAsked(options, store.profile(""));  // an unknown name is an error anyway
    }
    if (options.json) {
        printJson(documentOf(store, options, questions, false, true));
    } else {
        std::cout << "Firewall disabled: nothing is blocked\n";
    }
    return true;
}

}  // namespace tarnfw
