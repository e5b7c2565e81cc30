// Whole profiles: the fixed lines, the order of rules and default policies, what is skipped, and
// the further lines for 6in4 tunnels.

#include <cstddef>
#include <cstdint>
#include <map>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <json/json.h>

#include "fwIptables_testing.h"
#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwIptables.h"

namespace {

using FW::FW_POLICY;
using FW::FWRULE;
using FW::TARNFW_IPTABLES_RULES;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::ValuesIn;

using Rules = std::map<std::string, std::vector<FWRULE>>;
using Policies = std::map<std::string, FW_POLICY>;

constexpr FW_POLICY kAllow = FW::FW_POLICY_ALLOW;
constexpr FW_POLICY kDeny = FW::FW_POLICY_DENY;
constexpr FW_POLICY kNone = FW::FW_POLICY_NONE;

constexpr char kTool[] = "popen /usr/tarn/sbin/tarnnetdtool --get-ipv6-router-interface ";

// A rule that is identified by its port: "-t filter -A INPUT_FIREWALL ... -p tcp --dport PORT".
FWRULE onPort(const std::string& port, FW_POLICY policy = kAllow) {
    FWRULE rule;
    rule.policy = policy;
    rule.chainList = {"INPUT_FIREWALL"};
    rule.ipGroup = 5;
    rule.portGroup = 1;
    rule.portList = {port};
    return rule;
}

FWRULE ofService(const std::string& service) {
    FWRULE rule = onPort("");
    rule.portGroup = 0;
    rule.portList = {service};
    return rule;
}

class RulesetTest : public LibraryTest {
protected:
    Json::Value commandsOf(const Rules& rules, const Policies& policies) {
        Json::Value out;
        TARNFW_IPTABLES_RULES translator;
        EXPECT_TRUE(translator.fwRulesToIptablesRules(false, rules, policies, out));
        return out;
    }

    Json::Value fixedLines(bool acceptEstablished, const std::string& localIp) {
        Json::Value out;
        EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(acceptEstablished, {}, {}, out,
                                                                   localIp));
        return out;
    }

    // The adapters that a command document has lines for in a family.
    static Texts adaptersOf(const Json::Value& commands, const std::string& family) {
        return commands[family].getMemberNames();
    }
};

// ---- Preparing documents ----

TEST_F(RulesetTest, ArgumentDocumentIsPreparedWithEmptyArrays) {
    Json::Value arg;
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().iptablesRulesInit(arg));
    EXPECT_EQ(arg, parseJson(R"({"adapter": [], "port": [], "chain": [], "table": [],
                                 "policy": [], "ip": {"v4": [], "v6": []}})"));
}

TEST_F(RulesetTest, UsedArgumentDocumentIsEmptied) {
    Json::Value arg = emptyArgument();
    arg["port"].append("-p icmp ");
    arg["ip"]["v6"].append("-s ::1");

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().iptablesRulesInit(arg));

    EXPECT_EQ(arg, emptyArgument());
}

TEST_F(RulesetTest, CommandDocumentIsPreparedWithTwoNullFamilies) {
    Json::Value out = parseJson(R"({"v4": {"eth0": ["a line"]}})");

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().jIptablesCmdInit(out));

    EXPECT_EQ(out, parseJson(R"({"v4": null, "v6": null})"));
}

TEST_F(RulesetTest, TranslationIntoAPreparedDocumentFillsTheNullFamilies) {
    TARNFW_IPTABLES_RULES translator;
    Json::Value prepared;
    ASSERT_TRUE(translator.jIptablesCmdInit(prepared));

    EXPECT_TRUE(translator.fwRulesToIptablesRules(true, {}, {{"eth0", kDeny}}, prepared));

    Json::Value fresh;
    EXPECT_TRUE(translator.fwRulesToIptablesRules(true, {}, {{"eth0", kDeny}}, fresh));
    EXPECT_EQ(prepared, fresh);
}

TEST_F(RulesetTest, TranslationKeepsWhatTheDocumentHolds) {
    Json::Value out = parseJson(R"({"v4": {"eth0": ["-A earlier"], "other": ["-A kept"]}})");

    EXPECT_TRUE(
        TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(false, {{"eth0", {onPort("22")}}}, {}, out));

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-A earlier",
                            "-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN"));
    EXPECT_THAT(linesOf(out, "v4", "other"), ElementsAre("-A kept"));
}

// ---- The local address ----

struct LocalIpCase {
    std::string name;
    std::string localIp;
    std::string established4;  // after "-A CHAIN "
    std::string established6;
};

std::ostream& operator<<(std::ostream& stream, const LocalIpCase& c) {
    return stream << c.name;
}

constexpr char kPlain[] = "-m state --state ESTABLISHED,RELATED -j ACCEPT";

const LocalIpCase kLocalIps[] = {
    {"Empty", "", kPlain, kPlain},
    {"Ipv4", "192.168.1.9", "! -s 192.168.1.9 -m state --state ESTABLISHED,RELATED -j ACCEPT",
     kPlain},
    {"Loopback", "127.0.0.1", "! -s 127.0.0.1 -m state --state ESTABLISHED,RELATED -j ACCEPT",
     kPlain},
    {"Ipv6", "fe80::1", kPlain, "! -s fe80::1 -m state --state ESTABLISHED,RELATED -j ACCEPT"},
    {"Ipv6Mapped", "::ffff:10.0.0.1", kPlain,
     "! -s ::ffff:10.0.0.1 -m state --state ESTABLISHED,RELATED -j ACCEPT"},
};

TEST_F(RulesetTest, LoopbackIsAnIpv4AddressAlsoWhereThePlatformSaysNo) {
    platform_.loopbackIsNoAddress = true;
    const Json::Value out = fixedLines(true, "127.0.0.1");
    EXPECT_EQ(out["v4"]["global"][1].asString(),
              "-A INPUT_FIREWALL ! -s 127.0.0.1 -m state --state ESTABLISHED,RELATED -j ACCEPT");
    EXPECT_THAT(platform_.logged(), IsEmpty());
}

class LocalIpTest : public RulesetTest, public ::testing::WithParamInterface<LocalIpCase> {};

TEST_P(LocalIpTest, ShapesTheEstablishedLineOfItsFamily) {
    const LocalIpCase& c = GetParam();
    const Json::Value out = fixedLines(true, c.localIp);

    Texts v4;
    Texts v6;
    for (const std::string start : {"-A INPUT_FIREWALL ", "-A FORWARD_FIREWALL "}) {
        v4.push_back(start + "-i lo -j ACCEPT");
        v4.push_back(start + c.established4);
        v6.push_back(start + "-i lo -j ACCEPT");
        const std::string local = start + "-s fe80::/10 -p icmpv6 --icmpv6-type ";
        const std::string any = start + "-p icmpv6 --icmpv6-type ";
        v6.push_back(local + "router-solicitation -j ACCEPT");
        v6.push_back(local + "router-advertisement -j ACCEPT");
        v6.push_back(any + "neighbour-solicitation -j ACCEPT");
        v6.push_back(any + "neighbour-advertisement -j ACCEPT");
        v6.push_back(local + "137 -j ACCEPT");
        v6.push_back(start + c.established6);
    }
    EXPECT_EQ(linesOf(out, "v4", "global"), v4);
    EXPECT_EQ(linesOf(out, "v6", "global"), v6);
    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("global"));
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global"));
    EXPECT_THAT(out.getMemberNames(), ElementsAre("v4", "v6"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_P(LocalIpTest, AddsNothingWhenEstablishedConnectionsAreNotAskedFor) {
    const Json::Value out = fixedLines(false, GetParam().localIp);

    EXPECT_EQ(out, parseJson(R"({
        "v4": {"global": [
            "-A INPUT_FIREWALL -i lo -j ACCEPT",
            "-A FORWARD_FIREWALL -i lo -j ACCEPT"]},
        "v6": {"global": [
            "-A INPUT_FIREWALL -i lo -j ACCEPT",
            "-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
            "-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
            "-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
            "-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
            "-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",
            "-A FORWARD_FIREWALL -i lo -j ACCEPT",
            "-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
            "-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
            "-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
            "-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
            "-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT"]}})"));
}

INSTANTIATE_TEST_SUITE_P(Addresses, LocalIpTest, ValuesIn(kLocalIps),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(RulesetTest, TextThatIsNoAddressFailsAndLeavesTheDocumentUntouched) {
    for (const char* text : {"localhost", "10.0.0", "10.0.0.256", "10.0.0.0/8", "10.0.0.1 ", " ",
                             "fe80::1::2", "fe80::1%eth0", "-j ACCEPT"}) {
        platform_.clearLog();
        const Json::Value before = parseJson(R"({"v4": {"global": ["kept"]}})");
        Json::Value out = before;

        EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
            true, {{"eth0", {onPort("22")}}}, {{"eth0", kDeny}}, out, text));

        EXPECT_EQ(out, before) << text;
        EXPECT_THAT(logLines(platform_),
                    ElementsAre("err fwIptables: Invalid input argument '" + std::string(text) +
                                "' which is not an IP address."));
    }
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(RulesetTest, TextThatIsNoAddressIsRefusedWithoutTheEstablishedLineToo) {
    Json::Value out;
    EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(false, {}, {}, out, "nowhere"));
    EXPECT_TRUE(out.isNull());
}

TEST_F(RulesetTest, ShorterFormHasNoLocalAddress) {
    const Rules rules = {{"eth0", {onPort("22")}}};
    for (const bool established : {false, true}) {
        Json::Value shorter;
        Json::Value longer;
        EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(established, rules,
                                                                   {{"eth0", kDeny}}, shorter));
        EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(established, rules,
                                                                   {{"eth0", kDeny}}, longer, ""));
        EXPECT_EQ(shorter, longer);
    }
}

// ---- Rules and default policies ----

TEST_F(RulesetTest, ProfileWithOneLoggedRuleAndDenyBecomesThisDocument) {
    FWRULE rule;
    rule.chainList = {"INPUT_FIREWALL"};
    rule.ipGroup = 1;
    rule.ipList = {"192.168.1.0", "255.255.255.0"};
    rule.portGroup = 1;
    rule.protocol = 3;
    rule.portList = {"22"};
    rule.policy = kDeny;
    rule.blLog = true;
    Json::Value out;

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(true, {{"eth0", {rule}}},
                                                               {{"eth0", kDeny}}, out, ""));

    EXPECT_EQ(out, parseJson(R"({
        "v4": {
            "global": [
                "-A INPUT_FIREWALL -i lo -j ACCEPT",
                "-A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT",
                "-A FORWARD_FIREWALL -i lo -j ACCEPT",
                "-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT"],
            "eth0": [
                "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 -p tcp --dport 22 -j LOG",
                "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 -p tcp --dport 22 -j DROP",
                "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 -p udp --dport 22 -j LOG",
                "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 -p udp --dport 22 -j DROP",
                "-t filter -A FORWARD_FIREWALL -i eth0 -j DROP",
                "-t filter -A INPUT_FIREWALL -i eth0 -j DROP"]},
        "v6": {
            "global": [
                "-A INPUT_FIREWALL -i lo -j ACCEPT",
                "-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
                "-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
                "-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
                "-A INPUT_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
                "-A INPUT_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",
                "-A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT",
                "-A FORWARD_FIREWALL -i lo -j ACCEPT",
                "-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT",
                "-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT",
                "-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT",
                "-A FORWARD_FIREWALL -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT",
                "-A FORWARD_FIREWALL -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT",
                "-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT"],
            "eth0": [
                "-t filter -A FORWARD_FIREWALL -i eth0 -j DROP",
                "-t filter -A INPUT_FIREWALL -i eth0 -j DROP"]}})"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RulesetTest, DefaultPolicyWithoutRulesGetsTwoLinesAFamily) {
    const Json::Value out = commandsOf({}, {{"eth0", kAllow}});

    for (const char* family : {"v4", "v6"}) {
        EXPECT_THAT(linesOf(out, family, "eth0"),
                    ElementsAre("-t filter -A FORWARD_FIREWALL -i eth0 -j RETURN",
                                "-t filter -A INPUT_FIREWALL -i eth0 -j RETURN"));
    }
}

TEST_F(RulesetTest, RulesWithoutDefaultPolicyGetNoCatchAllLine) {
    const Json::Value out = commandsOf({{"eth0", {onPort("22")}}}, {});

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN"));
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global"));
}

TEST_F(RulesetTest, DefaultPolicyNoneYieldsNoCatchAllLine) {
    platform_.interfaces = {"eth0", "eth1"};
    const Json::Value out =
        commandsOf({{"eth0", {onPort("22")}}}, {{"eth0", kNone}, {"eth1", kNone}});

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN"));
    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("eth0", "global"));
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RulesetTest, DefaultPolicyOfGlobalFollowsTheFixedLines) {
    const Json::Value out = commandsOf({{"global", {onPort("22")}}}, {{"global", kDeny}});

    EXPECT_THAT(
        linesOf(out, "v4", "global"),
        ElementsAre("-A INPUT_FIREWALL -i lo -j ACCEPT", "-A FORWARD_FIREWALL -i lo -j ACCEPT",
                    "-t filter -A INPUT_FIREWALL -p tcp --dport 22 -j RETURN",
                    "-t filter -A FORWARD_FIREWALL -j DROP",
                    "-t filter -A INPUT_FIREWALL -j DROP"));
}

TEST_F(RulesetTest, RulesKeepTheirStoredOrderAndTheDefaultComesLast) {
    FWRULE first = onPort("30");
    first.ruleID = 9;
    FWRULE second = onPort("10");
    second.ruleID = 1;
    const Json::Value out =
        commandsOf({{"eth0", {first, second, onPort("20")}}}, {{"eth0", kDeny}});

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 30 -j RETURN",
                            "-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 10 -j RETURN",
                            "-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 20 -j RETURN",
                            "-t filter -A FORWARD_FIREWALL -i eth0 -j DROP",
                            "-t filter -A INPUT_FIREWALL -i eth0 -j DROP"));
}

TEST_F(RulesetTest, DefaultPolicyOfVpnAndPppoeCoversTheirInterfaces) {
    platform_.interfaces = {"eth0", "ppp0", "ppp1", "tun0"};
    platform_.pppoeInterface = "ppp0";

    const Json::Value out = commandsOf({}, {{"vpn", kDeny}, {"pppoe", kAllow}});

    for (const char* family : {"v4", "v6"}) {
        EXPECT_THAT(linesOf(out, family, "vpn"),
                    ElementsAre("-t filter -A FORWARD_FIREWALL -i ppp1 -j DROP",
                                "-t filter -A FORWARD_FIREWALL -i tun0 -j DROP",
                                "-t filter -A INPUT_FIREWALL -i ppp1 -j DROP",
                                "-t filter -A INPUT_FIREWALL -i tun0 -j DROP"));
        EXPECT_THAT(linesOf(out, family, "pppoe"),
                    ElementsAre("-t filter -A FORWARD_FIREWALL -i ppp0 -j RETURN",
                                "-t filter -A INPUT_FIREWALL -i ppp0 -j RETURN"));
    }
}

TEST_F(RulesetTest, FixedLinesBeginWithTheChainAndRuleLinesWithTheTable) {
    const Json::Value out = commandsOf({{"eth0", {onPort("22")}}, {"global", {onPort("23")}}},
                                       {{"eth0", kDeny}, {"global", kNone}});

    for (const char* family : {"v4", "v6"}) {
        EXPECT_THAT(linesOf(out, family, "eth0"), Each(StartsWith("-t filter -A ")));
        EXPECT_THAT(linesOf(fixedLines(true, ""), family, "global"), Each(StartsWith("-A ")));
    }
    EXPECT_EQ(linesOf(out, "v4", "global").back(),
              "-t filter -A INPUT_FIREWALL -p tcp --dport 23 -j RETURN");
}

// ---- What is skipped ----

TEST_F(RulesetTest, DisabledRulesAndRulesWithoutTargetAreSkippedSilently) {
    FWRULE disabled = onPort("10");
    disabled.enable = false;
    FWRULE targetless = onPort("11", kNone);
    targetless.blLog = true;

    const Json::Value out =
        commandsOf({{"eth0", {disabled, onPort("12"), targetless}}, {"global", {disabled}}}, {});

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 12 -j RETURN"));
    EXPECT_THAT(linesOf(out, "v4", "global"), ElementsAre("-A INPUT_FIREWALL -i lo -j ACCEPT",
                                                          "-A FORWARD_FIREWALL -i lo -j ACCEPT"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("eth0"));
}

TEST_F(RulesetTest, SkippedRulesAreNotEvenConverted) {
    FWRULE disabled = onPort("10", static_cast<FW_POLICY>(9));
    disabled.enable = false;
    FWRULE targetless = ofService("ssh");
    targetless.policy = kNone;
    platform_.servicesResult = 0;

    commandsOf(
        {{"eth0", {disabled, targetless}}, {"missing", {onPort("11", static_cast<FW_POLICY>(9))}}},
        {});

    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RulesetTest, RulesAndPoliciesOfMissingInterfacesAreSkippedSilently) {
    platform_.pppoeInterface.clear();
    const Json::Value out = commandsOf({{"eth7", {onPort("22")}}, {"eth0", {onPort("23")}}},
                                       {{"eth7", kDeny}, {"eth8", kDeny}});

    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("eth0", "global"));
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RulesetTest, VpnAndPppoeWithoutInterfacesAreSkippedWithoutAnError) {
    const Json::Value out = commandsOf({{"vpn", {onPort("22")}}, {"pppoe", {onPort("23")}}},
                                       {{"vpn", kDeny}, {"pppoe", kDeny}});

    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("global"));
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global"));
    EXPECT_THAT(logLines(platform_), Each("debug fwIptables: Failed to TARNPPPoeIntfGet()"));
}

TEST_F(RulesetTest, Ppp0IsSkippedAlthoughTheMachineHasIt) {
    platform_.interfaces = {"ppp0", "ppp1"};

    const Json::Value out = commandsOf({{"ppp0", {onPort("22")}}, {"ppp1", {onPort("23")}}},
                                       {{"ppp0", kDeny}, {"ppp1", kDeny}});

    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("global", "ppp1"));
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global", "ppp1"));
    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("ppp1", "ppp1"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RulesetTest, UnlistableInterfacesSkipEverythingButGlobalAndAreAskedForEachTime) {
    platform_.interfacesResult = -7;

    const Json::Value out = commandsOf({{"eth0", {onPort("22")}}, {"global", {onPort("23")}}},
                                       {{"eth0", kDeny}, {"global", kNone}});

    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("global"));
    EXPECT_EQ(linesOf(out, "v4", "global").size(), 3U);
    const std::string query =
        "err fwIptables: Failed to TLIBNetGetInterfaceInfo(-7) [0x0D01 netinfo.c:12]";
    const std::string listing = "err fwIptables: Failed to enabledAdapterEnum()";
    EXPECT_THAT(logLines(platform_), ElementsAre(query, listing, query, listing));
    EXPECT_EQ(platform_.journalOf("interfaces").size(), 2U);
}

// ---- Failures ----

TEST_F(RulesetTest, FailedRuleEndsTheTranslationAndLeavesTheLinesBeforeIt) {
    platform_.interfaces = {"Z", "a", "b"};
    const Rules rules = {
        {"b", {onPort("4")}},
        {"a", {onPort("2"), onPort("3", static_cast<FW_POLICY>(9)), onPort("5")}},
        {"Z", {onPort("1")}},
    };
    Json::Value out;

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
        true, rules, {{"Z", kDeny}, {"a", kDeny}, {"b", kDeny}}, out, ""));

    // Upper case sorts first.
    EXPECT_THAT(linesOf(out, "v4", "Z"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i Z -p tcp --dport 1 -j RETURN",
                            "-t filter -A FORWARD_FIREWALL -i Z -j DROP",
                            "-t filter -A INPUT_FIREWALL -i Z -j DROP"));
    EXPECT_THAT(linesOf(out, "v4", "a"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i a -p tcp --dport 2 -j RETURN"));
    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("Z", "a", "global"));
    EXPECT_EQ(linesOf(out, "v4", "global").size(), 4U);
    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("Z", "Z", "a"));
    EXPECT_THAT(logLines(platform_),
                ElementsAre("err fwIptables: Unknown policy 9",
                            "err fwIptables: Failed to policyToIptablesArg()"));
}

TEST_F(RulesetTest, UnknownDefaultPolicyFailsBehindTheAdaptersRules) {
    Json::Value out;

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
        false, {{"eth0", {onPort("22")}}}, {{"eth0", FW::FW_POLICY_MIXED}}, out));

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN"));
    EXPECT_THAT(logLines(platform_),
                ElementsAre("err fwIptables: Unknown policy 3",
                            "err fwIptables: Failed to policyToIptablesArg()"));
}

TEST_F(RulesetTest, MissingCatalogueFailsTheTranslation) {
    platform_.servicesResult = 0;
    Json::Value out;

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
        false, {{"eth0", {onPort("22"), ofService("ssh")}}}, {{"eth0", kDeny}}, out));

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN"));
    EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services",
                                                 "err fwIptables: Failed to servToPorts()",
                                                 "err fwIptables: Failed to servPortToCmd()",
                                                 "err fwIptables: Failed to portToIptablesArg()"));
    EXPECT_EQ(platform_.openCatalogues, 0);
    EXPECT_EQ(platform_.openStreams, 0);
}

TEST_F(RulesetTest, UnknownGroupsCostTheirRulesOnlyTheirLines) {
    FWRULE unknownIp = onPort("1");
    unknownIp.ipGroup = 6;
    FWRULE unknownPort = onPort("2");
    unknownPort.portGroup = 4;

    const Json::Value out = commandsOf({{"eth0", {unknownIp, unknownPort, onPort("3")}}}, {});

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 3 -j RETURN"));
    EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Unknown ip group 6",
                                                 "err fwIptables: Unknown port group 4"));
}

TEST_F(RulesetTest, RuleWithANulInATextOfItsLinesYieldsNone) {
    const std::string nul("\0", 1);
    std::vector<FWRULE> rules(5, onPort("1"));
    rules[0].ipGroup = 0;
    rules[0].ipList = {"10.0.0.5" + nul + " -h"};
    rules[1].portList = {"22" + nul};
    rules[2].table = "filter" + nul + "x";
    rules[3].chainList.insert("OWN" + nul);
    rules[4].name = "name" + nul;  // part of no line
    platform_.popenOutput["eth0"] = "sit0";

    const Json::Value out = commandsOf({{"eth0", rules}}, {});

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p tcp --dport 1 -j RETURN"));
    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 1 -j RETURN"));
    EXPECT_THAT(logLines(platform_),
                ElementsAreArray(Texts(4,
                                       "err fwIptables: A rule of adapter eth0 holds a NUL "
                                       "character and is left out")));
}

TEST_F(RulesetTest, RuleWithANulHasNoArgumentsAndNoTunnelLinesOfItsOwn) {
    FWRULE rule = onPort("1");
    rule.portList = {std::string("1\0", 2)};
    platform_.popenOutput["eth0"] = "sit0";
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();
    Json::Value out;

    EXPECT_TRUE(translator.FwRuleToIptablesArg("eth0", rule, arg));
    translator.iptables6in4ToCmd("eth0", rule, out);

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_TRUE(out.isNull());
}

TEST_F(RulesetTest, NothingStaysOpenWhenTheTranslationThrows) {
    platform_.services["ssh"] = {"Secure shell", 1, {"22"}, 0, {}};
    platform_.popenOutput["eth0"] = "sit0";
    Json::Value out = parseJson(R"({"v6": {"sit0": "no array"}})");

    EXPECT_THROW((void)TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
                     false, {{"eth0", {ofService("ssh")}}}, {}, out),
                 Json::Exception);

    EXPECT_THAT(platform_.journalOf("services "), ElementsAre("enum", "free"));
    EXPECT_EQ(platform_.openCatalogues, 0);
    EXPECT_EQ(platform_.openStreams, 0);
}

// ---- What the platform is asked ----

TEST_F(RulesetTest, PlatformIsAskedForEachListOnceAndForTheRouterOfEachRule) {
    platform_.interfaces = {"eth0", "ppp0", "tun0"};
    platform_.pppoeInterface = "ppp0";
    platform_.services["ssh"] = {"Secure shell", 1, {"22"}, 0, {}};

    commandsOf({{"vpn", {ofService("ssh")}}, {"eth0", {ofService("ssh"), ofService("ssh")}}},
               {{"eth0", kDeny}, {"global", kNone}, {"pppoe", kDeny}, {"vpn", kDeny}});

    const std::string tool = kTool;
    EXPECT_THAT(platform_.journal, ElementsAre("interfaces 32 8", "pppoe 256",            //
                                               "services enum", tool + "eth0", "pclose",  //
                                               tool + "eth0", "pclose",                   //
                                               tool + "eth0", "pclose",                   //
                                               tool + "ppp0", "pclose",                   //
                                               tool + "vpn", "pclose",                    //
                                               tool + "vpn", "pclose", "services free"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
    EXPECT_EQ(platform_.openCatalogues, 0);
    EXPECT_EQ(platform_.openStreams, 0);
}

// ---- 6in4 ----

struct RouterCase {
    std::string name;
    std::string output;
    std::string router;  // whose lines are added; empty: none
    Texts log;
};

std::ostream& operator<<(std::ostream& stream, const RouterCase& c) {
    return stream << c.name;
}

const RouterCase kRouters[] = {
    {"OtherInterface", "sit0", "sit0", {}},
    {"SameInterface", "eth0", "", {}},
    {"NoOutput", "", "", {"err fwIptables: Failed to getline after TLIBCPopen()."}},
    {"LineFeedEndsTheName", "sit0\n", "sit0", {}},
    {"SameInterfaceWithALineFeed", "eth0\n", "", {}},
    {"LineFeedAlone", "\n", "", {"err fwIptables: Failed to getline after TLIBCPopen()."}},
    {"OnlyTheFirstLineIsRead", "sit0\nsit1\n", "sit0", {}},
    {"CarriageReturnBelongsToTheName", "sit0\r\n", "sit0\r", {}},
    {"BlanksBelongToTheName", " sit0", " sit0", {}},
    {"LongLine", std::string(3000, 's'), std::string(3000, 's'), {}},
};

class RouterTest : public RulesetTest, public ::testing::WithParamInterface<RouterCase> {
protected:
    RouterTest() { platform_.popenOutput["eth0"] = GetParam().output; }

    // The lines that the router interface gets for `rest` after the interface match.
    Texts routerLines(const std::string& rest) const {
        return {"-t filter -A INPUT_FIREWALL -i " + GetParam().router + rest};
    }
};

TEST_P(RouterTest, GetsTheIpv6LinesOfTheRuleAgain) {
    const RouterCase& c = GetParam();
    FWRULE rule = onPort("22");
    rule.ipType = 2;

    const Json::Value out = commandsOf({{"eth0", {rule}}}, {});

    const std::string rest = " -p tcp --dport 22 -j RETURN";
    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0" + rest));
    EXPECT_THAT(linesOf(out, "v6", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0" + rest));
    EXPECT_THAT(adaptersOf(out, "v4"), ElementsAre("eth0", "global"));
    if (c.router.empty()) {
        EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("eth0", "global"));
    } else {
        EXPECT_EQ(out["v6"].size(), 3U);
        EXPECT_EQ(linesOf(out, "v6", c.router), routerLines(rest));
    }
    EXPECT_EQ(logLines(platform_), c.log);
    EXPECT_EQ(platform_.openStreams, 0);
}

TEST_P(RouterTest, IsAskedForWithOneRunThatIsClosed) {
    const RouterCase& c = GetParam();
    FWRULE rule = onPort("22");
    rule.ipType = 1;
    Json::Value out;

    TARNFW_IPTABLES_RULES().iptables6in4ToCmd("eth0", rule, out);

    EXPECT_THAT(platform_.journal, ElementsAre(std::string(kTool) + "eth0", "pclose"));
    if (c.router.empty()) {
        EXPECT_TRUE(out.isNull());
    } else {
        EXPECT_EQ(linesOf(out, "v6", c.router), routerLines(" -p tcp --dport 22 -j RETURN"));
    }
    EXPECT_EQ(logLines(platform_), c.log);
    EXPECT_EQ(platform_.openStreams, 0);
}

INSTANTIATE_TEST_SUITE_P(Outputs, RouterTest, ValuesIn(kRouters),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(RulesetTest, ToolThatCannotBeRunIsLoggedAndAddsNothing) {
    platform_.popenFails = true;

    const Json::Value out = commandsOf({{"eth0", {onPort("22")}}}, {{"eth0", kDeny}});

    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("eth0", "global"));
    EXPECT_EQ(linesOf(out, "v4", "eth0").size(), 3U);
    const std::string failed = "err fwIptables: Failed to exec tarnnetdtool with TLIBCPopen().";
    EXPECT_THAT(logLines(platform_), ElementsAre(failed, failed));
    EXPECT_THAT(platform_.journalOf("pclose"), IsEmpty());
}

TEST_F(RulesetTest, Ipv4RuleIsRepeatedAsAnIpv6RuleForTheRouter) {
    platform_.popenOutput["eth0"] = "sit0";
    FWRULE rule = onPort("22");
    rule.ipGroup = 0;
    rule.ipList = {"10.0.0.1"};
    rule.adapterDirect = 0;
    rule.blLog = true;

    const Json::Value out = commandsOf({{"eth0", {rule}}}, {});

    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global", "sit0"));
    EXPECT_THAT(
        linesOf(out, "v6", "sit0"),
        ElementsAre("-t filter -A INPUT_FIREWALL -o sit0 -s 10.0.0.1 -p tcp --dport 22 -j LOG",
                    "-t filter -A INPUT_FIREWALL -o sit0 -s 10.0.0.1 -p tcp --dport 22 -j RETURN"));
}

TEST_F(RulesetTest, BatchAsksForTheRouterInterfaceOnceAnAdapter) {
    platform_.interfaces = {"eth0", "eth1"};
    platform_.popenOutput["eth0"] = "sit0";
    const std::map<std::string, std::vector<FWRULE>> rules = {{"eth0", {onPort("1"), onPort("2")}},
                                                              {"eth1", {onPort("3"), onPort("4")}}};
    TARNFW_IPTABLES_RULES translator;
    Json::Value out;
    ASSERT_TRUE(translator.fwRulesToBatchRules(false, rules, {}, out, ""));
    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("eth0", "eth1"));
    EXPECT_EQ(out, commandsOf(rules, {}));

    platform_.clearJournal();
    out = Json::Value();
    ASSERT_TRUE(translator.fwRulesToBatchRules(false, rules, {}, out, ""));
    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("eth0", "eth1"));  // each translation anew
    platform_.clearJournal();
    out = Json::Value();
    ASSERT_TRUE(translator.fwRulesToIptablesRules(false, rules, {}, out));
    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("eth0", "eth0", "eth1", "eth1"));
}

TEST_F(RulesetTest, BatchHasTheSameFixedLines) {
    for (const std::string address : {"", "10.0.0.1", "fd00::1"}) {
        for (const bool established : {false, true}) {
            TARNFW_IPTABLES_RULES translator;
            Json::Value out;
            Json::Value batch;
            ASSERT_TRUE(translator.fwRulesToIptablesRules(established, {}, {}, out, address));
            ASSERT_TRUE(translator.fwRulesToBatchRules(established, {}, {}, batch, address));
            EXPECT_EQ(batch, out) << address << established;
        }
    }
    Json::Value out;
    EXPECT_FALSE(TARNFW_IPTABLES_RULES().fwRulesToBatchRules(true, {}, {}, out, "nowhere"));
    EXPECT_TRUE(out.isNull());
}

TEST_F(RulesetTest, BatchRepeatsNoIpv4AddressForTheRouter) {
    platform_.popenOutput["eth0"] = "sit0";
    std::vector<FWRULE> rules;
    for (const auto& [group, first] : {std::pair(0, "10.0.0.1"), std::pair(1, "10.0.0.0"),
                                       std::pair(4, "10.0.0.1"), std::pair(0, "fd00::1")}) {
        rules.push_back(onPort(std::to_string(rules.size() + 1)));
        rules.back().ipGroup = group;
        rules.back().ipList = {first, "10.0.0.9"};
    }
    rules.push_back(onPort("5"));
    rules.back().ipList = {"10.0.0.1"};  // left over: the rule is for any address
    Json::Value out;
    ASSERT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToBatchRules(false, {{"eth0", rules}}, {}, out, ""));
    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit0 -s fd00::1 -p tcp --dport 4 -j "
                            "RETURN",
                            "-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 5 -j RETURN"));
    EXPECT_EQ(linesOf(commandsOf({{"eth0", rules}}, {}), "v6", "sit0").size(), 5U);
}

TEST_F(RulesetTest, BatchRepeatsNoIpv4NetworkForTheRouter) {
    platform_.popenOutput["eth0"] = "sit0";
    std::vector<FWRULE> rules;
    for (const char* const network : {"10.0.0.0/24", "10.0.0.0/255.255.255.0", "0.0.0.0/0", "10/8",
                                      "10.0.0.1,10.0.0.2", "fd00::/64", "::/0", "host.example"}) {
        rules.push_back(onPort(std::to_string(rules.size() + 1)));
        rules.back().ipGroup = 0;
        rules.back().ipList = {network};
    }
    Json::Value out;
    ASSERT_TRUE(TARNFW_IPTABLES_RULES().fwRulesToBatchRules(false, {{"eth0", rules}}, {}, out, ""));
    const std::string start = "-t filter -A INPUT_FIREWALL -i sit0 -s ";
    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre(start + "fd00::/64 -p tcp --dport 6 -j RETURN",
                            start + "::/0 -p tcp --dport 7 -j RETURN",
                            start + "host.example -p tcp --dport 8 -j RETURN"));
    EXPECT_EQ(linesOf(commandsOf({{"eth0", rules}}, {}), "v6", "sit0").size(), rules.size());
}

TEST_F(RulesetTest, RouterGetsTheDefaultPolicyToo) {
    platform_.popenOutput["eth0"] = "sit0";

    const Json::Value out = commandsOf({{"eth0", {onPort("22")}}}, {{"eth0", kDeny}});

    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 22 -j RETURN",
                            "-t filter -A FORWARD_FIREWALL -i sit0 -j DROP",
                            "-t filter -A INPUT_FIREWALL -i sit0 -j DROP"));
}

TEST_F(RulesetTest, RouterThatIsAnAdapterOfItsOwnGetsBothInAdapterOrder) {
    platform_.interfaces = {"eth0", "sit0"};
    platform_.popenOutput["eth0"] = "sit0";
    FWRULE own = onPort("2");
    own.ipType = 1;

    const Json::Value out = commandsOf({{"sit0", {own}}, {"eth0", {onPort("1")}}}, {});

    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 1 -j RETURN",
                            "-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 2 -j RETURN"));
}

TEST_F(RulesetTest, PppoeAsksForTheRouterOfItsInterface) {
    platform_.pppoeInterface = "ppp0";
    platform_.popenOutput["ppp0"] = "sit0";

    const Json::Value out = commandsOf({{"pppoe", {onPort("22")}}}, {{"pppoe", kDeny}});

    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("ppp0", "ppp0"));
    EXPECT_THAT(linesOf(out, "v4", "pppoe"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i ppp0 -p tcp --dport 22 -j RETURN",
                            "-t filter -A FORWARD_FIREWALL -i ppp0 -j DROP",
                            "-t filter -A INPUT_FIREWALL -i ppp0 -j DROP"));
    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 22 -j RETURN",
                            "-t filter -A FORWARD_FIREWALL -i sit0 -j DROP",
                            "-t filter -A INPUT_FIREWALL -i sit0 -j DROP"));
}

TEST_F(RulesetTest, PppoeThatIsItsOwnRouterAddsNothing) {
    platform_.pppoeInterface = "ppp0";

    const Json::Value out = commandsOf({}, {{"pppoe", kDeny}});

    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global", "pppoe"));
}

TEST_F(RulesetTest, VpnAndGlobalAskForTheRouterOfTheirNames) {
    platform_.interfaces = {"ppp1", "tun0"};
    platform_.popenOutput["vpn"] = "sit1";

    const Json::Value out = commandsOf({{"vpn", {onPort("1")}}, {"global", {onPort("2")}}}, {});

    EXPECT_THAT(platform_.journalOf(kTool), ElementsAre("global", "vpn"));
    EXPECT_THAT(linesOf(out, "v6", "sit1"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit1 -p tcp --dport 1 -j RETURN"));
}

TEST_F(RulesetTest, RuleThatCannotBeConvertedForTheRouterIsLoggedAndTheTranslationGoesOn) {
    platform_.popenOutput["eth0"] = "pppoe";  // a name that needs a PPPoE interface

    const Json::Value out = commandsOf({{"eth0", {onPort("1"), onPort("2")}}}, {});

    EXPECT_EQ(linesOf(out, "v4", "eth0").size(), 2U);
    EXPECT_THAT(adaptersOf(out, "v6"), ElementsAre("global"));
    const Texts once = {
        "debug fwIptables: Failed to TARNPPPoeIntfGet()",
        "err fwIptables: pppoe interface is empty",
        "err fwIptables: Failed to adapterToIptablesArg()",
        "err fwIptables: Failed to convert rule to iptables arg in 6in4 over PPPoE."};
    EXPECT_EQ(logLines(platform_), once + once);
    EXPECT_EQ(platform_.openStreams, 0);
}

TEST_F(RulesetTest, RouterSharesTheCatalogueOfTheTranslation) {
    platform_.services["ssh"] = {"Secure shell", 1, {"22"}, 0, {}};
    platform_.popenOutput["eth0"] = "sit0";

    const Json::Value out = commandsOf({{"eth0", {ofService("ssh")}}}, {});

    EXPECT_THAT(linesOf(out, "v6", "sit0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i sit0 -p tcp --dport 22 -j RETURN"));
    EXPECT_THAT(platform_.journalOf("services "), ElementsAre("enum", "free"));
}

// ---- Against a second evaluation ----

TEST_F(RulesetTest, RandomProfilesAgreeWithASecondEvaluation) {
    platform_.interfaces = {"eth0", "eth1", "ppp0", "tun0"};
    platform_.pppoeInterface = "ppp0";
    platform_.popenOutput["eth1"] = "sit0";
    const std::map<std::string, std::string> matches = {{"eth0", " -i eth0"},
                                                        {"eth1", " -i eth1"},
                                                        {"global", ""},
                                                        {"pppoe", " -i ppp0"},
                                                        {"vpn", " -i tun0"}};
    const Texts names = {"eth0", "eth1", "eth2", "global", "ppp0", "pppoe", "vpn"};
    const std::string targets[] = {" -j RETURN", " -j DROP"};
    std::mt19937 random(4711);
    const auto below = [&](std::size_t limit) { return random() % limit; };

    for (int round = 0; round < 1000; ++round) {
        Rules rules;
        Policies policies;
        std::map<std::string, Texts> expected[2];  // IPv4, IPv6
        const Json::Value fixed = fixedLines(false, "");
        expected[0]["global"] = linesOf(fixed, "v4", "global");
        expected[1]["global"] = linesOf(fixed, "v6", "global");

        for (const std::string& name : names) {
            const auto match = matches.find(name);
            const bool counts = match != matches.end();
            for (std::size_t n = below(4); n > 0; --n) {
                FWRULE rule = onPort(std::to_string(below(1000)), FW_POLICY(below(3)));
                rule.enable = below(4) != 0;
                rule.ipType = static_cast<std::int32_t>(below(3));
                rules[name].push_back(rule);
                if (!counts || !rule.enable || rule.policy == kNone) {
                    continue;
                }
                const std::string rest =
                    " -p tcp --dport " + rule.portList[0] + targets[rule.policy];
                for (const int family : {0, 1}) {
                    if (rule.ipType == 2 || rule.ipType == family) {
                        expected[family][name].push_back("-t filter -A INPUT_FIREWALL" +
                                                         match->second + rest);
                    }
                }
                if (name == "eth1") {
                    expected[1]["sit0"].push_back("-t filter -A INPUT_FIREWALL -i sit0" + rest);
                }
            }
            if (below(3) == 0) {
                continue;
            }
            policies[name] = FW_POLICY(below(3));
            if (!counts || policies[name] == kNone) {
                continue;
            }
            for (const char* chain : {"FORWARD_FIREWALL", "INPUT_FIREWALL"}) {
                const std::string begin = "-t filter -A " + std::string(chain);
                for (auto& family : expected) {
                    family[name].push_back(begin + match->second + targets[policies[name]]);
                }
                if (name == "eth1") {
                    expected[1]["sit0"].push_back(begin + " -i sit0" + targets[policies[name]]);
                }
            }
        }

        const Json::Value out = commandsOf(rules, policies);
        for (const int family : {0, 1}) {
            std::map<std::string, Texts> found;
            const Json::Value& lines = out[family == 0 ? "v4" : "v6"];
            for (const std::string& adapter : lines.getMemberNames()) {
                found[adapter] = texts(lines[adapter]);
            }
            ASSERT_EQ(found, expected[family]) << "round " << round << ", family " << family;
        }
    }
    EXPECT_EQ(platform_.openStreams, 0);
}

}  // namespace
