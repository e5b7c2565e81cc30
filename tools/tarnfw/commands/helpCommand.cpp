/// tarnfw help: the topics, and the help texts of commands under another name.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <boost/algorithm/string/join.hpp>

#include "cli/command.h"
#include "cli/helpTopics.h"
#include "cli/output.h"
#include "cli/usage.h"
#include "commands/commands.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

constexpr char kToolName[] = "tarnfw";

bool isShown(const CLI::App* command) {
    return !command->get_name().empty() && !command->get_group().empty();
}

void printOverview(const CLI::App& app) {
    // Not help(): while this command runs, that would be the help of this command.
    std::cout << app.get_formatter()->make_help(&app, kToolName, CLI::AppFormatMode::Normal)
              << "\nTopics (\"tarnfw help TOPIC\"):\n";
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

/// What there is instead of the last of `words`, behind those before it; a topic stands `alone`.
[[noreturn]] void refuse(const CLI::App& group, const Texts& words, bool alone) {
    Texts known;
    for (const CLI::App* command : group.get_subcommands(isShown)) {
        known.push_back(command->get_name());
    }
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
    throw UsageError(text.append(" (\"tarnfw help\" lists commands and topics)"));
}

void printCommand(const CLI::App& app, const Texts& words) {
    const CLI::App* command = &app;
    std::string groupName;
    for (auto word = words.begin(); word != words.end(); ++word) {
        groupName.append(groupName.empty() ? "" : " ").append(command->get_name());
        const CLI::App* next = nullptr;
        for (const CLI::App* candidate : command->get_subcommands(isShown)) {
            if (candidate->get_name() == *word) {
                next = candidate;
            }
        }
        if (next == nullptr) {
            refuse(*command, Texts(words.begin(), word + 1), words.size() == 1);
        }
        command = next;
    }
    std::cout << command->get_formatter()->make_help(command, groupName + " " + command->get_name(),
                                                     CLI::AppFormatMode::Normal);
}

void help(const CLI::App& app, const Texts& words) {
    if (words.empty()) {
        printOverview(app);
    } else if (words.size() > 1 || !printTopic(words.front())) {
        printCommand(app, words);
    }
}

}  // namespace

void addHelpCommand(CLI::App& app) {
    CLI::App* const command = app.add_subcommand(
        "help", "Explain a topic, or a command; without one, list commands and topics");
    const auto words = std::make_shared<Texts>();
    command->add_option("TOPIC", *words, "A topic, or the words of a command")->type_name("");
    command->footer("Examples: tarnfw help first-steps, tarnfw help rule add");
    command->callback([&app, words] { help(app, *words); });
}

}  // namespace tarnfw
