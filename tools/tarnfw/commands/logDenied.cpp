/// tarnfw log-denied.
#include "commands/logDenied.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>

#include <json/json.h>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/ruleCompare.h"
#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

using Rules = std::vector<FW::FWRULE>;

constexpr char kRuleName[] = "log denied";

FW::FWRULE logOfDenied() {
    RuleOptions options;
    options.log = true;
    options.name = kRuleName;
    return ruleFrom({"deny", "any"}, options, {});
}

/// What the command is about.
struct Subject {
    std::string profile;  ///< empty: the active one
    std::string adapter;  ///< empty: each
};

/// The adapters of a profile that deny by default, without those that are never filtered; of these
/// one alone unless that is empty.
std::vector<std::string> denyingAdapters(const FW::FWPROFILE& profile, const std::string& only) {
    std::vector<std::string> names;
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        if (policy == FW::FW_POLICY_DENY && !isNeverApplied(adapter) &&
            (only.empty() || adapter == only)) {
            names.push_back(adapter);
        }
    }
    return names;
}

bool isLogged(const FW::FWPROFILE& profile, const std::string& adapter) {
    const auto rules = profile.rules.find(adapter);
    return rules != profile.rules.end() && !rules->second.empty() &&
           isLogOfDenied(rules->second.back());
}

/// Sets whether the denied packets of an adapter, or of each when that is empty, are logged.
/// Returns the adapters that changed.
std::vector<std::string> setLogged(FW::FWPROFILE& profile, const std::string& only, bool on) {
    std::vector<std::string> changed;
    if (!on) {
        for (auto& [adapter, rules] : profile.rules) {
            if ((only.empty() || adapter == only) && removeLogOfDenied(rules)) {
                changed.push_back(adapter);
            }
        }
        return changed;
    }
    for (const std::string& adapter : denyingAdapters(profile, only)) {
        if (!isLogged(profile, adapter)) {
            Rules& rules = profile.rules[adapter];
            (void)removeLogOfDenied(rules);  // one that is not the last any more
            rules.push_back(logOfDenied());
            changed.push_back(adapter);
        }
    }
    return changed;
}

/// "no adapter of "home" denies by default"; a name that nothing is known of is an error.
std::string noneText(const FW::FWPROFILE& profile, const std::string& only) {
    if (only.empty()) {
        return "no adapter of " + inQuotes(profile.name) + " denies by default";
    }
    if (isLoopback(only)) {
        return kLoopbackText;
    }
    requireAdapter(only, adaptersOf(profile));
    return printable(only) + " does not deny by default";
}

/// The adapters that deny by default, in the report.
void report(const FW::FWPROFILE& profile, const std::string& only, Report& document) {
    document.setProfile(profile.name);
    document["adapters"] = Json::Value(Json::arrayValue);
    for (const std::string& adapter : denyingAdapters(profile, only)) {
        Json::Value entry;
        entry["name"] = adapter;
        entry["logged"] = isLogged(profile, adapter);
        document["adapters"].append(entry);
    }
}

/// What is logged, as it is stored.
void show(const Subject& subject, Report& document) {
    const Context context(StoreSession::Access::kRead);
    const FW::FWPROFILE& profile = context.store().profile(subject.profile);
    report(profile, subject.adapter, document);
    Table table({"Adapter", "Denied packets"});
    for (const std::string& adapter : denyingAdapters(profile, subject.adapter)) {
        table.addRow({{adapter}, {isLogged(profile, adapter) ? "logged" : "not logged"}});
    }
    if (table.empty()) {
        std::string text = noneText(profile, subject.adapter);
        if (subject.adapter.empty()) {
            text.front() = 'N';  // a name keeps its letters
        }
        std::cout << text << '\n';
    } else if (!document.isJson()) {
        table.print();
    }
}

void change(const Subject& subject, bool on, const ReloadOptions& options) {
    const std::string& name = subject.profile;
    const std::string& only = subject.adapter;
    Context context(StoreSession::Access::kChange);
    const FW::FWPROFILE before = context.store().profile(name);
    if (!only.empty() && !isLoopback(only)) {
        requireAdapter(only, adaptersOf(before));
    }
    if (on && denyingAdapters(before, only).empty()) {
        const std::string policy = "tarnfw policy " + (only.empty() ? "ADAPTER" : shellWord(only)) +
                                   " deny" + (name.empty() ? "" : " --profile " + shellWord(name));
        throw Error(ErrorKind::kUnusable,
                    noneText(before, only) +
                        (isNeverApplied(only) ? "" : "; " + inQuotes(policy) + " sets that"));
    }
    FW::FWPROFILE after = before;
    report(before, only, *options.report);
    if (setLogged(after, only, on).empty()) {
        std::cout << (on ? "Denied packets are logged already: " +
                               listed(denyingAdapters(before, only))
                         : "No denied packets are logged" +
                               (only.empty() ? std::string() : ": " + printable(only)))
                  << '\n';
        return;
    }
    requireReloadable(context, options, name);
    std::vector<std::string> changed;
    const FW::FWPROFILE stored = changeProfile(
        context.session(), name, FW::FW_ADAPTER_GLOBAL,
        [&](FW::FWPROFILE& profile) { changed = setLogged(profile, only, on); },
        [&](const FW::FWPROFILE& profile) { requireAppliable(context, profile, options); });
    context.session().unlock();
    report(stored, only, *options.report);
    finishChange(context, stored.name, options, [&] {
        std::cout << (on ? "Denied packets are logged: " : "Denied packets are no longer logged: ")
                  << listed(changed) << '\n';
    });
}

}  // namespace

bool isLogOfDenied(const FW::FWRULE& rule) {
    return rule.name == kRuleName && isSameRule(rule, logOfDenied());
}

std::size_t lastPositionForNew(const Rules& rules) {
    return rules.size() + (!rules.empty() && isLogOfDenied(rules.back()) ? 0 : 1);
}

std::vector<std::size_t> positionsOfLogOfDenied(const Rules& rules) {
    std::vector<std::size_t> positions;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        if (isLogOfDenied(rules[i])) {
            positions.push_back(i + 1);
        }
    }
    return positions;
}

bool removeLogOfDenied(Rules& rules) {
    const auto end = std::remove_if(rules.begin(), rules.end(), isLogOfDenied);
    const bool had = end != rules.end();
    rules.erase(end, rules.end());
    return had;
}

void addLogDeniedCommand(Command& app) {
    struct Values {
        std::string state;
        Subject subject;
        ReloadOptions reload;
    };
    Command& command = app.subcommand(
        "log-denied", "Log the packets that default policies deny, or show whether they are");
    const auto values = std::make_shared<Values>();
    command.option("STATE", values->state, "on or off; without it, show the present one")
        .placeholder("")
        .choices({"on", "off"});
    command
        .option("--adapter", values->subject.adapter,
                "This adapter alone; by default each that denies by default")
        .placeholder("NAME")
        .check(adapterNameError);
    command.option("--profile", values->subject.profile, "The profile; by default the active one")
        .placeholder("NAME");
    addReloadFlag(command, values->reload);
    command.footer(
        "Adds a last rule \"log denied\" to each adapter that denies by default; \"rule add\" puts "
        "new rules before it. The kernel's log has the packets: journalctl -k -g IN=eth0\n"
        "Examples:\n"
        "  tarnfw log-denied on\n"
        "  tarnfw log-denied off --adapter eth0");
    runReporting(command, *values->reload.report, [values] {
        if (values->state.empty()) {
            show(values->subject, *values->reload.report);
        } else {
            change(values->subject, values->state == "on", values->reload);
        }
    });
}

}  // namespace tarnfw
