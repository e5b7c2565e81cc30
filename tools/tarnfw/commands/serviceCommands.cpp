/// tarnfw service reserve, release, update; adapter rename: what changes every profile.
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "cli/usage.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/storeDifference.h"

namespace tarnfw {
namespace {

using Profiles = std::map<std::string, FW::FWPROFILE>;

// ---- Common to these commands ----

Profiles allProfiles(const StoreSnapshot& store) {
    (void)store.requireProfiles();
    try {
        return store.profiles();
    } catch (const Error&) {
        throw Error(ErrorKind::kSystem, "the profiles cannot be read; nothing was changed");
    }
}

Json::Value documentOf(const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    return document;
}

/// The names of the changed profiles, without test profiles.
std::vector<std::string> changedSince(const StoreSnapshot& store, const Profiles& before) {
    std::vector<std::string> changed;
    for (const auto& [name, profile] : allProfiles(store)) {
        const auto found = before.find(name);
        const bool same = found != before.end() && documentOf(found->second) == documentOf(profile);
        if (!same && !boost::starts_with(name, kTestPrefix)) {
            changed.push_back(name);
        }
    }
    return changed;
}

/// Runs a change of all profiles and prints the result: `done`, the profiles that changed, and
/// whether it was applied.
template <typename Change>
void changeAll(Context& context, const std::string& done, const ReloadOptions& reload,
               const Profiles& before, Change change) {
    writeWithConsent(context, reload, [&] {
        if (!context.session().changeAllProfiles(
                [&] { return runWhole("Changing the profiles", change); })) {
            throw Error(ErrorKind::kSystem,
                        "not every profile could be written; nothing was changed");
        }
    });
    const std::vector<std::string> changed = changedSince(context.store(), before);
    (*reload.report)["profiles"] = textsJson(changed);
    finishChange(context, changed, reload, [&] {
        std::cout << printable(done) << " ("
                  << (changed.empty() ? "no profile changed" : "changed: " + listed(changed))
                  << ")\n";
    });
}

std::vector<std::string> adaptersIn(const Profiles& profiles) {
    std::set<std::string> adapters;
    for (const auto& [name, profile] : profiles) {
        for (const std::string& adapter : adaptersOf(profile)) {
            adapters.insert(adapter);
        }
    }
    return {adapters.begin(), adapters.end()};
}

bool hasAdapter(const FW::FWPROFILE& profile, const std::string& adapter) {
    const std::vector<std::string> adapters = adaptersOf(profile);
    return std::find(adapters.begin(), adapters.end(), adapter) != adapters.end();
}

/// Asks whether `what` is to happen. Throws Error, kDeclined, unless somebody agrees.
void requireConsent(const std::string& what, bool yes) {
    if (yes) {
        return;
    }
    if (!canAsk()) {
        throw Error(ErrorKind::kDeclined, what + "; nothing was changed", {}, Remedy::kAgree);
    }
    if (!confirmed("tarnfw: " + what + ". Go on?")) {
        throw Error(ErrorKind::kDeclined, "nothing was changed");
    }
}

// ---- Services ----

bool namesService(const FW::FWRULE& rule, const std::string& service) {
    return FW::fwRuleNamesServices(rule) &&
           std::find(rule.portList.begin(), rule.portList.end(), service) != rule.portList.end();
}

bool isNamed(const Profiles& profiles, const std::string& service) {
    for (const auto& [name, profile] : profiles) {
        for (const auto& [adapter, rules] : profile.rules) {
            if (std::any_of(rules.begin(), rules.end(),
                            [&](const FW::FWRULE& rule) { return namesService(rule, service); })) {
                return true;
            }
        }
    }
    return false;
}

void reserve(const std::string& service, const std::string& adapter, const std::string& policy,
             const ReloadOptions& reload) {
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, reload);
    const Profiles before = allProfiles(context.store());
    (void)context.machine().requireCatalogue().require(service);
    requireAdapter(adapter, adaptersIn(before));
    const FW::FW_POLICY code = policy == "deny" ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW;
    changeAll(context, "Service " + service + " reserved on " + adapter + ": " + policy, reload,
              before, [&] {
                  return FW::TARNFW_PROFILE().profileAddServToReserve(adapter, service, code,
                                                                      false);
              });
}

std::vector<std::string> namesOf(const Profiles& profiles) {
    std::vector<std::string> names;
    for (const auto& [name, profile] : profiles) {
        names.push_back(name);
    }
    return names;
}

/// The profiles that a release changes, as they are then.
Profiles released(const Profiles& before, const std::string& service, const std::string& adapter,
                  ReleaseFrom rules) {
    Profiles changed;
    for (const auto& [name, profile] : before) {
        FW::FWPROFILE copy = profile;
        if (!boost::starts_with(name, kTestPrefix) &&
            releaseService(copy, service, adapter, rules)) {
            changed[name] = std::move(copy);
        }
    }
    return changed;
}

/// For a release from all rules: shows what it changes, and asks.
void requireRelease(const Profiles& before, const Profiles& changed, bool yes) {
    for (const auto& [name, profile] : changed) {
        for (const StoreDifference& difference : profileDifferences(before.at(name), profile)) {
            std::cout << "  " << printable(difference.line()) << '\n';
        }
    }
    std::cout << std::flush;
    if (!changed.empty()) {
        requireConsent("these rules would change", yes);
    }
}

struct ReleaseOptions {
    std::string service;
    std::string adapter;
    bool everywhere = false;
    ReloadOptions reload;
};

/// "other rules name it: home; "tarnfw service release ssh --everywhere" removes it from them,
/// too"; empty when no rule of these profiles does.
std::string otherRulesText(const ReleaseOptions& options, const Profiles& profiles) {
    const Profiles own = released(profiles, options.service, options.adapter, ReleaseFrom::kAll);
    return own.empty()
               ? ""
               : "other rules name it: " + listed(namesOf(own)) + "; \"tarnfw service release " +
                     printable(shellWord(options.service)) + " --everywhere" +
                     (options.adapter.empty()
                          ? ""
                          : " --adapter " + printable(shellWord(options.adapter))) +
                     "\" removes it from them";
}

/// Throws Error for a release of what is not reserved.
void requireReserved(const ReleaseOptions& options, const Profiles& before,
                     const Profiles& changed) {
    if (!changed.empty() || options.everywhere) {
        return;
    }
    const std::string others = otherRulesText(options, before);
    throw Error(ErrorKind::kNotFound,
                "service " + inQuotes(options.service) + " is not reserved" +
                    (options.adapter.empty() ? "" : " on " + inQuotes(options.adapter)) +
                    (others.empty() ? "" : "; " + others));
}

/// Says what was released, and which rules name the service still.
void sayReleased(const ReleaseOptions& options, const Profiles& before, const Profiles& changed) {
    const std::vector<std::string> names = namesOf(changed);
    if (names.empty()) {
        const std::string of = options.adapter.empty() ? "" : "of " + options.adapter + " ";
        std::cout << printable("No rule " + of + "names service " + options.service) << '\n';
        return;
    }
    const std::string where = options.adapter.empty() ? "" : " on " + options.adapter;
    const std::string done =
        options.everywhere ? " removed from all rules" + where : " released" + where;
    std::cout << printable("Service " + options.service + done) << " ("
              << "changed: " << listed(names) << ")\n";
    Profiles now = before;
    for (const auto& [name, profile] : changed) {
        now[name] = profile;
    }
    std::string others = otherRulesText(options, now);
    if (!others.empty()) {
        others.front() = 'O';
        std::cout << others << ", too\n";
    }
}

void release(const ReleaseOptions& options) {
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, options.reload);
    const Profiles before = allProfiles(context.store());
    // A service that is no longer in the catalogue can still be removed from rules.
    if (!isNamed(before, options.service)) {
        (void)context.machine().requireCatalogue().require(options.service);
    }
    if (!options.adapter.empty()) {
        requireAdapter(options.adapter, adaptersIn(before));
    }
    const Profiles changed =
        released(before, options.service, options.adapter,
                 options.everywhere ? ReleaseFrom::kAll : ReleaseFrom::kReserved);
    requireReserved(options, before, changed);
    if (options.everywhere) {
        requireRelease(before, changed, options.reload.yes);
    }
    context.session().holdChange();  // all of them or none
    writeWithConsent(context, options.reload, [&] {
        for (const auto& [name, profile] : changed) {
            context.session().storeProfile(profile);
        }
    });
    Json::Value& names = (*options.reload.report)["profiles"] = Json::Value(Json::arrayValue);
    for (const auto& [name, profile] : changed) {
        names.append(name);
    }
    finishChange(context, namesOf(changed), options.reload,
                 [&] { sayReleased(options, before, changed); });
}

void update(const ReloadOptions& reload) {
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, reload);
    const Profiles before = allProfiles(context.store());
    (void)context.machine().requireCatalogue();
    changeAll(context, "Rules updated from the service catalogue", reload, before,
              [] { return FW::TARNFW().fwUpdate(); });
}

// ---- Adapters ----

void requireRenamable(const std::string& from, const std::string& to, const Profiles& profiles) {
    if (from == to) {
        throw Error(ErrorKind::kUnusable, "both names are " + inQuotes(from));
    }
    if (from == FW::FW_ADAPTER_GLOBAL || to == FW::FW_ADAPTER_GLOBAL) {
        throw Error(ErrorKind::kUnusable, "\"global\" is every adapter; its rules cannot be moved");
    }
    if (isNeverApplied(to)) {
        throw Error(ErrorKind::kUnusable, isLoopback(to) ? kLoopbackText : kPppoeInterfaceText);
    }
    const std::vector<std::string> known = adaptersIn(profiles);
    if (std::find(known.begin(), known.end(), from) == known.end()) {
        const std::string meant = nearestAdapter(from, known);
        throw Error(ErrorKind::kNotFound, "no profile has rules or a default policy for adapter " +
                                              inQuotes(from) + didYouMean(meant) +
                                              " (known: " + listed(known) + ")");
    }
}

/// The profiles in which the new name's rules or default policy would be replaced.
std::vector<std::string> replacedIn(const Profiles& profiles, const std::string& from,
                                    const std::string& to) {
    std::vector<std::string> names;
    for (const auto& [name, profile] : profiles) {
        const bool rules = profile.rules.count(from) != 0 && profile.rules.count(to) != 0;
        const auto oldPolicy = profile.adapterPolicyMap.find(from);
        const auto newPolicy = profile.adapterPolicyMap.find(to);
        const bool policy = oldPolicy != profile.adapterPolicyMap.end() &&
                            newPolicy != profile.adapterPolicyMap.end() &&
                            oldPolicy->second != newPolicy->second;
        if (rules || policy) {
            names.push_back(name);
        }
    }
    return names;
}

void requireReplacing(const std::string& to, const std::vector<std::string>& names, bool yes) {
    if (!names.empty()) {
        requireConsent("the rules and default policy of " + inQuotes(to) + " in " + listed(names) +
                           " would be replaced",
                       yes);
    }
}

void renameAdapter(const std::string& from, const std::string& to, const ReloadOptions& reload) {
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, reload);
    const Profiles before = allProfiles(context.store());
    requireRenamable(from, to, before);
    requireReplacing(to, replacedIn(before, from, to), reload.yes);
    changeAll(context, "Rules and default policy of " + from + " are now those of " + to, reload,
              before, [&] { return FW::TARNFW_PROFILE().profileChangeAdapter(from, to, false); });
    if (reload.report->isApplied() && hasAdapter(context.store().profile(""), to)) {
        return;  // the reload has named the adapters without an interface
    }
    const std::vector<std::string> present = machineAdapters();
    if (!isPredefined(to) && std::find(present.begin(), present.end(), to) == present.end()) {
        std::cerr << "tarnfw: the machine has no interface " << inQuotes(to)
                  << " now; until it has one, these rules have no effect\n";
    }
}

// ---- The command line ----

struct Options {
    std::string service;
    std::string adapter;
    std::string policy;
    std::string from;
    std::string to;
    ReloadOptions reload;
};

void addReserve(Command& group) {
    Command& command = group.subcommand(
        "reserve", "Allow or deny a service in every profile, before an adapter's own rules");
    const auto options = std::make_shared<Options>();
    command.option("NAME", options->service, "The service").required();
    command.option("POLICY", options->policy, "allow or deny")
        .required()
        .choices({"allow", "deny"});
    command.option("--adapter", options->adapter, "The adapter; global is every adapter")
        .required()
        .check(adapterNameError);
    addReloadFlag(command, options->reload);
    command.footer("Example: tarnfw service reserve ssh --adapter eth0 allow");
    runReporting(command, *options->reload.report, [options] {
        reserve(options->service, options->adapter, options->policy, options->reload);
    });
}

void addRelease(Command& group) {
    Command& command = group.subcommand(
        "release", "Undo \"service reserve\": remove a service from the reserved rules");
    const auto options = std::make_shared<ReleaseOptions>();
    command.option("NAME", options->service, "The service").required();
    command
        .option("--adapter", options->adapter, "Only the rules of this adapter; by default of all")
        .placeholder("NAME")
        .check(adapterNameError);
    command.flag("--everywhere", options->everywhere,
                 "Also remove it from rules made by a person; shows them, and asks");
    addReloadFlag(command, options->reload,
                  "Do not ask: with --everywhere, before rules change, or with --reload, if the "
                  "rules would lock you out");
    command.footer(
        "A rule that then names no service is deleted.\n"
        "Example: tarnfw service release ssh --adapter eth0");
    runReporting(command, *options->reload.report, [options] { release(*options); });
}

void addUpdate(Command& group) {
    Command& command =
        group.subcommand("update", "Update the rules of every profile from the service catalogue");
    const auto options = std::make_shared<Options>();
    addReloadFlag(command, options->reload);
    command.footer(
        "Services that are no longer in the catalogue are removed from the rules, and a rule\nthat "
        "then names none is deleted.");
    runReporting(command, *options->reload.report, [options] { update(options->reload); });
}

void addRename(Command& group) {
    Command& command = group.subcommand(
        "rename", "Move an adapter's rules and default policy to another name, in every profile");
    const auto options = std::make_shared<Options>();
    command.option("OLD", options->from, "The present name").required();
    command.option("NEW", options->to, "The new name").required().check(adapterNameError);
    addReloadFlag(command, options->reload,
                  "Do not ask before replacing rules that NEW already has or, with --reload, if "
                  "the rules would lock you out");
    runReporting(command, *options->reload.report,
                 [options] { renameAdapter(options->from, options->to, options->reload); });
}

}  // namespace

void addServiceCommands(Command& app) {
    Command& service =
        app.subcommand("service", "Services that are allowed or denied in every profile");
    addReserve(service);
    addRelease(service);
    addUpdate(service);
    Command& adapter = app.subcommand("adapter", "The names of adapters in every profile");
    addRename(adapter);
}

}  // namespace tarnfw
