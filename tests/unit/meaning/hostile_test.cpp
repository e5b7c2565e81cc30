// Rules that cut each other in every field: each question ends at its bound, and says so.

#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfirewall/fwMeaning.h"

#include "random_profile.h"

namespace {

using FW::FW_MEANING;
using FW::FWFINDING;
using ::testing::IsEmpty;
using ::testing::Not;

std::string rangeOf(Random& random, int count, bool narrow) {
    const int first = pick(random, count);
    const int last =
        narrow ? std::min(first + pick(random, count / 3), count - 1) : pick(random, count);
    return std::to_string(std::min(first, last)) + "-" + std::to_string(std::max(first, last));
}

/// Ranges of addresses and ports on both sides; those of the first rules are narrow.
FW_MEANING hostile(unsigned seed, int rules, int narrowRules = 0) {
    Random random(seed);
    FW::FWPROFILE profile;
    for (int i = 0; i < rules; ++i) {
        FW::FWRULE rule;
        rule.policy = pick(random, 2) == 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
        rule.ipGroup = FW::FW_IP_GROUP_RANGE;
        const std::string range = rangeOf(random, 256, i < narrowRules);
        rule.ipList = {"10.0.0." + range.substr(0, range.find('-')),
                       "10.0.0." + range.substr(range.find('-') + 1)};
        rule.ipDirect = pick(random, 2);
        rule.portGroup = FW::FW_PORT_GROUP_PORTS;
        rule.protocol = FW::FW_PORT_PROTOCOL_TCP;
        rule.portList = {rangeOf(random, 65536, i < narrowRules)};
        rule.portDirect = pick(random, 2);
        profile.rules["eth0"].push_back(rule);
    }
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0"}, "");
    return FW_MEANING(FW::fwResolve(profile, environment).rules);
}

std::string textOf(const std::vector<FWFINDING>& findings) {
    return findings.empty() ? "" : findings.back().text;
}

TEST(HostileTest, DifferenceEndsAtItsBound) {
    const FW::FWDIFFERENCE difference = hostile(1, 1500).differenceFrom(hostile(2, 1500));
    EXPECT_EQ(textOf(difference.findings), "too complex: there may be more differences");
    EXPECT_THAT(difference.changes, Not(IsEmpty()));
}

TEST(HostileTest, ReachEndsAtItsBound) {
    FW::FWPACKETSET all;
    const FW::FWREACHABLE reachable = hostile(3, 4000).reach(all);
    EXPECT_EQ(textOf(reachable.findings), "too complex: more may get through");
    EXPECT_THAT(reachable.reach, Not(IsEmpty()));
}

TEST(HostileTest, ShadowsNameTheRulesThatAreTooComplex) {
    const FW::FWSHADOWS shadows = hostile(4, 1500, 1200).shadows();
    EXPECT_THAT(textOf(shadows.findings), ::testing::StartsWith("too complex"));
    EXPECT_THAT(shadows.shadows, Not(IsEmpty()));
}

TEST(HostileTest, DecisionNamesAllThatMayDecideAndMore) {
    const FW_MEANING meaning = hostile(5, 3000);
    FW::FWPACKET packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.in = "eth0";
    const FW::FWDECISION decision = meaning.decide(packet);
    EXPECT_TRUE(decision.tooComplex);
    EXPECT_THAT(decision.deciders, Not(IsEmpty()));
    EXPECT_TRUE(std::is_sorted(decision.deciders.begin(), decision.deciders.end()));
}

}  // namespace
