/// tarnfw profile: list, create, copy, rename, delete, use; show and edit have their own sources.
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
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
#include "tarnfwadmin/profileDocument.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/storeChange.h"

namespace tarnfw {
namespace {

// ---- list ----

/// A profile's entry. One that cannot be read is listed as well: its name is taken.
Json::Value entryOf(const std::string& name, bool active) {
    Json::Value entry;
    entry["name"] = name;
    entry["active"] = active;
    entry["adapters"] = Json::nullValue;
    entry["rules"] = Json::nullValue;
    FW::FWPROFILE profile;
    if (FW::TARNFW_PROFILE().profileGet(name, profile)) {
        Json::UInt64 rules = 0;
        for (const auto& [adapter, list] : profile.rules) {
            rules += list.size();
        }
        entry["adapters"] = static_cast<Json::UInt64>(adaptersOf(profile).size());
        entry["rules"] = rules;
    }
    return entry;
}

void list(bool json) {
    requireRoot();
    const StoredDocuments stored = storedDocuments();
    const std::vector<std::string> names = requireProfiles(stored);
    const std::string active = activeProfile();
    if (!stored.unreadable.empty()) {
        std::cerr << "tarnfw: " << unreadableText(stored.unreadable) << '\n';
    }
    if (json) {
        Json::Value document;
        for (const std::string& name : names) {
            document["profiles"].append(entryOf(name, name == active));
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
    std::ifstream file(path, std::ios::in | std::ios::binary);
    if (!file) {
        throw Error(ErrorKind::kSystem, "cannot read " + printable(path));
    }
    std::string text;
    try {
        text.assign(std::istreambuf_iterator<char>(file), {});
    } catch (const std::ios_base::failure&) {
        throw Error(ErrorKind::kSystem, "cannot read " + printable(path));  // a directory
    }
    ProfileDocument document(text, path);
    document.becomeNew(name);
    const bool valid = document.check();
    document.printFindings();
    if (!valid) {
        throw Error(ErrorKind::kInvalid,
                    printable(path) + " does not check: no profile was created");
    }
    return document.profile();
}

void create(const std::string& name, const std::string& source) {
    requireRoot();
    const StoreLock lock;
    requireNewName(name);
    FW::FWPROFILE profile;
    profile.name = name;
    if (!source.empty()) {
        profile = profileFrom(source, name);
    }
    storeProfile(profile);
    std::cout << "Profile " << inQuotes(name) << " created"
              << (source.empty() ? "; without rules it allows everything" : "") << '\n';
}

void copy(const std::string& oldName, const std::string& newName) {
    requireRoot();
    const StoreLock lock;
    FW::FWPROFILE profile = loadProfile(oldName);
    requireNewName(newName);
    profile.name = newName;
    storeProfile(profile);
    warnAboutErrors(profile);
    std::cout << "Profile " << inQuotes(newName) << " created, a copy of " << inQuotes(oldName)
              << '\n';
}

void rename(const std::string& oldName, const std::string& newName) {
    requireRoot();
    const StoreLock lock;
    requireProfile(oldName);
    requireNewName(newName);
    StoreChange change;
    const bool renamed = FW::TARNFW_PROFILE().profileRename(oldName, newName);
    change.finish();
    if (!renamed) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(oldName) + " cannot be renamed");
    }
    std::cout << "Profile " << inQuotes(oldName) << " is called " << inQuotes(newName) << " now\n";
}

void remove(const std::string& name) {
    requireRoot();
    const StoreLock lock;
    requireProfile(name);
    if (name == activeProfile()) {
        throw Error(ErrorKind::kSystem,
                    "profile " + inQuotes(name) +
                        " is the active one; \"tarnfw profile use\" makes another one active");
    }
    FW::TARNFW_PROFILE profiles;
    if (!profiles.profileDelete(name) || profiles.profileExist(name)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) + " is still there: " +
                                            printable(FW::TARNFW_JSON_DB().profilePathGet(name)));
    }
    std::cout << "Profile " << inQuotes(name) << " deleted\n";
}

// ---- use ----

void setActive(const std::string& name) {
    StoreChange change;
    const bool set = FW::TARNFW().fwProfileConfigSet(name, false);
    change.finish();
    if (!set) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
}

/// Applies the new active profile; where that fails, the one before is the active one again, or
/// every later reload would fail.
void reloadOrGoBack(const std::string& name, const std::string& before) {
    try {
        reloadActive();
    } catch (const Error& failure) {
        const StoreLock lock;
        if (before == name || activeProfile() != name) {
            throw;
        }
        setActive(before);
        throw Error(ErrorKind::kSystem, std::string(failure.what()) + "; " + inQuotes(before) +
                                            " is the active profile again");
    }
}

void use(const std::string& name, const ReloadOptions& reload) {
    requireRoot();
    requireReloadable(reload);
    const FW::FWPROFILE profile = loadProfile(name);
    requireSound(profile);  // a reload of it would leave the machine open
    requireAppliable(profile, reload, /*becomesActive=*/true);
    const SignalsWait wait;
    std::string before;
    {
        const StoreLock lock;
        requireProfile(name);
        before = activeProfile();
        setActive(name);
    }
    std::cout << "Profile " << inQuotes(name) << " is the active one now\n";
    if (reload.wanted && firewallEnabled()) {
        reloadOrGoBack(name, before);
    } else {
        finishChange(name, reload);
    }
}

// ---- Options ----

void addList(Command& group) {
    Command& command = group.subcommand("list", "Name the profiles; the active one has a star");
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
        group.subcommand("create", "Make a profile; without rules it allows everything");
    const auto values = std::make_shared<Values>();
    addName(command, values->name, "NAME", "Its name");
    command
        .option("--from", values->source,
                "A profile's document to make it from; \"profile show --json\" prints one")
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
    Command& command = group.subcommand("delete", "Delete a profile; the active one stays");
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
    addForTwoNames(profile, "copy", "Make a profile with the rules of another", copy);
    addForTwoNames(profile, "rename", "Give a profile another name", rename);
    addDelete(profile);
    addUse(profile);
    addProfileEditCommand(profile);
}

}  // namespace tarnfw
