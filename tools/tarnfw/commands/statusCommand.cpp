/// tarnfw status: everything at a glance.
#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/tarnIptablesModule.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "process/trialState.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

// Under which the library counts the firewall's kernel modules.
constexpr char kModuleUser[] = "firewall";

/// One adapter of the active profile.
struct AdapterState {
    std::string name;
    std::optional<FW::FW_POLICY> policy;
    std::size_t rules = 0;
    std::size_t enabledRules = 0;
    bool present = false;
};

/// One family of the kernel's packet filter.
struct FilterState {
    std::string key;
    std::string title;
    BaseParts missing;
    bool inOrder = true;
    std::size_t loadedRules = 0;
};

std::vector<AdapterState> adapterStates(const FW::FWPROFILE& profile) {
    FW::TARNFW firewall;
    std::vector<AdapterState> states;
    for (const std::string& name : adaptersOf(profile)) {
        AdapterState state;
        state.name = name;
        state.present = firewall.adapterIsEnabled(name);
        const auto policy = profile.adapterPolicyMap.find(name);
        if (policy != profile.adapterPolicyMap.end()) {
            state.policy = policy->second;
        }
        const auto rules = profile.rules.find(name);
        if (rules != profile.rules.end()) {
            state.rules = rules->second.size();
            for (const FW::FWRULE& rule : rules->second) {
                state.enabledRules += rule.enable ? 1U : 0U;
            }
        }
        states.push_back(state);
    }
    return states;
}

bool isClosed(const std::vector<BaseFilter>& filters) {
    return std::any_of(filters.begin(), filters.end(),
                       [](const BaseFilter& filter) { return filter.isClosed(); });
}

/// Whether a reload was interrupted, rather than still running.
bool wasInterrupted(const std::vector<BaseFilter>& filters) {
    if (!isClosed(filters)) {
        return false;
    }
    const FileLock lock(kReloadLock, 0);
    // The reload may have ended before the lock was taken.
    return lock.held() && isClosed(baseFilters());
}

/// Whether the active profile has rules, none of which the kernel has. A profile that cannot be
/// translated counts as well.
bool isNothingInForce(const StoreSnapshot& store, const std::vector<FilterState>& filters) {
    if (std::any_of(filters.begin(), filters.end(),
                    [](const FilterState& filter) { return filter.loadedRules > 0; })) {
        return false;
    }
    Json::Value commands;
    if (!store.hasProfile(store.activeProfile()) ||
        !commandsFor(store.profile(""), ApplyMode::kLines, commands)) {
        return true;
    }
    return std::any_of(commands.begin(), commands.end(), [](const Json::Value& family) {
        return std::any_of(family.begin(), family.end(),
                           [](const Json::Value& lines) { return !lines.empty(); });
    });
}

std::vector<FilterState> filterStates(const std::vector<BaseFilter>& kernel) {
    std::vector<FilterState> states;
    states.reserve(kernel.size());
    for (const BaseFilter& filter : kernel) {
        states.push_back({filter.key(), filter.title(), filter.missing(), filter.inOrder(),
                          filter.loadedRules()});
    }
    return states;
}

std::string baseText(const FilterState& filter) {
    if (!filter.missing.empty()) {
        return "lacks " + describe(filter.missing);
    }
    return filter.inOrder ? "set up" : kWrongOrder;
}

Json::Value adapterJson(const AdapterState& state) {
    Json::Value entry;
    entry["name"] = state.name;
    entry["present"] = state.present;
    entry["policy"] = state.policy ? Json::Value(policyText(*state.policy)) : Json::Value();
    entry["rules"] = static_cast<Json::UInt64>(state.rules);
    entry["enabledRules"] = static_cast<Json::UInt64>(state.enabledRules);
    return entry;
}

Json::Value filterJson(const FilterState& filter) {
    Json::Value entry;
    entry["setUp"] = filter.missing.empty();
    entry["inOrder"] = filter.inOrder;
    entry["base"] = baseText(filter);
    entry["loadedRules"] = static_cast<Json::UInt64>(filter.loadedRules);
    return entry;
}

const char* phaseName(TrialState::Phase phase) {
    switch (phase) {
        case TrialState::Phase::kGoesOn:
            return "in force";
        case TrialState::Phase::kEnding:
            return "ending";
        case TrialState::Phase::kNotAnswering:
            return "not answering";
        case TrialState::Phase::kAbandoned:
            break;
    }
    return "abandoned";
}

Json::Value trialJson(const std::optional<TrialState>& trial) {
    Json::Value entry;
    if (trial) {
        entry["profile"] = trial->profile;
        entry["state"] = phaseName(trial->phase);
        entry["obstacle"] = trial->obstacle;
        entry["secondsLeft"] = trial->phase == TrialState::Phase::kGoesOn
                                   ? Json::Value(static_cast<Json::Int64>(trial->secondsLeft))
                                   : Json::Value();
    }
    return entry;
}

void printAdapters(const std::vector<AdapterState>& states) {
    Table table({"Adapter", "Default", "Rules", ""});
    for (const AdapterState& state : states) {
        std::string rules = std::to_string(state.rules);
        if (state.enabledRules != state.rules) {
            rules += " (" + std::to_string(state.rules - state.enabledRules) + " off)";
        }
        table.addRow({{state.name},
                      {state.policy ? policyText(*state.policy) : "-",
                       state.policy ? policyPaint(*state.policy) : Paint::kPlain},
                      {rules},
                      {state.present ? "" : "absent", Paint::kFaint}});
    }
    std::cout << '\n';
    table.print();
}

Cell firewallCell(bool enabled, bool nothingInForce) {
    if (nothingInForce) {
        return {"enabled, but no rules are in force; \"tarnfw reload\" shows why", Paint::kBad};
    }
    return {enabled ? "enabled" : "disabled", enabled ? Paint::kGood : Paint::kDoubtful};
}

/// A reload does nothing while the firewall is disabled.
std::string interruptedText(bool enabled) {
    return std::string("a reload was interrupted: the machine is closed to new connections; \"")
        .append(enabled ? "tarnfw reload" : "tarnfw enable")
        .append("\" opens it");
}

void status(bool json) {
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    const bool enabled = store.firewallEnabled();
    const std::string active = store.activeProfile();
    const bool stored = store.hasProfile(active);
    const std::vector<AdapterState> adapters =
        stored ? adapterStates(store.profile(active)) : std::vector<AdapterState>();
    const std::vector<BaseFilter> kernel = baseFilters();  // listed once
    const std::vector<FilterState> filters = filterStates(kernel);
    const bool modules = FW::TARN_IPTABLES_MODULES::isModuleLoad(kModuleUser);
    const std::optional<TrialState> trial = trialState(store);
    const bool interrupted = wasInterrupted(kernel);
    const bool nothingInForce = enabled && isNothingInForce(store, filters);
    const char* const applyMode = applyModeName(store.applyMode());

    if (json) {
        Json::Value document;
        document["enabled"] = enabled;
        document["nothingInForce"] = nothingInForce;
        document["interruptedReload"] = interrupted;
        document["activeProfile"] = active;
        document["activeProfileExists"] = stored;
        document["applyMode"] = applyMode;
        document["modulesLoaded"] = modules;
        document["trial"] = trialJson(trial);
        document["adapters"] = Json::Value(Json::arrayValue);
        for (const AdapterState& state : adapters) {
            document["adapters"].append(adapterJson(state));
        }
        for (const FilterState& filter : filters) {
            document["kernel"][filter.key] = filterJson(filter);
        }
        printJson(document);
        return;
    }
    Table table;
    table.addRow({{"Firewall:"}, firewallCell(enabled, nothingInForce)});
    if (interrupted) {
        table.addRow({{""}, {interruptedText(enabled), Paint::kBad}});
    }
    table.addRow({{"Active profile:"}, {stored ? active : active + " (does not exist)"}});
    for (const FilterState& filter : filters) {
        table.addRow({{"Base filter:"},
                      {filter.title + " " + baseText(filter),
                       filter.missing.empty() ? Paint::kPlain : Paint::kBad}});
    }
    for (const FilterState& filter : filters) {
        table.addRow(
            {{"In the kernel:"}, {filter.title + " " + counted(filter.loadedRules, "rule")}});
    }
    if (filters.size() == 1) {
        table.addRow(
            {{"In the kernel:"}, {"IPv6 absent: this machine has no packet filter for it"}});
    }
    table.addRow({{"Apply mode:"}, {applyMode}});
    table.addRow({{"Kernel modules:"}, {modules ? "loaded for the firewall" : "not loaded"}});
    if (trial) {
        table.addRow({{"Trial:"}, {trialText(*trial), Paint::kDoubtful}});
    }
    table.print();
    if (!adapters.empty()) {
        printAdapters(adapters);
    }
}

}  // namespace

void addStatusCommand(Command& app) {
    Command& command = app.subcommand(
        "status", "Show whether the firewall is enabled, its profile, and what is in force");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.run([json] { status(*json); });
}

}  // namespace tarnfw
