// The help texts fit a terminal and name only existing commands.
#include "cli/helpTopics.h"

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "commands/commands.h"

namespace tarnfw {
namespace {

constexpr std::size_t kColumns = 78;

TEST(HelpTopicsTest, FitATerminal) {
    for (const HelpTopic& topic : helpTopics()) {
        SCOPED_TRACE(topic.name);
        std::istringstream text(topic.text);
        std::ptrdiff_t lines = 0;
        for (std::string line; std::getline(text, line); ++lines) {
            EXPECT_LE(line.size(), kColumns) << line;
            EXPECT_EQ(line.find('\t'), std::string::npos) << line;
            EXPECT_TRUE(line.empty() || line.back() != ' ') << line;
        }
        EXPECT_GE(lines, 20);
        EXPECT_LE(lines, 42);
        EXPECT_EQ(std::string(topic.text).back(), '\n');
    }
}

/// The command that the words after "tarnfw" begin with; null when they do not name one to its
/// end.
const Command* commandIn(const Command& tool, const std::string& words) {
    const Command* command = &tool;
    std::istringstream stream(words);
    for (std::string word; stream >> word;) {
        const Command* const next = command->shown(word);
        if (next == nullptr) {
            break;
        }
        command = next;
    }
    return command != &tool && command->subcommands().empty() ? command : nullptr;
}

TEST(HelpTopicsTest, NameCommandsThatThereAre) {
    Command tool("tarnfw", "");
    addCommands(tool);
    const std::regex call("tarnfw +([a-z][a-z-]*(?: +[a-z][a-z-]*)*)");
    std::size_t calls = 0;
    for (const HelpTopic& topic : helpTopics()) {
        // A line that ends within a command goes on in the next.
        const std::string text = std::regex_replace(topic.text, std::regex("\n"), " ");
        for (std::sregex_iterator found(text.begin(), text.end(), call), end; found != end;
             ++found, ++calls) {
            EXPECT_NE(commandIn(tool, (*found)[1]), nullptr) << topic.name << ": " << found->str();
        }
    }
    EXPECT_GT(calls, helpTopics().size());
}

TEST(HelpTopicsTest, PointToTopicsThatThereAre) {
    Command tool("tarnfw", "");
    addCommands(tool);
    const std::regex pointer("\"tarnfw help ([a-z -]+)\"");
    for (const HelpTopic& topic : helpTopics()) {
        const std::string text = std::regex_replace(topic.text, std::regex("\n"), " ");
        for (std::sregex_iterator found(text.begin(), text.end(), pointer), end; found != end;
             ++found) {
            const std::string name = (*found)[1];
            const bool isTopic =
                std::any_of(helpTopics().begin(), helpTopics().end(),
                            [&](const HelpTopic& other) { return name == other.name; });
            EXPECT_TRUE(isTopic || commandIn(tool, name) != nullptr) << topic.name << ": " << name;
        }
    }
}

/// Checks a command, or those of a group.
void expectExamples(const Command& command) {
    for (const auto& below : command.subcommands()) {
        expectExamples(*below);
    }
    if (command.subcommands().empty()) {
        // A command that is only mentioned is no example.
        const std::size_t heading = command.footer().find("Example");
        EXPECT_TRUE(heading != std::string::npos &&
                    command.footer().find(command.fullName(), heading) != std::string::npos)
            << command.fullName() << ": " << command.footer();
    }
}

TEST(CommandHelpTest, EachHasAnExampleOfThatCommand) {
    Command tool("tarnfw", "The tool");
    addCommands(tool);
    expectExamples(tool);
}

}  // namespace
}  // namespace tarnfw
