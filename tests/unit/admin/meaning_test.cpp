// What a profile means on a machine.
#include "tarnfwadmin/meaning.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profileCheck_testing.h"
#include "profile_testing.h"

namespace tarnfw {
namespace {

class MeaningTest : public ProfileCheckTest {};

TEST_F(MeaningTest, EnvironmentIsThatOfAllProfiles) {
    FW::FWPROFILE one;
    one.rules["eth7"] = {ruleOf("allow service ssh from country DE")};
    FW::FWPROFILE other;
    other.adapterPolicyMap["eth8"] = FW::FW_POLICY_DENY;
    other.rules["eth7"] = {ruleOf("allow service nfs")};
    const FW::FWENVIRONMENT environment =
        environmentOf({one, other}, FW::FW_ADAPTERS_ALL, {"vpn_server_pptp"});
    EXPECT_EQ(environment.services.size(), 3U);
    EXPECT_EQ(environment.adapters.count("eth7"), 1U);
    EXPECT_EQ(environment.adapters.count("eth8"), 1U);
    EXPECT_NE(environment.countries("DE", FW::FW_FAMILY_V4), nullptr);
    EXPECT_EQ(environmentOf({one}, FW::FW_ADAPTERS_PRESENT).adapters.count("eth7"), 0U);
}

TEST_F(MeaningTest, RulesDecideUnlessALineOfEveryProfileDoes) {
    FW::FWPROFILE profile;
    profile.rules["eth7"] = {ruleOf("allow tcp 22"), ruleOf("deny tcp 80")};
    profile.rules["eth7"][1].portList = {"http"};
    profile.adapterPolicyMap["eth7"] = FW::FW_POLICY_DENY;
    const Meaning meaning(profile);
    FW::FWPACKET packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.family = FW::FW_FAMILY_V4;
    packet.in = "eth7";
    packet.protocol = 6;
    packet.destinationPort = 22;
    packet.state = FW::FW_STATE_NEW;
    const auto placeOf = [&] {
        const FW::FWDECISION decision = meaning.answers().decide(packet);
        EXPECT_EQ(decision.deciders.size(), 1U);
        return placeText(meaning.answers().rule(decision.deciders.at(0)).place);
    };
    EXPECT_EQ(placeOf(), "rule 1 of eth7");
    packet.destinationPort = 23;
    EXPECT_EQ(placeOf(), "the default policy of eth7");
    packet.state = FW::FW_STATE_ESTABLISHED;
    EXPECT_EQ(placeOf(), "the acceptance of established connections");
    packet.state = FW::FW_STATE_NEW;
    packet.in = "eth8";
    EXPECT_EQ(placeOf(), "no rule");
    ASSERT_EQ(meaning.findings().size(), 1U);
    EXPECT_EQ(placeText(meaning.findings()[0].place), "rule 2 of eth7");
    for (const FW::FWRESOLVEDRULE& rule : meaning.ownRules()) {
        EXPECT_TRUE(rulePlaceOf(rule.place).has_value());
    }
}

}  // namespace
}  // namespace tarnfw
