/// tarnfw modules: netfilter kernel modules, counted by service.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/tarnIptablesModule.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/commands.h"

namespace tarnfw {
namespace {

using Modules = FW::TARN_IPTABLES_MODULES;

struct ModulesOptions {
    std::string service;
    bool nat = false;
    bool json = false;                                            ///< of "status"
    std::shared_ptr<Report> report = std::make_shared<Report>();  ///< of the others
};

/// The modules of a service, without the ".ko" of their files.
std::vector<std::string> moduleNames(bool nat) {
    std::vector<std::string> names;
    if (!Modules::coreCommonModuleLoad(names)) {
        throw Error(ErrorKind::kSystem, "the list of kernel modules cannot be read");
    }
    if (nat) {
        std::vector<std::string> natNames;
        if (!Modules::natModuleLoad(natNames)) {
            throw Error(ErrorKind::kSystem, "the list of kernel modules cannot be read");
        }
        names.insert(names.end(), natNames.begin(), natNames.end());
    }
    return names;
}

/// The key of a service in the loader's record is a line of a file.
void requireServiceName(const std::string& service) {
    if (service.empty() || service.find_first_of("=\n\t \"") != std::string::npos) {
        throw UsageError(inQuotes(service) + " is not a valid service name");
    }
}

void load(const ModulesOptions& options) {
    requireRoot();
    requireServiceName(options.service);
    options.report->setChanged(!Modules::isModuleLoad(options.service));
    if (!(options.nat ? Modules::iptablesNATModLoad(options.service)
                      : Modules::iptablesCoreModLoad(options.service))) {
        throw Error(ErrorKind::kSystem,
                    "not all modules of " + inQuotes(options.service) + " are loaded");
    }
    std::cout << "Modules loaded for " << inQuotes(options.service) << '\n';
}

void unload(const ModulesOptions& options) {
    requireRoot();
    requireServiceName(options.service);
    if (!Modules::isModuleLoad(options.service)) {
        // Without its "yes" the service has loaded no module: unloading would release another's.
        throw Error(ErrorKind::kNotFound, "no modules are loaded for " + inQuotes(options.service));
    }
    if (!(options.nat ? Modules::iptablesNATModUnload(options.service)
                      : Modules::iptablesCoreModUnload(options.service))) {
        throw Error(ErrorKind::kSystem,
                    "not all modules of " + inQuotes(options.service) + " are released");
    }
    options.report->setChanged();
    std::cout << "Modules released by " << inQuotes(options.service) << '\n';
}

void status(const ModulesOptions& options) {
    requireKernelRights();
    requireServiceName(options.service);
    const bool loaded = Modules::isModuleLoad(options.service);
    const std::vector<std::string> names = moduleNames(/*nat=*/true);
    if (options.json) {
        Json::Value document;
        document["service"] = options.service;
        document["loaded"] = loaded;
        document["modules"] = textsJson(names);
        printJson(document);
        return;
    }
    std::cout << "Modules are " << (loaded ? "" : "not ") << "loaded for \""
              << printable(options.service) << "\"\n";
}

/// One subcommand of the group, for a service.
Command& addCommand(Command& group, const char* name, const char* summary,
                    const std::shared_ptr<ModulesOptions>& options) {
    Command& command = group.subcommand(name, summary);
    command
        .option("SERVICE", options->service,
                "The name under which the modules are counted; the firewall's own is \"firewall\"")
        .showDefault();
    return command;
}

std::shared_ptr<ModulesOptions> freshOptions() {
    const auto options = std::make_shared<ModulesOptions>();
    options->service = "firewall";
    return options;
}

}  // namespace

void addModulesCommands(Command& app) {
    Command& group = app.subcommand(
        "modules",
        "The kernel modules of the packet filter, counted by the services that use them");
    constexpr char kNatHelp[] = "Also the modules for address translation";

    auto options = freshOptions();
    Command& loading = addCommand(group, "load", "Load the modules for a service", options);
    loading.flag("--nat", options->nat, kNatHelp);
    runReporting(loading, *options->report, [options] { load(*options); });
    options = freshOptions();
    Command& unloading =
        addCommand(group, "unload", "Release the modules of a service, in reverse order", options);
    unloading.flag("--nat", options->nat, kNatHelp);
    runReporting(unloading, *options->report, [options] { unload(*options); });
    options = freshOptions();
    Command& showing =
        addCommand(group, "status", "Show whether a service has its modules loaded", options);
    addJsonFlag(showing, options->json);
    showing.run([options] { status(*options); });
}

}  // namespace tarnfw
