/// tarnfw preview: the command lines of a profile, as a reload would run them.
#include <iostream>
#include <memory>
#include <string>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "command.h"
#include "commands.h"
#include "output.h"
#include "store.h"

namespace tarnfw {
namespace {

constexpr char kGlobalKey[] = "global";

void printLines(const std::string& tool, const Json::Value& lines) {
    for (const Json::Value& line : lines) {
        std::cout << printable(tool + ' ' + line.asString()) << '\n';
    }
}

/// Prints one family in the order of running: "global" first.
void printFamily(const std::string& tool, const Json::Value& family) {
    printLines(tool, family[kGlobalKey]);
    for (const std::string& adapter : family.getMemberNames()) {
        if (adapter != kGlobalKey) {
            printLines(tool, family[adapter]);
        }
    }
}

void preview(const std::string& name) {
    requireRoot();
    const std::string profile = name.empty() ? activeProfile() : name;
    Json::Value commands;
    if (!FW::TARNFW().fwIptablesRulesEnum(profile, commands, true)) {
        throw CommandFailed("profile \"" + printable(profile) + "\" cannot be translated");
    }
    const Json::Value& families = commands;
    std::cout << "# IPv4\n";
    printFamily("/sbin/iptables", families["v4"]);
    std::cout << "# IPv6\n";
    printFamily("/sbin/ip6tables", families["v6"]);
}

}  // namespace

void addPreviewCommand(CLI::App& app) {
    CLI::App* const command = app.add_subcommand(
        "preview", "Print the command lines of a profile, in the order of running; change nothing");
    const auto profile = std::make_shared<std::string>();
    command->add_option("PROFILE", *profile, "The profile; the active one when left out");
    command->callback([profile] { preview(*profile); });
}

}  // namespace tarnfw
