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
#include "tarnfwadmin/ruleChange.h"
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

/// The adapters of a profile that deny by default.
std::vector<std::string> denyingAdapters(const FW::FWPROFILE& profile) {
    std::vector<std::string> names;
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        if (policy == FW::FW_POLICY_DENY) {
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

/// Sets whether the denied packets of each adapter are logged. Returns the adapters that changed.
std::vector<std::string> setLogged(FW::FWPROFILE& profile, bool on) {
    std::vector<std::string> changed;
    if (!on) {
        for (auto& [adapter, rules] : profile.rules) {
            if (removeLogOfDenied(rules)) {
                changed.push_back(adapter);
            }
        }
        return changed;
    }
    for (const std::string& adapter : denyingAdapters(profile)) {
        if (!isLogged(profile, adapter)) {
            Rules& rules = profile.rules[adapter];
            (void)removeLogOfDenied(rules);  // one that is not the last any more
            rules.push_back(logOfDenied());
            changed.push_back(adapter);
        }
    }
    return changed;
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + printable(name);
    }
    return text;
}

/// The adapters that deny by default, in the report.
void report(const FW::FWPROFILE& profile, Report& document) {
    document.setProfile(profile.name);
    document["adapters"] = Json::Value(Json::arrayValue);
    for (const std::string& adapter : denyingAdapters(profile)) {
        Json::Value entry;
        entry["name"] = adapter;
        entry["logged"] = isLogged(profile, adapter);
        document["adapters"].append(entry);
    }
}

/// What is logged, as it is stored.
void show(const std::string& name, Report& document) {
    const Context context(StoreSession::Access::kRead);
    const FW::FWPROFILE& profile = context.store().profile(name);
    report(profile, document);
    Table table({"Adapter", "Denied packets"});
    for (const std::string& adapter : denyingAdapters(profile)) {
        table.addRow({{adapter}, {isLogged(profile, adapter) ? "logged" : "not logged"}});
    }
    if (table.empty()) {
        std::cout << "No adapter of " << inQuotes(profile.name) << " denies by default\n";
    } else if (!document.isJson()) {
        table.print();
    }
}

void change(const std::string& name, bool on, const ReloadOptions& options) {
    Context context(StoreSession::Access::kChange);
    const FW::FWPROFILE before = context.store().profile(name);
    if (on && denyingAdapters(before).empty()) {
        throw Error(ErrorKind::kUnusable,
                    "no adapter of " + inQuotes(before.name) +
                        " denies by default; \"tarnfw policy ADAPTER deny\" sets that");
    }
    FW::FWPROFILE after = before;
    report(before, *options.report);
    if (setLogged(after, on).empty()) {
        std::cout << (on ? "Denied packets are logged already: " + listed(denyingAdapters(before))
                         : std::string("No denied packets are logged"))
                  << '\n';
        return;
    }
    requireReloadable(context, options, name);
    std::vector<std::string> changed;
    const FW::FWPROFILE stored = changeProfile(
        context.session(), name, FW::FW_ADAPTER_GLOBAL,
        [&](FW::FWPROFILE& profile) { changed = setLogged(profile, on); },
        [&](const FW::FWPROFILE& profile) { requireAppliable(context, profile, options); });
    context.session().unlock();
    report(stored, *options.report);
    finishChange(context, stored.name, options, [&] {
        std::cout << (on ? "Denied packets are logged: " : "Denied packets are no longer logged: ")
                  << listed(changed) << '\n';
    });
}

}  // namespace

bool isLogOfDenied(const FW::FWRULE& rule) {
    return rule.name == kRuleName && rule.blLog && rule.policy == FW::FW_POLICY_DENY;
}

std::size_t lastPositionForNew(const Rules& rules) {
    return rules.size() + (!rules.empty() && isLogOfDenied(rules.back()) ? 0 : 1);
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
        std::string profile;
        ReloadOptions reload;
    };
    Command& command = app.subcommand(
        "log-denied", "Log the packets that default policies deny, or show whether they are");
    const auto values = std::make_shared<Values>();
    command.option("STATE", values->state, "on or off; without it, show the present one")
        .placeholder("")
        .choices({"on", "off"});
    command.option("--profile", values->profile, "The profile; by default the active one")
        .placeholder("NAME");
    addReloadFlag(command, values->reload);
    command.footer(
        "Adds a last rule \"log denied\" to each adapter that denies by default; \"rule add\" puts "
        "new rules before it. The kernel's log has the packets: journalctl -k -g IN=eth0\n"
        "Example: tarnfw log-denied on");
    runReporting(command, *values->reload.report, [values] {
        if (values->state.empty()) {
            show(values->profile, *values->reload.report);
        } else {
            change(values->profile, values->state == "on", values->reload);
        }
    });
}

}  // namespace tarnfw
