/// tarnfw profile: list, show.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "command.h"
#include "commands.h"
#include "output.h"
#include "ruleText.h"
#include "store.h"

namespace tarnfw {
namespace {

void list(bool json) {
    requireRoot();
    const std::vector<std::string> names = profileNames();
    if (names.empty()) {
        throw CommandFailed("there are no profiles; \"tarnfw base up\" writes a first one");
    }
    const std::string active = activeProfile();
    if (json) {
        Json::Value document;
        for (const std::string& name : names) {
            Json::Value entry;
            entry["name"] = name;
            entry["active"] = name == active;
            document["profiles"].append(entry);
        }
        printJson(document);
        return;
    }
    for (const std::string& name : names) {
        std::cout << (name == active ? "* " : "  ") << printable(name) << '\n';
    }
}

void show(const std::string& name) {
    requireRoot();
    FW::FWPROFILE profile = loadProfile(name);
    std::cout << "Profile " << printable(profile.name)
              << (profile.name == activeProfile() ? " (active)" : "") << '\n';
    for (const std::string& adapter : adaptersOf(profile)) {
        std::cout << '\n' << printable(adapter) << '\n';
        int position = 0;
        for (const FW::FWRULE& rule : profile.rules[adapter]) {
            std::cout << "  " << ++position << ". " << printable(ruleText(rule)) << '\n';
        }
        const auto policy = profile.adapterPolicyMap.find(adapter);
        if (policy != profile.adapterPolicyMap.end()) {
            std::cout << "  otherwise: " << policyText(policy->second) << '\n';
        }
    }
}

void addListCommand(CLI::App& group) {
    CLI::App* const command =
        group.add_subcommand("list", "Name the profiles; the active one has a star");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(*command, *json);
    command->callback([json] { list(*json); });
}

}  // namespace

void addProfileCommands(CLI::App& app) {
    CLI::App* const profile = app.add_subcommand("profile", "The profiles on disk");
    profile->require_subcommand(1);
    addListCommand(*profile);
    CLI::App* const showCommand =
        profile->add_subcommand("show", "Print a profile's rules in plain words");
    const auto name = std::make_shared<std::string>();
    showCommand->add_option("NAME", *name, "The profile")->required();
    showCommand->callback([name] { show(*name); });
}

}  // namespace tarnfw
