/// tarnfw profile show: a profile's rules as tables.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/context.h"
#include "commands/profileCommands.h"
#include "tarnfwadmin/ruleText.h"

namespace tarnfw {
namespace {

bool isGlobal(const std::string& adapter) {
    return adapter == FW::FW_ADAPTER_GLOBAL;
}

/// A rule's flags, then its name and its labels.
std::string notesOf(const FW::FWRULE& rule) {
    std::vector<std::string> notes;
    const auto addIf = [&](bool holds, const char* note) {
        if (holds) {
            notes.emplace_back(note);
        }
    };
    addIf(!rule.enable, "off");
    addIf(rule.adapterDirect == FW::FW_ADAPTER_DIRECT_OUT, "outgoing");
    addIf(rule.blLog, "logged");
    addIf(FW::fwRuleIsReserved(rule), "reserved");
    std::string text = boost::join(notes, ", ");
    if (!rule.name.empty()) {
        text.append(text.empty() ? "" : " ").append("\"").append(rule.name).append("\"");
    }
    for (const std::string& label : rule.labelList) {
        text.append(text.empty() ? "" : " ").append("[").append(label).append("]");
    }
    return text;
}

void addRule(Table& table, std::size_t position, const FW::FWRULE& rule) {
    const auto paint = [&](Paint usual) { return rule.enable ? usual : Paint::kFaint; };
    table.addRow({{std::to_string(position), paint(Paint::kPlain)},
                  {policyText(rule.policy), paint(policyPaint(rule.policy))},
                  {portText(rule), paint(Paint::kPlain)},
                  {addressText(rule), paint(Paint::kPlain)},
                  {familyText(rule.ipType), paint(Paint::kPlain)},
                  {notesOf(rule), paint(Paint::kPlain)}});
}

void printAdapter(const FW::FWPROFILE& profile, const std::string& adapter) {
    std::cout << '\n' << painted(printable(adapter), Paint::kStrong) << '\n';
    const auto rules = profile.rules.find(adapter);
    if (rules != profile.rules.end() && !rules->second.empty()) {
        Table table({"#", "Action", "What", "Address", "Family", "Notes"});
        std::size_t position = 0;
        for (const FW::FWRULE& rule : rules->second) {
            addRule(table, ++position, rule);
        }
        table.print(2);
    }
    const auto policy = profile.adapterPolicyMap.find(adapter);
    if (isGlobal(adapter)) {
        std::cout << "  default policy: none (the adapters decide)\n";
    } else if (policy != profile.adapterPolicyMap.end()) {
        std::cout << "  default policy: "
                  << painted(policyText(policy->second), policyPaint(policy->second)) << '\n';
    }
}

void show(const std::string& name, bool json) {
    const Context context(StoreSession::Access::kRead);
    const FW::FWPROFILE& profile = context.store().profile(name);
    const bool active = profile.name == context.store().activeProfile();
    if (json) {
        Json::Value document;
        FW::TARNFW_JSON_DB().profileToJson(profile, document);
        document["active"] = active;
        printJson(document);
        return;
    }
    std::cout << "Profile " << printable(profile.name) << (active ? " (active)" : "") << '\n';
    std::vector<std::string> adapters = adaptersOf(profile);
    // In the order in which packets pass them.
    (void)std::stable_partition(adapters.begin(), adapters.end(), isGlobal);
    for (const std::string& adapter : adapters) {
        printAdapter(profile, adapter);
    }
}

}  // namespace

void addProfileShowCommand(Command& group) {
    struct Values {
        std::string name;
        bool json = false;
    };
    Command& command = group.subcommand("show", "Print a profile's rules in plain words");
    const auto values = std::make_shared<Values>();
    command.option("NAME", values->name, "The profile; by default the active one").placeholder("");
    addJsonFlag(command, values->json);
    command.run([values] { show(values->name, values->json); });
}

}  // namespace tarnfw
