// Command-line declarations, and the parsing of words by them.
#include "cli/parser.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnfw {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using Texts = std::vector<std::string>;

Texts split(const std::string& line) {
    std::istringstream stream(line);
    Texts words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

/// A tool with an option of every sort.
class ParserTest : public ::testing::Test {
protected:
    ParserTest() {
        tool_.version("1.2.3");
        Command& rule = tool_.subcommand("rule", "Change rules");
        Command& add = rule.subcommand("add", "Add a rule. More is said of it here");
        add.option("POSITION", position_, "Where").range(1, 9).required();
        add.option("WORDS", words_, "The rule").placeholder("");
        Option& v4 = add.flag("--v4", v4_, "For IPv4");
        add.flag("--v6", v6_, "For IPv6").excludes(v4);
        add.option("--label", labels_, "A label").placeholder("TEXT").oneValueEach();
        add.option("--seconds", seconds_, "How long").showDefault().needs(v4);
        add.footer("Example: tool rule add 1");
        add.run([this] { ran_.emplace_back("rule add"); });

        Command& ask = tool_.subcommand("ask", "Ask");
        ask.option("--mode", mode_, "A mode").choices({"lines", "batch"});
        ask.option("--service", service_, "A service").exactlyOneOf("Subject");
        ask.option("--port", port_, "A port")
            .check([](const std::string& text) {
                return text == "22" ? std::string() : text + " is no port";
            })
            .exactlyOneOf("Subject");
        ask.option("--span", span_, "Two ports")
            .severalWords()
            .check([](const std::string& text) {
                return text == "5 9" || text == "5-9" ? std::string() : text + " is no span";
            })
            .exactlyOneOf("Subject");
        ask.run([this] {
            ran_.emplace_back("ask");
            if (service_ == "unusable") {
                throw UsageError("SERVICE: not usable");
            }
            if (service_ == "failing") {
                throw std::runtime_error("failed");
            }
        });
        tool_.subcommand("secret", "Hidden").hide().run([this] { ran_.emplace_back("secret"); });
    }

    /// What is wrong with the line: "COMMAND: REASON", or "COMMAND? WORD" for a word that is not
    /// taken; empty when nothing is.
    std::string refused(const std::string& line) {
        const std::optional<ParseError> error = runCommandLine(tool_, split(line));
        if (!error) {
            return "";
        }
        return error->command->fullName() + (error->unknown.empty() ? ": " : "? ") +
               error->unknown + error->reason;
    }

    Command tool_{"tool", "A tool"};
    std::size_t position_ = 0;
    Texts words_;
    bool v4_ = false;
    bool v6_ = false;
    Texts labels_;
    int seconds_ = 60;
    std::string mode_;
    std::string service_;
    std::string port_;
    std::string span_;
    Texts ran_;
};

TEST_F(ParserTest, FillsTheTargetsAndRunsTheCommand) {
    EXPECT_EQ(refused("rule add 3 allow --v4 --label a tcp --label b --seconds=5 22"), "");
    EXPECT_EQ(position_, 3U);
    EXPECT_THAT(words_, ElementsAre("allow", "tcp", "22"));
    EXPECT_TRUE(v4_);
    EXPECT_FALSE(v6_);
    EXPECT_THAT(labels_, ElementsAre("a", "b"));
    EXPECT_EQ(seconds_, 5);
    EXPECT_THAT(ran_, ElementsAre("rule add"));
}

TEST_F(ParserTest, AValueOfSeveralWordsEndsWithAnOption) {
    EXPECT_EQ(refused("ask --span 5 9 --mode lines"), "");
    EXPECT_EQ(span_, "5 9");
    EXPECT_EQ(refused("ask --span 5-9"), "");
    EXPECT_EQ(span_, "5-9");
    EXPECT_EQ(refused("ask --span=5 9"), "");
    EXPECT_EQ(span_, "5 9");
}

TEST_F(ParserTest, RunsHiddenCommands) {
    EXPECT_EQ(refused("secret"), "");
    EXPECT_THAT(ran_, ElementsAre("secret"));
}

struct RefusedCase {
    const char* name;
    const char* line;
    const char* reason;
};

void PrintTo(const RefusedCase& c, std::ostream* stream) {
    *stream << c.name;
}

class RefusedTest : public ParserTest, public ::testing::WithParamInterface<RefusedCase> {};

TEST_P(RefusedTest, SaysWhyAndRunsNothing) {
    EXPECT_EQ(refused(GetParam().line), GetParam().reason);
    EXPECT_THAT(ran_, IsEmpty());
}

const RefusedCase kRefused[] = {
    {"NoCommand", "", "tool: \"tool\" needs one of rule, ask"},
    {"NoSubcommand", "rule", "tool rule: \"tool rule\" needs one of add"},
    {"UnknownCommand", "rules add", "tool? rules"},
    {"UnknownOption", "ask --port 22 --what", "tool ask? --what"},
    {"SurplusWord", "ask --port 22 more", "tool ask? more"},
    {"Missing", "rule add", "tool rule add: POSITION is required"},
    {"NoNumber", "rule add first",
     "tool rule add: POSITION: \"first\" is not a number from 1 to 9"},
    {"TooSmall", "rule add 0", "tool rule add: POSITION: \"0\" is not a number from 1 to 9"},
    {"WrongAfterTheEndOfOptions", "rule add -- 0",
     "tool rule add: POSITION: \"0\" is not a number from 1 to 9"},
    {"TooGreat", "rule add 10", "tool rule add: POSITION: \"10\" is not a number from 1 to 9"},
    {"Excluded", "rule add 1 --v4 --v6", "tool rule add: --v4 and --v6 exclude each other"},
    {"Needed", "rule add 1 --seconds 5", "tool rule add: --seconds needs --v4"},
    {"NoValue", "rule add 1 --label", "tool rule add: --label needs a value"},
    {"NoValueOfOne", "ask --port", "tool ask: --port needs a value"},
    {"NoSecondsGiven", "rule add 1 --v4 --seconds", "tool rule add: --seconds needs a value"},
    {"NoSeconds", "rule add 1 --v4 --seconds soon",
     "tool rule add: --seconds: \"soon\" is not of the right sort"},
    {"OneTwice", "ask --port 22 --port 22", "tool ask: --port is given more than once"},
    {"FlagWithAValue", "rule add 1 --v4=yes-or-no", "tool rule add: --v4 takes no value"},
    {"NoChoice", "ask --port 22 --mode btach",
     "tool ask: \"btach\" is not one of lines, batch; did you mean \"batch\"?"},
    {"NoChoiceNear", "ask --port 22 --mode x", "tool ask: \"x\" is not one of lines, batch"},
    {"Checked", "ask --port ssh", "tool ask: --port: ssh is no port"},
    {"CheckedTogether", "ask --span 5 ssh", "tool ask: --span: 5 ssh is no span"},
    {"TooManyWords", "ask --span 5 to 9", "tool ask: --span: 5 to 9 is no span"},
    {"WordsTwice", "ask --span 5-9 --span 5-9", "tool ask: --span: 5-9 5-9 is no span"},
    {"NoneOfAGroup", "ask", "tool ask: \"tool ask\" needs one of --service, --port, --span"},
    {"TwoOfAGroup", "ask --port 22 --service ssh",
     "tool ask: \"tool ask\" takes only one of --service, --port, --span"},
};

INSTANTIATE_TEST_SUITE_P(Lines, RefusedTest, ::testing::ValuesIn(kRefused),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(ParserTest, ACommandCanFindUsageErrorItself) {
    EXPECT_EQ(refused("ask --service unusable"), "tool ask: SERVICE: not usable");
}

TEST_F(ParserTest, WhatElseACommandThrowsGoesThrough) {
    EXPECT_THROW((void)refused("ask --service failing"), std::runtime_error);
}

TEST_F(ParserTest, HelpAndVersionRunNothing) {
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(refused("rule add --help"), "");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              helpText(*tool_.shown("rule")->shown("add")));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(refused("--version"), "");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "1.2.3\n");
    EXPECT_THAT(ran_, IsEmpty());
}

TEST_F(ParserTest, HelpOfACommand) {
    EXPECT_EQ(helpText(*tool_.shown("rule")->shown("add")),
              "Add a rule. More is said of it here\n"
              "Usage: tool rule add [OPTIONS] POSITION [WORDS...]\n"
              "\n"
              "Positionals:\n"
              "  POSITION                    Where (required)\n"
              "  WORDS ...                   The rule\n"
              "\n"
              "Options:\n"
              "  -h, --help                  Print this help message and exit\n"
              "  --v4                        For IPv4 (not together with --v6)\n"
              "  --v6                        For IPv6 (not together with --v4)\n"
              "  --label TEXT ...            A label\n"
              "  --seconds NUMBER            How long (by default 60; only with --v4)\n"
              "\n"
              "Example: tool rule add 1\n");
}

TEST_F(ParserTest, HelpOfChoicesAndOfOptionsOneOfWhichIsNeeded) {
    EXPECT_EQ(helpText(*tool_.shown("ask")),
              "Ask\n"
              "Usage: tool ask [OPTIONS]\n"
              "\n"
              "Options:\n"
              "  -h, --help                  Print this help message and exit\n"
              "  --mode lines|batch          A mode\n"
              "\n"
              "Subject, one of:\n"
              "  --service TEXT              A service\n"
              "  --port TEXT                 A port\n"
              "  --span TEXT                 Two ports\n"
              "\n");
}

TEST_F(ParserTest, HelpOfAGroupHasFirstSentencesAndNothingHidden) {
    EXPECT_THAT(helpText(tool_),
                AllOf(HasSubstr("rule"), HasSubstr("--version"), Not(HasSubstr("secret"))));
    EXPECT_THAT(helpText(*tool_.shown("rule")),
                AllOf(HasSubstr("Add a rule\n"), Not(HasSubstr("More is said"))));
}

TEST_F(ParserTest, DeclarationsCanBeAsked) {
    EXPECT_THAT(tool_.subcommands(), SizeIs(3));
    EXPECT_THAT(tool_.shownNames(), ElementsAre("rule", "ask"));
    EXPECT_EQ(tool_.shown("secret"), nullptr);
    const Command& ask = *tool_.shown("ask");
    EXPECT_EQ(ask.fullName(), "tool ask");
    Texts names;
    for (const Option* option : ask.options()) {
        names.push_back(option->facts().name);
    }
    EXPECT_THAT(names, ElementsAre("--help", "--mode", "--service", "--port", "--span"));
    const std::vector<const Option*> options = tool_.shown("rule")->shown("add")->options();
    const auto most = [&options](const std::string& name) {
        return (*std::find_if(
                    options.begin(), options.end(),
                    [&name](const Option* option) { return option->facts().name == name; }))
            ->mostValues();
    };
    EXPECT_EQ(most("--v4"), 0U);
    EXPECT_EQ(most("POSITION"), 1U);
    EXPECT_GT(most("WORDS"), 1000U);
}

}  // namespace
}  // namespace tarnfw
