/// tarnfw profile: list, show.
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/tarnFW.h"

#include "commands.h"
#include "ruleText.h"

namespace tarnfw {
namespace {

void list() {
    requireRoot();
    std::vector<std::string> names;
    if (!FW::TARNFW_PROFILE().profileEnum(names)) {
        throw CommandFailed("there are no profiles; \"tarnfw base up\" writes a first one");
    }
    const std::string active = activeProfile();
    for (const std::string& name : names) {
        std::cout << (name == active ? "* " : "  ") << printable(name) << '\n';
    }
}

void show(const std::string& name) {
    requireRoot();
    FW::FWPROFILE profile;
    if (!FW::TARNFW_PROFILE().profileGet(name, profile)) {
        throw CommandFailed("profile \"" + printable(name) + "\" cannot be read");
    }
    std::cout << "Profile " << printable(profile.name)
              << (name == activeProfile() ? " (active)" : "") << '\n';
    std::set<std::string> adapters;
    for (const auto& [adapter, rules] : profile.rules) {
        adapters.insert(adapter);
    }
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        adapters.insert(adapter);
    }
    for (const std::string& adapter : adapters) {
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

}  // namespace

void addProfileCommands(CLI::App& app) {
    CLI::App* const profile = app.add_subcommand("profile", "The profiles on disk");
    profile->require_subcommand(1);
    profile->add_subcommand("list", "Name the profiles; the active one has a star")->callback(list);
    CLI::App* const showCommand =
        profile->add_subcommand("show", "Print a profile's rules in plain words");
    const auto name = std::make_shared<std::string>();
    showCommand->add_option("NAME", *name, "The profile")->required();
    showCommand->callback([name] { show(*name); });
}

}  // namespace tarnfw
