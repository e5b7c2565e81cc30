/// tarnfw enable, disable, reload, apply-mode.
#include <iostream>
#include <memory>
#include <string>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "applying.h"
#include "baseFilter.h"
#include "command.h"
#include "commands.h"
#include "output.h"
#include "sshGuard.h"
#include "store.h"
#include "storeChange.h"

namespace tarnfw {
namespace {

// What the settings' member "apply" may say.
constexpr char kLinesMode[] = "lines";
constexpr char kBatchMode[] = "batch";

void enable(bool yes) {
    requireRoot();
    requireBase();
    requireSshAccess("", yes, "Enable all the same?");
    if (!enableFirewall()) {
        throw CommandFailed("the firewall was not enabled as it should be");
    }
    std::cout << "Firewall enabled with profile " << inQuotes(activeProfile()) << '\n';
}

void disable() {
    requireRoot();
    disableFirewall();
    std::cout << "Firewall disabled\n";
}

void reload() {
    requireRoot();
    if (firewallEnabled()) {
        warnAboutSsh("");
    }
    reloadActive();
}

/// Sets how rules go into the kernel, or says how they do.
void applyMode(const std::string& wanted) {
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
            throw CommandFailed("the settings cannot be written");
        }
    }
    std::string mode;
    if (!firewall.fwApplyMode(mode)) {
        throw CommandFailed("the settings cannot be read");
    }
    std::cout << (mode == kBatchMode ? "batch: each family's rules go in as one transaction\n"
                                     : "lines: one command for each rule, behind closed doors\n");
}

void addApplyModeCommand(CLI::App& app) {
    CLI::App* const command =
        app.add_subcommand("apply-mode", "Say or set how rules are put into the kernel");
    const auto mode = std::make_shared<std::string>();
    command->add_option("MODE", *mode, "lines or batch; left out: say which it is")
        ->check(CLI::IsMember({kLinesMode, kBatchMode}));
    command->footer(
        "lines: a reload closes the machine to new connections, runs one command for each rule, "
        "and "
        "opens it again. A line that the kernel refuses is left out.\n"
        "batch: each family's rules replace the old ones in one transaction. Nothing is closed "
        "meanwhile; one line that the kernel refuses leaves all as it was.");
    command->callback([mode] { applyMode(*mode); });
}

}  // namespace

void addControlCommands(CLI::App& app) {
    CLI::App* const enableCommand =
        app.add_subcommand("enable", "Switch the firewall on and apply the active profile");
    const auto yes = std::make_shared<bool>(false);
    enableCommand->add_flag("--yes", *yes, "Do not ask when that would keep you out");
    enableCommand->footer("Over SSH, asks first when the profile would not let you connect again.");
    enableCommand->callback([yes] { enable(*yes); });
    app.add_subcommand("disable", "Switch the firewall off: empty its chains, keep the profiles")
        ->callback(disable);
    app.add_subcommand("reload", "Apply the active profile anew")->callback(reload);
    addApplyModeCommand(app);
}

}  // namespace tarnfw
