#include "commands/applying.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <utility>

#include "tarnfirewall/fwDB.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/sshGuard.h"
#include "process/detachedRun.h"
#include "process/signalsWait.h"
#include "process/trialState.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/ruleChange.h"

namespace tarnfw {
namespace {

StoreSession::Access allowed(StoreSession::Access access) {
    requireRoot();
    return access;
}

/// The rules of the active profile; null when it cannot be read.
Json::Value activeRules(const StoreSnapshot& store) {
    Json::Value document;
    try {
        FW::TARNFW_JSON_DB().profileToJson(store.profile(""), document);
    } catch (const std::exception&) {
        return {};
    }
    document.removeMember("name");
    return document;
}

bool hasOtherChain(const FW::FWRULE& rule) {
    const auto& own = FW::FW_FIREWALL_CHAINS;
    return std::any_of(rule.chainList.begin(), rule.chainList.end(), [&](const std::string& chain) {
        return std::find(own.begin(), own.end(), chain) == own.end();
    });
}

}  // namespace

Context::Context(StoreSession::Access access, std::unique_ptr<Machine> machine,
                 const LockTime& time)
    : session_(allowed(access), time),
      machine_(std::move(machine)),
      control_(session_, [this](const auto& what, const auto& work) {
          return runWhole(what, [&] { return session_.applyChange(work); });
      }) {
    printNotes();
    if (access == StoreSession::Access::kChange) {
        before_ = activeRules(store());
    }
}

bool Context::hasOtherRules() {
    return activeRules(store()) != before_;
}

Context::~Context() {
    printNotes();
}

void Context::printNotes() {
    for (const std::string& note : session_.takeNotes()) {
        std::cerr << "tarnfw: " << note << '\n';
    }
}

void addReloadFlag(Command& command, ReloadOptions& options, const char* yesHelp) {
    command.flag("--reload", options.wanted, "Apply the active profile afterwards");
    command.flag("--yes", options.yes, yesHelp);
}

std::string errorsText(const FW::FWPROFILE& profile, Machine& machine) {
    const std::size_t errors = errorsOf(profile, machine);
    const std::string name = printable(profile.name);
    return errors == 0
               ? std::string()
               : "profile \"" + name + "\" has " + counted(errors, "error") + "; \"tarnfw check " +
                     name + "\" lists " + (errors == 1 ? "it" : "them");
}

void warnAboutErrors(const FW::FWPROFILE& profile, Machine& machine) {
    const std::string text = errorsText(profile, machine);
    if (!text.empty()) {
        warn(text);
    }
}

void requireReloadable(Context& context, const ReloadOptions& options) {
    if (options.wanted && context.store().firewallEnabled()) {
        requireNoTrial();
        context.control().requireBase();
        context.session().holdChange();
    }
}

void requireAppliable(Context& context, const FW::FWPROFILE& changed,
                      const ReloadOptions& options) {
    const StoreSnapshot& store = context.store();
    const bool goesIn =
        options.wanted && store.firewallEnabled() && changed.name == store.activeProfile();
    if (!goesIn) {
        warnAboutErrors(changed, context.machine());
        return;
    }
    requireValidProfile(changed, context.machine());
    requireSshAccess(changed, context.machine(), options.yes, kApplyAnyway);
}

void confirmReload(Context& context, const ReloadOptions& options) {
    if (!options.wanted || !context.store().firewallEnabled()) {
        return;
    }
    const FW::FWPROFILE& active = context.store().profile("");
    warnAboutErrors(active, context.machine());
    requireSshAccess(active, context.machine(), options.yes, kApplyAnyway);
}

bool runWhole(const std::string& what, const std::function<bool()>& change,
              const std::function<std::string()>& meanwhile) {
    const SignalsWait wait;  // until the messages are there
    DetachedRun run;
    std::string found;
    {
        const Progress progress(what);
        run = runDetached(change, [&] { found = meanwhile ? meanwhile() : ""; });
    }
    std::cerr << found << run.messages;
    if (!run.failure.empty()) {
        throw Error(ErrorKind::kSystem, run.failure);
    }
    return run.succeeded;
}

void reloadActive(Control& control) {
    if (!control.apply()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    std::cout << "Profile " << inQuotes(control.session().snapshot().activeProfile())
              << " applied\n";
}

namespace {

/// Applies the active profile as it was changed, and keeps the change; or undoes it.
void reloadChanged(Context& context, const std::function<void()>& ask,
                   const std::function<void()>& say) {
    const SignalsWait wait;  // between the reload and the end of the change
    bool applied = false;
    try {
        ask();
        applied = context.control().apply();
    } catch (const Error& failure) {
        const bool undone = context.session().undoChange();
        if (undone && failure.kind() == ErrorKind::kDeclined) {
            throw;  // it says that nothing was changed
        }
        throw Error(failure.kind(),
                    std::string(failure.what()) +
                        (undone ? "; nothing was stored" : "; undoing the change failed, too"),
                    failure.place(), failure.remedy());
    }
    context.session().keepChange();
    say();
    if (applied) {
        std::cout << "Profile " << inQuotes(context.store().activeProfile()) << " applied\n";
    } else {
        std::cout << "Firewall disabled: nothing to reload\n";
    }
}

/// Whether the kernel may refuse what others take: a match or chain that not every one has.
bool dependsOnKernel(const FW::FWPROFILE& profile) {
    for (const auto& [adapter, rules] : profile.rules) {
        if (std::any_of(rules.begin(), rules.end(), [](const FW::FWRULE& rule) {
                return rule.enable && (rule.ipGroup == FW::FW_IP_GROUP_COUNTRIES ||
                                       rule.table != "filter" || hasOtherChain(rule));
            })) {
            return true;
        }
    }
    return false;
}

/// Warns about a stored profile that a reload would refuse.
void warnAboutRefusal(Context& context, const std::string& name) {
    try {
        const FW::FWPROFILE& profile = context.store().profile(name);
        const std::string refusal =
            dependsOnKernel(profile) ? Control::kernelRefusal(profile) : std::string();
        if (!refusal.empty()) {
            warn(refusal + "; it is stored, but a reload would be refused");
        }
    } catch (const Error&) {
        // it cannot be read; a reload says so
    }
}

}  // namespace

void finishChange(Context& context, const std::string& profile, const ReloadOptions& options,
                  const std::function<void()>& say) {
    const bool active = profile == context.store().activeProfile();
    if (active && options.wanted) {
        reloadChanged(
            context, [] {}, say);  // asked before it was stored
        return;
    }
    context.session().keepChange();
    say();
    warnAboutRefusal(context, profile);
    if (active) {
        reportUnchangedKernel(context);
    } else if (options.wanted) {
        std::cout << "Profile " << inQuotes(profile)
                  << " is not the active one: nothing to reload\n";
    }
}

void finishChange(Context& context, const ReloadOptions& options,
                  const std::function<void()>& say) {
    if (options.wanted) {
        reloadChanged(
            context, [&] { confirmReload(context, options); }, say);
        return;
    }
    say();
    reportUnchangedKernel(context);
}

void reportUnchangedKernel(Context& context) {
    if (context.store().firewallEnabled() && context.hasOtherRules()) {
        std::cout << "The kernel still has the old rules; \"tarnfw reload\" applies the new ones\n";
    }
}

}  // namespace tarnfw
