// What the tool says of a command line that it refuses.
#include "cli/usage.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <CLI/CLI.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace tarnfw {
namespace {

/// What is said of these words.
std::string refusal(const std::string& words) {
    CLI::App app;
    app.name("tarnfw");
    app.require_subcommand(1);
    app.add_subcommand("status", "")->add_flag("--json");
    CLI::App* const profile = app.add_subcommand("profile", "");
    profile->require_subcommand(1);
    std::string name;
    profile->add_subcommand("show", "")->add_option("NAME", name)->required();
    profile->add_subcommand("secret", "")->group("");
    std::string word;
    app.add_subcommand("policy", "")
        ->add_option("POLICY", word)
        ->check(CLI::IsMember({"allow", "deny"}));
    CLI::Option_group* const subject = app.add_subcommand("blocked", "")->add_option_group("What");
    subject->add_option("--port", word);
    subject->add_option("--service", word);
    subject->require_option(1);
    app.add_subcommand("rule", "")->require_subcommand(1)->add_subcommand("add", "");
    try {
        app.parse(words);
    } catch (const CLI::ParseError& error) {
        std::vector<std::string> list;
        boost::split(list, words, boost::is_any_of(" "));
        return wrongUsage(app, error, list);
    }
    return "accepted";
}

TEST(WrongUsageTest, NamesTheNearestCommand) {
    EXPECT_EQ(refusal("statsu"),
              "tarnfw: there is no command \"tarnfw statsu\"\n"
              "Did you mean \"tarnfw status\"?\n"
              "\"tarnfw --help\" tells how it is used.\n");
    EXPECT_EQ(refusal("profile shwo x"),
              "tarnfw: there is no command \"tarnfw profile shwo\"\n"
              "Did you mean \"tarnfw profile show\"?\n"
              "\"tarnfw profile --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, NamesTheWholeCommand) {
    EXPECT_EQ(refusal("profiel shw x"),
              "tarnfw: there is no command \"tarnfw profiel\"\n"
              "Did you mean \"tarnfw profile show\"?\n"
              "\"tarnfw --help\" tells how it is used.\n");
    EXPECT_EQ(refusal("stat"),
              "tarnfw: there is no command \"tarnfw stat\"\n"
              "Did you mean \"tarnfw status\"?\n"
              "\"tarnfw --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, PutsWordsInTheRightOrder) {
    EXPECT_EQ(refusal("add rule"),
              "tarnfw: there is no command \"tarnfw add\"\n"
              "Did you mean \"tarnfw rule add\"?\n"
              "\"tarnfw --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, KnowsTheWordsOfOtherTools) {
    EXPECT_EQ(refusal("rule list"),
              "tarnfw: there is no command \"tarnfw rule list\"\n"
              "Did you mean \"tarnfw profile show\"?\n"
              "\"tarnfw rule --help\" tells how it is used.\n");
    EXPECT_EQ(refusal("allow 22"),
              "tarnfw: there is no command \"tarnfw allow\"\n"
              "Did you mean \"tarnfw rule add\"?\n"
              "\"tarnfw --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, NamesTheNearestChoice) {
    EXPECT_EQ(refusal("policy deney"),
              "tarnfw: \"deney\" is none of allow, deny; did you mean \"deny\"?\n"
              "\"tarnfw policy --help\" tells how it is used.\n");
    EXPECT_EQ(refusal("policy eth0"),
              "tarnfw: \"eth0\" is none of allow, deny\n"
              "\"tarnfw policy --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, NamesTheNearestOption) {
    EXPECT_EQ(refusal("status --jsn"),
              "tarnfw: \"tarnfw status\" does not take \"--jsn\"\n"
              "Did you mean \"tarnfw status --json\"?\n"
              "\"tarnfw status --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, DoesNotGuessWhereNothingIsNear) {
    EXPECT_EQ(refusal("firewall"),
              "tarnfw: there is no command \"tarnfw firewall\"\n"
              "\"tarnfw --help\" tells how it is used.\n");
    EXPECT_EQ(refusal("status more"),
              "tarnfw: \"tarnfw status\" does not take \"more\"\n"
              "\"tarnfw status --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, DoesNotNameHiddenCommands) {
    EXPECT_EQ(refusal("profile secre"),
              "tarnfw: there is no command \"tarnfw profile secre\"\n"
              "\"tarnfw profile --help\" tells how it is used.\n");
}

TEST(WrongUsageTest, SaysWhatIsMissing) {
    EXPECT_EQ(refusal("profile show"),
              "tarnfw: NAME is required\n"
              "\"tarnfw profile show --help\" tells how it is used.\n");
    EXPECT_EQ(refusal("blocked"),
              "tarnfw: \"tarnfw blocked\" needs one of --port, --service\n"
              "\"tarnfw blocked --help\" tells how it is used.\n");
    EXPECT_EQ(refusal(""),
              "tarnfw: \"tarnfw\" needs one of status, profile, policy, blocked, rule\n"
              "\"tarnfw --help\" tells how it is used.\n");
}

}  // namespace
}  // namespace tarnfw
