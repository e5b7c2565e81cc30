// What a change of a profile opens and closes, in words: in cases, and on random profiles compared
// with the exact sets.
#include "tarnfwadmin/meaningChange.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_testing.h"
#include "random_profile.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

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
        std::vector<RuleList> before;
        std::vector<RuleList> after;
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

/// The rules of a first profile, more or less.
std::vector<RuleList> ordinary() {
    return {{"global",
             kNone,
             {"allow icmp", "allow udp 68,546,1900,3702,5353", "allow tcp 22,443 from 10.0.0.0/8",
              "allow tcp 22,443 from fe80::/10", "allow tcp 80,111,445,2049 from 192.168.0.0/16"}},
            {"eth0", kDeny, {}},
            {"eth1", kDeny, {}}};
}

std::vector<RuleList> ordinaryWith(const std::string& rule) {
    std::vector<RuleList> lists = ordinary();
    lists[0].rules.insert(lists[0].rules.begin(), rule);
    return lists;
}

TEST(MeaningChangeTest, WhatWasOpenAnywayNeedsNoList) {
    const struct {
        std::vector<RuleList> before;
        std::vector<RuleList> after;
        const char* text;
    } cases[] = {
        {ordinary(), ordinaryWith("deny from 203.0.113.9"),
         "closes all that was open to 203.0.113.9 (rule 1 of global)"},
        {ordinaryWith("deny from 203.0.113.9"), ordinary(),
         "opens all that nothing else closes to 203.0.113.9 (before: rule 1 of global)"},
        {ordinaryWith("deny from 203.0.113.9"), ordinaryWith("deny from 203.0.113.8"),
         "opens all that nothing else closes to 203.0.113.9 (before: rule 1 of global); closes all "
         "that was open to 203.0.113.8 (rule 1 of global)"},
        {ordinary(), ordinaryWith("allow from 10.0.0.7"),
         "opens everything except service ssh, tcp 443, udp 68,546,1900,3702,5353, icmp on eth0 "
         "and "
         "eth1, for 10.0.0.7 (rule 1 of global)"},
        {ordinaryWith("allow from 10.0.0.7"), ordinary(),
         "closes everything except service ssh, tcp 443, udp 68,546,1900,3702,5353, icmp on eth0 "
         "and eth1, for 10.0.0.7 (before: rule 1 of global)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(differenceOf(profileOf(c.before), profileOf(c.after)).text(), c.text);
    }
    // Of some ports, where a list of those that were open is long.
    std::vector<RuleList> mixed = {{"eth0", kNone, {}}};
    for (int port = 110; port < 250; port += 7) {
        mixed[0].rules.push_back("deny tcp " + std::to_string(port) + " from 10.0." +
                                 std::to_string(port) + ".0/24");
    }
    std::vector<RuleList> denied = mixed;
    denied[0].rules.insert(denied[0].rules.begin(), "deny tcp 100-400");
    EXPECT_EQ(differenceOf(profileOf(mixed), profileOf(denied)).text(),
              "closes tcp 100-400 on eth0, for everybody, where it was open (rule 1 of eth0)");
    // Of a rule that another one is before, that was open but stays so.
    std::vector<RuleList> last = ordinary();
    last[0].rules.emplace_back("deny from 203.0.113.9");
    EXPECT_EQ(differenceOf(profileOf(ordinary()), profileOf(last)).text().find("all that"),
              std::string::npos);
}

TEST(MeaningChangeTest, OneEditThatIsTooComplexIsOneText) {
    Texts rules;
    for (int i = 0; i < 3000; ++i) {
        const std::string port = std::to_string(1000 + (i * 7) % 3000);
        rules.push_back((i % 2 == 0 ? "allow tcp " : "deny tcp ") + port + " from 10." +
                        std::to_string(i % 250) + "." + std::to_string(i / 250) + ".0/24");
    }
    const auto listWith = [&](const std::string& rule) {
        Texts list = rules;
        if (!rule.empty()) {
            list.insert(list.begin(), rule);
        }
        return profileOf({{"eth0", kAllow, list}});
    };
    const struct {
        const char* before;
        const char* after;
        const char* text;
    } cases[] = {
        {"", "deny tcp", "closes tcp on eth0, for everybody, where it was open (rule 1 of eth0)"},
        {"deny tcp", "",
         "opens tcp on eth0, for everybody, where nothing else closes it (before: rule 1 of "
         "eth0)"},
    };
    for (const auto& c : cases) {
        const MeaningDifference difference = differenceOf(listWith(c.before), listWith(c.after));
        if (!difference.exact().findings.empty()) {
            EXPECT_TRUE(difference.tooComplex());
            EXPECT_EQ(difference.text(), c.text);
        } else {
            ADD_FAILURE() << "not too complex: the test needs more rules";
        }
    }
}

TEST(MeaningChangeTest, RulesInARowAreARange) {
    EXPECT_EQ(differenceOf(profileOf({{"eth0", kDeny, {}}}),
                           profileOf({{"eth0",
                                       kDeny,
                                       {"allow tcp 1000", "allow tcp 1002", "deny tcp 7",
                                        "allow tcp 1004", "allow tcp 1006", "allow tcp 1008"}}}))
                  .text(),
              "opens tcp 1000,1002,1004,1006,1008 on eth0, for everybody (rules 1, 2 and 4-6 of "
              "eth0)");
}

TEST(MeaningChangeTest, AnExceptionIsForItsOwnEntryOnly) {
    EXPECT_EQ(differenceOf(
                  profileOf({{"eth0", kDeny, {}}}),
                  profileOf({{"eth0",
                              kDeny,
                              {"deny from 192.168.0.0/16", "deny from 8000::/1", "allow tcp 80"}}}))
                  .text(),
              "opens tcp 80 on eth0, for ::/1, and everybody except 192.168.0.0/16 (IPv4) (rule 3 "
              "of eth0)");
}

TEST(MeaningChangeTest, ANewRuleOpensOnlyWhatWasClosed) {
    const struct {
        std::vector<RuleList> before;
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
    const auto textsOf = [&](const std::vector<RuleList>& lists) {
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

TEST(MeaningChangeTest, ARuleThatIsNotCountedIsNoSilence) {
    const std::string why =
        "\"0.0.0.5/0.0.0.255\" is too complex: its mask makes more than 4096 intervals";
    const std::string doubt = "; for packets that it matches, something else may happen";
    const char* const rule = "deny tcp 22 from 0.0.0.5/0.0.0.255";
    const FW::FWPROFILE without = profileOf({{"eth0", kDeny, {"allow tcp 22"}}});
    const FW::FWPROFILE first = profileOf({{"eth0", kDeny, {rule, "allow tcp 22"}}});
    const FW::FWPROFILE last = profileOf({{"eth0", kDeny, {"allow tcp 22", rule}}});

    const MeaningDifference added = differenceOf(without, first);
    EXPECT_FALSE(added.same());
    EXPECT_TRUE(added.tooComplex());
    EXPECT_EQ(added.texts(), Texts{"rule 1 of eth0 is not counted: " + why});
    EXPECT_EQ(added.text(), "rule 1 of eth0 is not counted: " + why + doubt);
    EXPECT_EQ(differenceOf(first, without).text(),
              "the former rule 1 of eth0 is not counted: " + why + doubt);
    EXPECT_FALSE(differenceOf(first, last).same()) << "its place may matter";

    // With the same rules before it on both sides it does the same.
    EXPECT_TRUE(differenceOf(first, first).same());
    EXPECT_EQ(differenceOf(first, profileOf({{"eth0", kDeny, {rule, "allow tcp 22,80"}}})).text(),
              "opens tcp 80 on eth0, for everybody (rule 2 of eth0)");
    EXPECT_TRUE(differenceOf(first, profileOf({{"global", kNone, {"allow tcp 80"}},
                                               {"eth0", kDeny, {rule, "allow tcp 22"}}}))
                    .tooComplex());

    // One rule at another place is named once.
    EXPECT_EQ(differenceOf(first, last).texts(), Texts{"rule 2 of eth0 is not counted: " + why});

    const MeaningDifference instead = differenceOf(without, profileOf({{"eth0", kDeny, {rule}}}));
    EXPECT_EQ(instead.text(),
              "closes service ssh on eth0, for everybody (before: rule 1 of eth0); rule 1 of eth0 "
              "is not counted: " +
                  why + doubt);
}

/// Rules that cut a default policy into many pieces.
RuleList cutting(const char* adapter, FW::FW_POLICY policy) {
    return {adapter,
            policy,
            {"allow tcp 22-25,80,443 from 10.0.0.0/8", "allow udp 53,67-68 from 192.168.0.0/16",
             "allow service nfs from 172.16.0.0/12", "allow tcp 8080 from 10.1.0.0/16",
             "allow icmp", "allow udp 1000-2000 from fc00::/7", "allow tcp 9000 to 10.9.9.9"}};
}

TEST(MeaningChangeTest, WhatAPolicyDecidesIsNotCutIntoPieces) {
    EXPECT_EQ(
        differenceOf(profileOf({cutting("eth0", kDeny)}), profileOf({cutting("eth0", kAllow)}))
            .text(),
        "opens everything on eth0, for everybody, that no rule before it decides (the default "
        "policy of eth0)");
    EXPECT_EQ(
        differenceOf(profileOf({cutting("eth0", kDeny)}), profileOf({cutting("eth0", kNone)}))
            .text(),
        "opens everything on eth0, for everybody, that no rule before it decided (before: the "
        "default policy of eth0)");
    RuleList logged = cutting("eth0", kDeny);
    logged.rules.emplace_back("deny, logged");
    EXPECT_EQ(differenceOf(profileOf({cutting("eth0", kDeny)}), profileOf({logged}), {{"eth0", 8}})
                  .text(),
              "logs everything on eth0, for everybody, that no rule before it decides (rule 8 of "
              "eth0)");
    // Some of that was closed before, which the words must not hide.
    RuleList before = cutting("eth0", kAllow);
    before.rules.insert(before.rules.begin(), "deny tcp 7000-7100");
    EXPECT_EQ(differenceOf(profileOf({before}), profileOf({cutting("eth0", kDeny)}))
                  .text()
                  .find("that no rule"),
              std::string::npos);
}

TEST(MeaningChangeTest, TheSameOfSeveralAdaptersIsOneText) {
    EXPECT_EQ(differenceOf(profileOf({cutting("eth0", kDeny), cutting("eth1", kDeny)}),
                           profileOf({cutting("eth0", kAllow), cutting("eth1", kAllow)}))
                  .texts(),
              Texts{"opens everything on eth0 and eth1, for everybody, that no rule before them "
                    "decides (the default policies of eth0 and eth1)"});
    const char* const rule = "deny tcp 22 from 10.0.0.0/8";
    EXPECT_EQ(
        differenceOf(
            profileOf({{"eth0", kDeny, {rule}}, {"eth1", kDeny, {rule}}}),
            profileOf({{"eth0", kDeny, {rule, "allow tcp 22", "allow tcp 80 from 10.0.0.0/8"}},
                       {"eth1", kDeny, {rule, "allow tcp 22", "allow tcp 80 from 10.0.0.0/8"}}}))
            .texts(),
        (Texts{"opens service ssh on eth0 and eth1, for everybody except 10.0.0.0/8 (rule 2 of "
               "eth0 and rule 2 of eth1)",
               "opens tcp 80 on eth0 and eth1, for 10.0.0.0/8 (rule 3 of eth0 and rule 3 of "
               "eth1)"}));
}

TEST(MeaningChangeTest, AnExceptionHasNone) {
    // Each may be read alone: udp 1-200 is not open outside of 10.0.0.0/8 only.
    EXPECT_EQ(
        differenceOf(
            profileOf({{"eth0", kNone, {}}}),
            profileOf({{"eth0",
                        kDeny,
                        {"allow tcp 22 from 10.0.0.0/8", "allow tcp 80,443", "allow udp 1-200"}}}))
            .text(),
        "closes everything on eth0, for everybody, except (tcp 80,443, udp 1-200 from "
        "anywhere; service ssh from 10.0.0.0/8) (the default policy of eth0)");
    EXPECT_EQ(
        differenceOf(profileOf({{"eth0", kNone, {"deny, outgoing"}}}),
                     profileOf({{"eth0", kNone, {"allow tcp 80, outgoing"}}, {"eth1", kDeny, {}}}))
            .texts()
            .front(),
        "opens tcp 80 forwarded out through eth0, for everybody, and everything forwarded from "
        "every adapter except eth1 out through eth0, for everybody (before: rule 1 of eth0)");
    EXPECT_EQ(differenceOf(profileOf({{"eth0", kDeny, {"allow tcp 445 from 169.254.0.0/16"}}}),
                           profileOf({{"global", kNone, {"deny tcp 445"}},
                                      {"eth0", kDeny, {"allow tcp 445 from 169.254.0.0/16"}}}))
                  .text(),
              "closes tcp 445 on eth0, for 169.254.0.0/16, and tcp 445 on any other adapter, for "
              "everybody (rule 1 of global)");
    EXPECT_EQ(differenceOf(profileOf({{"eth0", kDeny, {}}, {"eth1", kNone, {"allow tcp 80"}}}),
                           profileOf({{"global", kNone, {"deny tcp 443"}},
                                      {"eth0", kDeny, {}},
                                      {"eth1", kNone, {"allow tcp 80"}}}))
                  .text(),
              "closes tcp 443 on every adapter except eth0, for everybody (rule 1 of global)")
        << "which is not every adapter of the profile";
}

TEST(MeaningChangeTest, ExceptionsMayHavePacketsInCommon) {
    EXPECT_EQ(
        differenceOf(
            profileOf({{"eth0", kDeny, {"allow tcp 22,80,445 from 192.168.0.0/16"}}}),
            profileOf({{"eth0",
                        kDeny,
                        {"allow tcp 445 from 192.168.1.0/24", "allow tcp 22 from 192.168.1.20"}}}))
            .text(),
        "closes service ssh, tcp 80,445 on eth0, for 192.168.0.0/16, except (tcp 445 from "
        "192.168.1.0/24; service ssh from 192.168.1.20) (before: rule 1 of eth0)");
}

TEST(MeaningChangeTest, ARuleThatMovedHasItsNewNumber) {
    const FW::FWPROFILE before =
        profileOf({{"eth0", kDeny, {"deny tcp 22 from 10.0.0.0/8", "allow tcp 22"}}});
    const FW::FWPROFILE after = profileOf({{"eth0", kDeny, {"allow tcp 22"}}});
    EXPECT_EQ(differenceOf(before, after).text(),
              "opens service ssh on eth0, for 10.0.0.0/8 (now rule 1 of eth0)");
    EXPECT_EQ(differenceOf(after, before).text(),
              "closes service ssh on eth0, for 10.0.0.0/8 (rule 1 of eth0)");
}

TEST(MeaningChangeTest, NamesTheAdaptersThatDecide) {
    EXPECT_EQ(differenceOf(profileOf({{"global", kNone, {"allow tcp 22"}}}),
                           profileOf({{"eth0", kDeny, {}}, {"eth1", kNone, {"deny tcp 80"}}}))
                  .adapters(),
              (Texts{"eth0", "eth1"}));
}

// ---- Random profiles ----------------------------------------------------------------------------

/// The packets of `some` that are not in `all`.
bool includes(const std::vector<FW::FWPACKETSET>& all, const std::vector<FW::FWPACKETSET>& some) {
    std::vector<FW::FWRESOLVEDRULE> rules;
    for (const FW::FWPACKETSET& set : all) {
        rules.push_back({set, FW::FW_PACKET_DROP, false, {}});
    }
    const FW::FW_MEANING dropping(rules);
    for (const FW::FWPACKETSET& set : some) {
        const FW::FWREACHABLE rest = dropping.reach(set);
        for (const FW::FWREACH& reach : rest.reach) {
            if (!reach.packets.empty()) {
                return false;
            }
        }
    }
    return true;
}

/// Beside what differs, which the fixed lines do not leave to the profiles, all packets of a text
/// must differ so.
void requireTrue(const MeaningDifference& difference, const Meaning& before, const Meaning& after) {
    const FW::FW_MEANING own(after.ownRules());
    const FW::FWDIFFERENCE exact = own.differenceFrom(FW::FW_MEANING(before.ownRules()));
    for (const ChangeText& text : difference.changes()) {
        std::vector<FW::FWPACKETSET> differ;
        for (const FW::FWCHANGE& change : exact.changes) {
            if (change.change == text.change && (change.change != FW::FW_CHANGE_LOGGING ||
                                                 own.rule(change.after).log == text.logs)) {
                differ.insert(differ.end(), change.packets.begin(), change.packets.end());
            }
        }
        EXPECT_TRUE(includes(differ, text.packets)) << text.text;
        EXPECT_FALSE(text.packets.empty() && text.text.find("part of ") == std::string::npos)
            << text.text;
    }
}

TEST(MeaningChangeTest, TextsOfRandomChangesAreShortAndTrue) {
    const std::vector<std::string> adapters = {"global", "eth0", "eth1", "vpn", "pppoe"};
    const int count = countOf(150, 1500);
    std::int64_t texts = 0;
    std::size_t longest = 0;
    for (int seed = 0; seed < count; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random(static_cast<unsigned>(seed));
        const TestCountries countries(static_cast<unsigned>(seed));
        const int rules = seed % 3 == 0 ? 12 : 4;
        const FW::FWPROFILE one = makeProfile(random, rules, adapters);
        FW::FWPROFILE other = one;
        if (seed % 2 == 0) {
            other = makeProfile(random, rules, adapters);
        } else {
            // One edit: a policy, or a rule that is not there.
            const std::string& adapter = oneOf(random, adapters);
            std::vector<FW::FWRULE>& list = other.rules[adapter];
            if (list.empty() || pick(random, 2) == 0) {
                other.adapterPolicyMap[adapter == "global" ? "eth0" : adapter] =
                    static_cast<FW::FW_POLICY>(pick(random, 3));
            } else {
                list.erase(list.begin() + pick(random, static_cast<int>(list.size())));
            }
        }
        FW::FWENVIRONMENT environment = environmentHere();
        environment.adapters = FW::fwAdaptersNow({"eth0", "eth1", "tun5", "ppp3"}, "ppp3");
        environment.countries = [&countries](const std::string& country, FW::FW_FAMILY family) {
            return countries.find(country, family);
        };
        const Meaning before(one, environment);
        const Meaning after(other, environment);
        const MeaningDifference difference(before, after);
        EXPECT_EQ(difference.text().empty(), false);
        EXPECT_EQ(difference.same(), difference.texts().empty());
        for (const ChangeText& text : difference.changes()) {
            ++texts;
            const std::size_t bracket = text.text.rfind(" (");
            const std::size_t length = bracket == std::string::npos ? text.text.size() : bracket;
            longest = std::max(longest, length);
            EXPECT_LE(length, MeaningDifference::kLongestText) << text.text;
            if (std::getenv("TARN_SHOW") != nullptr) {
                std::cout << seed << ": " << text.text << '\n';
            }
        }
        requireTrue(difference, before, after);
    }
    tellCompared(count, texts, "texts, the longest of " + std::to_string(longest));
    EXPECT_GT(texts, count);
}

}  // namespace
}  // namespace tarnfw
