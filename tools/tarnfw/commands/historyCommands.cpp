/// tarnfw history, undo: what the last changes of the store did, and putting it back.
#include <ctime>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "process/trialState.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/storeDifference.h"
#include "tarnfwadmin/storeHistory.h"

namespace tarnfw {
namespace {

using Kind = StoreDifference::Kind;
using Differences = std::vector<StoreDifference>;
using Documents = std::map<std::string, UndoneDocument>;

constexpr int kMostNumber = static_cast<int>(kHistoryLength);

// ---- Texts ----

/// "2026-11-21 06:14:56", in local time.
std::string timeForPeople(std::time_t time) {
    return localTime(time, "%Y-%m-%d %H:%M:%S");
}

std::string commandOf(const HistoryEntry& entry) {
    return entry.command.empty() ? "(unknown)" : entry.command;
}

Paint paintOf(Kind kind) {
    switch (kind) {
        case Kind::kAdded:
            return Paint::kGood;
        case Kind::kRemoved:
            return Paint::kBad;
        case Kind::kChanged:
            break;
    }
    return Paint::kDoubtful;
}

const char* nameOf(Kind kind) {
    switch (kind) {
        case Kind::kAdded:
            return "added";
        case Kind::kRemoved:
            return "removed";
        case Kind::kChanged:
            break;
    }
    return "changed";
}

/// "home: + rule 3 of eth0: allow tcp 22, and 2 more".
std::string summaryOf(const Differences& differences) {
    if (differences.empty()) {
        return "-";
    }
    return differences.front().line() +
           (differences.size() == 1 ? ""
                                    : ", and " + std::to_string(differences.size() - 1) + " more");
}

void print(const Differences& differences) {
    for (const StoreDifference& difference : differences) {
        std::cout << "  " << painted(printable(difference.line()), paintOf(difference.kind))
                  << '\n';
    }
}

Json::Value jsonOf(const Differences& differences) {
    Json::Value list(Json::arrayValue);
    for (const StoreDifference& difference : differences) {
        Json::Value entry;
        entry["change"] = nameOf(difference.kind);
        entry["profile"] = textOrNull(difference.profile);
        entry["adapter"] = textOrNull(difference.adapter);
        entry["position"] = difference.position == 0
                                ? Json::Value()
                                : Json::Value(static_cast<Json::UInt64>(difference.position));
        entry["text"] = difference.text;
        list.append(entry);
    }
    return list;
}

// ---- history ----

Differences differencesOf(const StoreHistory& history, const HistoryEntry& entry,
                          const StoreSnapshot& store) {
    const StoreChange change = history.changeOf(entry.number, store);
    return storeDifferences(change.before, change.after);
}

Json::Value jsonOf(const HistoryEntry& entry, const Differences& differences) {
    Json::Value document;
    document["number"] = static_cast<Json::UInt64>(entry.number);
    document["time"] = timeForPrograms(entry.time);
    document["command"] = textOrNull(entry.command);
    document["differences"] = jsonOf(differences);
    document["undoable"] = entry.undoable;
    return document;
}

constexpr char kNotKept[] = "(too large to be kept: it cannot be undone, nor can those before it)";

void listChanges(const StoreHistory& history, const StoreSnapshot& store, bool json) {
    Json::Value document;
    document["history"] = Json::Value(Json::arrayValue);
    Table table({"#", "When", "Command", "Change"});
    for (const HistoryEntry& entry : history.entries()) {
        Differences differences;
        try {
            differences = differencesOf(history, entry, store);
        } catch (const Error& error) {
            if (error.kind() != ErrorKind::kNotFound) {
                throw;
            }
            continue;  // another command's change has taken its place since the list was read
        }
        if (json) {
            document["history"].append(jsonOf(entry, differences));
        } else {
            table.addRow({{std::to_string(entry.number)},
                          {timeForPeople(entry.time)},
                          {commandOf(entry)},
                          {entry.undoable ? summaryOf(differences) : kNotKept}});
        }
    }
    if (json) {
        printJson(document);
    } else if (table.empty()) {
        std::cout << "No change is kept\n";
    } else {
        table.print();
    }
}

void showHistory(std::size_t number, bool json) {
    const Context context(StoreSession::Access::kRead);
    const StoreHistory history;
    if (number == 0) {
        listChanges(history, context.store(), json);
        return;
    }
    const HistoryEntry& entry = history.entry(number);
    const Differences differences = differencesOf(history, entry, context.store());
    if (json) {
        printJson(jsonOf(entry, differences));
        return;
    }
    std::cout << "Change " << number << ", " << timeForPeople(entry.time) << ": "
              << printable(commandOf(entry)) << '\n';
    print(differences);
    if (!entry.undoable) {
        std::cout << "  " << kNotKept << '\n';
    }
}

// ---- undo ----

struct UndoOptions {
    std::size_t number = 1;
    bool force = false;
    ReloadOptions reload;
};

/// The differences that undoing makes.
Differences differencesOf(const Documents& undone, const StoreSnapshot& store) {
    const std::map<std::string, std::string> now = store.texts();
    std::map<std::string, std::string> before;
    std::map<std::string, std::string> after;
    for (const auto& [path, document] : undone) {
        if (now.count(path) != 0) {
            before[path] = now.at(path);
        }
        if (document.text) {
            after[path] = *document.text;
        }
    }
    return storeDifferences(before, after);
}

/// Why undoing these changes leaves the firewall enabled or disabled, as it is; empty when they
/// have not changed that.
std::string statusNote(const StoreHistory& history, std::size_t number,
                       const StoreSnapshot& store) {
    const bool enabled = store.firewallEnabled();
    bool before = enabled;
    for (std::size_t each = 1; each <= number; ++each) {
        const StoreChange change = history.changeOf(each, store);
        const bool hasSettings =
            change.before.count(kSettingsFile) != 0 || change.after.count(kSettingsFile) != 0;
        Json::Value settings;
        if (change.before.count(kSettingsFile) != 0) {
            (void)parseAsStored(change.before.at(kSettingsFile), settings);
        }
        if (hasSettings) {
            before = settings.isObject() && settings["status"] == true;
        }
    }
    if (before == enabled) {
        return "";
    }
    return std::string("the firewall stays ") + (enabled
                                                     ? "enabled; \"tarnfw disable\" disables it"
                                                     : "disabled; \"tarnfw enable\" enables it");
}

/// Throws Error before another program's change is lost.
void requireOwn(const StoreHistory& history, std::size_t number, const StoreSnapshot& store) {
    std::vector<std::string> names;
    for (const std::string& path : history.changedByOthers(number, store)) {
        names.push_back(printable(path));
    }
    if (!names.empty()) {
        throw Error(ErrorKind::kUnusable,
                    boost::join(names, ", ") + (names.size() == 1 ? " is" : " are") +
                        " not as the change left " + (names.size() == 1 ? "it" : "them") +
                        ": another program has written there; nothing was changed",
                    {}, Remedy::kForceUndo);
    }
}

/// The profiles that are other ones then, test profiles apart.
std::vector<std::string> profilesIn(const Differences& differences, const StoreSnapshot& store) {
    std::set<std::string> names;
    for (const StoreDifference& difference : differences) {
        if (store.hasProfile(difference.profile)) {
            names.insert(difference.profile);
        }
    }
    return {names.begin(), names.end()};
}

std::string undoneText(const HistoryEntry& entry) {
    return (entry.number == 1 ? "Change 1" : "Changes 1 to " + std::to_string(entry.number)) +
           std::string(" undone, back to before ") + timeForPeople(entry.time) + ": " +
           printable(commandOf(entry));
}

void undo(const UndoOptions& options) {
    requireRoot();
    requireNoTrial();
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, options.reload);
    const StoreHistory history;
    const HistoryEntry& entry = history.entry(options.number);
    const Documents undone = history.undoing(options.number, context.store());
    const std::string note = statusNote(history, options.number, context.store());
    if (undone.empty()) {
        throw Error(ErrorKind::kUnusable,
                    note.empty() ? "the profiles and settings are as they were before it already"
                                 : "this would change nothing: " + note);
    }
    if (!options.force) {
        requireOwn(history, options.number, context.store());
    }
    requireUndoable(undone, context.store());
    const Differences differences = differencesOf(undone, context.store());
    print(differences);
    std::cout << std::flush;  // before a question
    const std::string active = context.store().activeProfile();
    writeWithConsent(context, options.reload, [&] { context.session().replaceDocuments(undone); });
    std::vector<std::string> profiles = profilesIn(differences, context.store());
    if (context.store().activeProfile() != active) {
        profiles.push_back(context.store().activeProfile());  // its rules are to be in force now
    }
    Report& report = *options.reload.report;
    report["undone"] = static_cast<Json::UInt64>(options.number);
    report["differences"] = jsonOf(differences);
    report["profiles"] = textsJson(profiles);
    finishChange(context, profiles, options.reload, [&] {
        std::cout << undoneText(entry) << '\n';
        if (!note.empty()) {
            std::cout << "Note: " << note << '\n';
        }
    });
}

// ---- Options ----

void addHistory(Command& app) {
    Command& command = app.subcommand(
        "history", "List the last changes of profiles and settings, or show what one has changed");
    const auto number = std::make_shared<std::size_t>(0);
    const auto json = std::make_shared<bool>(false);
    command.option("NUMBER", *number, "A change of the list; 1 is the last one")
        .placeholder("")
        .range(1, kMostNumber);
    addJsonFlag(command, *json);
    command.footer("Example: tarnfw history 2");
    command.run([number, json] { showHistory(*number, *json); });
}

void addUndo(Command& app) {
    Command& command =
        app.subcommand("undo", "Put back the profiles and settings as they were before a change");
    const auto options = std::make_shared<UndoOptions>();
    command
        .option("NUMBER", options->number,
                "The change, as \"tarnfw history\" lists it, with all later ones; by default the "
                "last one")
        .placeholder("")
        .range(1, kMostNumber);
    command.flag("--force", options->force,
                 "Also undo what other programs have written since, without this tool");
    addReloadFlag(command, options->reload);
    command.footer(
        "Undoing is a change itself: \"tarnfw undo\" once more does it again. It never enables or "
        "disables the firewall.\n"
        "Example: tarnfw undo 3");
    runReporting(command, *options->reload.report, [options] { undo(*options); });
}

}  // namespace

void addHistoryCommands(Command& app) {
    addHistory(app);
    addUndo(app);
}

}  // namespace tarnfw
