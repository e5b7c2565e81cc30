// What the tool says of a command line that it refuses.
#include "cli/usage.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace tarnfw {
namespace {

/// What is said of these words.
std::string refusal(const std::string& words) {
    Command tool("tarnfw", "");
    bool flag = false;
    tool.subcommand("status", "").flag("--json", flag, "");
    Command& profile = tool.subcommand("profile", "");
    std::string name;
    profile.subcommand("show", "").option("NAME", name, "").required();
    profile.subcommand("secret", "").hide();
    std::string word;
    tool.subcommand("policy", "").option("POLICY", word, "").choices({"allow", "deny"});
    Command& blocked = tool.subcommand("blocked", "");
    blocked.option("--port", word, "").exactlyOneOf("What");
    blocked.option("--service", word, "").exactlyOneOf("What");
    tool.subcommand("rule", "").subcommand("add", "");
    std::vector<std::string> list;
    if (!words.empty()) {
        boost::split(list, words, boost::is_any_of(" "));
    }
    if (const auto refusal = runCommandLine(tool, list)) {
        return wrongUsage(tool, *refusal, list);
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
