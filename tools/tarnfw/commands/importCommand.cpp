/// tarnfw import: replaces the whole configuration with an exported one.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarncore.h"
#include "tarnsdk.h"

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/sshGuard.h"
#include "process/signalsWait.h"
#include "process/trialState.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/exportCheck.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/savedRules.h"
#include "tarnfwadmin/storeDifference.h"

namespace tarnfw {
namespace {

// Not in the profile directory, where the library would read it. The replaced configuration may
// be confidential.
constexpr char kBackupDir[] = "/usr/tarn/etc/firewall.d.backup/";
constexpr mode_t kBackupDirMode = 0700;
constexpr mode_t kBackupFileMode = 0600;

struct Options {
    std::string path;
    bool dryRun = false;
    bool force = false;
    ReloadOptions reload;
};

// ---- Checks -------------------------------------------------------------------------------------

/// The name of a document in findings.
std::string sourceOf(const std::string& path) {
    return path == kStandardInput ? "standard input" : path;
}

void complain(const std::string& source, const std::vector<Finding>& findings) {
    for (const Finding& finding : findings) {
        std::cerr << lineOf(source, finding) << '\n';
    }
}

/// Reads and checks the document. Prints its findings, and throws Error if it has errors.
Json::Value checkedDocument(const Options& options, Machine& machine) {
    const std::string source = sourceOf(options.path);
    Json::Value document;
    const std::vector<Finding> syntax = parseDocument(readText(options.path), document);
    complain(source, syntax);
    std::vector<Finding> wrong = syntax;
    if (countErrors(wrong) == 0) {
        const ExportFindings findings = checkExport(document, machine);
        complain(source, findings.document);
        complain(source, findings.profiles);
        wrong = findings.document;
        if (!options.force) {
            wrong.insert(wrong.end(), findings.profiles.begin(), findings.profiles.end());
        }
    }
    if (countErrors(wrong) > 0) {
        throw Error(ErrorKind::kInvalid,
                    printable(source) + " has " + counted(countErrors(wrong), "error") +
                        "; nothing was imported",
                    placeOfFirstError(source, wrong));
    }
    return document;
}

/// Throws Error before files are overwritten that a backup cannot hold: unreadable ones, and those
/// that are no profiles.
void requireRoomFor(const Json::Value& document, const Json::Value& current) {
    for (const std::string& key : document[kConfigProfiles].getMemberNames()) {
        const std::string path = kProfileDir + key;
        if (!current[kConfigProfiles].isMember(key) && TLIBCFileExist(path.c_str()) == 1) {
            throw Error(ErrorKind::kSystem, printable(path) +
                                                " would be replaced, but is not a profile that a "
                                                "backup could hold; move it away first; nothing "
                                                "was imported");
        }
    }
}

// ---- The plan -----------------------------------------------------------------------------------

/// The change of one profile.
struct ProfileChange {
    std::string name;
    std::string file;    ///< its name in the store: the new one, or that of a removed profile
    std::string change;  ///< "added", "changed", "removed", "unchanged"
};

struct ImportPlan {
    std::vector<ProfileChange> profiles;      ///< of all profiles, sorted by name
    std::vector<SettingDifference> settings;  ///< only those that change
    bool changesNothing = true;
};

/// The keys of the profiles, by name.
std::map<std::string, std::string> keysByName(const Json::Value& document) {
    std::map<std::string, std::string> keys;
    const Json::Value& profiles = document[kConfigProfiles];
    for (const std::string& key : profiles.getMemberNames()) {
        keys[profiles[key]["name"].asString()] = key;
    }
    return keys;
}

Paint paintOf(const std::string& change) {
    if (change == "added") {
        return Paint::kGood;
    }
    if (change == "removed") {
        return Paint::kBad;
    }
    return change == "changed" ? Paint::kDoubtful : Paint::kFaint;
}

/// Compares what the store holds with a document whose shape has been checked.
ImportPlan importPlan(const Json::Value& current, const Json::Value& document) {
    ImportPlan plan;
    const auto oldKeys = keysByName(current);
    const auto newKeys = keysByName(document);
    std::set<std::string> names;
    for (const auto& [name, key] : oldKeys) {
        names.insert(name);
    }
    for (const auto& [name, key] : newKeys) {
        names.insert(name);
    }
    for (const std::string& name : names) {
        const auto before = oldKeys.find(name);
        const auto after = newKeys.find(name);
        if (after == newKeys.end()) {
            plan.profiles.push_back({name, before->second, "removed"});
        } else if (before == oldKeys.end()) {
            plan.profiles.push_back({name, after->second, "added"});
        } else {
            const bool same = current[kConfigProfiles][before->second] ==
                              document[kConfigProfiles][after->second];
            plan.profiles.push_back({name, after->second, same ? "unchanged" : "changed"});
        }
    }
    Json::Value settings = current[kConfigSettings];  // members that only it has stay
    for (const std::string& member : document[kConfigSettings].getMemberNames()) {
        settings[member] = document[kConfigSettings][member];
    }
    plan.settings = settingDifferences(current[kConfigSettings], settings);
    plan.changesNothing =
        plan.settings.empty() && current[kConfigProfiles] == document[kConfigProfiles];
    return plan;
}

void printPlan(const ImportPlan& plan) {
    Table profiles({"profile", "change", "file"});
    for (const ProfileChange& change : plan.profiles) {
        profiles.addRow({{change.name}, {change.change, paintOf(change.change)}, {change.file}});
    }
    profiles.print();
    if (plan.settings.empty()) {
        return;
    }
    std::cout << '\n';
    Table settings({"setting", "now", "imported"});
    for (const SettingDifference& change : plan.settings) {
        settings.addRow({{change.setting}, {change.before}, {change.after, Paint::kDoubtful}});
    }
    settings.print();
}

/// Puts it into the document of "--json": "changes", "profiles", "settings".
void report(const ImportPlan& plan, const Json::Value& current, const Json::Value& imported,
            Report& document) {
    document["changes"] = !plan.changesNothing;
    document["profiles"] = Json::Value(Json::arrayValue);
    for (const ProfileChange& change : plan.profiles) {
        Json::Value entry;
        entry["name"] = change.name;
        entry["file"] = change.file;
        entry["change"] = change.change;
        document["profiles"].append(entry);
    }
    document["settings"] = Json::Value(Json::arrayValue);
    for (const SettingDifference& change : plan.settings) {
        Json::Value entry;
        entry["setting"] = change.setting;
        entry["now"] = current[kConfigSettings][change.setting];
        entry["imported"] = imported[kConfigSettings][change.setting];
        document["settings"].append(entry);
    }
}

// ---- Backup -------------------------------------------------------------------------------------

/// Keeps what the store holds. Returns the file's path.
std::string keepBackup(const Json::Value& current) {
    if (TARNFSMkdirP(kBackupDir, nullptr, 1, 0, 0, kBackupDirMode) < 0 ||
        chmod(kBackupDir, kBackupDirMode) != 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot create the directory ") + kBackupDir +
                                            "; nothing was imported");
    }
    const std::string start = kBackupDir + localTime(std::time(nullptr), "%Y-%m-%d_%H-%M-%S");
    std::string path = start + ".json";
    for (int number = 2; TLIBCFileExist(path.c_str()) == 1; ++number) {
        path = start;
        path.append("_").append(std::to_string(number)).append(".json");
    }
    writeFileAtomically(path, documentText(current), kBackupFileMode, Existing::kKept);
    return path;
}

/// The command that restores a backup.
std::string recovery(const std::string& path, const Json::Value& backup, Machine& machine) {
    const bool whole = countErrors(checkExport(backup, machine).profiles) == 0;
    return "tarnfw import " + std::string(whole ? "" : "--force ") + path;
}

// ---- Replacing ----------------------------------------------------------------------------------

/// Imports and verifies the result: the library skips a profile that it cannot
/// write, and does not notice a full disk. Returns the error; empty on success.
std::string errorOfReplacing(Context& context, const Json::Value& document) {
    try {
        if (!context.session().changeMany(
                [&] { return FW::TARNFW_JSON_DB().importConfig(document); })) {
            return "the settings cannot be written";
        }
        return context.store().configurationIs(document) ? ""
                                                         : "not everything was written correctly";
    } catch (const std::exception& error) {
        return error.what();
    }
}

/// Puts back the rules that a failed disabling has removed. Returns what became of them, to be
/// added to a message.
std::string afterDisabling(const SavedRules& before, LockTime& time) {
    try {
        const FileLock lock(kReloadLock, time);
        if (!lock.held() || SavedRules::inKernel() == before) {
            return "";  // without the lock the disabling has changed nothing, either
        }
        before.putBack();
        return "; the old rules are in force again";
    } catch (const std::exception& error) {
        return std::string("; restoring the old rules failed, too: ") + error.what();
    }
}

/// Makes the kernel follow the imported configuration: applies the active profile, or disables a
/// firewall that was enabled. Returns the error, with the old rules in force; empty on success.
std::string errorOfApplying(Context& context, bool wasEnabled) {
    std::optional<SavedRules> before;
    try {
        if (!context.control().apply() && wasEnabled) {
            before = SavedRules::inKernel();
            context.control().disable();
        }
        return "";
    } catch (const std::exception& error) {
        return error.what() + (before ? afterDisabling(*before, context.session().lockTime()) : "");
    }
}

/// Replaces the configuration and, with `reload`, makes the kernel follow it; or restores the
/// previous one.
void replace(Context& context, const Json::Value& document, const Json::Value& current,
             const std::string& backup, bool reload) {
    const SignalsWait wait;  // the store is incomplete until the last file is written
    const bool wasEnabled = context.store().firewallEnabled();
    StoreSession& session = context.session();
    session.holdChange();
    (void)session.changeMany([] { return true; });  // begins it; throws with nothing changed
    std::string error = errorOfReplacing(context, document);
    if (error.empty() && reload) {
        error = errorOfApplying(context, wasEnabled);
    }
    if (error.empty()) {
        session.keepChange();
        return;
    }
    const std::string failed = error + "; the import failed";
    if (session.undoChange()) {
        throw Error(ErrorKind::kSystem, failed + ", and the previous configuration is restored");
    }
    throw Error(ErrorKind::kSystem,
                failed + ", and so did restoring the previous configuration" +
                    (backup.empty() ? ""
                                    : "; \"" + recovery(backup, current, context.machine()) +
                                          "\" tries again"));
}

/// The imported profiles that the store did not have as they are. The active one was applied with
/// "--reload", or that was refused.
std::vector<std::string> untried(const Context& context, const ImportPlan& plan, bool reload) {
    std::vector<std::string> names;
    for (const ProfileChange& change : plan.profiles) {
        const bool isNew = change.change == "added" || change.change == "changed";
        if (isNew && !(reload && context.store().firewallEnabled() &&
                       change.name == context.store().activeProfile())) {
            names.push_back(change.name);
        }
    }
    return names;
}

/// Says what the import means for the kernel.
void sayAboutKernel(Context& context, bool reload, bool wasEnabled) {
    const bool enabled = context.store().firewallEnabled();
    if (!enabled && wasEnabled) {
        std::cout << (reload ? "Firewall disabled\n"
                             : "The firewall is now disabled in the settings; the kernel keeps the "
                               "old rules until \"tarnfw disable\"\n");
    } else if (reload && enabled) {
        std::cout << "Profile " << inQuotes(context.store().activeProfile()) << " applied\n";
    } else if (reload) {
        std::cout << "Firewall disabled: nothing to reload\n";
    } else if (enabled && !wasEnabled) {
        std::cout << "The firewall is now enabled in the settings, but its rules are not in force "
                     "until \"tarnfw reload\"\n";
    } else {
        reportUnchangedKernel(context);
    }
}

// ---- The command --------------------------------------------------------------------------------

/// Asks, unless --yes was given.
void requireConsent(const Options& options) {
    if (options.reload.yes) {
        return;
    }
    if (options.path == kStandardInput || !canAsk()) {
        throw Error(ErrorKind::kDeclined,
                    "there is no terminal to ask on (--yes asks nothing); nothing was imported");
    }
    if (!confirmed("Replace the configuration?")) {
        throw Error(ErrorKind::kDeclined, "nothing was imported");
    }
}

/// A setting after the import: members that the document does not have stay.
Json::Value settingAfter(const char* key, const Json::Value& current, const Json::Value& document) {
    const Json::Value& imported = document[kConfigSettings];
    return imported.isMember(key) ? imported[key] : current[kConfigSettings][key];
}

/// The profile that is the active one after the import; nothing if the document does not have it.
std::optional<FW::FWPROFILE> activeAfter(const Json::Value& current, const Json::Value& document) {
    const Json::Value name = settingAfter("profile", current, document);
    for (const Json::Value& profile : document[kConfigProfiles]) {
        if (profile["name"] == name) {
            FW::FWPROFILE record;
            FW::TARNFW_JSON_DB().jsonToProfile(profile, record);
            return record;
        }
    }
    return std::nullopt;
}

/// When what an import changes takes effect: "Opens ...", "Once applied: opens ...".
std::string importText(Context& context, const Options& options, bool enabled,
                       const std::string& text) {
    const bool applies = context.applies(options.reload);
    const std::string then = enabled ? "applied" : "the firewall is disabled";
    if (options.dryRun) {
        return "Once imported" + (applies ? "" : " and " + then) + ": " + text;
    }
    return applies ? capitalised(text) : "Once " + then + ": " + text;
}

/// Says what the import opens and closes, if the firewall is enabled by the settings before or
/// after it. With a dry run as well: that is what it is for.
void sayWhatImportChanges(Context& context, const Options& options, const Json::Value& current,
                          const Json::Value& document) {
    const std::optional<FW::FWPROFILE> active = activeAfter(current, document);
    const bool wasEnabled = context.store().firewallEnabled();
    const bool enabled = settingAfter("status", current, document) == true;
    if (options.reload.quiet || !(wasEnabled || enabled) || (enabled && !active)) {
        return;
    }
    ComparedWith before{FW::FWPROFILE()};
    if (context.inForce()) {
        before.profile = *context.inForce();
    } else if (wasEnabled && context.activeBefore()) {
        before = {*context.activeBefore(), false};
    }
    const std::string text =
        changeText(before.profile, enabled ? *active : FW::FWPROFILE(), context.machine());
    if (!text.empty()) {
        sayWrapped(importText(context, options, enabled,
                              enabled ? withUnknown(text, before) : "opens everything"));
    }
}

/// For an import that is applied: asks if the new active profile would lock out the person who is
/// connected over SSH.
void requireWayBackIn(Context& context, const Options& options, const Json::Value& current,
                      const Json::Value& document) {
    if (!context.applies(options.reload) || settingAfter("status", current, document) != true) {
        return;
    }
    context.control().requireBase();
    if (const std::optional<FW::FWPROFILE> record = activeAfter(current, document)) {
        requireSshAccess(*record, context.machine(), context.store().applyMode(),
                         options.reload.yes, "Import and apply it anyway?");
    }
}

/// Replaces the configuration, all of it under one lock. Returns nothing when nothing was replaced,
/// else whether the firewall was enabled before.
std::optional<bool> importInto(Context& context, const Json::Value& document,
                               const Options& options) {
    if (!options.dryRun) {
        requireNoTrial();  // its test profile would be removed
    }
    const Json::Value current = context.store().configuration();
    requireRoomFor(document, current);
    const ImportPlan plan = importPlan(current, document);
    report(plan, current, document, *options.reload.report);
    const Json::Value active = settingAfter("profile", current, document);
    options.reload.report->setProfile(active.isString() ? active.asString()
                                                        : context.store().activeProfile());
    (*options.reload.report)["backup"] = Json::nullValue;
    if (!options.reload.report->isJson()) {
        printPlan(plan);
    }
    if (plan.changesNothing) {
        std::cout << "Nothing to change\n";
        return std::nullopt;
    }
    sayWhatImportChanges(context, options, current, document);
    if (options.dryRun) {
        return std::nullopt;
    }
    const bool asks = !options.reload.yes;
    const auto before = asks ? context.store().texts() : std::map<std::string, std::string>();
    requireConsent(options);
    requireWayBackIn(context, options, current, document);
    if (asks) {
        requireUntouched(before);
    }
    makeProfileDirectory();
    std::string backup;
    if (!current[kConfigProfiles].empty()) {
        backup = keepBackup(current);
        (*options.reload.report)["backup"] = backup;
        std::cout << "Backup: " << backup << " (\"" << recovery(backup, current, context.machine())
                  << "\" restores it)" << std::endl;
    }
    const bool wasEnabled = context.store().firewallEnabled();
    const bool reload = context.applies(options.reload);
    replace(context, document, current, backup, reload);
    options.reload.report->setChanged();
    options.reload.report->setApplied(reload && context.store().firewallEnabled());
    std::cout << "Imported " << counted(document[kConfigProfiles].size(), "profile")
              << "; active: " << printable(context.store().activeProfile()) << '\n';
    warnAboutRefusals(context, untried(context, plan, reload));
    return wasEnabled;
}

void importAll(const Options& options) {
    requireRoot();
    auto machine = std::make_unique<Machine>();
    const Json::Value document = checkedDocument(options, *machine);
    Context context(StoreSession::Access::kChange, std::move(machine));
    const std::optional<bool> wasEnabled = importInto(context, document, options);
    if (wasEnabled) {
        const bool reload = context.applies(options.reload);  // as it was before
        sayAboutKernel(context, reload, *wasEnabled);
        if (reload && *wasEnabled) {
            forgetTrial(context);
        }
    }
}

}  // namespace

void addImportCommand(Command& app) {
    Command& command =
        app.subcommand("import",
                       "Replace all profiles and the settings with those of an exported document. "
                       "It is checked first, and what it replaces is kept in a file");
    const auto options = std::make_shared<Options>();
    command.option("FILE", options->path, "The document; - for standard input").required();
    command.flag("--dry-run", options->dryRun, "Only show what would change");
    command.flag("--force", options->force,
                 "Also import profiles with errors, for a backup of such profiles. A document of a "
                 "wrong shape is always rejected");
    addReloadFlag(command, options->reload, "Do not ask");
    command.footer(
        "Backups are in /usr/tarn/etc/firewall.d.backup/, named by date and time. An import that "
        "was "
        "interrupted is undone by the next command.");
    runReporting(command, *options->reload.report, [options] { importAll(*options); });
}

}  // namespace tarnfw
