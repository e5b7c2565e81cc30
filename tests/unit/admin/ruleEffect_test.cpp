// What a rule does at its place, in words, and where a shadowed one would take effect.
#include "tarnfwadmin/ruleEffect.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profileCheck_testing.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

FW::FWRULE ruleOf(const std::string& words) {
    return ruleFrom({words}, {}, {{{"ssh", 1}, {"nfs", 3}}, {"DE"}, {"DE", "FR"}});
}

class RuleEffectTest : public ProfileCheckTest {
protected:
    void add(const std::string& adapter, const Texts& rules) {
        for (const std::string& words : rules) {
            profile_.rules[adapter].push_back(ruleOf(words));
        }
    }

    /// The effect of a rule as the last of an adapter's list.
    std::string effectOf(const std::string& adapter, const std::string& words) {
        FW::FWPROFILE profile = profile_;
        const FW::FWRULE rule = ruleOf(words);
        profile.rules[adapter].push_back(rule);
        const RuleEffect effect =
            ruleEffect(profile, {adapter, profile.rules[adapter].size()}, machine_);
        if (!effect.hasLines) {
            return "no lines";
        }
        return effect.shadowedBy ? "shadowed by " + placeText(*effect.shadowedBy)
                                 : effectText(rule, adapter, effect);
    }

    std::string placeFor(const std::string& adapter, const std::string& words) {
        const auto place = effectivePlace(profile_, ruleOf(words), adapter, machine_);
        return place ? placeText(*place) : "nowhere";
    }

    FW::FWPROFILE profile_;
    Machine machine_;
};

TEST_F(RuleEffectTest, SaysWhatIsOpenedAndForWhom) {
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_DENY}, {"eth7", FW::FW_POLICY_NONE}};
    const struct {
        const char* adapter;
        const char* words;
        const char* text;
    } cases[] = {
        {"global", "allow tcp 8080", "opens tcp 8080 on every adapter, for everybody"},
        {"wlan0", "allow tcp 22 from 192.168.0.0/16", "opens tcp 22 on wlan0, for 192.168.0.0/16"},
        {"wlan0", "allow tcp 22 to 10.0.0.1", "opens tcp 22 on wlan0, for packets to 10.0.0.1"},
        {"global", "allow udp 53 (IPv6)",
         "opens udp 53 on every adapter, for everybody, IPv6 only"},
        {"global", "allow udp source port 53",
         "opens udp from source port 53 on every adapter, for everybody"},
        {"wlan0", "allow icmp", "opens icmp on wlan0, for everybody"},
        {"wlan0", "allow service ssh", "opens service ssh on wlan0, for everybody"},
        {"wlan0", "allow tcp 22, outgoing",
         "opens tcp 22 for packets forwarded out through wlan0, for everybody"},
        {"global", "deny", "closes everything on every adapter, for everybody"},
        {"global", "[off] deny", "no lines"},
        {"lo", "deny tcp 22", "no lines"},
        {"wlan0", "allow from country DE", "opens everything on wlan0, for country DE"},
        {"wlan0", "allow from country FR (IPv6)", "no lines"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(effectOf(c.adapter, c.words), c.text) << c.words;
    }
}

TEST_F(RuleEffectTest, NamesWhatEarlierRulesKeep) {
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_DENY}, {"eth7", FW::FW_POLICY_NONE}};
    add("global", {"allow tcp 443", "deny from 203.0.113.9"});
    EXPECT_EQ(
        effectOf("global", "allow tcp 8080"),
        "opens tcp 8080 on every adapter, for everybody, except what rule 2 of global denies");
    EXPECT_EQ(effectOf("wlan0", "allow tcp 8080 from 203.0.113.0/24"),
              "opens tcp 8080 on wlan0, for 203.0.113.0/24, except what rule 2 of global denies");
    // Another address, another family: nothing of it is denied.
    EXPECT_EQ(effectOf("wlan0", "allow tcp 8080 from 192.168.1.0/24"),
              "opens tcp 8080 on wlan0, for 192.168.1.0/24");
    EXPECT_EQ(effectOf("wlan0", "allow tcp 8080 (IPv6)"),
              "opens tcp 8080 on wlan0, for everybody, IPv6 only");
    add("wlan0", {"deny tcp 8000-8999 from 10.0.0.0/8"});
    EXPECT_EQ(effectOf("wlan0", "allow tcp 8080"),
              "opens tcp 8080 on wlan0, for everybody, except what earlier rules deny");
    EXPECT_EQ(effectOf("wlan0", "allow tcp 80"),
              "opens tcp 80 on wlan0, for everybody, except what rule 2 of global denies");
    EXPECT_EQ(effectOf("global", "deny tcp 400-500"),
              "closes tcp 400-500 on every adapter, for everybody, except what rule 1 of global "
              "allows");
}

TEST_F(RuleEffectTest, SaysWhenNothingChanges) {
    EXPECT_EQ(effectOf("wlan0", "allow tcp 22"), "tcp 22 is open already on wlan0, for everybody");
    EXPECT_EQ(effectOf("wlan0", "deny tcp 22"), "closes tcp 22 on wlan0, for everybody");
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_DENY}, {"eth7", FW::FW_POLICY_NONE}};
    EXPECT_EQ(effectOf("wlan0", "allow tcp 22"), "opens tcp 22 on wlan0, for everybody");
    EXPECT_EQ(effectOf("wlan0", "deny tcp 22"), "tcp 22 is closed already on wlan0, for everybody");
    // Another adapter has no default policy.
    EXPECT_EQ(effectOf("global", "deny tcp 22"), "closes tcp 22 on every adapter, for everybody");
    // A rule of an adapter comes after those of "global".
    profile_.adapterPolicyMap.clear();
    EXPECT_EQ(effectOf("global", "allow tcp 22"),
              "tcp 22 is open already on every adapter, for everybody");
    add("wlan0", {"deny tcp 22 from 10.0.0.0/8"});
    EXPECT_EQ(effectOf("global", "allow tcp 22"), "opens tcp 22 on every adapter, for everybody");
}

TEST_F(RuleEffectTest, WhatEarlierRulesKeepIsNotSaidToBeSoAlready) {
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_DENY}};
    add("global", {"allow tcp 22 from 192.168.0.0/16"});
    const std::string kept = ", except what rule 1 of global allows";
    EXPECT_EQ(effectOf("wlan0", "deny tcp 22"),
              "tcp 22 is closed already on wlan0, for everybody" + kept);
    EXPECT_EQ(effectOf("wlan0", "deny tcp 22 from 192.168.1.0/24"), "shadowed by rule 1 of global");
    EXPECT_EQ(effectOf("wlan0", "deny service ssh"),
              "service ssh is closed already on wlan0, for everybody" + kept);
    EXPECT_EQ(effectOf("wlan0", "deny"),
              "everything is closed already on wlan0, for everybody" + kept);
    EXPECT_EQ(effectOf("wlan0", "deny tcp 23"), "tcp 23 is closed already on wlan0, for everybody");
    add("global", {"allow icmp", "allow udp 67"});
    EXPECT_EQ(effectOf("wlan0", "deny from 203.0.113.9"),
              "everything is closed already on wlan0, for 203.0.113.9, except what earlier rules "
              "allow");
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_ALLOW}};
    profile_.rules.clear();
    add("global", {"deny tcp 8080 from 192.168.1.0/24"});
    EXPECT_EQ(effectOf("wlan0", "allow tcp 8080"),
              "tcp 8080 is open already on wlan0, for everybody, except what rule 1 of global "
              "denies");
    // Everywhere: the machine's only adapter is closed.
    profile_.adapterPolicyMap.clear();
    for (const std::string& adapter : machineAdapters()) {
        profile_.adapterPolicyMap[adapter] = FW::FW_POLICY_DENY;
    }
    profile_.rules.clear();
    add("global", {"allow tcp 22 from 192.168.0.0/16"});
    EXPECT_EQ(effectOf("global", "deny tcp 22"),
              "tcp 22 is closed already on every adapter, for everybody" + kept);
}

TEST_F(RuleEffectTest, ForwardedPacketsMeetTheLinesOfTwoAdapters) {
    profile_.adapterPolicyMap = {{"eth0", FW::FW_POLICY_DENY}, {"wlan0", FW::FW_POLICY_ALLOW}};
    // The default policy of eth0 is for what comes in through it.
    EXPECT_EQ(effectOf("eth0", "deny, outgoing"),
              "closes everything for packets forwarded out through eth0, for everybody");
    EXPECT_EQ(
        effectOf("wlan0", "allow tcp 80, outgoing"),
        "opens tcp 80 for packets forwarded out through wlan0, for everybody, except what the "
        "default policy of eth0 denies");
    add("eth0", {"deny tcp 80"});
    EXPECT_EQ(effectOf("wlan0", "allow tcp 80, outgoing"),
              "opens tcp 80 for packets forwarded out through wlan0, for everybody, except what "
              "earlier rules and default policies deny");
    // What br0 lets out does not reach the lines of eth0.
    add("br0", {"allow tcp 22, outgoing"});
    EXPECT_EQ(effectOf("eth0", "deny tcp 22"),
              "tcp 22 is closed already on eth0, for everybody, except what rule 1 of br0 allows");
    // What comes in through wlan0 goes on to the lines of wlan1, unless wlan0 decides.
    add("wlan1", {"deny tcp 22, outgoing"});
    EXPECT_EQ(effectOf("wlan0", "allow tcp 22"), "tcp 22 is open already on wlan0, for everybody");
    profile_.adapterPolicyMap["wlan0"] = FW::FW_POLICY_NONE;
    EXPECT_EQ(effectOf("wlan0", "allow tcp 22"), "opens tcp 22 on wlan0, for everybody");
    EXPECT_EQ(effectOf("wlan0", "allow tcp 23"), "tcp 23 is open already on wlan0, for everybody");
}

TEST_F(RuleEffectTest, SaysWhatTheDefaultPolicyLeavesOpen) {
    const auto open = [&] { return openByPolicy(profile_, "wlan0", machine_); };
    EXPECT_EQ(open(), OpenByPolicy::kEverything) << "in no profile yet";
    EXPECT_EQ(openByPolicy(profile_, "global", machine_), OpenByPolicy::kNothing);
    add("wlan0", {"allow tcp 22", "[off] deny"});
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_NONE}};
    EXPECT_EQ(open(), OpenByPolicy::kEverything);
    add("global", {"deny from 203.0.113.9"});
    EXPECT_EQ(open(), OpenByPolicy::kNotDenied);
    add("global", {"deny"});
    EXPECT_EQ(open(), OpenByPolicy::kNothing);
    profile_.rules.erase("global");
    EXPECT_EQ(open(), OpenByPolicy::kEverything);
    profile_.adapterPolicyMap = {{"wlan0", FW::FW_POLICY_DENY}};
    EXPECT_EQ(open(), OpenByPolicy::kNothing);
}

TEST_F(RuleEffectTest, ALaterRuleIsWhatItOpensAgainst) {
    add("wlan0", {"allow tcp 22", "deny any"});
    const RuleEffect effect = ruleEffect(profile_, {"wlan0", 1}, machine_);
    EXPECT_FALSE(effect.changesNothing);
    EXPECT_EQ(effectOf("wlan0", "allow tcp 23"), "shadowed by rule 2 of wlan0");
}

TEST_F(RuleEffectTest, OffersThePlaceBeforeTheRuleThatShadows) {
    add("wlan0", {"allow tcp 22", "deny any", "deny tcp 23"});
    EXPECT_EQ(placeFor("wlan0", "allow tcp 8080"), "rule 2 of wlan0");
    EXPECT_EQ(placeFor("wlan0", "allow tcp 22 from 10.0.0.1"), "rule 1 of wlan0");
    EXPECT_EQ(placeFor("wlan0", "allow icmp, outgoing"), "nowhere") << "not shadowed";
    add("global", {"allow tcp 80", "deny any"});
    EXPECT_EQ(placeFor("wlan0", "allow tcp 8080"), "rule 2 of global")
        << "rules of global come before";
    EXPECT_EQ(placeFor("global", "allow tcp 8080"), "rule 2 of global");
}

TEST_F(RuleEffectTest, OffersNoPlaceBeforeReservedRules) {
    add("wlan0", {"deny service ssh", "deny any"});
    profile_.rules["wlan0"][0].portGroup = FW::FW_PORT_GROUP_RESERVED;
    EXPECT_EQ(placeFor("wlan0", "allow tcp 22"), "nowhere");
    EXPECT_EQ(placeFor("wlan0", "allow tcp 23"), "rule 2 of wlan0");
}

}  // namespace
}  // namespace tarnfw
