/// tarnfw adapters, services: the machine's interfaces and the service catalogue.
#include <fnmatch.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/ruleText.h"

namespace tarnfw {
namespace {

// ---- adapters ----

/// An adapter: its interface, and what the active profile has for it.
struct Adapter {
    std::string name;
    bool present = false;
    bool inProfile = false;
    std::optional<Interface> interface;
    std::vector<std::string> meant;  ///< the interfaces of a predefined adapter
    std::optional<FW::FW_POLICY> policy;
    std::size_t rules = 0;
    std::size_t rulesOff = 0;
    std::optional<UnlistedAdapter> unlisted;  ///< the profile has nothing for it
};

Adapter adapterOf(const std::string& name, const std::vector<Interface>& interfaces,
                  const FW::FWPROFILE& profile) {
    Adapter adapter;
    adapter.name = name;
    adapter.meant = interfacesOf(name);
    const auto found =
        std::find_if(interfaces.begin(), interfaces.end(),
                     [&](const Interface& interface) { return interface.name == name; });
    if (found != interfaces.end() && !isPredefined(name)) {
        adapter.interface = *found;
    }
    adapter.present = name == FW::FW_ADAPTER_GLOBAL || !adapter.meant.empty() || adapter.interface;
    const auto policy = profile.adapterPolicyMap.find(name);
    if (policy != profile.adapterPolicyMap.end()) {
        adapter.policy = policy->second;
    }
    const auto rules = profile.rules.find(name);
    if (rules != profile.rules.end()) {
        adapter.rules = rules->second.size();
        adapter.rulesOff = static_cast<std::size_t>(
            std::count_if(rules->second.begin(), rules->second.end(),
                          [](const FW::FWRULE& rule) { return !rule.enable; }));
    }
    return adapter;
}

/// Those of the machine, of the profile, and the predefined ones.
std::vector<Adapter> adaptersNow(const FW::FWPROFILE& profile) {
    const std::vector<Interface> interfaces = interfacesNow();
    std::set<std::string> names(FW::FW_PREDEFINED_ADAPTERS.begin(),
                                FW::FW_PREDEFINED_ADAPTERS.end());
    for (const std::string& name : machineAdapters()) {
        names.insert(name);
    }
    const std::vector<std::string> mentioned = adaptersOf(profile);
    names.insert(mentioned.begin(), mentioned.end());
    std::vector<Adapter> adapters;
    adapters.reserve(names.size());
    Machine machine;
    const std::vector<UnlistedAdapter> unlisted =
        profile.name.empty() ? std::vector<UnlistedAdapter>() : unlistedAdapters(profile, machine);
    for (const std::string& name : names) {
        adapters.push_back(adapterOf(name, interfaces, profile));
        adapters.back().inProfile =
            std::find(mentioned.begin(), mentioned.end(), name) != mentioned.end();
        const auto found =
            std::find_if(unlisted.begin(), unlisted.end(),
                         [&](const UnlistedAdapter& adapter) { return adapter.name == name; });
        if (found != unlisted.end()) {
            adapters.back().unlisted = *found;
        }
    }
    return adapters;
}

std::vector<std::string> addressTexts(const Interface& interface) {
    std::vector<std::string> texts;
    texts.reserve(interface.addresses.size());
    for (const Address& address : interface.addresses) {
        texts.push_back(spelled(address));
    }
    return texts;
}

std::string nowText(const Adapter& adapter) {
    if (adapter.name == FW::FW_ADAPTER_GLOBAL) {
        return "every adapter";
    }
    if (!adapter.present) {
        return isPredefined(adapter.name) ? "no interface now" : "absent";
    }
    if (!adapter.interface) {
        return boost::join(adapter.meant, ", ");
    }
    const Interface& interface = *adapter.interface;
    return interface.running ? "up" : interface.up ? "up, not connected" : "down";
}

void printAdapters(const FW::FWPROFILE& profile, const std::vector<Adapter>& adapters) {
    if (profile.name.empty()) {
        std::cout << "There are no profiles; \"tarnfw base up\" writes a first one\n";
    } else {
        std::cout << "Profile " << inQuotes(profile.name) << " (active)\n";
    }
    Table table({"Adapter", "Now", "Addresses", "Default", "Rules", "Note"});
    table.cutFirst(2);
    for (const Adapter& adapter : adapters) {
        std::string rules = std::to_string(adapter.rules);
        if (adapter.rulesOff > 0) {
            rules.append(" (").append(std::to_string(adapter.rulesOff)).append(" off)");
        }
        const bool denies = adapter.policy == FW::FW_POLICY_DENY;
        table.addRow(
            {{adapter.name, Paint::kPlain},
             {nowText(adapter), adapter.present ? Paint::kPlain : Paint::kFaint},
             {adapter.interface ? boost::join(addressTexts(*adapter.interface), ", ") : "",
              Paint::kPlain},
             {adapter.policy ? policyText(*adapter.policy) : "-", !adapter.policy ? Paint::kFaint
                                                                  : denies        ? Paint::kBad
                                                                                  : Paint::kPlain},
             {rules, adapter.rules > 0 ? Paint::kPlain : Paint::kFaint},
             {adapter.unlisted           ? textOf(*adapter.unlisted)
              : isLoopback(adapter.name) ? "never filtered"
                                         : "",
              adapter.unlisted && adapter.unlisted->open ? Paint::kDoubtful : Paint::kFaint}});
    }
    table.print();
}

Json::Value adapterDocument(const Adapter& adapter) {
    Json::Value document;
    document["name"] = adapter.name;
    document["predefined"] = isPredefined(adapter.name);
    document["present"] = adapter.present;
    document["up"] = adapter.interface && adapter.interface->up;
    document["addresses"] = textsJson(adapter.interface ? addressTexts(*adapter.interface)
                                                        : std::vector<std::string>());
    document["standsFor"] = textsJson(adapter.meant);
    document["policy"] = policyText(adapter.policy.value_or(FW::FW_POLICY_NONE));
    document["rules"] = static_cast<Json::UInt64>(adapter.rules);
    document["rulesOff"] = static_cast<Json::UInt64>(adapter.rulesOff);
    addUnlisted(document, adapter.inProfile, adapter.unlisted);
    return document;
}

void adapters(bool json) {
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    const bool hasAny = !store.unreadable().empty() || !store.profileNames().empty();
    const FW::FWPROFILE profile = hasAny ? store.profile("") : FW::FWPROFILE();
    const std::vector<Adapter> found = adaptersNow(profile);
    if (!json) {
        printAdapters(profile, found);
        return;
    }
    Json::Value document;
    document["profile"] = hasAny ? Json::Value(profile.name) : Json::Value();
    for (const Adapter& adapter : found) {
        document["adapters"].append(adapterDocument(adapter));
    }
    printJson(document);
}

// ---- services ----

/// "tcp 80,443"; empty without ports.
std::string sideText(const ServiceSide& side) {
    return side.ports.empty() ? std::string()
                              : protocolText(side.protocol) + " " + boost::join(side.ports, ",");
}

std::string portsText(const Service& service) {
    std::string text = sideText(service.destination);
    if (!service.source.ports.empty()) {
        text.append(text.empty() ? "" : ", ").append("from ").append(sideText(service.source));
    }
    for (const std::uint16_t protocol : protocolsOf(service)) {
        text.append(text.empty() ? "" : ", ").append("protocol ").append(std::to_string(protocol));
    }
    return text;
}

/// Whether name or title hold the pattern, which may have "*" and "?", in any case of letters.
bool fits(const Service& service, const std::string& pattern) {
    const std::string anywhere = "*" + pattern + "*";
    return fnmatch(anywhere.c_str(), service.name.c_str(), FNM_CASEFOLD) == 0 ||
           fnmatch(anywhere.c_str(), service.title.c_str(), FNM_CASEFOLD) == 0;
}

Json::Value sideDocument(const ServiceSide& side) {
    if (side.ports.empty()) {
        return {};
    }
    Json::Value document;
    document["protocol"] = protocolText(side.protocol);
    for (const std::string& port : side.ports) {
        document["ports"].append(protocolText(side.protocol) + " " + port);
    }
    return document;
}

Json::Value serviceDocument(const Service& service) {
    Json::Value document;
    document["name"] = service.name;
    document["title"] = service.title;
    document["usable"] = service.usable();
    document["destination"] = sideDocument(service.destination);
    document["source"] = sideDocument(service.source);
    document["protocols"] = Json::Value(Json::arrayValue);
    for (const std::uint16_t protocol : protocolsOf(service)) {
        document["protocols"].append(protocol);
    }
    return document;
}

void services(const std::string& pattern, bool json) {
    Machine machine;
    std::vector<Service> found = machine.requireCatalogue().services();
    std::vector<std::string> names;
    names.reserve(found.size());
    for (const Service& service : found) {
        names.push_back(service.name);
    }
    found.erase(std::remove_if(found.begin(), found.end(),
                               [&](const Service& service) { return !fits(service, pattern); }),
                found.end());
    if (found.empty()) {
        throw Error(ErrorKind::kNotFound,
                    "no service of the catalogue matches " + inQuotes(pattern) +
                        didYouMean(nearest(pattern, names)),
                    {}, Remedy::kListServices);
    }
    if (json) {
        Json::Value document;
        for (const Service& service : found) {
            document["services"].append(serviceDocument(service));
        }
        printJson(document);
        return;
    }
    Table table({"Service", "Title", "Ports"});
    for (const Service& service : found) {
        const bool usable = service.usable();
        table.addRow({{service.name, usable ? Paint::kPlain : Paint::kFaint},
                      {usable ? service.title : "(kept out of the firewall)",
                       usable ? Paint::kPlain : Paint::kFaint},
                      {portsText(service), Paint::kPlain}});
    }
    table.print();
}

void addAdapters(Command& app) {
    Command& command = app.subcommand(
        "adapters",
        "List the machine's interfaces and what the active profile has for each adapter");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.footer(
        "The adapters \"global\", \"pppoe\" and \"vpn\" are every interface, the PPPoE connection "
        "and the\nVPN connections.");
    command.run([json] { adapters(*json); });
}

void addServices(Command& app) {
    Command& command =
        app.subcommand("services", "List the services that rules can name, with their ports");
    const auto pattern = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command.option("PATTERN", *pattern,
                   "Only those with this in their name or title; may contain * and ?");
    addJsonFlag(command, *json);
    command.run([pattern, json] { services(*pattern, *json); });
}

}  // namespace

void addInventoryCommands(Command& app) {
    addAdapters(app);
    addServices(app);
}

}  // namespace tarnfw
