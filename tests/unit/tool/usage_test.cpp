// The tool's messages for an invalid command line.
#include "cli/usage.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace tarnfw {
namespace {

/// The message about these words.
std::string error(const std::string& words) {
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
    if (const auto error = runCommandLine(tool, list)) {
        return wrongUsage(tool, *error, list);
    }
    return "accepted";
}

TEST(WrongUsageTest, NamesTheNearestCommand) {
    EXPECT_EQ(error("statsu"),
              "tarnfw: there is no command \"tarnfw statsu\"\n"
              "Did you mean \"tarnfw status\"?\n"
              "\"tarnfw --help\" shows its usage.\n");
    EXPECT_EQ(error("profile shwo x"),
              "tarnfw: there is no command \"tarnfw profile shwo\"\n"
              "Did you mean \"tarnfw profile show\"?\n"
              "\"tarnfw profile --help\" shows its usage.\n");
}

TEST(WrongUsageTest, NamesTheWholeCommand) {
    EXPECT_EQ(error("profiel shw x"),
              "tarnfw: there is no command \"tarnfw profiel\"\n"
              "Did you mean \"tarnfw profile show\"?\n"
              "\"tarnfw --help\" shows its usage.\n");
    EXPECT_EQ(error("stat"),
              "tarnfw: there is no command \"tarnfw stat\"\n"
              "Did you mean \"tarnfw status\"?\n"
              "\"tarnfw --help\" shows its usage.\n");
}

TEST(WrongUsageTest, PutsWordsInTheRightOrder) {
    EXPECT_EQ(error("add rule"),
              "tarnfw: there is no command \"tarnfw add\"\n"
              "Did you mean \"tarnfw rule add\"?\n"
              "\"tarnfw --help\" shows its usage.\n");
}

TEST(WrongUsageTest, KnowsTheWordsOfOtherTools) {
    EXPECT_EQ(error("rule list"),
              "tarnfw: there is no command \"tarnfw rule list\"\n"
              "Did you mean \"tarnfw profile show\"?\n"
              "\"tarnfw rule --help\" shows its usage.\n");
    EXPECT_EQ(error("allow 22"),
              "tarnfw: there is no command \"tarnfw allow\"\n"
              "Did you mean \"tarnfw rule add\"?\n"
              "\"tarnfw --help\" shows its usage.\n");
}

TEST(WrongUsageTest, NamesTheNearestChoice) {
    EXPECT_EQ(error("policy deney"),
              "tarnfw: \"deney\" is not one of allow, deny; did you mean \"deny\"?\n"
              "\"tarnfw policy --help\" shows its usage.\n");
    EXPECT_EQ(error("policy eth0"),
              "tarnfw: \"eth0\" is not one of allow, deny\n"
              "\"tarnfw policy --help\" shows its usage.\n");
}

TEST(WrongUsageTest, NamesTheNearestOption) {
    EXPECT_EQ(error("status --jsn"),
              "tarnfw: \"tarnfw status\" does not take \"--jsn\"\n"
              "Did you mean \"tarnfw status --json\"?\n"
              "\"tarnfw status --help\" shows its usage.\n");
}

TEST(WrongUsageTest, DoesNotGuessWhereNothingIsNear) {
    EXPECT_EQ(error("firewall"),
              "tarnfw: there is no command \"tarnfw firewall\"\n"
              "\"tarnfw --help\" shows its usage.\n");
    EXPECT_EQ(error("status more"),
              "tarnfw: \"tarnfw status\" does not take \"more\"\n"
              "\"tarnfw status --help\" shows its usage.\n");
}

TEST(WrongUsageTest, DoesNotNameHiddenCommands) {
    EXPECT_EQ(error("profile secre"),
              "tarnfw: there is no command \"tarnfw profile secre\"\n"
              "\"tarnfw profile --help\" shows its usage.\n");
}

TEST(WrongUsageTest, SaysWhatIsMissing) {
    EXPECT_EQ(error("profile show"),
              "tarnfw: NAME is required\n"
              "\"tarnfw profile show --help\" shows its usage.\n");
    EXPECT_EQ(error("blocked"),
              "tarnfw: \"tarnfw blocked\" needs one of --port, --service\n"
              "\"tarnfw blocked --help\" shows its usage.\n");
    EXPECT_EQ(error(""),
              "tarnfw: \"tarnfw\" needs one of status, profile, policy, blocked, rule\n"
              "\"tarnfw --help\" shows its usage.\n");
}

}  // namespace
}  // namespace tarnfw
