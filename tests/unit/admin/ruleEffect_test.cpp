// Where a rule takes effect that never does at its place, and what a default policy leaves open.
#include "tarnfwadmin/ruleEffect.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_testing.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

class RuleEffectTest : public testing::Test {
protected:
    void add(const std::string& adapter, const Texts& rules) {
        for (const std::string& words : rules) {
            profile_.rules[adapter].push_back(ruleOf(words));
        }
    }

    Meaning meaning() const {
        FW::FWENVIRONMENT environment;
        environment.adapters = FW::fwAdaptersByName(profile_, "");
        return Meaning(profile_, environment);
    }

    /// The place for the last rule of an adapter's list, which the others shadow.
    std::string placeFor(const std::string& adapter) const {
        const RulePlace own{adapter, profile_.rules.at(adapter).size()};
        std::vector<RulePlace> shadowedBy;
        for (const FW::FWSHADOW& shadow : meaning().answers().shadows().shadows) {
            if (shadow.neverDecides && rulePlaceOf(shadow.place) == own) {
                for (const FW::FWPLACE& by : shadow.by) {
                    shadowedBy.push_back(rulePlaceOf(by).value());
                }
            }
        }
        EXPECT_FALSE(shadowedBy.empty());
        const auto place = effectivePlace(profile_, own, shadowedBy);
        return place ? placeText(*place) : "nowhere";
    }

    OpenByPolicy open() const { return openByPolicy(meaning(), "wlan0"); }

    FW::FWPROFILE profile_;
};

TEST_F(RuleEffectTest, ARuleTakesEffectBeforeTheFirstThatShadowsIt) {
    add("wlan0", {"allow tcp 22", "deny any", "deny tcp 23", "allow tcp 8080"});
    EXPECT_EQ(placeFor("wlan0"), "rule 2 of wlan0");
    profile_.rules.clear();
    add("wlan0", {"allow tcp 1-9", "deny tcp 1-99", "deny tcp 100-999", "allow tcp 50-200"});
    EXPECT_EQ(placeFor("wlan0"), "rule 2 of wlan0") << "two of them together";
}

TEST_F(RuleEffectTest, RulesOfGlobalComeBeforeThoseOfOtherAdapters) {
    add("global", {"allow tcp 80", "deny any"});
    add("wlan0", {"allow tcp 8080"});
    EXPECT_EQ(placeFor("wlan0"), "rule 2 of global");
    profile_.rules["wlan0"].clear();
    profile_.rules["global"].pop_back();
    add("wlan0", {"deny tcp", "allow tcp 1-99"});
    EXPECT_EQ(placeFor("wlan0"), "rule 1 of wlan0") << "where some of its packets are left to it";
}

TEST_F(RuleEffectTest, NothingPrecedesReservedRules) {
    add("wlan0", {"deny tcp 22", "deny any", "allow tcp 22"});
    profile_.rules["wlan0"][0].portGroup = FW::FW_PORT_GROUP_RESERVED;
    EXPECT_EQ(reservedAtHead(profile_.rules["wlan0"]), 1U);
    const RulePlace own{"wlan0", 3};
    EXPECT_FALSE(effectivePlace(profile_, own, {{"wlan0", 1}}));
    EXPECT_EQ(effectivePlace(profile_, own, {{"wlan0", 1}, {"wlan0", 2}}), (RulePlace{"wlan0", 2}));
    EXPECT_FALSE(effectivePlace(profile_, own, {{"wlan0", 0}})) << "a default policy";
    EXPECT_FALSE(effectivePlace(profile_, own, {{"br0", 1}})) << "a rule of another adapter";
}

TEST_F(RuleEffectTest, RulesThatMatchNothingHaveNoLines) {
    add("wlan0", {"allow tcp 22", "[off] deny"});
    EXPECT_TRUE(hasLines(meaning(), {"wlan0", 1}));
    EXPECT_FALSE(hasLines(meaning(), {"wlan0", 2}));
    EXPECT_FALSE(hasLines(meaning(), {"wlan0", 0})) << "a default policy";
}

TEST_F(RuleEffectTest, SaysWhatTheDefaultPolicyLeavesOpen) {
    EXPECT_EQ(open(), OpenByPolicy::kEverything) << "in no profile yet";
    EXPECT_EQ(openByPolicy(meaning(), "global"), OpenByPolicy::kNothing);
    add("wlan0", {"allow tcp 22", "[off] deny"});
    for (const FW::FW_POLICY policy : {FW::FW_POLICY_NONE, FW::FW_POLICY_ALLOW}) {
        profile_.adapterPolicyMap["wlan0"] = policy;
        EXPECT_EQ(open(), OpenByPolicy::kEverything);
    }
    add("global", {"deny from 203.0.113.9"});
    EXPECT_EQ(open(), OpenByPolicy::kNotDenied);
    add("global", {"deny"});
    EXPECT_EQ(open(), OpenByPolicy::kNothing);
    profile_.rules["global"] = {ruleOf("deny (IPv4)")};
    EXPECT_EQ(open(), OpenByPolicy::kNotDenied) << "IPv6";
    add("global", {"deny tcp (IPv6)", "deny any (IPv6)"});
    EXPECT_EQ(open(), OpenByPolicy::kNothing) << "denied by two rules together";
    profile_.rules["global"] = {ruleOf("deny, outgoing")};
    profile_.rules["eth0"] = {ruleOf("deny")};
    profile_.adapterPolicyMap["wlan0"] = FW::FW_POLICY_DENY;
    EXPECT_EQ(open(), OpenByPolicy::kNothing);
}

}  // namespace
}  // namespace tarnfw
