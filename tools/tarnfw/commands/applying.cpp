#include "commands/applying.h"

#include <iostream>
#include <string>
#include <utility>

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

}  // namespace

Context::Context(StoreSession::Access access, std::unique_ptr<Machine> machine,
                 const LockTime& time)
    : session_(allowed(access), time),
      machine_(std::move(machine)),
      control_(session_, [](const auto& what, const auto& work) { return runWhole(what, work); }) {
    printNotes();
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
    requireSshAccess(active, context.machine(), options.yes, kApplyAnyway,
                     "the change is stored, but the kernel still has the old rules");
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

void finishChange(Context& context, const std::string& profile, const ReloadOptions& options) {
    if (profile != context.store().activeProfile()) {
        if (options.wanted) {
            std::cout << "Profile " << inQuotes(profile)
                      << " is not the active one: nothing to reload\n";
        }
    } else if (options.wanted) {
        reloadActive(context.control());
    } else if (context.store().firewallEnabled()) {
        reportUnchangedKernel();
    }
}

void reportUnchangedKernel() {
    std::cout << "The kernel still has the old rules; \"tarnfw reload\" applies the new ones\n";
}

}  // namespace tarnfw
