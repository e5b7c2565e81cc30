/// tarnfw help: the topics, and the help texts of commands under another name.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <boost/algorithm/string/join.hpp>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/helpTopics.h"
#include "cli/output.h"
#include "cli/parser.h"
#include "commands/commands.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

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

}  // namespace

void addHelpCommand(Command& app) {
    Command& command = app.subcommand(
        "help", "Explain a topic or a command; without one, list commands and topics");
    const auto words = std::make_shared<Texts>();
    command.option("TOPIC", *words, "A topic, or the words of a command").placeholder("");
    command.footer("Examples: tarnfw help first-steps, tarnfw help rule add");
    command.run([&app, words] { help(app, *words); });
}

}  // namespace tarnfw
