// Rules from the words of a person: every form, the resulting family, and invalid words.
#include "tarnfwadmin/ruleSyntax.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/ruleText.h"

namespace {

using FW::FWRULE;
using tarnfw::RuleOptions;
using tarnfw::RuleVocabulary;
using ::testing::ValuesIn;

using Texts = std::vector<std::string>;

const RuleVocabulary& vocabulary() {
    static const RuleVocabulary known = {
        {{"dns", 3}, {"http", 1}, {"https", 1}, {"ntp", 2}, {"sip", 3}, {"smb", 1}, {"ssh", 1}},
        {"CN", "DE", "RU"},
        {"DE", "SE"}};
    return known;
}

Texts split(const std::string& line) {
    std::istringstream stream(line);
    Texts words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

FWRULE ruleOf(const std::string& line, const RuleOptions& options = {}) {
    return tarnfw::ruleFrom(split(line), options, vocabulary());
}

/// The complaint about wrong usage; "accepted" when there is none.
std::string complaintAbout(const Texts& words, const RuleOptions& options = {}) {
    try {
        (void)tarnfw::ruleFrom(words, options, vocabulary());
    } catch (const tarnfw::Error& error) {
        return error.what();
    }
    return "accepted";
}

std::string complaintAbout(const std::string& line, const RuleOptions& options = {}) {
    return complaintAbout(split(line), options);
}

RuleOptions onlyV4() {
    RuleOptions options;
    options.v4 = true;
    return options;
}

RuleOptions onlyV6() {
    RuleOptions options;
    options.v6 = true;
    return options;
}

std::string joined(const Texts& texts) {
    std::string line;
    for (const std::string& text : texts) {
        line.append(line.empty() ? "" : " ").append(text);
    }
    return line;
}

template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

// ---- What the rule is about ----

struct WhatCase {
    const char* name;
    const char* words;
    std::int32_t portGroup;
    std::int32_t protocol;
    const char* portList;
};

void PrintTo(const WhatCase& c, std::ostream* out) {
    *out << c.words;
}

const WhatCase kWhats[] = {
    {"OnePort", "tcp 22", 1, 1, "22"},
    {"PortsAndRanges", "tcp 22,80,6000-6010", 1, 1, "22 80 6000-6010"},
    {"Udp", "udp 53", 1, 2, "53"},
    {"TcpAndUdp", "tcp/udp 53", 1, 3, "53"},
    {"Both", "both 53", 1, 3, "53"},
    {"UdpAndTcp", "udp/tcp 53", 1, 3, "53"},
    {"TcpCommaUdp", "tcp,udp 53", 1, 3, "53"},
    {"TcpPlusUdp", "tcp+udp 53", 1, 3, "53"},
    {"OneWord", "tcp/22", 1, 1, "22"},
    {"OneWordPortFirst", "22/tcp", 1, 1, "22"},
    {"OneWordUdp", "UDP/53", 1, 2, "53"},
    {"OneWordPortsAndRanges", "tcp/22,6000:6010", 1, 1, "22 6000-6010"},
    {"OneWordPortsFirst", "22,80/tcp", 1, 1, "22 80"},
    {"OneWordBoth", "both/53", 1, 3, "53"},
    {"OneWordBothPortFirst", "53/tcp/udp", 1, 3, "53"},
    {"OneWordTcpAndUdp", "tcp/udp/53", 1, 3, "53"},
    {"RangeWithColon", "tcp 6000:6010,80", 1, 1, "6000-6010 80"},
    {"NamedPort", "tcp port 22", 1, 1, "22"},
    {"LowestAndHighest", "tcp 0,65535,0-65535", 1, 1, "0 65535 0-65535"},
    {"MoreThanOneMatchTakes", "udp 1,2,3,4,5,6,7,8,9", 1, 2, "1 2 3 4 5 6 7 8 9"},
    // iptables reads 010 as 8.
    {"LeadingZeros", "tcp 010,0022-0080", 1, 1, "10 22-80"},
    {"RangeOfOne", "tcp 80-80", 1, 1, "80"},
    // A rule without a list would yield no line.
    {"EveryTcpPort", "tcp", 1, 1, "0-65535"},
    {"EveryPort", "both", 1, 3, "0-65535"},
    {"Icmp", "icmp", 1, 4, ""},
    {"Igmp", "igmp", 1, 32, ""},
    {"Any", "any", 3, 1, ""},
    {"Everything", "everything", 3, 1, ""},
    {"Nothing", "", 3, 1, ""},
    {"TcpService", "service smb", 0, 1, "smb"},
    {"UdpService", "service ntp", 0, 2, "ntp"},
    {"ServiceOfBoth", "service dns", 0, 3, "dns"},
    {"ServicesOfBoth", "service dns,sip", 0, 3, "dns sip"},
    {"TcpServices", "service http,https", 0, 1, "http https"},
    {"TcpAndUdpServices", "service ssh,ntp", 0, 3, "ssh ntp"},
    // A part that allows both families does not count beside one that allows only one.
    {"TcpServiceAndOneOfBoth", "service dns,ssh", 0, 1, "dns ssh"},
    {"UdpServiceAndOneOfBoth", "service ntp,dns", 0, 2, "ntp dns"},
    {"ServiceTwice", "service ssh,smb,ssh", 0, 1, "ssh smb"},
};

class WhatTest : public ::testing::TestWithParam<WhatCase> {
protected:
    static void expectPorts(const FWRULE& rule) {
        EXPECT_EQ(rule.portGroup, GetParam().portGroup);
        EXPECT_EQ(rule.protocol, GetParam().protocol);
        EXPECT_EQ(joined(rule.portList), GetParam().portList);
    }
};

TEST_P(WhatTest, EndsTheRule) {
    const FWRULE rule = ruleOf(std::string("allow ") + GetParam().words);
    expectPorts(rule);
    EXPECT_EQ(rule.policy, FW::FW_POLICY_ALLOW);
    EXPECT_EQ(rule.ipGroup, 5);
    EXPECT_EQ(rule.ipType, 2);
    EXPECT_EQ(rule.ipDirect, 1);
}

TEST_P(WhatTest, StandsBeforeAnAddress) {
    const FWRULE rule = ruleOf(std::string("deny ") + GetParam().words + " to 10.0.0.1");
    expectPorts(rule);
    EXPECT_EQ(rule.policy, FW::FW_POLICY_DENY);
    EXPECT_EQ(rule.ipGroup, 0);
    EXPECT_EQ(rule.ipDirect, 0);
}

INSTANTIATE_TEST_SUITE_P(RuleSyntax, WhatTest, ValuesIn(kWhats), caseName<WhatCase>);

// ---- Addresses ----

struct AddressCase {
    const char* name;
    const char* words;
    std::int32_t ipGroup;
    std::int32_t ipType;
    const char* ipList;
};

void PrintTo(const AddressCase& c, std::ostream* out) {
    *out << c.words;
}

const AddressCase kAddresses[] = {
    {"Anywhere", "anywhere", 5, 2, ""},
    {"Any", "any", 5, 2, ""},
    {"V4", "192.168.1.20", 0, 0, "192.168.1.20"},
    {"V6", "2001:db8::1", 0, 1, "2001:db8::1"},
    {"V6WrittenLong", "2001:0DB8:0:0:0:0:0:1", 0, 1, "2001:db8::1"},
    {"V4Prefix", "192.168.1.0/24", 1, 0, "192.168.1.0 255.255.255.0"},
    {"V4Mask", "192.168.1.0/255.255.255.0", 1, 0, "192.168.1.0 255.255.255.0"},
    // The kernel ignores these bits, so the stored address is the one that matches.
    {"V4HostBits", "192.168.1.77/20", 1, 0, "192.168.0.0 255.255.240.0"},
    {"V4One", "10.0.0.1/32", 1, 0, "10.0.0.1 255.255.255.255"},
    {"V4All", "0.0.0.0/0", 1, 0, "0.0.0.0 0.0.0.0"},
    {"V6Prefix", "2001:db8:1::/64", 1, 1, "2001:db8:1:: 64"},
    {"V6HostBits", "fe80::1/10", 1, 1, "fe80:: 10"},
    {"V6All", "::/0", 1, 1, ":: 0"},
    {"V4MaskWithGap", "10.1.2.3/255.0.255.0", 1, 0, "10.0.2.0 255.0.255.0"},
    {"V6MaskWithGap", "2001:db8:1::/ffff:0:ffff::", 1, 1, "2001:0:1:: ffff:0:ffff::"},
    {"V6Mask", "2001:db8::1/ffff:ffff::", 1, 1, "2001:db8:: 32"},
    {"ShortNetwork", "10.1/16", 1, 0, "10.1.0.0 255.255.0.0"},
    {"HexadecimalLength", "10.0.0.0/0x8", 1, 0, "10.0.0.0 255.0.0.0"},
    {"V4Range", "10.0.0.5-10.0.0.9", 4, 0, "10.0.0.5 10.0.0.9"},
    {"V6Range", "2001:db8::5-2001:db8::9", 4, 1, "2001:db8::5 2001:db8::9"},
    {"RangeOfOne", "10.0.0.5-10.0.0.5", 4, 0, "10.0.0.5 10.0.0.5"},
    {"Country", "country CN", 3, 2, "CN"},
    {"Countries", "country CN,RU", 3, 2, "CN RU"},
    {"SmallLetters", "country cn,Ru", 3, 2, "CN RU"},
    {"CapitalLetters", "COUNTRY CN", 3, 2, "CN"},
    {"CountryTwice", "country CN,cn", 3, 2, "CN"},
    {"CountryOfTheOtherFamily", "country SE", 3, 2, "SE"},
};

class AddressTest : public ::testing::TestWithParam<AddressCase> {
protected:
    static void expectAddress(const FWRULE& rule) {
        EXPECT_EQ(rule.ipGroup, GetParam().ipGroup);
        EXPECT_EQ(rule.ipType, GetParam().ipType);
        EXPECT_EQ(joined(rule.ipList), GetParam().ipList);
    }
};

TEST_P(AddressTest, IsTheSenders) {
    const FWRULE rule = ruleOf(std::string("deny from ") + GetParam().words);
    expectAddress(rule);
    EXPECT_EQ(rule.ipDirect, 1);
    EXPECT_EQ(rule.portGroup, 3);
}

TEST_P(AddressTest, IsTheReceivers) {
    const FWRULE rule = ruleOf(std::string("deny udp 53 to ") + GetParam().words);
    expectAddress(rule);
    EXPECT_EQ(rule.ipDirect, 0);
    EXPECT_EQ(rule.portGroup, 1);
}

INSTANTIATE_TEST_SUITE_P(RuleSyntax, AddressTest, ValuesIn(kAddresses), caseName<AddressCase>);

// ---- Options ----

TEST(RuleOptionsTest, NarrowTheFamily) {
    for (const char* const words : {"allow tcp 22", "deny from anywhere", "deny from country DE"}) {
        EXPECT_EQ(ruleOf(words, onlyV4()).ipType, 0) << words;
        EXPECT_EQ(ruleOf(words, onlyV6()).ipType, 1) << words;
        EXPECT_EQ(ruleOf(words).ipType, 2) << words;
    }
    EXPECT_EQ(ruleOf("deny from 10.0.0.0/8", onlyV4()).ipType, 0);
    EXPECT_EQ(ruleOf("deny from ::1", onlyV6()).ipType, 1);
}

TEST(RuleSyntaxTest, AnAdapterAmongTheWordsHasARemedy) {
    for (const char* const line : {"allow on eth0", "allow tcp 22 on eth0", "allow tcp 22 off"}) {
        try {
            (void)ruleOf(line);
            ADD_FAILURE() << line;
        } catch (const tarnfw::Error& error) {
            const bool on = std::string(line).find(" on ") != std::string::npos;
            EXPECT_EQ(error.remedy() == tarnfw::Remedy::kGiveAdapterApart, on) << line;
        }
    }
}

TEST(RuleOptionsTest, MustNotSpeakOfAnotherFamilyThanTheAddress) {
    EXPECT_EQ(complaintAbout("deny from 10.0.0.0/8", onlyV6()),
              "\"10.0.0.0/8\" is an IPv4 address, but the rule is for IPv6 only");
    EXPECT_EQ(complaintAbout("deny from 10.0.0.1", onlyV6()),
              "\"10.0.0.1\" is an IPv4 address, but the rule is for IPv6 only");
    EXPECT_EQ(complaintAbout("deny from ::1-::2", onlyV4()),
              "\"::1-::2\" is an IPv6 address, but the rule is for IPv4 only");
    EXPECT_EQ(complaintAbout("deny from country CN", onlyV6()),
              "\"CN\" is not a country with IPv6 data (two letters, such as DE)");
    EXPECT_EQ(complaintAbout("deny from country SE", onlyV4()),
              "\"SE\" is not a country with IPv4 data (two letters, such as CN)");
}

TEST(RuleOptionsTest, FillTheRest) {
    RuleOptions options;
    options.sourcePort = true;
    options.out = true;
    options.log = true;
    options.disabled = true;
    options.name = "two words";
    options.labels = {"one", "two"};
    const FWRULE rule = ruleOf("deny udp 123", options);
    EXPECT_EQ(rule.portDirect, 1);
    EXPECT_EQ(rule.adapterDirect, 0);
    EXPECT_TRUE(rule.blLog);
    EXPECT_FALSE(rule.enable);
    EXPECT_EQ(rule.name, "two words");
    EXPECT_EQ(rule.labelList, (Texts{"one", "two"}));
}

TEST(RuleOptionsTest, LeaveARuleAsItIsMade) {
    const FWRULE rule = ruleOf("deny udp 123");
    const FWRULE fresh;
    EXPECT_EQ(rule.portDirect, 0);
    EXPECT_EQ(rule.adapterDirect, 1);
    EXPECT_FALSE(rule.blLog);
    EXPECT_TRUE(rule.enable);
    EXPECT_EQ(rule.name, "");
    EXPECT_EQ(rule.table, fresh.table);
    EXPECT_EQ(rule.chainList, fresh.chainList);
    EXPECT_TRUE(rule.labelList.empty());
}

TEST(RuleOptionsTest, SourcePortsNeedPorts) {
    RuleOptions options;
    options.sourcePort = true;
    for (const char* const words :
         {"allow", "allow any", "allow icmp", "allow igmp", "allow service ssh"}) {
        EXPECT_EQ(complaintAbout(words, options),
                  "a source port needs tcp or udp and ports, such as \"udp 123\"")
            << words;
    }
}

TEST(RuleKeywordsTest, MayBeInCapitalLetters) {
    const FWRULE rule = ruleOf("DENY TCP 22 FROM 10.0.0.1");
    EXPECT_EQ(rule.policy, FW::FW_POLICY_DENY);
    EXPECT_EQ(rule.protocol, FW::FW_PORT_PROTOCOL_TCP);
    EXPECT_EQ(rule.ipList, std::vector<std::string>{"10.0.0.1"});
    EXPECT_EQ(rule.ipDirect, 1);
}

// ---- What is printed goes back in ----

TEST(RulePrintedTest, IsReadAsTheSameRule) {
    RuleOptions all;
    all.sourcePort = true;
    all.out = true;
    all.log = true;
    all.disabled = true;
    all.name = "two  words";
    RuleOptions logged = onlyV6();
    logged.log = true;
    RuleOptions named;
    named.name = "office";
    const std::vector<std::pair<const char*, RuleOptions>> cases = {
        {"allow", {}},
        {"allow tcp 22", onlyV4()},
        {"deny both 53,6000:6010 from 192.168.1.0/24", {}},
        {"allow udp", logged},
        {"deny icmp to 2001:db8::1", {}},
        {"allow service ssh,ntp from 10.0.0.5-10.0.0.9", named},
        {"deny from country CN,RU", onlyV4()},
        {"deny from 10.0.2.0/255.0.255.0", {}},
        {"deny tcp 22 to 2001:0:1::/ffff:0:ffff::", {}},
        {"deny udp 123", all},
    };
    for (const auto& [words, options] : cases) {
        const FWRULE rule = ruleOf(words, options);
        const std::string printed = tarnfw::ruleText(rule);
        // As one quoted argument, and as the shell splits it.
        for (const Texts& again : {Texts{printed}, split(printed)}) {
            FWRULE read = tarnfw::ruleFrom(again, {}, vocabulary());
            if (again.size() > 1 && options.name == all.name) {
                read.name = options.name;  // the shell keeps no two blanks
            }
            EXPECT_EQ(tarnfw::ruleText(read), printed);
            EXPECT_EQ(read.portDirect, rule.portDirect) << printed;
            EXPECT_EQ(read.portList, rule.portList) << printed;
            EXPECT_EQ(read.ipList, rule.ipList) << printed;
            EXPECT_EQ(read.ipType, rule.ipType) << printed;
            EXPECT_EQ(read.adapterDirect, rule.adapterDirect) << printed;
            EXPECT_EQ(read.enable, rule.enable) << printed;
            EXPECT_EQ(read.blLog, rule.blLog) << printed;
            EXPECT_EQ(read.name, rule.name) << printed;
        }
    }
}

TEST(RulePrintedTest, MustAgreeWithTheOptions) {
    RuleOptions named;
    named.name = "office";
    EXPECT_EQ(complaintAbout("allow tcp 22 (IPv4)", onlyV6()),
              "the rule's words and options say different address families");
    EXPECT_EQ(complaintAbout("allow tcp 22 (IPv6)", onlyV6()), "accepted");
    EXPECT_EQ(complaintAbout("allow tcp 22 \"home\"", named),
              "the rule has two names: \"home\" and \"office\"");
    EXPECT_EQ(complaintAbout("allow tcp 22 from 10.0.0.1 (IPv6)"),
              "\"10.0.0.1\" is an IPv4 address, but the rule is for IPv6 only");
}

TEST(RuleVocabularyTest, WhatItLacksIsNotKnown) {
    const auto kindOf = [](const std::string& line) {
        try {
            (void)ruleOf(line);
        } catch (const tarnfw::Error& error) {
            return error.kind();
        }
        return tarnfw::ErrorKind::kSystem;
    };
    EXPECT_EQ(kindOf("allow service smbd"), tarnfw::ErrorKind::kNotFound);
    EXPECT_EQ(kindOf("deny from country XX"), tarnfw::ErrorKind::kNotFound);
    EXPECT_EQ(kindOf("allow tcp 99999"), tarnfw::ErrorKind::kInvalid);
}

// ---- What is refused ----

struct RefusalCase {
    const char* name;
    const char* words;
    const char* complaint;
};

void PrintTo(const RefusalCase& c, std::ostream* out) {
    *out << c.words;
}

const RefusalCase kRefusals[] = {
    {"Nothing", "", "a rule's words are missing: expected allow or deny"},
    {"NoPolicy", "tcp 22", "unexpected \"tcp\": expected allow or deny"},
    {"PolicyMistyped", "alow tcp 22",
     "unexpected \"alow\": expected allow or deny; did you mean \"allow\"?"},
    {"Reject", "reject tcp 22",
     "unexpected \"reject\": expected allow or deny; did you mean \"deny\"?"},
    {"Accept", "accept tcp 22",
     "unexpected \"accept\": expected allow or deny; did you mean \"allow\"?"},
    {"OnAnAdapter", "allow tcp 22 on eth0", "unexpected \"on\": expected from or to"},
    {"UnknownProtocol", "allow sctp 22",
     "unexpected \"sctp\": expected service, tcp, udp, tcp/udp, icmp, igmp, any, from or to"},
    {"BarePort", "allow 22",
     "unexpected \"22\": expected service, tcp, udp, tcp/udp, icmp, igmp, any, from or to; did you "
     "mean \"tcp 22\"?"},
    {"RangeAlone", "allow 6000:6010",
     "unexpected \"6000:6010\": expected service, tcp, udp, tcp/udp, icmp, igmp, any, from or to; "
     "did you mean \"tcp 6000:6010\"?"},
    {"PortlessProtocolWithPort", "allow icmp/8",
     "unexpected \"icmp/8\": expected service, tcp, udp, tcp/udp, icmp, igmp, any, from or to; did "
     "you mean \"icmp\"?"},
    {"SourceWithoutPort", "allow tcp source 22", "expected port after \"source\""},
    {"PortsOfNothing", "allow tcp port", "expected ports after \"port\""},
    {"NamedPortOfNothing", "allow tcp port from 10.0.0.1",
     "\"from\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"BareService", "allow ssh",
     "unexpected \"ssh\": expected service, tcp, udp, tcp/udp, icmp, igmp, any, from or to; did "
     "you mean \"service ssh\"?"},
    {"PortTooHigh", "allow tcp 65536",
     "\"65536\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortTooLong", "allow tcp 99999999999999999999",
     "\"99999999999999999999\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortNegative", "allow tcp 22,-1",
     "\"-1\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortSigned", "allow tcp +22",
     "\"+22\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortNamed", "allow tcp ssh",
     "\"ssh\" is not a port (0-65535) or a range of ports (6000-6010); did you mean "
     "\"service ssh\"?"},
    {"OneWordNoPort", "allow tcp/ssh",
     "\"ssh\" is not a port (0-65535) or a range of ports (6000-6010); did you mean "
     "\"service ssh\"?"},
    {"PortRangeOfTwoSigns", "allow tcp 1:-2",
     "\"1:-2\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortRangeOfThree", "allow tcp 1-2-3",
     "\"1-2-3\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortRangeOpen", "allow tcp 22-",
     "\"22-\" is not a port (0-65535) or a range of ports (6000-6010)"},
    {"PortRangeBackwards", "allow tcp 80,6010-6000",
     "the range of ports \"6010-6000\" runs backwards"},
    {"PortListWithBlank", "allow tcp 22, 80",
     "\"22,\" lacks a port next to a comma; lists contain no blanks"},
    {"PortsTwice", "allow tcp 22 80", "unexpected \"80\": expected from or to"},
    {"PortsOfIcmp", "allow icmp 8", "unexpected \"8\": expected from or to"},
    {"NoService", "allow service", "expected a service's name after \"service\""},
    {"UnknownService", "allow service smbd", "there is no service \"smbd\"; did you mean \"smb\"?"},
    {"UnknownServiceNearNone", "allow service ssh,gopher", "there is no service \"gopher\""},
    {"ServiceListOpen", "allow service ssh,",
     "\"ssh,\" lacks a service next to a comma; lists contain no blanks"},
    {"SideMistyped", "allow tcp 22 form 10.0.0.1",
     "unexpected \"form\": expected from or to; did you mean \"from\"?"},
    {"NoAddress", "allow tcp 22 from",
     "expected an address, a network, a range, \"country\" with codes, or \"anywhere\" after "
     "\"from\""},
    {"NoCode", "deny from country", "expected the codes of countries after \"country\""},
    {"Host", "allow from localhost",
     "unexpected \"localhost\": expected an address, a network, a range, \"country\" with codes, "
     "or \"anywhere\""},
    {"AnywhereMistyped", "allow from anywere",
     "unexpected \"anywere\": expected an address, a network, a range, \"country\" with codes, or "
     "\"anywhere\"; did you mean \"anywhere\"?"},
    {"AddressTooHigh", "allow from 10.0.0.256",
     "unexpected \"10.0.0.256\": expected an address, a network, a range, \"country\" with codes, "
     "or \"anywhere\""},
    {"Zone", "allow from fe80::1%eth0",
     "unexpected \"fe80::1%eth0\": expected an address, a network, a range, \"country\" with "
     "codes, or \"anywhere\""},
    {"PrefixTooLong", "allow from 10.0.0.0/33",
     "\"10.0.0.0/33\" is not a network such as 192.168.1.0/24, 192.168.1.0/255.255.255.0 or "
     "2001:db8::/64"},
    {"MaskTooHigh", "allow from 10.0.0.0/255.0.256.0",
     "\"10.0.0.0/255.0.256.0\" is not a network such as 192.168.1.0/24, "
     "192.168.1.0/255.255.255.0 or 2001:db8::/64"},
    {"NoNetworkBeforeMask", "allow from lan/0",
     "\"lan/0\" is not a network such as 192.168.1.0/24, 192.168.1.0/255.255.255.0 or "
     "2001:db8::/64"},
    {"ZoneOfNetwork", "allow from fe80::1%eth0/64",
     "\"fe80::1%eth0/64\" is not a network such as 192.168.1.0/24, 192.168.1.0/255.255.255.0 or "
     "2001:db8::/64"},
    {"V6PrefixTooLong", "allow from ::/129",
     "\"::/129\" is not a network such as 192.168.1.0/24, 192.168.1.0/255.255.255.0 or "
     "2001:db8::/64"},
    {"RangeBackwards", "allow from 10.0.0.9-10.0.0.5",
     "the range of addresses \"10.0.0.9-10.0.0.5\" runs backwards"},
    {"RangeOfTwoFamilies", "allow from 10.0.0.9-::1",
     "\"10.0.0.9-::1\" is not a range of addresses of one family, such as 10.0.0.5-10.0.0.9"},
    {"RangeOpen", "allow from 10.0.0.9-",
     "\"10.0.0.9-\" is not a range of addresses of one family, such as 10.0.0.5-10.0.0.9"},
    {"UnknownCountry", "deny from country CN,XX",
     "\"XX\" is not a country with data (two letters, such as CN)"},
    {"CountryListOpen", "deny from country ,CN",
     "\",CN\" lacks a country next to a comma; lists contain no blanks"},
    {"WordTooMany", "deny from 10.0.0.1 now", "unexpected \"now\": a rule ends with its address"},
    {"TwoSides", "deny from 10.0.0.1 to 10.0.0.2",
     "unexpected \"to\": a rule ends with its address"},
};

class RefusalTest : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(RefusalTest, NamesTheWordAndWhatWasExpected) {
    EXPECT_EQ(complaintAbout(std::string(GetParam().words)), GetParam().complaint);
}

INSTANTIATE_TEST_SUITE_P(RuleSyntax, RefusalTest, ValuesIn(kRefusals), caseName<RefusalCase>);

TEST(RefusedWordsTest, AreShownAsATerminalMaySeeThem) {
    EXPECT_EQ(complaintAbout(Texts{"allow\033[2J"}),
              "unexpected \"allow?[2J\": expected allow or deny");
}

TEST(RefusedWordsTest, AnEmptyWordIsNoPort) {
    EXPECT_EQ(complaintAbout(Texts{"allow", "tcp", ""}),
              "\"\" lacks a port next to a comma; lists contain no blanks");
}

// Not wrong usage: on another machine, or later, these words are right.
TEST(EmptyVocabularyTest, FailsForServicesAndCountriesOnly) {
    for (const char* const words : {"allow service ssh", "deny from country CN"}) {
        EXPECT_THROW((void)tarnfw::ruleFrom(split(words), {}, {}), tarnfw::Error) << words;
    }
    EXPECT_EQ(tarnfw::ruleFrom(split("allow tcp 22"), {}, {}).portList, Texts{"22"});
}

// ---- Round trip ----

// A rule's text, without the family that follows from the address, is read as the same rule.
TEST(RoundTripTest, ThePrintedRuleIsTheRule) {
    for (const WhatCase& what : kWhats) {
        for (const AddressCase& address : kAddresses) {
            const FWRULE rule =
                ruleOf(std::string("deny ") + what.words + " from " + address.words);
            const std::string text = tarnfw::ruleText(rule);
            const FWRULE again = ruleOf(text.substr(0, text.find(" (IPv")));
            EXPECT_EQ(tarnfw::ruleText(again), text);
            EXPECT_EQ(again.protocol, rule.protocol) << text;
            EXPECT_EQ(again.portList, rule.portList) << text;
            EXPECT_EQ(again.ipList, rule.ipList) << text;
            EXPECT_EQ(again.ipType, rule.ipType) << text;
        }
    }
}

}  // namespace
