// Rules that change nothing, compared with decision diagrams.

#include <algorithm>
#include <string>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwMeaning.h"

#include "bdd_oracle.h"
#include "random_case.h"

namespace {

using FW::FW_MEANING;
using FW::FWPLACE;
using FW::FWRESOLVEDRULE;
using FW::FWSHADOW;
using FW::FWSHADOWS;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Rules = std::vector<FWRESOLVEDRULE>;

bool isAt(const FWPLACE& a, const FWPLACE& b) {
    return a.origin == b.origin && a.adapter == b.adapter && a.position == b.position;
}

/// "eth0 3" of a rule, "eth0 0" of a default policy, " 0" of a fixed line.
std::string textOf(const FWPLACE& place) {
    return place.adapter + " " + std::to_string(place.position);
}

/// The rules without those at the places.
Rules without(const Rules& rules, const std::vector<FWPLACE>& places) {
    Rules rest;
    for (const FWRESOLVEDRULE& rule : rules) {
        if (std::none_of(places.begin(), places.end(),
                         [&](const FWPLACE& place) { return isAt(place, rule.place); })) {
            rest.push_back(rule);
        }
    }
    return rest;
}

/// Whether rules before it decide about all packets of the rule at a place.
bool isCovered(const BddOracle& oracle, const Rules& rules, const FWPLACE& place) {
    bdd earlier = bddfalse;
    for (const FWRESOLVEDRULE& rule : rules) {
        const bdd packets = oracle.packets(rule.packets);
        if (!isAt(rule.place, place)) {
            earlier |= packets;
        } else if ((packets - earlier) != bddfalse) {
            return false;
        }
    }
    return true;
}

class ShadowsRandomTest : public LibraryTest {};

TEST_F(ShadowsRandomTest, ExactlyTheRulesThatChangeNothingAreFound) {
    const TestCountries countries(4);
    const int profiles = countOf(200, 5000);
    int shadowed = 0;
    int needless = 0;
    int examined = 0;
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(3000000 + number));
        const RandomCase made = makeCase(random, 4, countries, platform_);
        const Rules rules = FW::fwResolve(made.profile, made.environment).rules;
        const FWSHADOWS found = FW_MEANING(rules).shadows();
        ASSERT_THAT(found.findings, IsEmpty());

        const BddOracle oracle(made.interfaces);
        const BddFunction whole = oracle.fold(rules);
        std::vector<FWPLACE> gone;
        for (const FWSHADOW& shadow : found.shadows) {
            gone.push_back(shadow.place);
        }
        ASSERT_TRUE(BddOracle::same(oracle.fold(without(rules, gone)), whole))
            << "profile " << number;

        std::vector<FWPLACE> seen;
        for (const FWRESOLVEDRULE& rule : rules) {
            const bool isFirst = std::none_of(seen.begin(), seen.end(), [&](const FWPLACE& one) {
                return isAt(one, rule.place);
            });
            if (rule.place.origin != FW::FW_ORIGIN_RULE || !isFirst) {
                continue;
            }
            seen.push_back(rule.place);
            ++examined;
            const std::string text =
                "profile " + std::to_string(number) + ", " + textOf(rule.place);
            const auto shadow =
                std::find_if(found.shadows.begin(), found.shadows.end(),
                             [&](const FWSHADOW& one) { return isAt(one.place, rule.place); });
            const bool alone = BddOracle::same(oracle.fold(without(rules, {rule.place})), whole);
            const bool covered = isCovered(oracle, rules, rule.place);
            if (shadow == found.shadows.end()) {
                EXPECT_FALSE(covered) << text;
                std::vector<FWPLACE> more = gone;
                more.push_back(rule.place);
                EXPECT_FALSE(alone && BddOracle::same(oracle.fold(without(rules, more)), whole))
                    << text;
                continue;
            }
            EXPECT_TRUE(alone) << text;
            EXPECT_EQ(shadow->neverDecides, covered) << text;
            (shadow->neverDecides ? shadowed : needless) += 1;
            // The rules named are enough: with them and this rule alone it changes nothing.
            Rules named;
            for (const FWRESOLVEDRULE& one : rules) {
                const auto isHere = [&](const FWPLACE& place) { return isAt(place, one.place); };
                const auto isIn = [&](const std::vector<FWPLACE>& places) {
                    return std::any_of(places.begin(), places.end(), isHere);
                };
                if (isIn(shadow->by) && !shadow->neverDecides) {
                    EXPECT_EQ(one.verdict, rule.verdict) << text;
                }
                if (isIn(shadow->by) || isIn(shadow->before) || isAt(one.place, rule.place)) {
                    named.push_back(one);
                }
            }
            EXPECT_TRUE(
                BddOracle::same(oracle.fold(named), oracle.fold(without(named, {rule.place}))))
                << text;
        }
    }
    EXPECT_GT(shadowed, profiles / 4);
    EXPECT_GT(needless, profiles / 4);
    tellCompared(profiles, examined, "rules");
}

/// Rules for some ports, in places that are mixed up: parts of one place before and after others.
Rules mixedRules(Random& random) {
    Rules rules;
    for (int i = 4 + pick(random, 6); i > 0; --i) {
        FWRESOLVEDRULE& rule = rules.emplace_back();
        const int first = pick(random, 8);
        const int last = std::min(first + pick(random, 6), 7);
        rule.packets.destinationPorts = {
            {static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)}};
        rule.packets.protocols = {{6, 6}};
        rule.place = {FW::FW_ORIGIN_RULE, "eth0", 1 + pick(random, 5)};
    }
    // The parts of a rule do the same.
    const auto policies = random();
    for (FWRESOLVEDRULE& rule : rules) {
        rule.verdict =
            (policies >> rule.place.position & 1) != 0 ? FW::FW_PACKET_NEXT : FW::FW_PACKET_DROP;
    }
    return rules;
}

TEST(ShadowsMixedTest, RulesWithPartsBetweenOthersCanAllBeRemoved) {
    const BddOracle oracle({"eth0"});
    const int lists = countOf(2000, 20000);
    int found = 0;
    for (int number = 0; number < lists; ++number) {
        Random random(static_cast<unsigned>(number));
        const Rules rules = mixedRules(random);
        const BddFunction whole = oracle.fold(rules);
        std::vector<FWPLACE> gone;
        for (const FWSHADOW& shadow : FW_MEANING(rules).shadows().shadows) {
            gone.push_back(shadow.place);
            EXPECT_TRUE(BddOracle::same(oracle.fold(without(rules, {shadow.place})), whole))
                << "list " << number << ", rule " << shadow.place.position;
        }
        EXPECT_TRUE(BddOracle::same(oracle.fold(without(rules, gone)), whole)) << "list " << number;
        found += static_cast<int>(gone.size());
    }
    EXPECT_GT(found, lists);
}

// ---- Named cases ----

FW::FWRULE rangeRule(FW::FW_POLICY policy, const std::string& ports) {
    FW::FWRULE rule;
    rule.policy = policy;
    rule.ipType = FW::FW_IP_TYPE_BOTH;
    rule.ipGroup = FW::FW_IP_GROUP_ANY;
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.portList = {ports};
    return rule;
}

constexpr FW::FW_POLICY kAllow = FW::FW_POLICY_ALLOW;
constexpr FW::FW_POLICY kDeny = FW::FW_POLICY_DENY;

/// "eth0 3 never decides: eth0 1, eth0 2" of each shadow of a profile.
std::vector<std::string> shadowsOf(const std::vector<FW::FWRULE>& rules, FW::FW_POLICY policy) {
    FW::FWPROFILE profile;
    profile.rules["eth0"] = rules;
    profile.adapterPolicyMap["eth0"] = policy;
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0"}, "");
    std::vector<std::string> texts;
    for (const FWSHADOW& shadow :
         FW_MEANING(FW::fwResolve(profile, environment).rules).shadows().shadows) {
        texts.push_back(textOf(shadow.place) +
                        (shadow.neverDecides ? " never decides:" : " changes nothing:"));
        for (const FWPLACE& place : shadow.by) {
            texts.back() += " " + textOf(place);
        }
        for (const FWPLACE& place : shadow.before) {
            texts.back() += ", after " + textOf(place);
        }
    }
    return texts;
}

TEST(ShadowsTest, RuleThatEarlierOnesCoverTogether) {
    EXPECT_THAT(
        shadowsOf(
            {rangeRule(kAllow, "0-99"), rangeRule(kDeny, "100-300"), rangeRule(kAllow, "50-200")},
            kAllow),
        ElementsAre("eth0 1 changes nothing: eth0 0", "eth0 3 never decides: eth0 1 eth0 2"));
}

TEST(ShadowsTest, RuleThatTheDefaultPolicyRepeats) {
    EXPECT_THAT(shadowsOf({rangeRule(kAllow, "22"), rangeRule(kDeny, "80")}, kDeny),
                ElementsAre("eth0 2 changes nothing: eth0 0"));
}

TEST(ShadowsTest, OfRulesThatATunnelRepeatsOneStays) {
    FW::FWRULE allow;
    allow.ipType = FW::FW_IP_TYPE_V6;
    allow.ipGroup = FW::FW_IP_GROUP_ANY;
    allow.portGroup = FW::FW_PORT_GROUP_ANY;
    FW::FWPROFILE profile;
    profile.rules = {{"eth0", {allow}}, {"pppoe", {allow}}};
    profile.adapterPolicyMap["pppwan0"] = kDeny;
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0", "pppwan0"}, "pppwan0");
    environment.tunnels["eth0"] = "pppwan0";
    const FWSHADOWS found = FW_MEANING(FW::fwResolve(profile, environment).rules).shadows();
    ASSERT_EQ(found.shadows.size(), 1U);
    EXPECT_EQ(textOf(found.shadows[0].place), "pppoe 1");
}

TEST(ShadowsTest, RulesBeforeANeedlessRuleAreNamedApart) {
    const auto from10 = [](FW::FW_POLICY policy, const std::string& ports, int protocol) {
        FW::FWRULE rule = rangeRule(policy, ports);
        rule.ipType = FW::FW_IP_TYPE_V4;
        rule.ipGroup = FW::FW_IP_GROUP_NETWORK;
        rule.ipList = {"10.0.0.0", "8"};
        rule.protocol = protocol;
        return rule;
    };
    FW::FWRULE all = rangeRule(kDeny, "");
    all.portGroup = FW::FW_PORT_GROUP_ANY;
    EXPECT_THAT(
        shadowsOf({from10(kAllow, "1-1000", FW::FW_PORT_PROTOCOL_TCP), rangeRule(kDeny, "22"),
                   from10(kAllow, "1-2000", FW::FW_PORT_PROTOCOL_TCP_UDP), all},
                  kAllow),
        ElementsAre("eth0 2 changes nothing: eth0 4, after  0, after eth0 1"));
}

TEST(ShadowsTest, RuleThatLogsChangesSomething) {
    FW::FWRULE rule = rangeRule(kDeny, "80");
    rule.blLog = true;
    EXPECT_THAT(shadowsOf({rule}, kDeny), IsEmpty());
}

TEST(ShadowsTest, OfTwoEqualRulesTheLaterOneIsNamed) {
    EXPECT_THAT(shadowsOf({rangeRule(kAllow, "22"), rangeRule(kAllow, "22")}, kDeny),
                ElementsAre("eth0 2 never decides: eth0 1"));
}

TEST(ShadowsTest, ARuleThatNeverDecidesShadowsNoOther) {
    EXPECT_THAT(
        shadowsOf({rangeRule(kDeny, "100-199"), rangeRule(kDeny, "200-299"),
                   rangeRule(kAllow, "150-250"), rangeRule(kDeny, "199-200")},
                  kAllow),
        ElementsAre("eth0 3 never decides: eth0 1 eth0 2", "eth0 4 never decides: eth0 1 eth0 2"));
}

TEST(ShadowsTest, WithoutADefaultPolicyAnAllowingRuleChangesNothing) {
    EXPECT_THAT(shadowsOf({rangeRule(kAllow, "22")}, FW::FW_POLICY_NONE),
                ElementsAre("eth0 1 changes nothing:"));
}

}  // namespace
