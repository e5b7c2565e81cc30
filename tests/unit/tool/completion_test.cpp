// What can come next on a command line.
#include "cli/completion.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnfw {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Texts = std::vector<std::string>;

/// Some commands, with options and positionals called as those of the tool.
class CompletionTest : public ::testing::Test {
protected:
    CompletionTest() {
        Command& profile = tool_.subcommand("profile", "");
        Command& show = profile.subcommand("show", "");
        show.option("NAME", text_, "");
        show.flag("--json", flag_, "");
        Command& create = profile.subcommand("create", "");
        create.option("NAME", text_, "");
        create.option("--from", text_, "");
        Command& add = tool_.subcommand("rule", "").subcommand("add", "");
        add.option("POSITION", number_, "");
        add.option("WORDS", texts_, "");
        add.option("--adapter", text_, "");
        add.option("--profile", text_, "");
        add.option("--label", texts_, "").oneValueEach();
        Command& policy = tool_.subcommand("policy", "");
        policy.option("ADAPTER", text_, "");
        policy.option("POLICY", text_, "").choices({"allow", "deny", "none"});
        Command& blocked = tool_.subcommand("blocked", "");
        blocked.option("--service", text_, "").exactlyOneOf("group");
        Command& reload = tool_.subcommand("reload", "");
        reload.option("--for", text_, "");
        reload.option("--port", text_, "").severalWords();
        tool_.subcommand("check", "").option("FILE|PROFILE", text_, "");
        tool_.subcommand("geoip", "").subcommand("show", "").option("COUNTRY", text_, "");
        tool_.subcommand("help", "").option("TOPIC", texts_, "");
        tool_.subcommand("secret", "").hide();
    }

    /// What fits in the place of the last word.
    Completion fits(const Texts& line) const {
        CompletionNames names;
        names.profiles = [] { return Texts{"default", "my home", "odd\nname", "odd\x7f"}; };
        names.adapters = [] { return Texts{"eth0", "eth1", "global"}; };
        names.services = [] { return Texts{"http", "https", "ssh"}; };
        names.countries = [] { return Texts{"CN", "DE"}; };
        names.topics = [] { return Texts{"profiles", "rules"}; };
        return complete(tool_, line, names);
    }

    Texts words(const Texts& line) const {
        const Completion found = fits(line);
        EXPECT_FALSE(found.files);
        return found.words;
    }

    Command tool_{"tarnfw", ""};
    std::string text_;
    Texts texts_;
    int number_ = 0;
    bool flag_ = false;
};

TEST_F(CompletionTest, CommandsWithoutHiddenOnes) {
    EXPECT_THAT(words({""}), ElementsAre("profile", "rule", "policy", "blocked", "reload", "check",
                                         "geoip", "help"));
    EXPECT_THAT(words({}), ElementsAre("profile", "rule", "policy", "blocked", "reload", "check",
                                       "geoip", "help"));
    EXPECT_THAT(words({"p"}), ElementsAre("profile", "policy"));
    EXPECT_THAT(words({"profile", ""}), ElementsAre("show", "create"));
    EXPECT_THAT(words({"secret", ""}), IsEmpty());
}

TEST_F(CompletionTest, NothingBehindWordsThatNothingTakes) {
    EXPECT_THAT(words({"nonsense", ""}), IsEmpty());
    EXPECT_THAT(words({"nonsense", "p"}), IsEmpty());
    EXPECT_THAT(words({"profile", "nonsense", "s"}), IsEmpty());
    EXPECT_THAT(words({"profile", "show", "default", "d"}), IsEmpty());
}

TEST_F(CompletionTest, OptionsThatHaveNotBeenGiven) {
    EXPECT_THAT(words({"profile", "show", "-"}), ElementsAre("--help", "--json"));
    EXPECT_THAT(words({"profile", "show", "--json", "--"}), ElementsAre("--help"));
    EXPECT_THAT(words({"profile", "show", "x", "--j"}), ElementsAre("--json"));
    EXPECT_THAT(words({"rule", "add", "--label", "a", "--l"}), ElementsAre("--label"));
    EXPECT_THAT(words({"blocked", "--s"}), ElementsAre("--service"));
    EXPECT_THAT(words({"profile", "show", "-h", "--"}), ElementsAre("--json"));
    EXPECT_THAT(words({"profile", "show", "--", "--j"}), IsEmpty());
}

TEST_F(CompletionTest, OptionsWhereNothingElseFits) {
    EXPECT_THAT(words({"profile", "show", "default", ""}), ElementsAre("--help", "--json"));
    EXPECT_THAT(words({"blocked", ""}), ElementsAre("--help", "--service"));
}

TEST_F(CompletionTest, NamesAsTheyAreButForThoseThatATerminalObeys) {
    EXPECT_THAT(words({"profile", "show", ""}), ElementsAre("default", "my home"));
    EXPECT_THAT(words({"profile", "show", "my h"}), ElementsAre("my home"));
    EXPECT_THAT(words({"profile", "show", "--json", "d"}), ElementsAre("default"));
}

TEST_F(CompletionTest, NoNamesWhereANewOneIsMeant) {
    EXPECT_THAT(words({"profile", "create", "d"}), IsEmpty());
}

TEST_F(CompletionTest, ValuesOfOptions) {
    EXPECT_THAT(words({"rule", "add", "--adapter", "e"}), ElementsAre("eth0", "eth1"));
    EXPECT_THAT(words({"rule", "add", "--adapter", "eth0", "--profile", "d"}),
                ElementsAre("default"));
    EXPECT_THAT(words({"blocked", "--service", "s"}), ElementsAre("ssh"));
    EXPECT_THAT(words({"reload", "--for", "e"}), ElementsAre("eth0", "eth1"));
    EXPECT_THAT(words({"reload", "--for=e"}), ElementsAre("--for=eth0", "--for=eth1"));
    EXPECT_THAT(words({"reload", "--port", "tcp", "22", "--f"}), ElementsAre("--for"));
    EXPECT_THAT(words({"reload", "--port=tcp", "22", ""}), ElementsAre("--help", "--for"));
    EXPECT_THAT(words({"rule", "add", "--label", ""}), IsEmpty());
}

TEST_F(CompletionTest, ValuesBehindAnEqualsSignAreWholeWords) {
    EXPECT_THAT(words({"rule", "add", "--adapter=eth"}),
                ElementsAre("--adapter=eth0", "--adapter=eth1"));
    EXPECT_THAT(words({"rule", "add", "--adapter=eth0", "1", "a"}), ElementsAre("allow"));
    EXPECT_THAT(words({"profile", "show", "--json="}), IsEmpty());
}

TEST_F(CompletionTest, Choices) {
    EXPECT_THAT(words({"policy", "e"}), ElementsAre("eth0", "eth1"));
    EXPECT_THAT(words({"policy", "eth0", ""}), ElementsAre("allow", "deny", "none"));
    EXPECT_THAT(words({"policy", "eth0", "d"}), ElementsAre("deny"));
}

TEST_F(CompletionTest, Files) {
    const Completion from = fits({"profile", "create", "new", "--from", "./ho"});
    EXPECT_TRUE(from.files);
    EXPECT_THAT(from.words, IsEmpty());
    const Completion check = fits({"check", "d"});
    EXPECT_TRUE(check.files);
    EXPECT_THAT(check.words, ElementsAre("default"));
}

TEST_F(CompletionTest, CountriesAndTopics) {
    EXPECT_THAT(words({"geoip", "show", "D"}), ElementsAre("DE"));
    EXPECT_THAT(words({"help", "p"}), ElementsAre("profile", "policy", "profiles"));
    EXPECT_THAT(words({"help", "profile", "s"}), ElementsAre("show"));
    EXPECT_THAT(words({"help", "rules", "a"}), IsEmpty());
}

struct RuleCase {
    const char* name;
    Texts before;
    std::string current;
    Texts fits;
};

void PrintTo(const RuleCase& c, std::ostream* stream) {
    *stream << c.name;
}

class RuleWordsTest : public CompletionTest, public ::testing::WithParamInterface<RuleCase> {};

TEST_P(RuleWordsTest, FollowTheGrammar) {
    Texts line = {"rule", "add", "--adapter", "eth0", "7"};
    line.insert(line.end(), GetParam().before.begin(), GetParam().before.end());
    line.push_back(GetParam().current);
    EXPECT_EQ(words(line), GetParam().fits);
}

const RuleCase kRuleCases[] = {
    {"Policy", {}, "", {"allow", "deny"}},
    {"What",
     {"allow"},
     "",
     {"service", "tcp", "udp", "tcp/udp", "icmp", "igmp", "any", "from", "to"}},
    {"Both", {"allow"}, "tc", {"tcp", "tcp/udp"}},
    {"Service", {"allow", "service"}, "h", {"http", "https"}},
    {"SecondService", {"allow", "service"}, "ssh,h", {"ssh,http", "ssh,https"}},
    {"NoServiceTwice", {"allow", "service"}, "http,ssh,h", {"http,ssh,https"}},
    {"BehindServices", {"allow", "service", "ssh"}, "", {"from", "to"}},
    {"BehindAProtocol", {"deny", "tcp"}, "", {"from", "to"}},
    {"BehindPorts", {"deny", "tcp", "22,80"}, "f", {"from"}},
    {"Address", {"deny", "from"}, "", {"anywhere", "country"}},
    {"AddressOfPorts", {"deny", "udp", "53", "to"}, "c", {"country"}},
    {"Country", {"deny", "from", "country"}, "", {"CN", "DE"}},
    {"SecondCountry", {"deny", "any", "from", "country"}, "CN,", {"CN,DE"}},
    {"OptionsBetween", {"deny", "--profile", "default", "from"}, "a", {"anywhere"}},
    {"NothingMore", {"deny", "from", "country", "DE"}, "f", {}},
    {"NothingBehindAnAddress", {"deny", "from", "10.0.0.1"}, "t", {}},
};

INSTANTIATE_TEST_SUITE_P(Words, RuleWordsTest, ::testing::ValuesIn(kRuleCases),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace tarnfw
