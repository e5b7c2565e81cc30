#include "commands/commands.h"

#include <syslog.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwTypes.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/completion.h"
#include "cli/helpTopics.h"
#include "cli/output.h"
#include "cli/parser.h"
#include "tarnfwadmin/catalogue.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

// ---- help: the topics, and the help texts of commands under another name ----

void printOverview(const Command& tool) {
    std::cout << helpText(tool) << "\nTopics (\"tarnfw help TOPIC\"):\n";
    Table table;
    for (const HelpTopic& topic : helpTopics()) {
        table.addRow({{topic.name}, {topic.summary}});
    }
    table.print(2);
}

bool printTopic(const std::string& name) {
    for (const HelpTopic& topic : helpTopics()) {
        if (name == topic.name) {
            std::cout << topic.text;
            return true;
        }
    }
    return false;
}

/// Fails with the nearest name to the last of `words`; topics only if it is `alone`.
[[noreturn]] void refuse(const Command& group, const Texts& words, bool alone) {
    Texts known = group.shownNames();
    if (alone) {
        for (const HelpTopic& topic : helpTopics()) {
            known.emplace_back(topic.name);
        }
    }
    std::string text = "there is no help for " + inQuotes(boost::join(words, " "));
    const std::string meant = nearest(words.back(), known);
    if (!meant.empty()) {
        Texts right(words.begin(), words.end() - 1);
        right.push_back(meant);
        text.append("; did you mean \"tarnfw help ").append(boost::join(right, " ")).append("\"?");
    }
    std::cerr << "tarnfw: " << text << " (\"tarnfw help\" lists commands and topics)\n";
    endWith(kExitUsage);
}

void printCommand(const Command& tool, const Texts& words) {
    const Command* command = &tool;
    for (auto word = words.begin(); word != words.end(); ++word) {
        const Command* const next = command->shown(*word);
        if (next == nullptr) {
            refuse(*command, Texts(words.begin(), word + 1), words.size() == 1);
        }
        command = next;
    }
    std::cout << helpText(*command);
}

void help(const Command& tool, const Texts& words) {
    if (words.empty()) {
        printOverview(tool);
    } else if (words.size() > 1 || !printTopic(words.front())) {
        printCommand(tool, words);
    }
}

// ---- complete: what the shells' completion scripts ask; not for a person ----

/// Tells the shell to complete file names.
constexpr char kFilesLine[] = "<file>";

/// What a source yields; nothing when it fails. Tab must not print errors.
template <typename Source>
Texts orNone(const Source& source) {
    try {
        return source();
    } catch (const std::exception&) {
        return {};
    }
}

/// The members of a document's member; none if it is not an object.
Texts membersOf(const Json::Value& document, const char* name) {
    const Json::Value& member = document[name];
    return member.isObject() ? member.getMemberNames() : Texts();
}

/// Those of the active profile, read directly from the files: also for a person who is not root
/// but will be, with "sudo", when the command runs.
Texts activeAdapters() {
    const StoreSnapshot store;
    const Json::Value& document = store.documentOf(store.activeProfile());
    Texts adapters;
    for (const char* const member : {"rules", "adapterPolicyMap"}) {
        const Texts more = membersOf(document, member);
        adapters.insert(adapters.end(), more.begin(), more.end());
    }
    return adapters;
}

/// Those of the machine, the predefined ones, and those of the active profile.
Texts adapters() {
    std::set<std::string> names(FW::FW_PREDEFINED_ADAPTERS.begin(),
                                FW::FW_PREDEFINED_ADAPTERS.end());
    for (const Texts& more : {orNone(machineAdapters), orNone(activeAdapters)}) {
        std::copy_if(more.begin(), more.end(), std::inserter(names, names.end()),
                     [](const std::string& name) { return !isNeverApplied(name); });
    }
    return {names.begin(), names.end()};
}

Texts services() {
    Texts names;
    for (const Service& service : Catalogue().usableServices()) {
        names.push_back(service.name);
    }
    return names;
}

Texts topicNames() {
    Texts names;
    for (const HelpTopic& topic : helpTopics()) {
        names.emplace_back(topic.name);
    }
    return names;
}

void printCompletions(const Command& app, const Texts& line) {
    // Keep the library's messages off the terminal and out of the system log.
    openlog("tarnfw", 0, LOG_USER);
    setlogmask(LOG_MASK(LOG_EMERG));
    CompletionNames names;
    names.profiles = [] { return orNone([] { return StoreSnapshot().profileNames(); }); };
    names.adapters = [] { return orNone(adapters); };
    names.services = [] { return orNone(services); };
    names.countries = [] { return orNone(machineCountries); };
    names.topics = topicNames;
    const Completion fits = complete(app, line, names);
    for (const std::string& word : fits.words) {
        std::cout << word << '\n';
    }
    if (fits.files) {
        std::cout << kFilesLine << '\n';
    }
}

void addHelp(Command& app) {
    Command& command = app.subcommand(
        "help", "Explain a topic or a command; without one, list commands and topics");
    const auto words = std::make_shared<Texts>();
    command.option("TOPIC", *words, "A topic, or the words of a command").placeholder("");
    command.footer("Examples: tarnfw help first-steps, tarnfw help rule add");
    command.run([&app, words] { help(app, *words); });
}

void addComplete(Command& app) {
    Command& command = app.subcommand("complete", "Print what can come next, a word a line");
    command.hide();
    const auto line = std::make_shared<Texts>();
    command.option("WORDS", *line, "After \"--\": the words after the tool's name");
    command.run([&app, line] { printCompletions(app, *line); });
}

// ---- Examples -----------------------------------------------------------------------------------

/// What follows the words of a command in its example.
struct Example {
    const char* command;
    const char* arguments;
};

constexpr Example kExamples[] = {
    {"adapter rename", " eth0 enp3s0"},
    {"apply-mode", " batch"},
    {"base up", ""},
    {"blocked", " --service ssh --adapter eth0"},
    {"explain", " --port tcp/22"},
    {"export", " backup.json"},
    {"geoip check", " 192.0.2.1"},
    {"geoip show", " DE --family v4"},
    {"import", " backup.json --dry-run"},
    {"modules load", " vpn --nat"},
    {"modules status", " vpn"},
    {"modules unload", " vpn --nat"},
    {"preview", " home --format restore"},
    {"profile copy", " home travel"},
    {"profile create", " home"},
    {"profile delete", " travel"},
    {"profile edit", " home"},
    {"profile rename", " home office"},
    {"profile show", " home"},
    {"profile use", " home"},
    {"service release", " ssh"},
    {"services", " '*sm*'"},
    {"try", " travel --timeout 120"},
};

/// Adds an example to the help of each command whose own text has none.
void addExamples(Command& command, const std::string& name) {
    if (!command.subcommands().empty()) {
        for (const auto& below : command.subcommands()) {
            addExamples(*below, name + " " + below->name());
        }
        return;
    }
    const std::size_t heading = command.footer().find("Example");
    if (heading != std::string::npos &&
        command.footer().find("tarnfw " + name, heading) != std::string::npos) {
        return;
    }
    const auto* const found =
        std::find_if(std::begin(kExamples), std::end(kExamples),
                     [&name](const Example& example) { return name == example.command; });
    const std::string inherited = command.parent() == nullptr ? "" : command.parent()->footer();
    const std::string text = command.footer().empty() ? inherited : command.footer();
    command.footer(text + (text.empty() ? "" : "\n") + "Example: tarnfw " + name +
                   (found == std::end(kExamples) ? "" : found->arguments));
}

}  // namespace

void addCommands(Command& app) {
    addStatusCommand(app);
    addControlCommands(app);
    addTryCommand(app);
    addProfileCommands(app);
    addRuleCommands(app);
    addLogDeniedCommand(app);
    addInventoryCommands(app);
    addServiceCommands(app);
    addBlockedCommand(app);
    addExplainCommand(app);
    addOpenCommand(app);
    addPreviewCommand(app);
    addCheckCommand(app);
    addDiffCommand(app);
    addReportCommand(app);
    addHistoryCommands(app);
    addExportCommand(app);
    addImportCommand(app);
    addGeoipCommands(app);
    addModulesCommands(app);
    addBaseCommands(app);
    addHelp(app);
    addComplete(app);
    for (const auto& command : app.subcommands()) {
        addExamples(*command, command->name());
    }
}

}  // namespace tarnfw
