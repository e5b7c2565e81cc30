// What the tool says of a command line that it refuses.
#include "usage.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

TEST(NearestTest, FindsTypingErrorsAndNothingElse) {
    const std::vector<std::string> known = {"enable", "disable", "profile", "preview"};
    EXPECT_EQ(nearest("enabel", known), "enable");
    EXPECT_EQ(nearest("profiel", known), "profile");
    EXPECT_EQ(nearest("dissable", known), "disable");
    EXPECT_EQ(nearest("firewall", known), "");
    EXPECT_EQ(nearest("", known), "");
    EXPECT_EQ(nearest("enable", {}), "");
}

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
    try {
        app.parse(words);
    } catch (const CLI::ParseError& error) {
        return wrongUsage(app, error);
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
    EXPECT_EQ(refusal(""),
              "tarnfw: A subcommand is required\n"
              "\"tarnfw --help\" tells how it is used.\n");
}

}  // namespace
}  // namespace tarnfw
