/// tarnfw enable, disable, reload, apply-mode.
#include <algorithm>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarncore.h"

#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/sshGuard.h"
#include "process/signalsWait.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/storeChange.h"

namespace tarnfw {
namespace {

// What the settings' member "apply" may say.
constexpr char kLinesMode[] = "lines";
constexpr char kBatchMode[] = "batch";

/// Switches the firewall on; where that fails and it was off, it is off again.
void enableOrGoBack() {
    const SignalsWait wait;
    const bool wasEnabled = firewallEnabled();
    std::string reason;
    try {
        if (enableFirewall()) {
            return;
        }
        reason = "the rules could not be put in force";
    } catch (const Error& failure) {
        reason = failure.what();
    }
    if (!wasEnabled && firewallEnabled()) {
        disableFirewall();
    }
    throw Error(ErrorKind::kSystem,
                reason + (wasEnabled ? ": " + stateNow() : "; the firewall stays off"));
}

void enable(bool yes) {
    requireRoot();
    requireBase();
    const FW::FWPROFILE profile = loadProfile("");
    requireSound(profile);
    requireSshAccess(profile, yes, "Enable all the same?");
    enableOrGoBack();
    std::cout << "Firewall enabled with profile " << inQuotes(activeProfile()) << "\n";
}

/// Whether there is nothing that the firewall could be switched off in.
bool isFresh() {
    const std::vector<BaseFilter> filters = baseFilters();
    return TLIBCFileExist(kSettingsFile) != 1 &&
           std::all_of(filters.begin(), filters.end(), [](const BaseFilter& filter) {
               return filter.missing().chains.size() == wholeBase().chains.size();
           });
}

void disable() {
    requireRoot();
    if (!isFresh()) {
        disableFirewall();
    }
    std::cout << "Firewall disabled\n";
}

/// What is wrong with the active profile. A reload of it goes on: it is in force already, or was.
void warnAboutActive() {
    try {
        const FW::FWPROFILE profile = loadProfile("");
        warnAboutErrors(profile);
        warnAboutSsh(profile);
    } catch (const std::exception&) {
        return;  // it cannot be read; the reload itself says so
    }
}

void reload() {
    requireRoot();
    if (firewallEnabled()) {
        requireBase();
        warnAboutActive();
    }
    reloadActive();
}

/// Sets how rules go into the kernel, or says how they do.
void applyMode(const std::string& wanted, bool json) {
    requireRoot();
    FW::TARNFW firewall;
    if (!wanted.empty()) {
        const StoreLock lock;
        Json::Value settings;
        settings["apply"] = wanted;
        StoreChange change;
        const bool set = firewall.configSet(settings);
        change.finish();
        if (!set) {
            throw Error(ErrorKind::kSystem, "the settings cannot be written");
        }
    }
    std::string mode;
    if (!firewall.fwApplyMode(mode)) {
        throw Error(ErrorKind::kSystem, "the settings cannot be read");
    }
    if (json) {
        Json::Value document;
        document["applyMode"] = mode;
        printJson(document);
        return;
    }
    std::cout << (mode == kBatchMode ? "batch: each family's rules go in as one transaction\n"
                                     : "lines: one command for each rule, behind closed doors\n");
}

void addApplyModeCommand(Command& app) {
    Command& command = app.subcommand("apply-mode", "Say or set how rules are put into the kernel");
    const auto mode = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command.option("MODE", *mode, "lines or batch; left out: say which it is")
        .choices({kLinesMode, kBatchMode});
    command.footer(
        "lines: a reload closes the machine to new connections, runs one command for each rule, "
        "and "
        "opens it again. A line that the kernel refuses is left out.\n"
        "batch: each family's rules replace the old ones in one transaction. Nothing is closed "
        "meanwhile; one line that the kernel refuses leaves all as it was.");
    addJsonFlag(command, *json);
    command.run([mode, json] { applyMode(*mode, *json); });
}

}  // namespace

void addControlCommands(Command& app) {
    Command& enableCommand =
        app.subcommand("enable", "Switch the firewall on and apply the active profile");
    const auto yes = std::make_shared<bool>(false);
    enableCommand.flag("--yes", *yes, "Do not ask when that would keep you out");
    enableCommand.footer("Over SSH, asks first when the profile would not let you connect again.");
    enableCommand.run([yes] { enable(*yes); });
    app.subcommand("disable", "Switch the firewall off: empty its chains, keep the profiles")
        .run(disable);
    app.subcommand("reload", "Apply the active profile anew").run(reload);
    addApplyModeCommand(app);
}

}  // namespace tarnfw
