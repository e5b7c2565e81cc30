#include "commands/applying.h"

#include <algorithm>
#include <iostream>
#include <vector>

#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/sshGuard.h"
#include "process/detachedRun.h"
#include "process/signalsWait.h"
#include "tarnfwadmin/control.h"
#include "tarnfwadmin/profileCheck.h"

namespace tarnfw {
namespace {

constexpr char kQuestion[] = "Apply it anyway?";

std::string applyingText(const Context& context) {
    return "Applying the rules of \"" + context.store().activeProfile() + "\"";
}

}  // namespace

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

void requireValid(const FW::FWPROFILE& profile, Machine& machine) {
    const std::string text = errorsText(profile, machine);
    if (!text.empty()) {
        throw Error(ErrorKind::kInvalid, text + "; nothing was changed");
    }
}

void warnAboutErrors(const FW::FWPROFILE& profile, Machine& machine) {
    const std::string text = errorsText(profile, machine);
    if (!text.empty()) {
        warn(text);
    }
}

void requireReloadable(Context& context, const ReloadOptions& options) {
    if (options.wanted && context.store().firewallEnabled()) {
        context.requireBase();
    }
}

void requireAppliable(Context& context, const FW::FWPROFILE& changed, const ReloadOptions& options,
                      bool becomesActive) {
    const StoreSnapshot& store = context.store();
    const bool goesIn = options.wanted && store.firewallEnabled() &&
                        (becomesActive || changed.name == store.activeProfile());
    if (!goesIn) {
        warnAboutErrors(changed, context.machine());
        return;
    }
    requireValid(changed, context.machine());
    requireSshAccess(changed, context.machine(), options.yes, kQuestion);
}

void confirmReload(Context& context, const ReloadOptions& options) {
    if (!options.wanted || !context.store().firewallEnabled()) {
        return;
    }
    const FW::FWPROFILE& active = context.store().profile("");
    warnAboutErrors(active, context.machine());
    requireSshAccess(active, context.machine(), options.yes, kQuestion,
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

bool enableFirewall(Context& context) {
    return context.session().change(
        [&] { return runWhole(applyingText(context), [] { return FW::TARNFW().fwEnable(); }); });
}

void disableFirewall(Context& context) {
    if (!context.session().change([] {
            return runWhole("Switching the firewall off", [] { return FW::TARNFW().fwDisable(); });
        })) {
        throw Error(ErrorKind::kSystem, "the firewall's settings cannot be written");
    }
}

void reloadActive(Context& context, const std::function<std::string()>& meanwhile) {
    if (!context.store().firewallEnabled()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    context.requireBase();
    if (!runWhole(
            applyingText(context), [] { return FW::TARNFW().fwReload(true); }, meanwhile)) {
        throw Error(ErrorKind::kRefused,
                    "the active profile was not applied: " + stateNow(context));
    }
    std::cout << "Profile " << inQuotes(context.store().activeProfile()) << " applied\n";
}

std::string stateNow(Context& context) {
    return stateNow(context.session());
}

void finishChange(Context& context, const std::string& profile, const ReloadOptions& options) {
    if (profile != context.store().activeProfile()) {
        if (options.wanted) {
            std::cout << "Profile " << inQuotes(profile)
                      << " is not the active one: nothing to reload\n";
        }
    } else if (options.wanted) {
        reloadActive(context);
    } else if (context.store().firewallEnabled()) {
        reportUnchangedKernel();
    }
}

void reportUnchangedKernel() {
    std::cout << "The kernel still has the old rules; \"tarnfw reload\" applies the new ones\n";
}

}  // namespace tarnfw
