/// tarnfw status: everything at a glance.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/tarnIptablesModule.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/bootUnit.h"
#include "commands/commands.h"
#include "commands/kernelReport.h"
#include "process/trialRecord.h"
#include "process/trialState.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/bootRules.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/ruleText.h"
#include "tarnfwadmin/unlisted.h"

namespace tarnfw {
namespace {

// Under which the library counts the firewall's kernel modules.
constexpr char kModuleUser[] = "firewall";

// As many rules of others are shown, of each kind and family.
constexpr std::size_t kMostNamed = 5;

/// One adapter of the active profile, or of the machine.
struct AdapterState {
    std::string name;
    std::optional<FW::FW_POLICY> policy;
    std::size_t rules = 0;
    std::size_t enabledRules = 0;
    bool present = false;
    std::optional<UnlistedAdapter> unlisted = std::nullopt;  ///< the profile has nothing for it
};

std::vector<AdapterState> adapterStates(const FW::FWPROFILE& profile) {
    FW::TARNFW firewall;
    std::vector<AdapterState> states;
    for (const std::string& name : adaptersOf(profile)) {
        AdapterState state;
        state.name = name;
        state.present = isLoopback(name) || firewall.adapterIsEnabled(name);
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
    Machine machine;
    for (const UnlistedAdapter& adapter : unlistedAdapters(profile, machine)) {
        AdapterState state;
        state.name = adapter.name;
        state.present = true;
        state.unlisted = adapter;
        states.push_back(state);
    }
    return states;
}

bool isListed(const FamilyInForce& family) {
    return family.state != InForce::kAbsent && family.state != InForce::kUnknown;
}

std::string baseText(const FamilyInForce& family) {
    if (!family.missing.empty()) {
        return "lacks " + describe(family.missing);
    }
    return family.inOrder ? "set up" : kWrongOrder;
}

Json::Value adapterJson(const AdapterState& state) {
    Json::Value entry;
    entry["name"] = state.name;
    entry["present"] = state.present;
    entry["policy"] = policyText(state.policy.value_or(FW::FW_POLICY_NONE));
    entry["rules"] = static_cast<Json::UInt64>(state.rules);
    entry["rulesOff"] = static_cast<Json::UInt64>(state.rules - state.enabledRules);
    addUnlisted(entry, !state.unlisted, state.unlisted);
    return entry;
}

Json::Value familyJson(const FamilyInForce& family) {
    Json::Value entry;
    entry["inForce"] = inForceWord(family.state);
    entry["acceptedBefore"] = Json::Value(Json::arrayValue);
    entry["redirects"] = Json::Value(Json::arrayValue);
    if (!isListed(family)) {
        return entry;
    }
    entry["setUp"] = family.missing.empty();
    entry["inOrder"] = family.inOrder;
    entry["base"] = baseText(family);
    entry["loadedRules"] = static_cast<Json::UInt64>(family.loadedRules);
    return entry;
}

/// By family: what is in force, and what comes before it.
Json::Value kernelJson(const KernelReport& report) {
    Json::Value document;
    for (const FamilyInForce& family : report.families) {
        document[family.key] = familyJson(family);
    }
    for (const ForeignRules& rules : report.foreign) {
        Json::Value& entry = document[rules.family()];
        for (const EarlyAccept& accept : rules.anyEarlyAccepts()) {
            entry["acceptedBefore"].append(accept.rules.front());
        }
        for (const Redirection& redirection : rules.redirections(ForeignQuestion())) {
            entry["redirects"].append(redirection.rules.back());
        }
    }
    return document;
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
        entry["profile"] = textOrNull(trial->profile);
        entry["state"] = phaseName(trial->phase);
        entry["obstacle"] = textOrNull(trial->obstacle);
        entry["secondsLeft"] = trial->phase == TrialState::Phase::kGoesOn
                                   ? Json::Value(static_cast<Json::Int64>(trial->secondsLeft))
                                   : Json::Value();
    }
    return entry;
}

Cell noteOn(const AdapterState& state) {
    if (state.unlisted) {
        return {textOf(*state.unlisted), state.unlisted->open ? Paint::kDoubtful : Paint::kFaint};
    }
    return {isLoopback(state.name) ? "never filtered"
            : state.present        ? ""
                                   : "absent",
            Paint::kFaint};
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
                      noteOn(state)});
    }
    std::cout << '\n';
    table.print();
}

/// "28 rules", with what is to be said of them.
Cell inForceCell(const FamilyInForce& family) {
    const std::string title = titleOf(family.key);
    const std::string rules = title + " " + counted(family.loadedRules, "rule");
    switch (family.state) {
        case InForce::kAsStored:
            return {rules};
        case InForce::kDifferent:
            return {rules + ", not those of the profile", Paint::kBad};
        case InForce::kNothing:
            return {rules + (family.open ? ": open" : ""), Paint::kBad};
        case InForce::kNoBase:
            return {rules + (family.loadedRules > 0 ? ", bypassed" : "") +
                        (family.open ? ": open" : ""),
                    Paint::kBad};
        case InForce::kClosed:
            return {rules + ", closed to new connections", Paint::kBad};
        case InForce::kUnknown:
            return {title + " not known", Paint::kBad};
        case InForce::kAbsent:
            break;
    }
    return {title + " absent: this machine has no packet filter for it"};
}

/// Rows for the rules of others that packets meet before the firewall's.
void addForeignRows(Table& table, const KernelReport& report) {
    const auto add = [&table](const char* label, const std::string& title, const auto& all,
                              const auto& ruleOf, Paint paint) {
        for (std::size_t i = 0; i < std::min(all.size(), kMostNamed); ++i) {
            table.addRow({{label}, {title + " " + ruleOf(all[i]), paint}});
        }
        if (all.size() > kMostNamed) {
            table.addRow(
                {{label},
                 {title + " " + std::to_string(all.size() - kMostNamed) + " more", paint}});
        }
    };
    for (const ForeignRules& rules : report.foreign) {
        const std::string title = titleOf(rules.family());
        add(
            "Accepts before:", title, rules.anyEarlyAccepts(),
            [](const EarlyAccept& accept) { return accept.rules.front(); }, Paint::kBad);
        add(
            "Redirects:", title, rules.redirections(ForeignQuestion()),
            [](const Redirection& redirection) { return redirection.rules.back(); },
            Paint::kDoubtful);
    }
}

/// The rules of a trial are those that should be in force, until its time is over.
bool isTrialRunning(const std::optional<TrialState>& trial) {
    return trial && trial->phase == TrialState::Phase::kGoesOn;
}

bool hasTriedRules(const KernelReport& report, const TrialRecord& trial) {
    std::map<std::string, RuleListing> present;
    for (const auto& [family, filter] : report.listings) {
        if (filter.rules) {
            present.emplace(family, *filter.rules);
        }
    }
    return !trial.isChanged(SavedRules::of(present));
}

/// What the kernel does not do of what it should during a trial: the rules that it compares are
/// those of the trial.
std::vector<std::string> trialComplaints(const KernelReport& report, const TrialRecord& trial) {
    std::vector<FamilyInForce> families = report.families;
    for (FamilyInForce& family : families) {
        if (family.state == InForce::kDifferent || family.state == InForce::kNothing) {
            family.state = InForce::kAsStored;
        }
    }
    KernelReport others;
    others.families = std::move(families);
    others.enabled = report.enabled;
    others.reloading = report.reloading;
    std::vector<std::string> texts = complaintsOf(others);
    const bool allListed =
        std::all_of(report.listings.begin(), report.listings.end(),
                    [](const auto& family) { return family.second.failure.empty(); });
    if (allListed && !hasTriedRules(report, trial)) {
        texts.emplace_back(
            "the rules of the trial are not those in force; \"tarnfw try --cancel\" ends the "
            "trial");
    }
    return texts;
}

/// What the kernel does not do of what it should, and why. `record` was read before the kernel was
/// listed: without the tried rules, the trial began or ended meanwhile.
std::vector<std::string> complaints(const KernelReport& report,
                                    const std::optional<TrialState>& trial,
                                    const std::optional<TrialRecord>& record,
                                    const std::optional<BootFailure>& boot) {
    std::vector<std::string> texts = isTrialRunning(trial) && record && record->tried
                                         ? trialComplaints(report, *record)
                                         : complaintsOf(report);
    if (boot) {
        texts.insert(texts.begin(), textOf(*boot));
    }
    for (const std::string& text : {aheadComplaint(report), openedComplaint(report)}) {
        if (!text.empty()) {
            texts.push_back(text);
        }
    }
    return texts;
}

/// What the settings say. When they cannot be read, the error names what a boot has left in force.
std::pair<bool, std::string> statusAndProfile(const StoreSnapshot& store,
                                              const std::optional<BootFailure>& boot) {
    try {
        return {store.firewallEnabled(), store.activeProfile()};
    } catch (const Error& error) {
        throw Error(error.kind(), error.what() + (boot ? "; " + textOf(*boot) : ""), error.place(),
                    error.remedy());
    }
}

/// All that "status" says.
struct Status {
    std::optional<BootFailure> boot;
    bool enabled = false;
    std::string active;
    bool hasActive = false;  ///< the store has a profile of that name
    std::vector<AdapterState> adapters;
    std::optional<TrialRecord> record;
    KernelReport kernel;
    bool modules = false;
    std::optional<TrialState> trial;
    std::vector<std::string> complaints;
    BootUnit unit;
    const char* applyMode = nullptr;
};

Status readStatus(const StoreSnapshot& store) {
    Status status;
    if (isRoot()) {
        status.boot = bootFailure();
    }
    std::tie(status.enabled, status.active) = statusAndProfile(store, status.boot);
    status.hasActive = store.hasProfile(status.active);
    if (status.hasActive) {
        status.adapters = adapterStates(store.profile(status.active));
    }
    status.record = readTrialRecord();
    status.kernel = kernelReport(store);  // lists each family once
    if (!status.kernel.hidden) {
        status.modules = FW::TARN_IPTABLES_MODULES::isModuleLoad(kModuleUser);
        status.trial = trialState(store);
        status.complaints = complaints(status.kernel, status.trial, status.record, status.boot);
    }
    status.unit = bootUnit();
    status.applyMode = applyModeName(store.applyMode());
    return status;
}

Json::Value documentOf(const Status& status) {
    Json::Value document;
    document["enabled"] = status.enabled;
    document["asStored"] = status.complaints.empty();  // what only root knows is null, see below
    document["complaints"] = textsJson(status.complaints);
    document["nothingInForce"] = isNothingInForce(status.kernel);
    document["interruptedReload"] = isClosed(status.kernel) && !status.kernel.reloading;
    document["bootFailure"] = status.boot ? Json::Value(textOf(*status.boot)) : Json::Value();
    document["startsAtBoot"] =
        status.unit.enabled ? Json::Value(*status.unit.enabled) : Json::Value();
    document["profile"] = status.active;
    document["profileExists"] = status.hasActive;
    document["applyMode"] = status.applyMode;
    document["modulesLoaded"] = status.modules;
    document["trial"] = trialJson(status.trial);
    document["adapters"] = Json::Value(Json::arrayValue);
    for (const AdapterState& state : status.adapters) {
        document["adapters"].append(adapterJson(state));
    }
    document["kernel"] = kernelJson(status.kernel);
    if (status.kernel.hidden) {
        for (const char* const member : {"asStored", "nothingInForce", "interruptedReload",
                                         "bootFailure", "modulesLoaded", "trial", "kernel"}) {
            document[member] = Json::nullValue;
        }
    }
    return document;
}

void print(const Status& status) {
    Table table;
    const std::vector<std::string>& wrong = status.complaints;
    const std::string word = status.enabled ? "enabled" : "disabled";
    table.addRow({{"Firewall:"},
                  status.kernel.hidden ? Cell{word + " in the settings", Paint::kDoubtful}
                  : wrong.empty() ? Cell{word, status.enabled ? Paint::kGood : Paint::kDoubtful}
                                  : Cell{word + ", but " + wrong.front(), Paint::kBad}});
    for (std::size_t i = 1; i < wrong.size(); ++i) {
        table.addRow({{""}, {wrong[i], Paint::kBad}});
    }
    const std::string notStarted = notAfterRestart(status.unit);
    if (status.enabled && !notStarted.empty()) {
        table.addRow({{"After a restart:"}, {"not in force: " + notStarted, Paint::kBad}});
    } else if (status.enabled && status.unit.enabled) {
        table.addRow({{"After a restart:"}, {"in force again, by " + status.unit.name}});
    }
    table.addRow({{"Active profile:"},
                  {status.hasActive ? status.active : status.active + " (does not exist)"}});
    for (const FamilyInForce& family : status.kernel.families) {
        if (isListed(family)) {
            table.addRow({{"Base filter:"},
                          {titleOf(family.key) + " " + baseText(family),
                           family.missing.empty() ? Paint::kPlain : Paint::kBad}});
        }
    }
    for (const FamilyInForce& family : status.kernel.families) {
        table.addRow({{"In the kernel:"}, inForceCell(family)});
    }
    addForeignRows(table, status.kernel);
    for (const std::string& text : status.kernel.unknownRules) {
        table.addRow({{"Redirects:"}, {text, Paint::kDoubtful}});
    }
    if (status.kernel.hidden) {
        table.addRow({{"In the kernel:"}, {kKernelIsRoots, Paint::kDoubtful}});
    }
    table.addRow({{"Apply mode:"}, {status.applyMode}});
    if (!status.kernel.hidden) {
        table.addRow(
            {{"Kernel modules:"}, {status.modules ? "loaded for the firewall" : "not loaded"}});
    }
    if (status.trial) {
        table.addRow({{"Trial:"}, {trialText(*status.trial), Paint::kDoubtful}});
    }
    table.print();
    if (!status.adapters.empty()) {
        printAdapters(status.adapters);
    }
}

void printStatus(bool json) {
    const Context context(StoreSession::Access::kRead);
    const Status status = readStatus(context.store());
    if (json) {
        printJson(documentOf(status));
    } else {
        print(status);
    }
    if (status.kernel.hidden) {
        endWith(kExitNotRoot);
    }
    if (!status.complaints.empty()) {
        endWith(kExitNotInForce);
    }
}

}  // namespace

void addStatusCommand(Command& app) {
    Command& command = app.subcommand(
        "status",
        "Show whether the firewall is enabled, its profile, and what is in force. Exit status 0 "
        "when the kernel does what is stored, else 11");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.run([json] { printStatus(*json); });
}

}  // namespace tarnfw
