// What is in force in a family, from its listing and the lines of the stored profile.
#include "tarnfwadmin/inForce.h"

#include <filesystem>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

using testing::ValuesIn;

template <typename Case>
std::string caseName(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

constexpr char kBase[] =
    "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n"
    "-N FIREWALL_RELOADING\n-N INPUT_FIREWALL\n-N FORWARD_FIREWALL\n"
    "-A INPUT -j FIREWALL_RELOADING\n-A INPUT -j INPUT_FIREWALL\n"
    "-A FORWARD -j FIREWALL_RELOADING\n-A FORWARD -j FORWARD_FIREWALL\n";

const std::vector<std::string> kWanted = {
    "-A INPUT_FIREWALL -i lo -j ACCEPT",
    "-t filter -A INPUT_FIREWALL -i eth0 -p tcp -s 10.0.0.1 --dport 22 -j RETURN",
    "-t filter -A FORWARD_FIREWALL -i eth0 -m iprange --src-range 10.0.0.1-10.0.0.9 -j DROP"};

constexpr char kHeld[] =
    "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
    "-A INPUT_FIREWALL -s 10.0.0.1/32 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
    "-A FORWARD_FIREWALL -i eth0 -m iprange --src-range 10.0.0.1-10.0.0.9 -j DROP\n";

std::string stateOf(const std::string& listing,
                    const std::optional<std::vector<std::string>>& wanted) {
    return inForceWord(inForceOf("v4", RuleListing::from(listing), wanted).state);
}

struct StateCase {
    const char* name;
    std::string rules;
    const char* state;
};

void PrintTo(const StateCase& c, std::ostream* out) {
    *out << c.rules;
}

const StateCase kStates[] = {
    {"TheRules", std::string(kBase) + kHeld, "asStored"},
    {"NoRules", kBase, "nothing"},
    {"NoJumps", "-P INPUT ACCEPT\n-N INPUT_FIREWALL\n-N FORWARD_FIREWALL\n" + std::string(kHeld),
     "noBase"},
    {"NothingAtAll", "-P INPUT ACCEPT\n-P FORWARD ACCEPT\n", "noBase"},
    {"OneRuleMore", std::string(kBase) + kHeld + "-A INPUT_FIREWALL -j DROP\n", "different"},
    {"OneChainEmpty", std::string(kBase) + "-A INPUT_FIREWALL -i lo -j ACCEPT\n", "different"},
    {"AnotherPort",
     std::string(kBase) +
         "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
         "-A INPUT_FIREWALL -s 10.0.0.1/32 -i eth0 -p tcp -m tcp --dport 23 -j RETURN\n"
         "-A FORWARD_FIREWALL -i eth0 -m iprange --src-range 10.0.0.1-10.0.0.9 -j DROP\n",
     "different"},
    {"AnotherTarget",
     std::string(kBase) +
         "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
         "-A INPUT_FIREWALL -s 10.0.0.1/32 -i eth0 -p tcp -m tcp --dport 22 -j DROP\n"
         "-A FORWARD_FIREWALL -i eth0 -m iprange --src-range 10.0.0.1-10.0.0.9 -j DROP\n",
     "different"},
    {"AnotherOrder",
     std::string(kBase) +
         "-A INPUT_FIREWALL -s 10.0.0.1/32 -i eth0 -p tcp -m tcp --dport 22 -j RETURN\n"
         "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
         "-A FORWARD_FIREWALL -i eth0 -m iprange --src-range 10.0.0.1-10.0.0.9 -j DROP\n",
     "different"},
    {"AKilledReload",
     std::string(kBase) + kHeld +
         "-P INPUT DROP\n"
         "-A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT\n",
     "closed"},
};

class StateTest : public testing::TestWithParam<StateCase> {};

TEST_P(StateTest, IsThis) {
    EXPECT_EQ(stateOf(GetParam().rules, kWanted), GetParam().state);
}

INSTANTIATE_TEST_SUITE_P(, StateTest, ValuesIn(kStates), caseName<StateCase>);

TEST(InForceTest, ADisabledFirewallHasNoRules) {
    const std::vector<std::string> none;
    EXPECT_EQ(stateOf(kBase, none), "asStored");
    EXPECT_EQ(stateOf("-P INPUT ACCEPT\n", none), "asStored");
    EXPECT_EQ(stateOf(std::string(kBase) + kHeld, none), "different");
}

TEST(InForceTest, WithoutAReadableProfileTheRulesAreOthers) {
    EXPECT_EQ(stateOf(kBase, std::nullopt), "nothing");
    EXPECT_EQ(stateOf(std::string(kBase) + kHeld, std::nullopt), "different");
}

TEST(InForceTest, AFamilyThatTheMachineDoesNotHaveIsAbsent) {
    EXPECT_EQ(inForceWord(inForceOf("v6", std::nullopt, kWanted).state), "absent");
}

// The two chains are compared at the same time, and each looks up the numbers of its protocols.
TEST(InForceTest, ProtocolNamesAreLookedUpInBothChains) {
    std::string held = kBase;
    std::vector<std::string> wanted;
    for (const std::string chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
        for (int i = 0; i < 1000; ++i) {
            for (const std::string protocol : {"esp", "ah", "gre"}) {
                held.append("-A ").append(chain).append(" -p ").append(protocol).append(
                    " -j DROP\n");
                wanted.push_back("-A " + chain + " -p " + protocol + " -j DROP");
            }
        }
    }
    EXPECT_EQ(stateOf(held, wanted), "asStored");
}

TEST(InForceTest, OpenIsAFamilyWhosePoliciesAccept) {
    EXPECT_TRUE(inForceOf("v4", RuleListing::from(kBase), kWanted).open);
    EXPECT_FALSE(
        inForceOf("v4", RuleListing::from(std::string(kBase) + "-P INPUT DROP\n"), kWanted).open);
}

}  // namespace
}  // namespace tarnfw
