// What a change of a profile opens and closes, in words.
#include "tarnfwadmin/meaningChange.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

FW::FWRULE ruleOf(const std::string& words) {
    return ruleFrom({words}, {}, {{{"ssh", 1}, {"nfs", 3}}, {"DE"}, {"DE", "FR"}});
}

/// An adapter's rules and default policy.
struct List {
    const char* adapter;
    FW::FW_POLICY policy;
    Texts rules;
};

FW::FWPROFILE profileOf(const std::vector<List>& lists) {
    FW::FWPROFILE profile;
    for (const List& list : lists) {
        profile.adapterPolicyMap[list.adapter] = list.policy;
        for (const std::string& words : list.rules) {
            profile.rules[list.adapter].push_back(ruleOf(words));
        }
    }
    return profile;
}

FW::FWENVIRONMENT environmentHere() {
    FW::FWENVIRONMENT environment;
    environment.services["ssh"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"22"}}};
    environment.services["nfs"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP_UDP, {"111", "2049"}}};
    environment.adapters = FW::fwAdaptersNow({"eth0", "eth1", "lo", "tun5"}, "");
    return environment;
}

MeaningDifference differenceOf(const FW::FWPROFILE& before, const FW::FWPROFILE& after,
                               const std::vector<RulePlace>& named = {}) {
    const FW::FWENVIRONMENT environment = environmentHere();
    return MeaningDifference(Meaning(before, environment), Meaning(after, environment), named);
}

constexpr FW::FW_POLICY kAllow = FW::FW_POLICY_ALLOW;
constexpr FW::FW_POLICY kDeny = FW::FW_POLICY_DENY;
constexpr FW::FW_POLICY kNone = FW::FW_POLICY_NONE;

TEST(MeaningChangeTest, OneEditIsOneText) {
    const struct {
        std::vector<List> before;
        std::vector<List> after;
        const char* text;
    } cases[] = {
        {{{"eth0", kDeny, {"deny tcp 445 from 10.3.0.0/16"}}},
         {{"eth0", kDeny, {"deny tcp 445 from 10.3.0.0/16", "allow tcp 445 from 10.0.0.0/8"}}},
         "opens tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16 (rule 2 of eth0)"},
        {{{"eth0", kDeny, {"allow service nfs", "allow tcp 22"}}},
         {{"eth0", kDeny, {"allow tcp 22"}}},
         "closes service nfs on eth0, for everybody (before: rule 1 of eth0)"},
        {{},
         {{"eth0", kDeny, {}}},
         "closes everything on eth0, for everybody "
         "(the default policy of eth0)"},
        {{{"eth0", kDeny, {"allow service ssh"}}},
         {{"eth0", kNone, {"allow service ssh"}}},
         "opens everything except service ssh on eth0, for everybody "
         "(before: the default policy of eth0)"},
        {{{"eth0", kDeny, {}}},
         {{"eth0", kAllow, {}}},
         "opens everything on eth0, for everybody (the default policy of eth0)"},
        {{{"global", kNone, {}}},
         {{"global", kNone, {"deny tcp 8080"}}},
         "closes tcp 8080 on every adapter, for everybody (rule 1 of global)"},
        {{{"eth0", kDeny, {"allow tcp 22"}}},
         {{"eth0", kDeny, {"allow tcp 22, logged"}}},
         "logs service ssh on eth0, for everybody (rule 1 of eth0)"},
        {{{"eth0", kDeny, {"allow tcp 22, logged"}}},
         {{"eth0", kDeny, {"allow tcp 22"}}},
         "no longer logs service ssh on eth0, for everybody (rule 1 of eth0)"},
        {{{"eth0", kNone, {}}},
         {{"eth0", kNone, {"deny tcp 22 to 10.0.0.1, outgoing"}}},
         "closes service ssh forwarded out through eth0, for packets to 10.0.0.1 (rule 1 of eth0)"},
        {{{"eth0", kDeny, {"allow tcp 22"}}},
         {{"eth0", kDeny, {"allow tcp 22,80"}}},
         "opens tcp 80 on eth0, for everybody (rule 1 of eth0)"},
        {{{"vpn", kDeny, {}}},
         {{"vpn", kDeny, {"allow icmp"}}},
         "opens icmp on vpn, for everybody (rule 1 of vpn)"},
        {{{"eth0", kDeny, {"deny udp 53 from fe80::/10", "allow tcp 22 from 10.1.0.0/16"}}},
         {{"eth0",
           kDeny,
           {"deny udp 53 from fe80::/10", "allow tcp 22 from 10.1.0.0/16",
            "allow from 10.0.0.0/8"}}},
         "opens everything on eth0, for 10.0.0.0/8, except service ssh from 10.1.0.0/16 "
         "(rule 3 of eth0)"},
        {{{"global", kNone, {"allow tcp 1-100 from 10.0.0.0/8"}},
          {"eth0", kDeny, {"allow tcp 22 from 10.1.0.0/16"}}},
         {{"global", kNone, {}}, {"eth0", kDeny, {"allow tcp 22 from 10.1.0.0/16"}}},
         "closes tcp 1-100 on eth0, for 10.0.0.0/8, except service ssh from 10.1.0.0/16 "
         "(before: rule 1 of global)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(differenceOf(profileOf(c.before), profileOf(c.after)).text(), c.text);
    }
}

TEST(MeaningChangeTest, ANewRuleOpensOnlyWhatWasClosed) {
    const struct {
        std::vector<List> before;
        const char* adapter;
        const char* words;
        const char* text;
    } cases[] = {
        {{{"eth0", kDeny, {}}}, "eth0", "allow tcp 8080", "opens tcp 8080 on eth0, for everybody"},
        {{{"eth0", kDeny, {}}}, "global", "allow tcp 80", "opens tcp 80 on eth0, for everybody"},
        {{{"global", kNone, {"allow tcp 443", "deny from 203.0.113.9"}}, {"eth0", kDeny, {}}},
         "eth0",
         "allow tcp 8080",
         "opens tcp 8080 on eth0, for everybody except 203.0.113.9"},
        {{{"eth0", kDeny, {}}},
         "eth0",
         "allow udp 53 (IPv6)",
         "opens udp 53 on eth0, for everybody (IPv6)"},
        {{{"global", kNone, {"allow tcp 443"}}},
         "global",
         "deny tcp 400-500",
         "closes tcp 400-442,444-500 on every adapter, for everybody"},
        {{}, "eth0", "allow tcp 22", "nothing else happens to any packet"},
        {{{"eth0", kDeny, {"allow tcp 1-100"}}},
         "eth0",
         "allow tcp 22",
         "nothing else happens to any packet"},
    };
    for (const auto& c : cases) {
        const FW::FWPROFILE before = profileOf(c.before);
        FW::FWPROFILE after = before;
        after.rules[c.adapter].push_back(ruleOf(c.words));
        const RulePlace place{c.adapter, after.rules[c.adapter].size()};
        EXPECT_EQ(differenceOf(before, after, {place}).text(), c.text) << c.words;
    }
}

TEST(MeaningChangeTest, OnlyTheNamedRulesAreLeftOut) {
    const FW::FWPROFILE before = profileOf({{"eth0", kDeny, {"allow tcp 80"}}});
    const FW::FWPROFILE after = profileOf({{"eth0", kDeny, {"allow udp 53", "allow tcp 443"}}});
    EXPECT_EQ(differenceOf(before, after, {{"eth0", 2}}).text(),
              "opens tcp 443, udp 53 on eth0, for everybody (rules 1 and 2 of eth0); closes tcp 80 "
              "on eth0, for everybody (before: rule 1 of eth0)");
    EXPECT_EQ(differenceOf(before, after, {{"eth0", 1}, {"eth0", 2}}).text(),
              "opens tcp 443, udp 53 on eth0, for everybody; closes tcp 80 on eth0, for everybody "
              "(before: rule 1 of eth0)");
}

TEST(MeaningChangeTest, SaysWhatARuleDecidesAbout) {
    const FW::FWPROFILE profile = profileOf(
        {{"global", kNone, {"deny from 203.0.113.9", "allow tcp 80"}},
         {"eth0", kDeny, {"allow tcp 1-100", "allow tcp 80", "deny tcp 9000", "[off] deny"}},
         {"lo", kNone, {"deny tcp 22"}}});
    const Meaning meaning(profile, environmentHere());
    EXPECT_EQ(decidedText(meaning, {"global", 2}),
              "tcp 80 on every adapter, for everybody except "
              "203.0.113.9");
    EXPECT_EQ(decidedText(meaning, {"eth0", 1}),
              "tcp 1-79,81-100 on eth0, for everybody except "
              "203.0.113.9");
    EXPECT_EQ(decidedText(meaning, {"eth0", 2}), "") << "shadowed";
    EXPECT_EQ(decidedText(meaning, {"eth0", 3}),
              "tcp 9000 on eth0, for everybody except 203.0.113.9");
    EXPECT_EQ(decidedText(meaning, {"eth0", 4}), "") << "off";
    EXPECT_EQ(decidedText(meaning, {"lo", 1}), "") << "never filtered";
}

TEST(MeaningChangeTest, ChangesOfSeveralRulesAreOneTextEachOrOneForAll) {
    const FW::FWPROFILE before = profileOf({{"eth0", kDeny, {"allow udp 9"}}});
    const auto textsOf = [&](const std::vector<List>& lists) {
        return differenceOf(before, profileOf(lists)).texts();
    };
    EXPECT_EQ(textsOf({{"eth0", kDeny, {"allow udp 9", "allow tcp 1000", "allow tcp 80"}}}),
              (Texts{"opens tcp 80,1000 on eth0, for everybody (rules 2 and 3 of eth0)"}));
    EXPECT_EQ(textsOf({{"eth0",
                        kDeny,
                        {"allow udp 9", "allow tcp 22 from 10.0.0.0/16", "allow tcp 80",
                         "allow tcp 22 from 10.3.0.0/16"}}}),
              (Texts{"opens service ssh on eth0, for 10.0.0.0/16, 10.3.0.0/16 "
                     "(rules 2 and 4 of eth0)",
                     "opens tcp 80 on eth0, for everybody (rule 3 of eth0)"}));
    EXPECT_EQ(textsOf({{"eth0", kDeny, {"allow udp 9", "allow tcp 22 from 10.0.0.1"}},
                       {"eth1", kNone, {"deny icmp", "deny tcp 80"}}}),
              (Texts{"opens service ssh on eth0, for 10.0.0.1 (rule 2 of eth0)",
                     "closes tcp 80, icmp on eth1, for everybody (rules 1 and 2 of eth1)"}));
}

TEST(MeaningChangeTest, OtherRulesWithTheSameMeaningAreNoDifference) {
    const FW::FWPROFILE before =
        profileOf({{"eth0", kDeny, {"allow tcp 22", "allow tcp 80-90 from 10.0.0.0/8"}}});
    const FW::FWPROFILE after =
        profileOf({{"eth0",
                    kDeny,
                    {"allow tcp 80-90 from 10.0.0.0/9", "deny tcp 7",
                     "allow tcp 80-90 from 10.128.0.0/9", "allow tcp 22"}}});
    const MeaningDifference difference = differenceOf(before, after);
    EXPECT_TRUE(difference.same());
    EXPECT_EQ(difference.text(), "nothing else happens to any packet");
    EXPECT_FALSE(differenceOf(before, profileOf({})).same());
}

TEST(MeaningChangeTest, WhatALineOfEveryProfileDecidesIsNoChange) {
    // Neighbour solicitations are accepted before any rule, and so are packets on "lo".
    const FW::FWPROFILE before = profileOf({{"lo", kNone, {}}});
    EXPECT_TRUE(differenceOf(before, profileOf({{"lo", kDeny, {"allow tcp 22"}}})).same());
}

TEST(MeaningChangeTest, ManyChangesEndWithTheirNumber) {
    Texts rules;
    for (int i = 1; i <= 9; ++i) {
        rules.push_back("allow tcp " + std::to_string(1000 * i) + " from 10.0.0." +
                        std::to_string(i));
    }
    const MeaningDifference difference =
        differenceOf(profileOf({{"eth0", kDeny, {}}}), profileOf({{"eth0", kDeny, rules}}));
    EXPECT_EQ(difference.texts().size(), 9U);
    EXPECT_EQ(difference.text(1), difference.texts()[0] + "; and 8 more changes");
}

}  // namespace
}  // namespace tarnfw
