// The questions of "blocked" and "explain" as texts, and how their verdicts are named.
#include "tarnfwadmin/verdicts.h"

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_testing.h"
#include "tarnfwadmin/machine.h"

namespace {

using ::testing::ValuesIn;

using Texts = std::vector<std::string>;

struct QuestionCase {
    const char* name;
    const char* text;
    int protocol;
    const char* port;
    const char* told;
};

void PrintTo(const QuestionCase& c, std::ostream* out) {
    *out << c.text;
}

const QuestionCase kQuestions[] = {
    {"Tcp", "tcp/22", 1, "22", "tcp 22"},
    {"Udp", "udp/53", 2, "53", "udp 53"},
    {"Range", "udp/5000-5010", 2, "5000-5010", "udp 5000-5010"},
    {"RangeWithColon", "udp/5000:5010", 2, "5000-5010", "udp 5000-5010"},
    {"Both", "both/53", 3, "53", "tcp/udp 53"},
    {"BothByName", "tcp+udp/53", 3, "53", "tcp/udp 53"},
    {"BothByNames", "tcp/udp/53", 3, "53", "tcp/udp 53"},
    {"Blank", "tcp 22", 1, "22", "tcp 22"},
    {"BothWithBlank", "tcp/udp 53", 3, "53", "tcp/udp 53"},
    {"PortFirst", "22/tcp", 1, "22", "tcp 22"},
    {"CapitalLetters", "TCP/22", 1, "22", "tcp 22"},
    {"LeadingZeros", "tcp/022", 1, "22", "tcp 22"},
    {"Ends", "tcp/0-65535", 1, "0-65535", "tcp 0-65535"},
};

class QuestionTest : public ::testing::TestWithParam<QuestionCase> {};

TEST_P(QuestionTest, IsReadAndToldAgain) {
    const QuestionCase& c = GetParam();
    FW::PortCompareST question{9, 9, "before"};
    EXPECT_EQ(tarnfw::portQuestionFrom(c.text, question), "");
    EXPECT_EQ(question.portDirect, 0);
    EXPECT_EQ(question.protocol, c.protocol);
    EXPECT_EQ(question.port, c.port);
    EXPECT_EQ(tarnfw::questionText(question), c.told);
}

INSTANTIATE_TEST_SUITE_P(, QuestionTest, ValuesIn(kQuestions),
                         [](const auto& c) { return std::string(c.param.name); });

TEST(QuestionTextTest, WhatIsNoneIsRefused) {
    for (const std::string text :
         {"", "22", "tcp", "tcp/", "/22", "22/", "icmp/0", "tcp/udp", "tcp/udp/", "tcp/x",
          "tcp/65536", "tcp/20-10", "tcp  22", "tcp/22,23"}) {
        FW::PortCompareST question{9, 9, "before"};
        EXPECT_NE(tarnfw::portQuestionFrom(text, question), "") << text;
        EXPECT_EQ(question.port, "before") << text;
    }
}

TEST(QuestionTextTest, AMisspeltProtocolHasAHint) {
    const std::string form = " is not of the form tcp/22, udp/5000-5010 or both/53";
    FW::PortCompareST question;
    EXPECT_EQ(tarnfw::portQuestionFrom("tpc/22", question),
              "\"tpc/22\"" + form + "; did you mean \"tcp/22\"?");
    EXPECT_EQ(tarnfw::portQuestionFrom("icmp/22", question), "\"icmp/22\"" + form);
    EXPECT_EQ(tarnfw::portQuestionFrom("tpc", question), "\"tpc\"" + form) << "no port";
}

TEST(QuestionTextTest, NamesTheSideAndOtherProtocols) {
    EXPECT_EQ(tarnfw::questionText({1, 2, "53"}), "udp source port 53");
    EXPECT_EQ(tarnfw::questionText({0, 4, "0"}), "icmp 0");
}

TEST(VerdictTextTest, EveryVerdictHasItsWords) {
    const char* const texts[] = {"allowed", "blocked", "undecided", "mixed", "unknown verdict 4"};
    for (int verdict = 0; verdict < 5; ++verdict) {
        EXPECT_EQ(tarnfw::verdictText(static_cast<FW::FW_POLICY>(verdict)), texts[verdict]);
    }
}

/// The verdicts on "global" and eth0, for tcp 22 by these rules of "global" and of eth0.
std::string exactFor(const char* question, const Texts& global, const Texts& own,
                     FW::FW_POLICY policy) {
    tarnfw::Machine machine;
    const FW::FWPROFILE profile =
        tarnfw::profileOf({{"global", FW::FW_POLICY_NONE, global}, {"eth0", policy, own}});
    FW::PortCompareST asked;
    EXPECT_EQ(tarnfw::portQuestionFrom(question, asked), "");
    const std::vector<tarnfw::AdapterAnswer> answers = tarnfw::exactVerdicts(
        tarnfw::Meaning(profile, machine), {tarnfw::questionAbout(asked)}, {"eth0"});
    EXPECT_EQ(answers.size(), 2U);
    return tarnfw::verdictText(answers[0].verdict) + ", " + tarnfw::verdictText(answers[1].verdict);
}

/// "tcp 1723 allowed, protocol 47 blocked".
std::string toldOf(const tarnfw::AdapterAnswer& answer) {
    std::string text;
    for (const tarnfw::PortAnswer& port : answer.ports) {
        text.append(text.empty() ? "" : ", ").append(port.question.text);
        text.append(" ").append(tarnfw::verdictText(port.verdict));
    }
    return text;
}

TEST(ExactVerdictsTest, OfAServiceItsFurtherProtocolsCountToo) {
    tarnfw::Machine machine;
    FW::FWPROFILE profile;
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    const auto answerFor = [&](const tarnfw::Service& service) {
        return exactVerdicts(tarnfw::Meaning(profile, machine), questionsAbout(service), {"eth0"})
            .back();
    };
    const tarnfw::Service pptp = {"vpn_server_pptp", "PPTP", {1, {"1723"}}, {}};
    profile.rules["eth0"] = {tarnfw::ruleOf("allow tcp 1723")};
    EXPECT_EQ(toldOf(answerFor(pptp)), "tcp 1723 allowed, protocol 47 blocked");
    EXPECT_EQ(answerFor(pptp).verdict, FW::FW_POLICY_DENY);
    EXPECT_EQ(toldOf(answerFor({"vpn_server_ipsec", "IPsec", {2, {"500"}}, {}})),
              "udp 500 blocked, protocol 50 blocked, protocol 51 blocked");
    EXPECT_EQ(tarnfw::protocolsOf({"vpn_server_ipsec", "", {}, {}}),
              (std::vector<std::uint16_t>{50, 51}));
}

TEST(ExactVerdictsTest, AddsUpTheAddressesOfSeveralRules) {
    const Texts some = {"allow tcp 22 from 10.0.0.0/8", "allow tcp 22 from 172.16.0.0/12"};
    EXPECT_EQ(exactFor("tcp 22", {}, some, FW::FW_POLICY_DENY), "undecided, mixed");
    EXPECT_EQ(exactFor("tcp 22", some, {}, FW::FW_POLICY_DENY), "undecided, mixed");
    EXPECT_EQ(exactFor("tcp 22", some, {}, FW::FW_POLICY_ALLOW), "undecided, allowed");
    EXPECT_EQ(exactFor("tcp 23", some, {}, FW::FW_POLICY_DENY), "undecided, blocked");
    EXPECT_EQ(
        exactFor("tcp 22", {}, {"deny tcp 22 from 10.0.0.0/8", "deny tcp 22 from 172.16.0.0/12"},
                 FW::FW_POLICY_ALLOW),
        "undecided, mixed");
    EXPECT_EQ(exactFor("tcp 22", {},
                       {"allow tcp 22 from 0.0.0.0/1", "allow tcp 22 from 128.0.0.0/1",
                        "allow tcp 22 from ::/1", "allow tcp 22 from 8000::/1"},
                       FW::FW_POLICY_DENY),
              "undecided, allowed");
}

TEST(ExactVerdictsTest, GlobalDecidesForAllAdaptersOrLeavesItToThem) {
    EXPECT_EQ(exactFor("tcp 22", {"allow tcp 22"}, {}, FW::FW_POLICY_DENY), "allowed, allowed");
    EXPECT_EQ(exactFor("tcp 22", {"deny tcp 22"}, {"allow tcp 22"}, FW::FW_POLICY_ALLOW),
              "blocked, blocked");
    EXPECT_EQ(exactFor("tcp 22", {"deny tcp 22 from 10.0.0.0/8"}, {}, FW::FW_POLICY_ALLOW),
              "mixed, mixed");
    EXPECT_EQ(exactFor("tcp 22", {}, {}, FW::FW_POLICY_NONE), "undecided, undecided");
    EXPECT_EQ(exactFor("tcp/udp 22", {"allow tcp 22"}, {}, FW::FW_POLICY_DENY), "undecided, mixed");
}

// Its mask makes more intervals than are counted.
constexpr char kUncounted[] = "tcp 22 from 0.0.0.1/0.0.0.255";

TEST(ExactVerdictsTest, ARuleThatIsNotCountedMayDoTheOpposite) {
    const Texts denied = {std::string("deny ") + kUncounted};
    const Texts allowed = {std::string("allow ") + kUncounted};
    EXPECT_EQ(exactFor("tcp 22", denied, {"allow tcp 22"}, FW::FW_POLICY_DENY), "mixed, mixed");
    EXPECT_EQ(exactFor("tcp 22", {}, denied, FW::FW_POLICY_ALLOW), "undecided, mixed");
    EXPECT_EQ(exactFor("tcp 22", {}, allowed, FW::FW_POLICY_DENY), "undecided, mixed");
    EXPECT_EQ(exactFor("tcp 22", {}, denied, FW::FW_POLICY_NONE), "undecided, mixed");
    EXPECT_EQ(exactFor("tcp 22", allowed, {}, FW::FW_POLICY_DENY), "undecided, mixed");
    // The same as the others do.
    EXPECT_EQ(exactFor("tcp 22", {}, denied, FW::FW_POLICY_DENY), "undecided, blocked");
    EXPECT_EQ(exactFor("tcp 22", {}, allowed, FW::FW_POLICY_ALLOW), "undecided, allowed");
    EXPECT_EQ(exactFor("tcp 22", {}, allowed, FW::FW_POLICY_NONE), "undecided, undecided");
    // It matches none of the packets, or none that earlier rules leave.
    EXPECT_EQ(exactFor("tcp 23", denied, {}, FW::FW_POLICY_ALLOW), "undecided, allowed");
    EXPECT_EQ(exactFor("tcp 22", {"allow tcp 22"}, denied, FW::FW_POLICY_DENY), "allowed, allowed");
    EXPECT_EQ(exactFor("tcp 22", {},
                       {"allow tcp 22 from 0.0.0.0/1", "allow tcp 22 from 128.0.0.0/1", denied[0]},
                       FW::FW_POLICY_ALLOW),
              "undecided, allowed");
    // Another one that is not counted hides none.
    EXPECT_EQ(exactFor("tcp 22", {}, {allowed[0], denied[0]}, FW::FW_POLICY_ALLOW),
              "undecided, mixed");
}

TEST(ExactVerdictsTest, NamesTheRulesThatAreNotCounted) {
    tarnfw::Machine machine;
    const FW::FWPROFILE profile = tarnfw::profileOf(
        {{"eth0",
          FW::FW_POLICY_ALLOW,
          {std::string("deny ") + kUncounted, "allow tcp 22 from 0.0.0.2/0.0.0.255",
           "deny tcp 22-23 from 0.0.0.3/0.0.0.255", "deny udp 22 from 0.0.0.4/0.0.0.255"}}});
    const tarnfw::Meaning meaning(profile, machine);
    FW::PortCompareST asked;
    ASSERT_EQ(tarnfw::portQuestionFrom("tcp 22", asked), "");
    for (const bool explained : {false, true}) {
        const auto answers = (explained ? tarnfw::explainedVerdicts : tarnfw::exactVerdicts)(
            meaning, {tarnfw::questionAbout(asked)}, {"eth0"});
        std::string positions;
        for (const tarnfw::UncountedRule& rule : answers.back().ports.front().uncounted) {
            EXPECT_TRUE(rule.denied);
            positions += " " + std::to_string(rule.place.position);
        }
        EXPECT_EQ(positions, " 1 3");
    }
}

TEST(AllAllowedTest, UndecidedIsNoObstacle) {
    const auto answered = [](FW::FW_POLICY verdict) {
        tarnfw::AdapterAnswer answer;
        answer.verdict = verdict;
        return answer;
    };
    const auto allowed = answered(FW::FW_POLICY_ALLOW);
    EXPECT_TRUE(tarnfw::allAllowed({}));
    EXPECT_TRUE(tarnfw::allAllowed({answered(FW::FW_POLICY_NONE), allowed}));
    EXPECT_FALSE(tarnfw::allAllowed({allowed, answered(FW::FW_POLICY_DENY)}));
    EXPECT_FALSE(tarnfw::allAllowed({answered(FW::FW_POLICY_MIXED), allowed}));
}

}  // namespace
