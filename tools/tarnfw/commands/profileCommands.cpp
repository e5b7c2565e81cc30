/// tarnfw profile: list, show, create, copy, rename, delete, use, edit, set.
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwTypes.h"
#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/profileDiff.h"
#include "commands/sshGuard.h"
#include "process/editor.h"
#include "process/signalsWait.h"
#include "process/trialState.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/profileDocument.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/ruleText.h"

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
        std::cerr << "tarnfw: " << store.unreadableText() << wordsFor(Remedy::kCheckFiles) << '\n';
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

// ---- show ----

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

void addRule(Table& table, std::size_t position, const std::string& ports, const FW::FWRULE& rule,
             bool noted) {
    const auto paint = [&](Paint usual) { return rule.enable ? usual : Paint::kFaint; };
    std::vector<Cell> cells = {{std::to_string(position), paint(Paint::kPlain)},
                               {policyText(rule.policy), paint(policyPaint(rule.policy))},
                               {ports, paint(Paint::kPlain)},
                               {addressText(rule), paint(Paint::kPlain)},
                               {familyText(rule.ipType), paint(Paint::kPlain)}};
    if (noted) {
        cells.push_back({notesOf(rule), paint(Paint::kPlain)});
    }
    table.addRow(std::move(cells));
}

/// Prints the rules of an adapter. On a terminal, long lists of services that several rules in a
/// row share are printed once, and a column without notes is left out.
void printRules(const std::vector<FW::FWRULE>& rules) {
    constexpr std::size_t kLongText = 24;  // columns
    const bool whole = terminalWidth() == 0;
    const bool noted = whole || std::any_of(rules.begin(), rules.end(), [](const auto& rule) {
                           return !notesOf(rule).empty();
                       });
    std::vector<std::string> headings = {"#", "Action", "What", "Address", "Family"};
    if (noted) {
        headings.emplace_back("Notes");
    }
    Table table(headings);
    std::size_t position = 0;
    std::size_t printed = 0;  // the position whose text was printed last
    std::string last;
    for (const FW::FWRULE& rule : rules) {
        ++position;
        std::string text = portText(rule);
        if (!whole && text == last && text.size() > kLongText) {
            text = "as rule " + std::to_string(printed);
        } else {
            last = text;
            printed = position;
        }
        addRule(table, position, text, rule, noted);
    }
    table.print(2);
}

/// "  default policy: deny"; nothing for an adapter without one.
void printPolicy(const FW::FWPROFILE& profile, const std::string& adapter) {
    const auto policy = profile.adapterPolicyMap.find(adapter);
    if (isGlobal(adapter)) {
        std::cout << "  default policy: none (the adapters decide)\n";
    } else if (policy != profile.adapterPolicyMap.end()) {
        std::cout << "  default policy: "
                  << painted(policyText(policy->second), policyPaint(policy->second)) << '\n';
    }
}

/// Whether an adapter has rules.
bool hasRules(const FW::FWPROFILE& profile, const std::string& adapter) {
    const auto rules = profile.rules.find(adapter);
    return rules != profile.rules.end() && !rules->second.empty();
}

/// Whether two adapters differ in their names only: without rules, and with the same policy.
bool areAlike(const FW::FWPROFILE& profile, const std::string& one, const std::string& other) {
    const auto policyOf = [&](const std::string& adapter) {
        const auto policy = profile.adapterPolicyMap.find(adapter);
        return policy == profile.adapterPolicyMap.end() ? std::optional<FW::FW_POLICY>()
                                                        : policy->second;
    };
    return !isGlobal(one) && !isGlobal(other) && !hasRules(profile, one) &&
           !hasRules(profile, other) && policyOf(one) == policyOf(other);
}

/// Prints adapters that are alike under one heading.
void printAdapters(const FW::FWPROFILE& profile, const std::vector<std::string>& adapters) {
    const std::string names = listed(adapters);
    const std::size_t width = terminalWidth();
    std::cout << '\n';
    for (const std::string& line : wrapped(names, width == 0 ? std::string::npos : width)) {
        std::cout << painted(line, Paint::kStrong) << '\n';
    }
    if (hasRules(profile, adapters.front())) {
        printRules(profile.rules.at(adapters.front()));
    }
    printPolicy(profile, adapters.front());
}

/// As all answers have them; makeStoredForm() is the way back. An unknown code stays one.
void makePoliciesTexts(Json::Value& document) {
    const auto makeText = [](Json::Value& policy) {
        const int code = policy.asInt();
        if (code >= FW::FW_POLICY_ALLOW && code <= FW::FW_POLICY_NONE) {
            policy = policyText(static_cast<FW::FW_POLICY>(code));
        }
    };
    for (Json::Value& policy : document["adapterPolicyMap"]) {
        makeText(policy);
    }
    for (Json::Value& rules : document["rules"]) {
        for (Json::Value& rule : rules) {
            makeText(rule["policy"]);
        }
    }
}

void show(const std::string& name, bool json) {
    const Context context(StoreSession::Access::kRead);
    const FW::FWPROFILE& profile = context.store().profile(name);
    const bool active = profile.name == context.store().activeProfile();
    if (json) {
        Json::Value document;
        FW::TARNFW_JSON_DB().profileToJson(profile, document);
        makePoliciesTexts(document);
        document["active"] = active;
        printJson(document);
        return;
    }
    std::cout << "Profile " << printable(profile.name) << (active ? " (active)" : "") << '\n';
    std::vector<std::string> adapters = adaptersOf(profile);
    // In the order in which packets pass them.
    (void)std::stable_partition(adapters.begin(), adapters.end(), isGlobal);
    for (auto next = adapters.begin(); next != adapters.end();) {
        const auto end = std::find_if_not(std::next(next), adapters.end(), [&](const auto& other) {
            return areAlike(profile, *next, other);
        });
        printAdapters(profile, {next, end});
        next = end;
    }
}

// ---- create, copy, rename, delete ----

/// The document of "--from", read before the store is locked: standard input may take its time.
/// Nothing when it is to be that of a stored profile.
std::optional<std::string> fileText(const std::string& source) {
    if (source.empty() || !namesAFile(source)) {
        return std::nullopt;
    }
    // Asked of a name that could be both.
    const bool isPath = source == kStandardInput || source.find('/') != std::string::npos;
    if (!isPath && StoreSnapshot().hasProfile(source)) {
        throw Error(ErrorKind::kUnusable, inQuotes(source) +
                                              " is both a stored profile and a file here; " +
                                              inQuotes("./" + source) + " is the file");
    }
    return readText(source);
}

/// The profile of this name that the document gives. `failed` is what an invalid one has not done.
FW::FWPROFILE profileFrom(Context& context, const std::string& source,
                          const std::optional<std::string>& text, const std::string& name,
                          const char* failed) {
    ProfileDocument document(text ? *text : context.store().textOf(source));
    document.becomeNew(name);
    const bool valid = document.check(context.machine());
    const std::string title = source == kStandardInput ? "standard input" : source;
    warn(title, document.findings());
    if (!valid) {
        throw Error(ErrorKind::kInvalid, printable(title) + " is invalid: " + failed,
                    placeOfFirstError(title, document.findings()));
    }
    return document.profile();
}

/// What a profile is created from.
struct Origin {
    std::string path;  ///< a document
    bool empty = false;
};

void create(const std::string& name, const Origin& origin, Report& report) {
    report.setProfile(name);
    requireRoot();
    const std::optional<std::string> text = fileText(origin.path);
    Context context(StoreSession::Access::kChange);
    context.store().requireNewName(name);
    FW::FWPROFILE profile;
    profile.name = name;
    if (!origin.path.empty()) {
        profile = profileFrom(context, origin.path, text, name, "no profile was created");
    } else if (!origin.empty) {
        profile = firstProfileHere(name, context.machine());
    }
    context.session().storeProfile(profile);
    report.setChanged();
    context.session().unlock();
    std::cout << "Profile " << inQuotes(name) << " created"
              << (origin.empty          ? "; without rules it allows everything"
                  : origin.path.empty() ? " with the rules of a first profile"
                                        : "")
              << '\n';
    if (!origin.empty) {
        warnAboutRefusals(context, {name});
    }
}

void set(const std::string& name, const std::string& source, const ReloadOptions& reload) {
    requireRoot();
    const std::optional<std::string> text = fileText(source);
    Context context(StoreSession::Access::kChange);
    requireReloadable(context, reload, name);
    context.store().requireProfile(name);
    const FW::FWPROFILE profile = profileFrom(context, source, text, name, "nothing was stored");
    requireAppliable(context, profile, reload);
    context.session().storeProfile(profile);
    context.session().unlock();
    finishChange(context, name, reload, [&] {
        std::cout << "Profile " << inQuotes(name)
                  << (context.session().hasChanged()
                          ? " stored\n"
                          : " is unchanged: it has this content already\n");
    });
}

void copy(const std::string& oldName, const std::string& newName, Report& report) {
    report.setProfile(newName);
    Context context(StoreSession::Access::kChange);
    FW::FWPROFILE profile = context.store().profile(oldName);
    context.store().requireNewName(newName);
    profile.name = newName;
    context.session().storeProfile(profile);
    report.setChanged();
    context.session().unlock();
    warnAboutErrors(profile, context.machine());
    std::cout << "Profile " << inQuotes(newName) << " created, a copy of " << inQuotes(oldName)
              << '\n';
    warnAboutRefusals(context, {newName});
}

void rename(const std::string& oldName, const std::string& newName, Report& report) {
    report.setProfile(newName);
    requireNoTrialOf(oldName);
    Context context(StoreSession::Access::kChange);
    context.store().requireProfile(oldName);
    if (oldName == context.store().activeProfile()) {
        requireNoTrial();
    }
    context.store().requireNewName(newName);
    if (!context.session().changeMany(  // of the profile, and of the settings that name it
            [&] { return FW::TARNFW_PROFILE().profileRename(oldName, newName); })) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(oldName) + " cannot be renamed");
    }
    report.setChanged();
    std::cout << "Profile " << inQuotes(oldName) << " renamed to " << inQuotes(newName) << "\n";
}

void remove(const std::string& name, Report& report) {
    report.setProfile(name);
    requireNoTrialOf(name);
    Context context(StoreSession::Access::kChange);
    context.store().requireProfile(name);
    if (name == context.store().activeProfile()) {
        throw Error(ErrorKind::kUnusable,
                    "profile " + inQuotes(name) +
                        " is the active one; \"tarnfw profile use\" makes another one active");
    }
    if (!context.session().deleteProfile(name)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) + " still exists: " +
                                            printable(context.store().pathOf(name)));
    }
    report.setChanged();
    std::cout << "Profile " << inQuotes(name) << " deleted\n";
}

// ---- use ----

void setActive(Context& context, const std::string& name) {
    if (!context.session().change(
            [&] { return FW::TARNFW().fwProfileConfigSet(name, /*reload=*/false); })) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
}

void use(const std::string& name, const ReloadOptions& reload) {
    requireNoTrial();
    Context context(StoreSession::Access::kChange);
    context.store().requireProfile(name);
    const FW::FWPROFILE& profile = context.store().profile(name);
    const bool already = name == context.store().activeProfile();
    const std::string said = "Profile " + inQuotes(name) +
                             (already ? " is the active one already" : " is now the active one");
    if (already && !reload.wanted) {
        std::cout << said << '\n';
        finishUnchanged(context, profile, reload);
        return;
    }
    requireReloadable(context, reload);
    requireValidProfile(profile, context.machine());  // a reload would leave the machine open
    if (context.applies(reload) && context.store().firewallEnabled()) {
        askBeforeApplying(context, profile, reload);
    }
    const SignalsWait wait;
    if (!already) {
        setActive(context, name);
    }
    context.session().unlock();
    finishChange(context, name, reload, [&] { std::cout << said << '\n'; });
}

// ---- edit: a document in the person's editor ----

/// Ends the command without storing the text.
[[noreturn]] void keep(const PrivateText& text, const std::string& why, ErrorKind kind,
                       const ErrorPlace& place = {}) {
    throw Error(kind, why + "; nothing was stored, the text is kept in " + text.path(), place);
}

bool editAgain(const PrivateText& text) {
    if (!canAsk()) {
        return false;
    }
    std::cerr << "The text is in " << text.path() << ". Edit again? [Y/n] " << std::flush;
    std::string answer;
    return std::getline(std::cin, answer) &&
           (answer.empty() || answer[0] == 'y' || answer[0] == 'Y');
}

/// Edits the text once; nothing if it is still `original`.
std::optional<ProfileDocument> edited(const PrivateText& text, const std::string& original,
                                      const std::string& name) {
    const std::string failure = runEditor(text.path());
    const bool changed = text.read() != original;
    if (!failure.empty() && changed) {
        keep(text, failure, ErrorKind::kSystem);
    }
    if (!failure.empty()) {
        text.remove();
        throw Error(ErrorKind::kSystem, failure + "; nothing was changed");
    }
    if (!changed) {
        return std::nullopt;
    }
    ProfileDocument document(text.read());
    document.requireName(name, "\"tarnfw profile rename\" changes it");
    return document;
}

/// Replaces the document, if it is still `original`.
void store(Context& context, const ProfileDocument& document, const std::string& original) {
    const std::string& name = document.profile().name;
    if (!context.store().hasProfile(name)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) + " cannot be read");
    }
    if (context.store().textOf(name) != original) {
        throw Error(ErrorKind::kSystem,
                    "profile " + inQuotes(name) + " was changed by another program meanwhile");
    }
    context.session().storeProfile(document.profile());
}

/// Edits until the document is valid; nothing if the text was not changed.
std::optional<ProfileDocument> validDocument(const PrivateText& text, const std::string& original,
                                             const std::string& name) {
    for (;;) {
        std::optional<ProfileDocument> document = edited(text, original, name);
        if (!document) {
            return std::nullopt;
        }
        Machine machine;  // it may have changed meanwhile
        const bool valid = document->check(machine);
        warn(name, document->findings());
        if (valid) {
            return document;
        }
        if (!editAgain(text)) {
            keep(text, "profile " + inQuotes(name) + " is invalid", ErrorKind::kInvalid,
                 placeOfFirstError(text.path(), document->findings()));
        }
    }
}

/// The store, with the document in it.
std::unique_ptr<Context> stored(const ProfileDocument& document, const std::string& original,
                                const ReloadOptions& reload, const PrivateText& text) {
    try {
        auto context = std::make_unique<Context>(StoreSession::Access::kChange);
        requireReloadable(*context, reload, document.profile().name);
        requireAppliable(*context, document.profile(), reload);
        store(*context, document, original);
        context->session().unlock();
        return context;
    } catch (const Error& failure) {
        keep(text, failure.what(), failure.kind());
    }
}

/// Throws Error for a default editor without a terminal. A chosen editor may need none. What it
/// writes with "--json" is a part of the document, so on a terminal nobody would see it.
void requireEditable(const Report& report) {
    if (report.isJson() && isatty(STDIN_FILENO) == 1) {
        throw Error(ErrorKind::kUnusable,
                    "an editor cannot use the terminal with --json; use \"tarnfw profile set NAME "
                    "--from FILE\", or leave out --json");
    }
    if (!canAsk() && chosenEditor().empty()) {
        throw Error(ErrorKind::kUnusable,
                    "there is no terminal to edit on; use \"tarnfw profile create NEW --from "
                    "FILE\", or an EDITOR that needs no terminal");
    }
}

void edit(const std::string& wanted, const ReloadOptions& reload) {
    requireRoot();
    std::string name;
    std::string original;
    {
        Context context(StoreSession::Access::kRead);
        requireReloadable(context, reload, wanted);
        name = wanted.empty() ? context.store().activeProfile() : wanted;
        context.store().requireProfile(name);
        requireEditable(*reload.report);
        original = context.store().textOf(name);
    }
    const PrivateText text("profile.json", original);
    const std::optional<ProfileDocument> document = validDocument(text, original, name);
    if (!document) {
        text.remove();
        reload.report->setProfile(name);
        std::cout << "Profile " << inQuotes(name) << " is unchanged\n";
        return;
    }
    const std::unique_ptr<Context> context = stored(*document, original, reload, text);
    try {
        finishChange(*context, name, reload,
                     [&] { std::cout << "Profile " << inQuotes(name) << " stored\n"; });
    } catch (const Error& failure) {
        keep(text, failure.what(), failure.kind());
    }
    text.remove();
}

// ---- Options ----

void addList(Command& group) {
    Command& command = group.subcommand("list", "List the profiles; the active one has a star");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.run([json] { list(*json); });
}

void addShow(Command& group) {
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

Option& addName(Command& command, std::string& name, const char* placeholder, const char* help) {
    return command.option(placeholder, name, help).placeholder("").required();
}

Option& addSource(Command& command, std::string& source) {
    return command
        .option("--from", source,
                "The document: a path, - for standard input, or the name of a stored profile; "
                "\"profile show --json\" prints one")
        .placeholder("FILE|PROFILE");
}

void addCreate(Command& group) {
    struct Values {
        std::string name;
        Origin origin;
        Report report;
    };
    Command& command =
        group.subcommand("create", "Create a profile like the first one that \"base up\" makes");
    const auto values = std::make_shared<Values>();
    addName(command, values->name, "NAME", "Its name").check(newNameError);
    Option& from = addSource(command, values->origin.path);
    command.flag("--empty", values->origin.empty, "Without rules: such a profile allows everything")
        .excludes(from);
    command.footer("Example: tarnfw profile create travel --from ./travel.json");
    runReporting(command, values->report,
                 [values] { create(values->name, values->origin, values->report); });
}

void addSet(Command& group) {
    struct Values {
        std::string name;
        std::string source;
        ReloadOptions reload;
    };
    Command& command = group.subcommand(
        "set", "Replace a profile with a document; an invalid document is not stored");
    const auto values = std::make_shared<Values>();
    addName(command, values->name, "NAME", "The profile");
    addSource(command, values->source).required();
    addReloadFlag(command, values->reload);
    command.footer("Example: tarnfw profile show home --json | tarnfw profile set travel --from -");
    runReporting(command, *values->reload.report,
                 [values] { set(values->name, values->source, values->reload); });
}

using TwoNamesRun = void (*)(const std::string& oldName, const std::string& newName,
                             Report& report);

void addForTwoNames(Command& group, const char* name, const char* help, TwoNamesRun run) {
    struct Values {
        std::string oldName;
        std::string newName;
        Report report;
    };
    Command& command = group.subcommand(name, help);
    const auto values = std::make_shared<Values>();
    addName(command, values->oldName, "OLD", "The profile");
    addName(command, values->newName, "NEW", "The new name").check(newNameError);
    runReporting(command, values->report,
                 [values, run] { run(values->oldName, values->newName, values->report); });
}

void addDelete(Command& group) {
    Command& command = group.subcommand("delete", "Delete a profile; not the active one");
    struct Values {
        std::string name;
        Report report;
    };
    const auto values = std::make_shared<Values>();
    addName(command, values->name, "NAME", "The profile");
    runReporting(command, values->report, [values] { remove(values->name, values->report); });
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
    runReporting(command, *values->reload.report, [values] { use(values->name, values->reload); });
}

void addEdit(Command& group) {
    struct Values {
        std::string name;
        ReloadOptions reload;
    };
    Command& command =
        group.subcommand("edit", "Edit a profile's document; an invalid document is not stored");
    const auto values = std::make_shared<Values>();
    command.option("NAME", values->name, "The profile; by default the active one").placeholder("");
    addReloadFlag(command, values->reload);
    command.footer("The editor is $VISUAL, $EDITOR, \"editor\" or \"vi\".");
    runReporting(command, *values->reload.report, [values] { edit(values->name, values->reload); });
}

}  // namespace

void addProfileCommands(Command& app) {
    Command& profile = app.subcommand("profile", "The profiles on disk");
    addList(profile);
    addShow(profile);
    addProfileDiff(profile);
    addCreate(profile);
    addForTwoNames(profile, "copy", "Create a profile with the rules of another", copy);
    addForTwoNames(profile, "rename", "Rename a profile", rename);
    addDelete(profile);
    addUse(profile);
    addEdit(profile);
    addSet(profile);
}

}  // namespace tarnfw
