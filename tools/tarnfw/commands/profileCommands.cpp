/// tarnfw profile: list, create, copy, rename, delete, use; show and edit have their own sources.
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/profileCommands.h"
#include "process/signalsWait.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/profileDocument.h"

namespace tarnfw {
namespace {

// ---- list ----

/// A profile's entry. An unreadable profile is also listed: its name is taken.
Json::Value entryOf(const StoreSnapshot& store, const std::string& name) {
    Json::Value entry;
    entry["name"] = name;
    entry["active"] = name == store.activeProfile();
    entry["adapters"] = Json::nullValue;
    entry["rules"] = Json::nullValue;
    try {
        const FW::FWPROFILE& profile = store.profile(name);
        Json::UInt64 rules = 0;
        for (const auto& [adapter, list] : profile.rules) {
            rules += list.size();
        }
        entry["adapters"] = static_cast<Json::UInt64>(adaptersOf(profile).size());
        entry["rules"] = rules;
    } catch (const Error&) {
        // stays without numbers
    }
    return entry;
}

void list(bool json) {
    const Context context(StoreSession::Access::kRead);
    const StoreSnapshot& store = context.store();
    const std::vector<std::string> names = store.requireProfiles();
    const std::string active = store.activeProfile();
    if (!store.unreadable().empty()) {
        std::cerr << "tarnfw: " << store.unreadableText() << '\n';
    }
    if (json) {
        Json::Value document;
        for (const std::string& name : names) {
            document["profiles"].append(entryOf(store, name));
        }
        printJson(document);
        return;
    }
    for (const std::string& name : names) {
        std::cout << (name == active ? "* " : "  ") << printable(name) << '\n';
    }
}

// ---- create, copy, rename, delete ----

FW::FWPROFILE profileFrom(const std::string& path, const std::string& name) {
    ProfileDocument document(readText(path));
    document.becomeNew(name);
    const bool valid = document.check();
    warn(path, document.findings());
    if (!valid) {
        throw Error(ErrorKind::kInvalid, printable(path) + " is invalid: no profile was created");
    }
    return document.profile();
}

void create(const std::string& name, const std::string& source) {
    Context context(StoreSession::Access::kChange);
    context.store().requireNewName(name);
    FW::FWPROFILE profile;
    profile.name = name;
    if (!source.empty()) {
        profile = profileFrom(source, name);
    }
    context.session().storeProfile(profile);
    std::cout << "Profile " << inQuotes(name) << " created"
              << (source.empty() ? "; without rules it allows everything" : "") << '\n';
}

void copy(const std::string& oldName, const std::string& newName) {
    Context context(StoreSession::Access::kChange);
    FW::FWPROFILE profile = context.store().profile(oldName);
    context.store().requireNewName(newName);
    profile.name = newName;
    context.session().storeProfile(profile);
    warnAboutErrors(profile);
    std::cout << "Profile " << inQuotes(newName) << " created, a copy of " << inQuotes(oldName)
              << '\n';
}

void rename(const std::string& oldName, const std::string& newName) {
    Context context(StoreSession::Access::kChange);
    context.store().requireProfile(oldName);
    context.store().requireNewName(newName);
    if (!context.session().change(
            [&] { return FW::TARNFW_PROFILE().profileRename(oldName, newName); })) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(oldName) + " cannot be renamed");
    }
    std::cout << "Profile " << inQuotes(oldName) << " renamed to " << inQuotes(newName) << "\n";
}

void remove(const std::string& name) {
    Context context(StoreSession::Access::kChange);
    context.store().requireProfile(name);
    if (name == context.store().activeProfile()) {
        throw Error(ErrorKind::kSystem,
                    "profile " + inQuotes(name) +
                        " is the active one; \"tarnfw profile use\" makes another one active");
    }
    // Without copies: a deletion needs no room, and makes some.
    const bool deleted = FW::TARNFW_PROFILE().profileDelete(name);
    context.session().refresh();
    if (!deleted || context.store().hasProfile(name)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) + " still exists: " +
                                            printable(context.store().pathOf(name)));
    }
    std::cout << "Profile " << inQuotes(name) << " deleted\n";
}

// ---- use ----

void setActive(Context& context, const std::string& name) {
    if (!context.session().change(
            [&] { return FW::TARNFW().fwProfileConfigSet(name, /*reload=*/false); })) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
}

/// Applies the new active profile; if that fails, makes the previous one active again, or
/// every later reload would fail.
void reloadOrGoBack(Context& context, const std::string& name, const std::string& before) {
    try {
        reloadActive(context);
    } catch (const Error& failure) {
        Context again(StoreSession::Access::kChange);
        if (before == name || again.store().activeProfile() != name) {
            throw;
        }
        setActive(again, before);
        throw Error(ErrorKind::kSystem, std::string(failure.what()) + "; " + inQuotes(before) +
                                            " is the active profile again");
    }
}

void use(const std::string& name, const ReloadOptions& reload) {
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, reload);
    context.store().requireProfile(name);
    const FW::FWPROFILE& profile = context.store().profile(name);
    requireValid(profile);  // a reload of it would leave the machine open
    requireAppliable(context, profile, reload, /*becomesActive=*/true);
    const SignalsWait wait;
    const std::string before = context.store().activeProfile();
    setActive(context, name);
    context.session().unlock();
    std::cout << "Profile " << inQuotes(name) << " is now the active one\n";
    if (reload.wanted && context.store().firewallEnabled()) {
        reloadOrGoBack(context, name, before);
    } else {
        finishChange(context, name, reload);
    }
}

// ---- Options ----

void addList(Command& group) {
    Command& command = group.subcommand("list", "List the profiles; the active one has a star");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.run([json] { list(*json); });
}

void addName(Command& command, std::string& name, const char* placeholder, const char* help) {
    command.option(placeholder, name, help).placeholder("").required();
}

void addCreate(Command& group) {
    struct Values {
        std::string name;
        std::string source;
    };
    Command& command =
        group.subcommand("create", "Create a profile; without rules it allows everything");
    const auto values = std::make_shared<Values>();
    addName(command, values->name, "NAME", "Its name");
    command
        .option("--from", values->source,
                "The document to create it from; \"profile show --json\" prints one")
        .placeholder("FILE");
    command.run([values] { create(values->name, values->source); });
}

using TwoNamesRun = void (*)(const std::string& oldName, const std::string& newName);

void addForTwoNames(Command& group, const char* name, const char* help, TwoNamesRun run) {
    struct Values {
        std::string oldName;
        std::string newName;
    };
    Command& command = group.subcommand(name, help);
    const auto values = std::make_shared<Values>();
    addName(command, values->oldName, "OLD", "The profile");
    addName(command, values->newName, "NEW", "The new name");
    command.run([values, run] { run(values->oldName, values->newName); });
}

void addDelete(Command& group) {
    Command& command = group.subcommand("delete", "Delete a profile; not the active one");
    const auto name = std::make_shared<std::string>();
    addName(command, *name, "NAME", "The profile");
    command.run([name] { remove(*name); });
}

void addUse(Command& group) {
    struct Values {
        std::string name;
        ReloadOptions reload;
    };
    Command& command = group.subcommand("use", "Make a profile the active one");
    const auto values = std::make_shared<Values>();
    addName(command, values->name, "NAME", "The profile");
    addReloadFlag(command, values->reload);
    command.run([values] { use(values->name, values->reload); });
}

}  // namespace

void addProfileCommands(Command& app) {
    Command& profile = app.subcommand("profile", "The profiles on disk");
    addList(profile);
    addProfileShowCommand(profile);
    addCreate(profile);
    addForTwoNames(profile, "copy", "Create a profile with the rules of another", copy);
    addForTwoNames(profile, "rename", "Rename a profile", rename);
    addDelete(profile);
    addUse(profile);
    addProfileEditCommand(profile);
}

}  // namespace tarnfw
