/// tarnfw enable, disable, reload, apply-mode.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/bootUnit.h"
#include "commands/commands.h"
#include "commands/sshGuard.h"
#include "process/signalsWait.h"
#include "process/trialState.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/baseRecord.h"
#include "tarnfwadmin/unlisted.h"

namespace tarnfw {
namespace {

/// What a reload does in a mode.
const char* meaningOf(ApplyMode mode) {
    switch (mode) {
        case ApplyMode::kLines:
            return "one command for each rule; new connections are dropped meanwhile";
        case ApplyMode::kBatch:
            return "all rules are replaced at once";
    }
    return "";
}

/// Puts back the policies that dropped at "base up" and that a reload by another program has
/// opened. Where it is not known which these are, the rules are in force all the same.
void putPoliciesBack() {
    try {
        (void)loadBaseRecord();
    } catch (const Error& error) {
        warn(std::string("policies that were DROP at \"tarnfw base up\" may be ACCEPT now: ") +
             error.what());
        return;
    }
    for (const std::string& chain : closeOpenedPolicies()) {
        std::cout << "Policy of " << chain << " restored to DROP\n";
    }
}

/// Says whether the firewall will be in force after a restart.
void sayAfterRestart(Report& report) {
    const BootUnit unit = bootUnit();
    report["startsAtBoot"] = unit.enabled ? Json::Value(*unit.enabled) : Json::Value();
    const std::string missing = notAfterRestart(unit);
    if (!missing.empty()) {
        warn("after a restart the firewall will not be in force: " + missing);
    } else if (unit.enabled) {
        std::cout << "After a restart: in force again, by " << unit.name << '\n';
    } else {
        std::cout << "After a restart: in force only if the system runs \"tarnfw boot\" at its "
                     "start (systemd does not run here)\n";
    }
}

/// Names the adapters that the enabled firewall leaves open.
void warnOfOpenAdapters(Context& context) {
    std::vector<std::string> open;
    for (const UnlistedAdapter& adapter :
         unlistedAdapters(context.store().profile(""), context.machine())) {
        if (adapter.open) {
            open.push_back(adapter.name);
        }
    }
    if (!open.empty()) {
        warn("open, because the profile does not mention them: " + boost::join(open, ", "));
    }
}

void enable(bool yes, Report& report) {
    requireNoTrial();
    Context context(StoreSession::Access::kChange);
    requireNoTrial();  // nor one that began while this waited for the store's lock
    report.setProfile(context.store().activeProfile());
    std::optional<SignalsWait> wait;  // from the answer on, to disable it again after a failure
    context.control().enable(context.machine(), [&](const FW::FWPROFILE& profile) {
        requireSshAccess(profile, context.machine(), context.store().applyMode(), yes,
                         "Enable anyway?");
        wait.emplace();
    });
    report.setChanged(context.session().hasChanged());
    report.setApplied();
    std::cout << "Firewall enabled with profile " << inQuotes(context.store().activeProfile())
              << "\n";
    const std::string skipped = skippedText(context.store().profile(""), context.machine());
    if (!skipped.empty()) {
        warn(skipped);
    }
    warnOfOpenAdapters(context);
    putPoliciesBack();
    forgetTrial(context);
    sayAfterRestart(report);
}

/// Whether the machine has neither settings nor chains, so that there is nothing to switch off.
bool isFresh(Context& context) {
    if (context.store().hasSettings()) {
        return false;
    }
    awaitXtablesLock(context.session().lockTime());
    const std::vector<BaseFilter> filters = baseFilters();
    return std::all_of(filters.begin(), filters.end(), [](const BaseFilter& filter) {
        return filter.missing().chains.size() == wholeBase().chains.size();
    });
}

void disable(Report& report) {
    Context context(StoreSession::Access::kChange);
    report.setProfile(context.store().activeProfile());
    if (!isFresh(context)) {
        context.control().disable();
        report.setChanged(context.session().hasChanged());
    }
    std::cout << "Firewall disabled\n";
    context.session().unlock();
    putPoliciesBack();
    if (const std::optional<std::string> profile = endTrialOfDisabled()) {
        std::cout << "The trial of " << inQuotes(*profile) << " has ended\n";
    }
}

/// Warns about errors of the active profile. The reload goes on: the profile is in force already.
/// Sets what it skips, to be said of a reload that succeeds.
std::string warningsAboutActive(Context& context, std::string& skipped) {
    std::string text;
    try {
        // A copy, so that the documents are freed here, while the reload is running.
        const StoreSnapshot store = context.store();
        const FW::FWPROFILE& profile = store.profile("");
        text = errorsText(profile, context.machine());
        skipped = skippedText(profile, context.machine());
    } catch (const std::exception&) {
        return "";  // it cannot be read; the reload itself says so
    }
    (void)malloc_trim(0);  // else the next large allocation, for the answer, does it: 9 ms
    return text.empty() ? text : "tarnfw: " + printable(text) + "\n";
}

/// Asks as "enable" does: the profile may have changed since it was applied. Without a connection
/// over SSH, as at boot and in a script of the system, nobody is asked.
void confirmOverSsh(Context& context, bool yes) {
    if (!context.store().firewallEnabled() || !currentSshConnection()) {
        return;
    }
    const FW::FWPROFILE* profile = nullptr;
    try {
        profile = &context.store().profile("");
    } catch (const std::exception&) {
        return;  // the reload itself says so
    }
    requireSshAccess(*profile, context.machine(), context.store().applyMode(), yes, kApplyAnyway);
}

/// Waits for the end of a running trial, however long that takes.
void awaitEndOfTrial() {
    constexpr std::chrono::seconds kPause{1};
    for (bool isSaid = false;; isSaid = true) {
        try {
            requireNoTrial();
            return;
        } catch (const Error& error) {
            if (error.kind() != ErrorKind::kBusy) {
                throw;
            }
        }
        if (!isSaid) {
            std::cout << "Waiting for the end of the running trial\n" << std::flush;
        }
        std::this_thread::sleep_for(kPause);
    }
}

/// Whether no family has a chain of the base filter, as after "base down".
bool isBaseDown() {
    const std::vector<BaseFilter> filters = baseFilters();
    return !filters.empty() &&
           std::all_of(filters.begin(), filters.end(), [](const BaseFilter& filter) {
               return filter.missing().chains.size() == wholeBase().chains.size();
           });
}

/// Waits for the locks that a reload needs besides the store's, and without that: whoever needs it
/// is not to wait for this command. Returns the time that is left.
LockTime awaitLocksOfReload() {
    LockTime time;
    StoreSession::awaitReloadLock(time);
    awaitXtablesLock(time);
    return time;
}

/// Applies the active profile, while nobody changes the store; with an interface only if it has
/// lines for that.
void applyAgain(bool yes, const std::string& interface, Report& report) {
    Context context(StoreSession::Access::kSettled, std::make_unique<Machine>(),
                    awaitLocksOfReload());
    requireNoTrial();  // one that has begun meanwhile listens before it waits for the store's lock
    if (!interface.empty() &&
        !hasLinesFor(context.store().profile(""), interface, context.machine())) {
        report.setProfile(context.store().activeProfile());
        std::cout << "Profile " << inQuotes(context.store().activeProfile()) << " has nothing for "
                  << inQuotes(interface) << ": not reloaded\n";
        return;
    }
    if (!interface.empty() && isBaseDown()) {
        report.setProfile(context.store().activeProfile());
        std::cout << "The base filter is not set up, so no rules are in force: not reloaded\n";
        return;
    }
    confirmOverSsh(context, yes);
    std::string skipped;
    Control control(context.session(), [&](const std::string& what, const auto& work) {
        return runWhole(what, work, [&] { return warningsAboutActive(context, skipped); });
    });
    reloadActive(control, report);
    if (!skipped.empty()) {
        warn(skipped);
    }
    if (context.store().firewallEnabled()) {
        putPoliciesBack();
    }
    forgetTrial(context);
}

/// For an interface that has appeared, waits for the end of a trial and for a lock that another
/// program keeps, however long that takes: nobody would start it again.
void reload(bool yes, const std::string& interface, Report& report) {
    constexpr std::chrono::seconds kPause{1};
    requireRoot();
    if (interface.empty()) {
        requireNoTrial();
        applyAgain(yes, interface, report);
        return;
    }
    for (bool isSaid = false;; isSaid = true) {
        awaitEndOfTrial();
        try {
            applyAgain(yes, interface, report);
            return;
        } catch (const Error& error) {
            if (error.kind() != ErrorKind::kBusy) {
                throw;
            }
            if (!isSaid) {
                std::cout << "Waiting: " << error.what() << '\n' << std::flush;
            }
        }
        std::this_thread::sleep_for(kPause);
    }
}

/// Sets the apply mode, or prints it.
void applyMode(const std::string& wanted, Report& report) {
    if (!wanted.empty()) {
        requireRoot();
        makeProfileDirectory();  // the mode can be chosen before there is anything else
    }
    Context context(wanted.empty() ? StoreSession::Access::kRead : StoreSession::Access::kChange);
    if (const std::optional<ApplyMode> mode = applyModeFrom(wanted)) {
        context.session().setApplyMode(*mode);
        report.setChanged(context.session().hasChanged());
    }
    const ApplyMode mode = context.store().applyMode();
    report["applyMode"] = applyModeName(mode);
    std::cout << applyModeName(mode) << ": " << meaningOf(mode) << '\n';
}

void addApplyModeCommand(Command& app) {
    Command& command = app.subcommand("apply-mode", "Show or set how rules go into the kernel");
    struct Values {
        std::string mode;
        Report report;
    };
    const auto values = std::make_shared<Values>();
    command.option("MODE", values->mode, "lines or batch; without it, show the present one")
        .choices(applyModeNames());
    command.footer(
        "lines: a reload closes the machine to new connections, runs one command for each rule, "
        "and opens the machine again.\n"
        "batch: a reload replaces all rules of a family at once. Nothing is closed meanwhile.\n"
        "In both, nothing changes if the kernel refuses a line.");
    runReporting(command, values->report, [values] { applyMode(values->mode, values->report); });
}

}  // namespace

void addControlCommands(Command& app) {
    struct Values {
        bool yes = false;
        std::string interface;
        Report report;
    };
    Command& enableCommand =
        app.subcommand("enable", "Switch the firewall on and apply the active profile");
    const auto enabling = std::make_shared<Values>();
    enableCommand.flag("--yes", enabling->yes, "Do not ask if the rules would lock you out");
    enableCommand.footer("Over SSH, asks first if the profile would not let you connect again.");
    runReporting(enableCommand, enabling->report,
                 [enabling] { enable(enabling->yes, enabling->report); });
    const auto disabling = std::make_shared<Report>();
    runReporting(
        app.subcommand("disable", "Switch the firewall off: empty its chains, keep the profiles"),
        *disabling, [disabling] { disable(*disabling); });
    Command& reloadCommand = app.subcommand("reload", "Apply the active profile again");
    const auto reloading = std::make_shared<Values>();
    reloadCommand.flag("--yes", reloading->yes, "Do not ask if the rules would lock you out");
    reloadCommand
        .option("--for", reloading->interface,
                "Only if the profile has rules or a default policy for this interface; waits for "
                "the end of a trial, and for locks")
        .placeholder("INTERFACE");
    reloadCommand.footer(
        "Over SSH, asks first if the profile would not let you connect again.\n"
        "When an interface has appeared: tarnfw reload --for eth0");
    runReporting(reloadCommand, reloading->report,
                 [reloading] { reload(reloading->yes, reloading->interface, reloading->report); });
    addApplyModeCommand(app);
}

}  // namespace tarnfw
