// From a rule to its lines: the fragments of each option, and their combinations.

#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <json/json.h>

#include "fwIptables_testing.h"
#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwIptables.h"

namespace {

using FW::FWRULE;
using FW::TARNFW_IPTABLES_RULES;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

// A rule that matches every packet of both families: every test sets what it is about.
FWRULE anyPacket() {
    FWRULE rule;
    rule.policy = FW::FW_POLICY_DENY;
    rule.chainList = {"INPUT_FIREWALL"};
    rule.ipType = 2;
    rule.ipGroup = 5;
    rule.portGroup = 3;
    return rule;
}

FWRULE withPorts(std::int32_t protocol, std::int32_t direction, const Texts& ports) {
    FWRULE rule = anyPacket();
    rule.portGroup = 1;
    rule.protocol = protocol;
    rule.portDirect = direction;
    rule.portList = ports;
    return rule;
}

FWRULE withAddress(std::int32_t type, std::int32_t direction, std::int32_t group,
                   const Texts& addresses) {
    FWRULE rule = anyPacket();
    rule.ipType = type;
    rule.ipDirect = direction;
    rule.ipGroup = group;
    rule.ipList = addresses;
    return rule;
}

class RuleTest : public LibraryTest {
protected:
    // Gives a country a database file of the smallest size that counts.
    void addCountryFile(const std::string& name) { writeFile(kGeoipDir + name, "8 bytes."); }

    // The lines of one rule on `adapter`, as a whole document.
    Json::Value commandsOf(const std::string& adapter, const FWRULE& rule) {
        TARNFW_IPTABLES_RULES translator;
        Json::Value arg = emptyArgument();
        Json::Value out;
        EXPECT_TRUE(translator.FwRuleToIptablesArg(adapter, rule, arg));
        translator.iptablesArgToCmd(adapter, rule, arg, out);
        return out;
    }
};

// ---- The policy ----

struct PolicyCase {
    std::string name;
    std::int32_t policy;
    bool converts;
    Texts targets;
    Texts log;
};

std::ostream& operator<<(std::ostream& stream, const PolicyCase& c) {
    return stream << c.name;
}

const PolicyCase kPolicies[] = {
    {"AllowReturns", 0, true, {"-j RETURN"}, {}},
    {"DenyDrops", 1, true, {"-j DROP"}, {}},
    {"NoneHasNoTargetAndSucceeds", 2, true, {}, {}},
    {"MixedIsUnknown", 3, false, {}, {"err fwIptables: Unknown policy 3"}},
    {"AllowSomeIsUnknown", 4, false, {}, {"err fwIptables: Unknown policy 4"}},
    {"DenySomeIsUnknown", 5, false, {}, {"err fwIptables: Unknown policy 5"}},
    {"NegativeIsUnknown", -1, false, {}, {"err fwIptables: Unknown policy -1"}},
};

class PolicyTest : public RuleTest, public ::testing::WithParamInterface<PolicyCase> {};

TEST_P(PolicyTest, BecomesExactlyThisTarget) {
    FWRULE rule = anyPacket();
    rule.policy = static_cast<FW::FW_POLICY>(GetParam().policy);
    Json::Value arg = emptyArgument();

    EXPECT_EQ(TARNFW_IPTABLES_RULES().policyToIptablesArg(rule, arg), GetParam().converts);

    Json::Value expected = emptyArgument();
    for (const std::string& target : GetParam().targets) {
        expected["policy"].append(target);
    }
    EXPECT_EQ(arg, expected);
    EXPECT_EQ(logLines(platform_), GetParam().log);
}

INSTANTIATE_TEST_SUITE_P(Policies, PolicyTest, ValuesIn(kPolicies),
                         [](const auto& tested) { return tested.param.name; });

// ---- Chains and table ----

TEST_F(RuleTest, ChainsAreAppendedInByteOrder) {
    FWRULE rule = anyPacket();
    rule.chainList = {"b", "INPUT_FIREWALL", "FORWARD_FIREWALL", "a b"};
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().chainToIptablesArg(rule, arg));

    EXPECT_THAT(texts(arg["chain"]),
                ElementsAre("-A FORWARD_FIREWALL", "-A INPUT_FIREWALL", "-A a b", "-A b"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RuleTest, NoChainSucceedsAndAddsNothing) {
    FWRULE rule = anyPacket();
    rule.chainList.clear();
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().chainToIptablesArg(rule, arg));

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RuleTest, TableIsOneEntry) {
    FWRULE rule = anyPacket();
    Json::Value arg = emptyArgument();
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().tableToIptablesArg(rule, arg));
    EXPECT_THAT(texts(arg["table"]), ElementsAre("-t filter"));

    rule.table = "nat";
    arg = emptyArgument();
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().tableToIptablesArg(rule, arg));
    EXPECT_THAT(texts(arg["table"]), ElementsAre("-t nat"));
}

TEST_F(RuleTest, EmptyTableStillIsOneEntry) {
    FWRULE rule = anyPacket();
    rule.table.clear();
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().tableToIptablesArg(rule, arg));

    EXPECT_THAT(texts(arg["table"]), ElementsAre("-t "));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

// ---- Addresses ----

struct AddressCase {
    std::string name;
    std::int32_t type;
    std::int32_t direction;
    std::int32_t group;
    Texts addresses;
    Texts v4;
    Texts v6;
};

std::ostream& operator<<(std::ostream& stream, const AddressCase& c) {
    return stream << c.name;
}

// The database of these cases has CN and RU for IPv4, RU and DE for IPv6.
const AddressCase kAddresses[] = {
    {"OneSourceIpv4", 0, 1, 0, {"10.0.0.1"}, {"-s 10.0.0.1"}, {}},
    {"OneSourceIpv6", 1, 1, 0, {"fe80::1"}, {}, {"-s fe80::1"}},
    {"OneSourceBothFamilies", 2, 1, 0, {"name"}, {"-s name"}, {"-s name"}},
    {"OneDestinationIpv4", 0, 0, 0, {"10.0.0.1"}, {"-d 10.0.0.1"}, {}},
    {"OneDestinationIpv6", 1, 0, 0, {"fe80::1"}, {}, {"-d fe80::1"}},
    {"NegativeDirectionIsSource", 0, -1, 0, {"10.0.0.1"}, {"-s 10.0.0.1"}, {}},
    {"DirectionTwoIsSource", 0, 2, 0, {"10.0.0.1"}, {"-s 10.0.0.1"}, {}},
    {"FurtherEntriesOfOneAddressAreIgnored", 0, 1, 0, {"a", "b", "c"}, {"-s a"}, {}},
    {"OneAddressMissingReadsAsEmpty", 2, 0, 0, {}, {"-d "}, {"-d "}},
    {"FamilyOutsideTheListMatchesNothing", 3, 1, 0, {"10.0.0.1"}, {}, {}},
    {"NegativeFamilyMatchesNothing", -1, 1, 0, {"10.0.0.1"}, {}, {}},

    {"NetworkSource", 0, 1, 1, {"10.0.0.0", "255.0.0.0"}, {"-s 10.0.0.0/255.0.0.0"}, {}},
    {"NetworkDestination", 1, 0, 1, {"fe80::", "64"}, {}, {"-d fe80::/64"}},
    {"NetworkBothFamilies", 2, 1, 1, {"a", "b"}, {"-s a/b"}, {"-s a/b"}},
    {"NetworkWithoutMask", 0, 1, 1, {"10.0.0.0"}, {"-s 10.0.0.0/"}, {}},
    {"NetworkWithoutAnything", 0, 0, 1, {}, {"-d /"}, {}},

    {"NoAddressIpv4", 0, 1, 2, {"10.0.0.1"}, {}, {}},
    {"NoAddressBothFamilies", 2, 0, 2, {"10.0.0.1"}, {}, {}},

    {"CountriesSource", 0, 1, 3, {"CN", "RU"}, {"-m geoip --source-country CN,RU"}, {}},
    {"CountriesDestination", 0, 0, 3, {"CN"}, {"-m geoip --destination-country CN"}, {}},
    {"CountriesKeepTheirOrder", 0, 1, 3, {"RU", "CN"}, {"-m geoip --source-country RU,CN"}, {}},
    {"CountriesByFamily",
     2,
     1,
     3,
     {"CN", "RU", "DE"},
     {"-m geoip --source-country CN,RU"},
     {"-m geoip --source-country RU,DE"}},
    {"CountriesOfIpv6Alone", 1, 0, 3, {"RU"}, {}, {"-m geoip --destination-country RU"}},
    {"UnknownCountriesAreLeftOut",
     0,
     1,
     3,
     {"XX", "CN", "YY"},
     {"-m geoip --source-country CN"},
     {}},
    {"FamilyWithoutUsableCountryGetsNoEntry",
     2,
     1,
     3,
     {"CN"},
     {"-m geoip --source-country CN"},
     {}},
    {"NoUsableCountryAtAll", 2, 1, 3, {"XX"}, {}, {}},

    {"RangeSource",
     0,
     1,
     4,
     {"10.0.0.1", "10.0.0.9"},
     {"-m iprange --src-range 10.0.0.1-10.0.0.9"},
     {}},
    {"RangeDestination", 1, 0, 4, {"::1", "::9"}, {}, {"-m iprange --dst-range ::1-::9"}},
    {"RangeBothFamilies",
     2,
     0,
     4,
     {"a", "b", "c"},
     {"-m iprange --dst-range a-b"},
     {"-m iprange --dst-range a-b"}},
    {"RangeWithoutEnd", 0, 1, 4, {"10.0.0.1"}, {"-m iprange --src-range 10.0.0.1-"}, {}},
    {"RangeWithoutAnything", 0, 1, 4, {}, {"-m iprange --src-range -"}, {}},

    {"AnyAddressIpv4FillsBoth", 0, 1, 5, {"10.0.0.1"}, {""}, {""}},
    {"AnyAddressIpv6FillsBoth", 1, 0, 5, {}, {""}, {""}},
    {"AnyAddressBoth", 2, 1, 5, {}, {""}, {""}},
    {"AnyAddressOfNoFamilyFillsBoth", 9, 1, 5, {}, {""}, {""}},
};

class AddressTest : public RuleTest, public ::testing::WithParamInterface<AddressCase> {};

TEST_P(AddressTest, BecomesExactlyTheseMatches) {
    const AddressCase& c = GetParam();
    for (const char* file : {"CN.iv4", "RU.iv4", "RU.iv6", "DE.iv6"}) {
        addCountryFile(file);
    }
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().ipToIptablesArg(
        withAddress(c.type, c.direction, c.group, c.addresses), arg));

    EXPECT_EQ(texts(arg["ip"]["v4"]), c.v4);
    EXPECT_EQ(texts(arg["ip"]["v6"]), c.v6);
    Json::Value others = arg;
    others["ip"] = emptyArgument()["ip"];
    EXPECT_EQ(others, emptyArgument());
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Addresses, AddressTest, ValuesIn(kAddresses),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(RuleTest, NoAddressMakesNoMember) {
    Json::Value arg;
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().ipToIptablesArg(withAddress(2, 1, 2, {"10.0.0.1"}), arg));
    EXPECT_TRUE(arg.isNull()) << arg;
    EXPECT_TRUE(TARNFW_IPTABLES_RULES().ipToIptablesArg(withAddress(1, 1, 0, {"fd00::1"}), arg));
    EXPECT_EQ(arg, parseJson(R"({"ip": {"v6": ["-s fd00::1"]}})"));
}

TEST_F(RuleTest, EmptyCountryCodeWithDataKeepsItsPlaceInTheList) {
    addCountryFile(".iv4");
    addCountryFile("CN.iv4");
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().ipToIptablesArg(withAddress(0, 1, 3, {"", "CN"}), arg));

    EXPECT_THAT(texts(arg["ip"]["v4"]), ElementsAre("-m geoip --source-country ,CN"));
}

TEST_F(RuleTest, EmptyCountryListIsLoggedByTheDatabaseForEachFamilyAndIsNoFailure) {
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().ipToIptablesArg(withAddress(2, 1, 3, {}), arg));

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(logLines(platform_), ElementsAre("err fwGeoip: There are no country",
                                                 "err fwGeoip: There are no country"));
}

TEST_F(RuleTest, UnknownAddressGroupIsLoggedOnceARuleAndSucceeds) {
    for (const std::int32_t group : {6, -1, 1000}) {
        for (const std::int32_t type : {0, 1, 2}) {
            platform_.clearLog();
            Json::Value arg = emptyArgument();

            EXPECT_TRUE(
                TARNFW_IPTABLES_RULES().ipToIptablesArg(withAddress(type, 1, group, {"a"}), arg));

            EXPECT_EQ(arg, emptyArgument());
            EXPECT_THAT(logLines(platform_),
                        ElementsAre("err fwIptables: Unknown ip group " + std::to_string(group)));
        }
    }
}

TEST_F(RuleTest, AddressesAreAppendedToWhatIsThere) {
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(translator.ipToIptablesArg(withAddress(0, 1, 0, {"10.0.0.1"}), arg));
    EXPECT_TRUE(translator.ipToIptablesArg(withAddress(2, 0, 0, {"x"}), arg));

    EXPECT_THAT(texts(arg["ip"]["v4"]), ElementsAre("-s 10.0.0.1", "-d x"));
    EXPECT_THAT(texts(arg["ip"]["v6"]), ElementsAre("-d x"));
}

// ---- Ports ----

struct PortCase {
    std::string name;
    std::int32_t protocol;
    std::int32_t direction;
    Texts ports;
    Texts fragments;
};

std::ostream& operator<<(std::ostream& stream, const PortCase& c) {
    return stream << c.name;
}

const PortCase kPorts[] = {
    {"TcpDestination", 1, 0, {"80"}, {"-p tcp --dport 80"}},
    {"TcpSource", 1, 1, {"80"}, {"-p tcp --sport 80"}},
    {"UdpDestination", 2, 0, {"53"}, {"-p udp --dport 53"}},
    {"UdpSource", 2, 1, {"53"}, {"-p udp --sport 53"}},
    {"NegativeDirectionIsSource", 1, -1, {"80"}, {"-p tcp --sport 80"}},
    {"DirectionTwoIsSource", 1, 2, {"80", "81"}, {"-p tcp -m multiport --sports 80,81"}},
    {"BothProtocolsTcpFirst", 3, 0, {"53"}, {"-p tcp --dport 53", "-p udp --dport 53"}},

    {"SeveralWithRange",
     1,
     0,
     {"80", "443", "6000-6010"},
     {"-p tcp -m multiport --dports 80,443,6000:6010"}},
    {"SeveralWithRangeBothProtocols",
     3,
     0,
     {"80", "443", "6000-6010"},
     {"-p tcp -m multiport --dports 80,443,6000:6010",
      "-p udp -m multiport --dports 80,443,6000:6010"}},
    {"TwoEqualEntriesStayTwo", 1, 0, {"80", "80"}, {"-p tcp -m multiport --dports 80,80"}},

    {"LoneRangeIsMultiport", 1, 0, {"6000-6010"}, {"-p tcp -m multiport --dports 6000:6010"}},
    {"LoneRangeSource", 2, 1, {"6000-6010"}, {"-p udp -m multiport --sports 6000:6010"}},
    {"EqualEndsBecomeOnePort", 1, 0, {"80-80"}, {"-p tcp -m multiport --dports 80"}},
    {"EqualEndsAmongOthers",
     1,
     0,
     {"22", "80-80", "90-91"},
     {"-p tcp -m multiport --dports 22,80,90:91"}},
    {"EndsAreComparedAsTexts", 1, 0, {"80-080"}, {"-p tcp -m multiport --dports 80:080"}},
    {"SeveralDashesAreSplitAtTheFirst", 1, 0, {"1-2-3"}, {"-p tcp -m multiport --dports 1:2:3"}},
    {"EqualPartsOfSeveralDashesStay",
     1,
     0,
     {"80-80-80"},
     {"-p tcp -m multiport --dports 80:80:80"}},
    {"FirstTwoPartsEqualStay", 1, 0, {"80-80-90"}, {"-p tcp -m multiport --dports 80:80:90"}},
    {"DoubleDash", 1, 0, {"80--80"}, {"-p tcp -m multiport --dports 80::80"}},
    {"OpenStart", 1, 0, {"-80"}, {"-p tcp -m multiport --dports :80"}},
    {"OpenEnd", 1, 0, {"80-"}, {"-p tcp -m multiport --dports 80:"}},
    {"LoneDashHasEqualEmptyEnds", 1, 0, {"-"}, {"-p tcp -m multiport --dports "}},
    {"EmptyEntryIsTakenAsItIs", 1, 0, {""}, {"-p tcp --dport "}},
    {"EmptyEntryAmongOthers", 1, 0, {"", "80", ""}, {"-p tcp -m multiport --dports ,80,"}},
    {"TextsAreNotChecked", 1, 0, {"http"}, {"-p tcp --dport http"}},

    {"SevenEntriesAreOneGroup",
     1,
     0,
     {"1", "2", "3", "4", "5", "6", "7"},
     {"-p tcp -m multiport --dports 1,2,3,4,5,6,7"}},
    {"EighthEntryOpensAGroupThatStaysMultiport",
     1,
     1,
     {"1", "2", "3", "4", "5", "6", "7", "8"},
     {"-p tcp -m multiport --sports 1,2,3,4,5,6,7", "-p tcp -m multiport --sports 8"}},
    {"NineEntriesAreSevenAndTwo",
     2,
     0,
     {"1", "2", "3", "4", "5", "6", "7", "8", "9"},
     {"-p udp -m multiport --dports 1,2,3,4,5,6,7", "-p udp -m multiport --dports 8,9"}},
    {"GroupsOfBothProtocols",
     3,
     0,
     {"1", "2", "3", "4", "5", "6", "7", "8", "9"},
     {"-p tcp -m multiport --dports 1,2,3,4,5,6,7", "-p tcp -m multiport --dports 8,9",
      "-p udp -m multiport --dports 1,2,3,4,5,6,7", "-p udp -m multiport --dports 8,9"}},
    {"SevenRangesAreOneGroup",
     1,
     0,
     {"1-2", "3-4", "5-6", "7-8", "9-10", "11-12", "13-14"},
     {"-p tcp -m multiport --dports 1:2,3:4,5:6,7:8,9:10,11:12,13:14"}},
    {"FourteenEntriesAreTwoGroups",
     1,
     0,
     {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14"},
     {"-p tcp -m multiport --dports 1,2,3,4,5,6,7",
      "-p tcp -m multiport --dports 8,9,10,11,12,13,14"}},
    {"FifteenEntriesAreThreeGroups",
     1,
     0,
     {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14", "15-16"},
     {"-p tcp -m multiport --dports 1,2,3,4,5,6,7",
      "-p tcp -m multiport --dports 8,9,10,11,12,13,14", "-p tcp -m multiport --dports 15:16"}},

    {"NoPortsNoFragmentTcp", 1, 0, {}, {}},
    {"NoPortsNoFragmentUdp", 2, 1, {}, {}},
    {"NoPortsNoFragmentBoth", 3, 0, {}, {}},

    {"IcmpForBothFamilies", 4, 0, {"80", "81"}, {"-p icmp ", "-p icmpv6 "}},
    {"IcmpNeedsNoPorts", 4, 1, {}, {"-p icmp ", "-p icmpv6 "}},
    {"Igmp", 32, 0, {"80"}, {"-p igmp "}},
    {"IgmpNeedsNoPorts", 32, 1, {}, {"-p igmp "}},
    {"ProtocolZero", 0, 0, {"80"}, {}},
    {"ProtocolFive", 5, 0, {"80"}, {}},
    {"ProtocolSeventeenIsNoCode", 17, 0, {"80"}, {}},
    {"ProtocolThirtyOne", 31, 0, {"80"}, {}},
    {"ProtocolThirtyThree", 33, 0, {"80"}, {}},
    {"ProtocolNegative", -1, 0, {"80"}, {}},
};

class PortTest : public RuleTest, public ::testing::WithParamInterface<PortCase> {};

TEST_P(PortTest, BecomesExactlyTheseFragments) {
    const PortCase& c = GetParam();
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().portToIptablesArg(
        withPorts(c.protocol, c.direction, c.ports), arg));

    EXPECT_EQ(texts(arg["port"]), c.fragments);
    arg["port"] = Json::Value(Json::arrayValue);
    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(logLines(platform_), IsEmpty());
    EXPECT_THAT(platform_.journal, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Ports, PortTest, ValuesIn(kPorts),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(RuleTest, AnyPortIsOneEmptyFragmentWhateverTheProtocol) {
    for (const std::int32_t protocol : {0, 1, 2, 3, 4, 32}) {
        FWRULE rule = withPorts(protocol, 1, {"80", "81"});
        rule.portGroup = 3;
        Json::Value arg = emptyArgument();

        EXPECT_TRUE(TARNFW_IPTABLES_RULES().portToIptablesArg(rule, arg));

        EXPECT_THAT(texts(arg["port"]), ElementsAre("")) << protocol;
    }
    EXPECT_THAT(platform_.journal, IsEmpty());
}

TEST_F(RuleTest, PortGroupsZeroAndTwoNameServices) {
    platform_.services["ssh"] = {"Secure shell", 1, {"22"}, 0, {}};
    for (const std::int32_t group : {0, 2}) {
        FWRULE rule = withPorts(2, 1, {"ssh"});
        rule.portGroup = group;
        Json::Value arg = emptyArgument();

        EXPECT_TRUE(TARNFW_IPTABLES_RULES().portToIptablesArg(rule, arg));

        // The protocol and the side are the service's, not the rule's.
        EXPECT_THAT(texts(arg["port"]), ElementsAre("-p tcp --dport 22")) << group;
    }
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RuleTest, ServicesWithoutCatalogueFail) {
    platform_.servicesResult = 0;
    for (const std::int32_t group : {0, 2}) {
        platform_.clearLog();
        FWRULE rule = withPorts(1, 0, {"ssh"});
        rule.portGroup = group;
        Json::Value arg = emptyArgument();

        EXPECT_FALSE(TARNFW_IPTABLES_RULES().portToIptablesArg(rule, arg));

        EXPECT_EQ(arg, emptyArgument());
        EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services",
                                                     "err fwIptables: Failed to servToPorts()",
                                                     "err fwIptables: Failed to servPortToCmd()"));
    }
}

TEST_F(RuleTest, UnknownPortGroupIsLoggedAddsNothingAndSucceeds) {
    for (const std::int32_t group : {4, -1, 99}) {
        platform_.clearLog();
        FWRULE rule = withPorts(1, 0, {"80"});
        rule.portGroup = group;
        Json::Value arg = emptyArgument();

        EXPECT_TRUE(TARNFW_IPTABLES_RULES().portToIptablesArg(rule, arg));

        EXPECT_EQ(arg, emptyArgument());
        EXPECT_THAT(logLines(platform_),
                    ElementsAre("err fwIptables: Unknown port group " + std::to_string(group)));
    }
}

// ---- The whole argument document ----

TEST_F(RuleTest, ArgumentDocumentHoldsEveryOption) {
    FWRULE rule = withAddress(2, 0, 1, {"net", "mask"});
    rule.adapterDirect = 0;
    rule.chainList = {"INPUT_FIREWALL", "FORWARD_FIREWALL"};
    rule.portGroup = 1;
    rule.protocol = 3;
    rule.portDirect = 1;
    rule.portList = {"22"};
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(TARNFW_IPTABLES_RULES().FwRuleToIptablesArg("eth0", rule, arg));

    EXPECT_EQ(arg, parseJson(R"({
        "adapter": ["-o eth0"],
        "ip": {"v4": ["-d net/mask"], "v6": ["-d net/mask"]},
        "port": ["-p tcp --sport 22", "-p udp --sport 22"],
        "chain": ["-A FORWARD_FIREWALL", "-A INPUT_FIREWALL"],
        "table": ["-t filter"],
        "policy": ["-j DROP"]})"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

TEST_F(RuleTest, FailedAdapterStopsTheDocumentBeforeAnythingElse) {
    FWRULE rule = withAddress(2, 1, 3, {});
    rule.portGroup = 0;
    rule.portList = {"ssh"};
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().FwRuleToIptablesArg("pppoe", rule, arg));

    EXPECT_EQ(arg, emptyArgument());
    EXPECT_THAT(platform_.journal, ElementsAre("pppoe 256"));
    EXPECT_THAT(logLines(platform_),
                ElementsAre("debug fwIptables: Failed to TARNPPPoeIntfGet()",
                            "err fwIptables: pppoe interface is empty",
                            "err fwIptables: Failed to adapterToIptablesArg()"));
}

TEST_F(RuleTest, FailedPortsStopTheDocumentBehindAdapterAndAddress) {
    platform_.servicesResult = -1;
    FWRULE rule = withAddress(2, 1, 0, {"a"});
    rule.portGroup = 0;
    rule.portList = {"ssh"};
    rule.policy = static_cast<FW::FW_POLICY>(9);
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().FwRuleToIptablesArg("eth0", rule, arg));

    EXPECT_EQ(arg, parseJson(R"({
        "adapter": ["-i eth0"], "ip": {"v4": ["-s a"], "v6": ["-s a"]},
        "port": [], "chain": [], "table": [], "policy": []})"));
    EXPECT_THAT(logLines(platform_), ElementsAre("err fwIptables: Failed to enum services",
                                                 "err fwIptables: Failed to servToPorts()",
                                                 "err fwIptables: Failed to servPortToCmd()",
                                                 "err fwIptables: Failed to portToIptablesArg()"));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(RuleTest, FailedPolicyLeavesAllOtherFragments) {
    FWRULE rule = anyPacket();
    rule.policy = static_cast<FW::FW_POLICY>(9);
    Json::Value arg = emptyArgument();

    EXPECT_FALSE(TARNFW_IPTABLES_RULES().FwRuleToIptablesArg("eth0", rule, arg));

    EXPECT_EQ(arg, parseJson(R"({
        "adapter": ["-i eth0"], "ip": {"v4": [""], "v6": [""]}, "port": [""],
        "chain": ["-A INPUT_FIREWALL"], "table": ["-t filter"], "policy": []})"));
    EXPECT_THAT(logLines(platform_),
                ElementsAre("err fwIptables: Unknown policy 9",
                            "err fwIptables: Failed to policyToIptablesArg()"));
}

TEST_F(RuleTest, CountriesWithoutDataDoNotFailTheRule) {
    Json::Value arg = emptyArgument();

    EXPECT_TRUE(
        TARNFW_IPTABLES_RULES().FwRuleToIptablesArg("eth0", withAddress(2, 1, 3, {"XX"}), arg));

    EXPECT_EQ(texts(arg["policy"]), Texts{"-j DROP"});
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

// ---- Lines ----

TEST_F(RuleTest, NetworkRuleWithLogAndBothProtocolsGivesFourLines) {
    FWRULE rule = withAddress(0, 1, 1, {"192.168.1.0", "255.255.255.0"});
    rule.portGroup = 1;
    rule.protocol = 3;
    rule.portDirect = 0;
    rule.portList = {"22"};
    rule.blLog = true;
    TARNFW_IPTABLES_RULES translator;
    Json::Value arg = emptyArgument();
    Json::Value out;

    ASSERT_TRUE(translator.FwRuleToIptablesArg("eth0", rule, arg));
    EXPECT_EQ(arg, parseJson(R"({
        "adapter": ["-i eth0"], "ip": {"v4": ["-s 192.168.1.0/255.255.255.0"], "v6": []},
        "port": ["-p tcp --dport 22", "-p udp --dport 22"],
        "chain": ["-A INPUT_FIREWALL"], "table": ["-t filter"], "policy": ["-j DROP"]})"));
    translator.iptablesArgToCmd("eth0", rule, arg, out);

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 "
                            "-p tcp --dport 22 -j LOG",
                            "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 "
                            "-p tcp --dport 22 -j DROP",
                            "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 "
                            "-p udp --dport 22 -j LOG",
                            "-t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/255.255.255.0 "
                            "-p udp --dport 22 -j DROP"));
    EXPECT_FALSE(out.isMember("v6"));
}

TEST_F(RuleTest, OptionsMultiplyTableFirstAndPortLast) {
    const Json::Value arg = parseJson(R"({
        "adapter": ["-i a1", "-i a2"],
        "ip": {"v4": ["-s p1", "-s p2"], "v6": ["-s q1"]},
        "port": ["-p tcp --dport 1", "-p udp --dport 2"],
        "chain": ["-A C1", "-A C2"], "table": ["-t t1", "-t t2"], "policy": ["-j DROP"]})");
    Json::Value out;

    TARNFW_IPTABLES_RULES().iptablesArgToCmd("key", anyPacket(), arg, out);

    EXPECT_THAT(linesOf(out, "v6", "key"),
                ElementsAre("-t t1 -A C1 -i a1 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C1 -i a1 -s q1 -p udp --dport 2 -j DROP",
                            "-t t1 -A C1 -i a2 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C1 -i a2 -s q1 -p udp --dport 2 -j DROP",
                            "-t t1 -A C2 -i a1 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C2 -i a1 -s q1 -p udp --dport 2 -j DROP",
                            "-t t1 -A C2 -i a2 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C2 -i a2 -s q1 -p udp --dport 2 -j DROP",
                            "-t t2 -A C1 -i a1 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t2 -A C1 -i a1 -s q1 -p udp --dport 2 -j DROP",
                            "-t t2 -A C1 -i a2 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t2 -A C1 -i a2 -s q1 -p udp --dport 2 -j DROP",
                            "-t t2 -A C2 -i a1 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t2 -A C2 -i a1 -s q1 -p udp --dport 2 -j DROP",
                            "-t t2 -A C2 -i a2 -s q1 -p tcp --dport 1 -j DROP",
                            "-t t2 -A C2 -i a2 -s q1 -p udp --dport 2 -j DROP"));
    const Texts v4 = linesOf(out, "v4", "key");
    ASSERT_EQ(v4.size(), 32U);
    EXPECT_THAT(Texts(v4.begin(), v4.begin() + 8),
                ElementsAre("-t t1 -A C1 -i a1 -s p1 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C1 -i a1 -s p1 -p udp --dport 2 -j DROP",
                            "-t t1 -A C1 -i a1 -s p2 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C1 -i a1 -s p2 -p udp --dport 2 -j DROP",
                            "-t t1 -A C1 -i a2 -s p1 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C1 -i a2 -s p1 -p udp --dport 2 -j DROP",
                            "-t t1 -A C1 -i a2 -s p2 -p tcp --dport 1 -j DROP",
                            "-t t1 -A C1 -i a2 -s p2 -p udp --dport 2 -j DROP"));
}

TEST_F(RuleTest, EmptyFragmentsLeaveNoBlanks) {
    const Json::Value out = commandsOf("global", anyPacket());

    EXPECT_THAT(linesOf(out, "v4", "global"), ElementsAre("-t filter -A INPUT_FIREWALL -j DROP"));
    EXPECT_THAT(linesOf(out, "v6", "global"), ElementsAre("-t filter -A INPUT_FIREWALL -j DROP"));
}

TEST_F(RuleTest, EmptyTableKeepsItsPlaceInTheLine) {
    FWRULE rule = anyPacket();
    rule.ipType = 0;
    rule.table.clear();

    EXPECT_THAT(linesOf(commandsOf("eth0", rule), "v4", "eth0"),
                ElementsAre("-t  -A INPUT_FIREWALL -i eth0 -j DROP"));
}

TEST_F(RuleTest, LogLineComesDirectlyBeforeItsLine) {
    FWRULE rule = anyPacket();
    rule.ipType = 1;
    rule.policy = FW::FW_POLICY_ALLOW;
    rule.blLog = true;
    rule.chainList = {"FORWARD_FIREWALL", "INPUT_FIREWALL"};

    EXPECT_THAT(linesOf(commandsOf("eth0", rule), "v6", "eth0"),
                ElementsAre("-t filter -A FORWARD_FIREWALL -i eth0 -j LOG",
                            "-t filter -A FORWARD_FIREWALL -i eth0 -j RETURN",
                            "-t filter -A INPUT_FIREWALL -i eth0 -j LOG",
                            "-t filter -A INPUT_FIREWALL -i eth0 -j RETURN"));
}

TEST_F(RuleTest, NoTargetWithLogGivesTheLogLineAndTheSameLineWithATrailingBlank) {
    FWRULE rule = anyPacket();
    rule.ipType = 0;
    rule.policy = FW::FW_POLICY_NONE;
    rule.blLog = true;
    rule.chainList = {"FORWARD_FIREWALL", "INPUT_FIREWALL"};

    EXPECT_THAT(linesOf(commandsOf("eth0", rule), "v4", "eth0"),
                ElementsAre("-t filter -A FORWARD_FIREWALL -i eth0 -j LOG",
                            "-t filter -A FORWARD_FIREWALL -i eth0 ",
                            "-t filter -A INPUT_FIREWALL -i eth0 -j LOG",
                            "-t filter -A INPUT_FIREWALL -i eth0 "));
}

TEST_F(RuleTest, NoTargetWithoutLogGivesTheLineWithATrailingBlank) {
    FWRULE rule = anyPacket();
    rule.ipType = 0;
    rule.policy = FW::FW_POLICY_NONE;

    EXPECT_THAT(linesOf(commandsOf("eth0", rule), "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 "));
}

TEST_F(RuleTest, OnlyTheFirstTargetCounts) {
    Json::Value arg = emptyArgument();
    arg["adapter"].append("");
    arg["ip"]["v4"].append("");
    arg["port"].append("");
    arg["chain"].append("-A C");
    arg["table"].append("-t t");
    arg["policy"].append("-j RETURN");
    arg["policy"].append("-j DROP");
    Json::Value out;

    TARNFW_IPTABLES_RULES().iptablesArgToCmd("k", anyPacket(), arg, out);

    EXPECT_THAT(linesOf(out, "v4", "k"), ElementsAre("-t t -A C -j RETURN"));
}

TEST_F(RuleTest, IcmpLinesAreIpv4AloneAndIcmpv6LinesIpv6Alone) {
    FWRULE rule = withPorts(4, 0, {});

    const Json::Value out = commandsOf("eth0", rule);

    // Two blanks: the fragment's own and the joining one.
    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p icmp  -j DROP"));
    EXPECT_THAT(linesOf(out, "v6", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j DROP"));
}

TEST_F(RuleTest, IcmpOfTheOtherFamilyLeavesNoLogLineEither) {
    FWRULE rule = withPorts(4, 0, {});
    rule.ipType = 1;
    rule.blLog = true;

    const Json::Value out = commandsOf("eth0", rule);

    EXPECT_THAT(linesOf(out, "v6", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j LOG",
                            "-t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j DROP"));
    EXPECT_FALSE(out.isMember("v4"));
}

TEST_F(RuleTest, OnlyTheExactIcmpFragmentsAreBoundToAFamily) {
    Json::Value arg = emptyArgument();
    arg["adapter"].append("");
    arg["ip"]["v4"].append("");
    arg["ip"]["v6"].append("");
    for (const char* fragment : {"-p icmp", "-p icmpv6", "-p icmp ", "-p icmpv6 "}) {
        arg["port"].append(fragment);
    }
    arg["chain"].append("-A C");
    arg["table"].append("-t t");
    arg["policy"].append("-j DROP");
    Json::Value out;

    TARNFW_IPTABLES_RULES().iptablesArgToCmd("k", anyPacket(), arg, out);

    EXPECT_THAT(linesOf(out, "v4", "k"),
                ElementsAre("-t t -A C -p icmp -j DROP", "-t t -A C -p icmpv6 -j DROP",
                            "-t t -A C -p icmp  -j DROP"));
    EXPECT_THAT(linesOf(out, "v6", "k"),
                ElementsAre("-t t -A C -p icmp -j DROP", "-t t -A C -p icmpv6 -j DROP",
                            "-t t -A C -p icmpv6  -j DROP"));
}

TEST_F(RuleTest, IgmpLinesAreMadeForBothFamilies) {
    const Json::Value out = commandsOf("eth0", withPorts(32, 0, {}));

    EXPECT_THAT(linesOf(out, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p igmp  -j DROP"));
    EXPECT_THAT(linesOf(out, "v6", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -p igmp  -j DROP"));
}

TEST_F(RuleTest, AnyAddressUsesOnlyTheFamiliesOfTheRule) {
    FWRULE rule = anyPacket();
    rule.ipType = 0;
    const Json::Value ipv4 = commandsOf("eth0", rule);
    EXPECT_THAT(linesOf(ipv4, "v4", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -j DROP"));
    EXPECT_FALSE(ipv4.isMember("v6"));

    rule.ipType = 1;
    const Json::Value ipv6 = commandsOf("eth0", rule);
    EXPECT_FALSE(ipv6.isMember("v4"));
    EXPECT_THAT(linesOf(ipv6, "v6", "eth0"),
                ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -j DROP"));
}

TEST_F(RuleTest, FamilyOutsideTheListYieldsNoLine) {
    for (const std::int32_t type : {-1, 3}) {
        FWRULE rule = anyPacket();
        rule.ipType = type;
        EXPECT_TRUE(commandsOf("eth0", rule).isNull()) << type;
    }
}

TEST_F(RuleTest, LinesAreAppendedUnderTheKeyOfTheAdapter) {
    platform_.interfaces = {"eth0", "ppp1", "tun0"};
    TARNFW_IPTABLES_RULES translator;
    FWRULE rule = anyPacket();
    rule.ipType = 0;
    Json::Value out;
    out["v4"]["vpn"].append("earlier");
    Json::Value arg = emptyArgument();
    ASSERT_TRUE(translator.FwRuleToIptablesArg("vpn", rule, arg));

    translator.iptablesArgToCmd("vpn", rule, arg, out);

    EXPECT_EQ(out, parseJson(R"({"v4": {"vpn": [
        "earlier",
        "-t filter -A INPUT_FIREWALL -i ppp1 -j DROP",
        "-t filter -A INPUT_FIREWALL -i tun0 -j DROP"]}})"));
}

// ---- Rules without lines ----

struct NoLineCase {
    std::string name;
    FWRULE rule;
    Texts log;
};

std::ostream& operator<<(std::ostream& stream, const NoLineCase& c) {
    return stream << c.name;
}

template <typename Change>
FWRULE changed(Change change) {
    FWRULE rule = anyPacket();
    rule.blLog = true;
    change(rule);
    return rule;
}

const NoLineCase kNoLines[] = {
    {"EmptyChainList", changed([](FWRULE& r) { r.chainList.clear(); }), {}},
    {"AddressGroupTwo", changed([](FWRULE& r) { r.ipGroup = 2; }), {}},
    {"CountriesWithoutData",
     changed([](FWRULE& r) {
         r.ipGroup = 3;
         r.ipList = {"XX", "YY"};
     }),
     {}},
    {"UnknownAddressGroup",
     changed([](FWRULE& r) { r.ipGroup = 6; }),
     {"err fwIptables: Unknown ip group 6"}},
    {"UnknownPortGroup",
     changed([](FWRULE& r) { r.portGroup = 4; }),
     {"err fwIptables: Unknown port group 4"}},
    {"CustomPortsWithoutPorts", changed([](FWRULE& r) { r.portGroup = 1; }), {}},
    {"UnknownProtocol",
     changed([](FWRULE& r) {
         r.portGroup = 1;
         r.protocol = 6;
         r.portList = {"80"};
     }),
     {}},
};

class NoLineTest : public RuleTest, public ::testing::WithParamInterface<NoLineCase> {};

TEST_P(NoLineTest, YieldsNoLineAndNoError) {
    EXPECT_TRUE(commandsOf("eth0", GetParam().rule).isNull());
    EXPECT_EQ(logLines(platform_), GetParam().log);
}

INSTANTIATE_TEST_SUITE_P(Rules, NoLineTest, ValuesIn(kNoLines),
                         [](const auto& tested) { return tested.param.name; });

TEST_F(RuleTest, FailedCountrySubsetCostsOnlyItsFamilyTheLines) {
    addCountryFile("CN.iv6");

    const Json::Value out = commandsOf("eth0", withAddress(2, 1, 3, {"CN"}));

    EXPECT_FALSE(out.isMember("v4"));
    EXPECT_THAT(
        linesOf(out, "v6", "eth0"),
        ElementsAre("-t filter -A INPUT_FIREWALL -i eth0 -m geoip --source-country CN -j DROP"));
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

// ---- Against a second evaluation ----

TEST_F(RuleTest, EveryListLengthProtocolAndSideAgreesWithASecondEvaluation) {
    const std::vector<Texts> alphabets = {
        {"80"},
        {"6000-6010"},
        {"80-80"},
        {"1-2-3"},
        {"80", "443-443", "6000-6010", "7-7-7", "", "-", "5-", "-5"},
    };
    for (const std::int32_t protocol : {0, 1, 2, 3, 4, 5, 31, 32, 33}) {
        for (const std::int32_t direction : {0, 1}) {
            for (const Texts& alphabet : alphabets) {
                Texts ports;
                for (std::size_t length = 0; length <= 15; ++length) {
                    Json::Value arg = emptyArgument();
                    EXPECT_TRUE(TARNFW_IPTABLES_RULES().portToIptablesArg(
                        withPorts(protocol, direction, ports), arg));
                    ASSERT_EQ(texts(arg["port"]), expectedFragments(protocol, direction, ports))
                        << "protocol " << protocol << ", direction " << direction << ", ports "
                        << joined(ports, " ");
                    ports.push_back(alphabet[length % alphabet.size()]);
                }
            }
        }
    }
}

// Draws rules from a fixed seed, so that a failure can be repeated.
class RuleSource {
public:
    std::size_t below(std::size_t limit) { return random_() % limit; }

    template <typename Value>
    Value oneOf(const std::vector<Value>& values) {
        return values[below(values.size())];
    }

    Texts someOf(const Texts& values, std::size_t most) {
        Texts drawn(below(most + 1));
        for (std::string& text : drawn) {
            text = oneOf(values);
        }
        return drawn;
    }

    FWRULE rule() {
        FWRULE rule;
        rule.adapterDirect = oneOf<std::int32_t>({0, 1});
        rule.policy =
            oneOf<FW::FW_POLICY>({FW::FW_POLICY_ALLOW, FW::FW_POLICY_DENY, FW::FW_POLICY_NONE});
        rule.blLog = below(2) == 1;
        rule.table = oneOf<std::string>({"filter", "nat", ""});
        const Texts chains = someOf({"INPUT_FIREWALL", "FORWARD_FIREWALL", "X"}, 3);
        rule.chainList = std::set<std::string>(chains.begin(), chains.end());
        rule.ipType = oneOf<std::int32_t>({0, 1, 2, 3});
        rule.ipDirect = oneOf<std::int32_t>({0, 1});
        rule.ipGroup = oneOf<std::int32_t>({0, 1, 2, 3, 4, 5, 6});
        rule.ipList = someOf({"CN", "RU", "DE", "XX"}, 4);
        rule.portDirect = oneOf<std::int32_t>({0, 1});
        rule.portGroup = oneOf<std::int32_t>({1, 1, 1, 3, 4});
        rule.protocol = oneOf<std::int32_t>({0, 1, 2, 3, 4, 5, 32});
        rule.portList = someOf({"80", "443", "22-22", "6000-6010", "1-2-3", ""}, 16);
        return rule;
    }

private:
    std::mt19937 random_{20240229};
};

// The address match of a family as (present, text).
std::pair<bool, std::string> expectedAddress(const FWRULE& rule, const std::string& family) {
    const bool source = rule.ipDirect != 0;
    const auto at = [&](std::size_t i) {
        return i < rule.ipList.size() ? rule.ipList[i] : std::string();
    };
    const std::set<std::string> known =
        family == "v4" ? std::set<std::string>{"CN", "RU"} : std::set<std::string>{"RU", "DE"};
    Texts usable;
    std::copy_if(rule.ipList.begin(), rule.ipList.end(), std::back_inserter(usable),
                 [&](const std::string& code) { return known.count(code) == 1; });
    switch (rule.ipGroup) {
        case 0:
            return {true, (source ? "-s " : "-d ") + at(0)};
        case 1:
            return {true, (source ? "-s " : "-d ") + at(0) + "/" + at(1)};
        case 3:
            return {!usable.empty(), std::string("-m geoip --") +
                                         (source ? "source" : "destination") + "-country " +
                                         joined(usable, ",")};
        case 4:
            return {true, std::string("-m iprange --") + (source ? "src" : "dst") + "-range " +
                              at(0) + "-" + at(1)};
        case 5:
            return {true, ""};
        default:
            return {false, ""};
    }
}

// The lines of a rule in one family. Every combination is made in no particular order and carries
// its place in the sequence; sorting then gives the sequence.
Texts expectedLines(const FWRULE& rule, const Texts& interfaces, const std::string& family) {
    const bool wanted = rule.ipType == 2 || rule.ipType == (family == "v4" ? 0 : 1);
    const auto [present, address] = expectedAddress(rule, family);
    if (!wanted || !present) {
        return {};
    }
    Texts ports;
    if (rule.portGroup == 3) {
        ports = {""};
    } else if (rule.portGroup == 1) {
        ports = expectedFragments(rule.protocol, rule.portDirect, rule.portList);
    }
    const std::string targets[] = {"-j RETURN", "-j DROP", ""};
    std::set<std::tuple<std::string, std::size_t, std::size_t, int, std::string>> lines;
    for (std::size_t port = 0; port < ports.size(); ++port) {
        if (ports[port] == (family == "v4" ? "-p icmpv6 " : "-p icmp ")) {
            continue;
        }
        for (std::size_t adapter = 0; adapter < interfaces.size(); ++adapter) {
            for (const std::string& chain : rule.chainList) {
                std::string line = "-t " + rule.table + " -A " + chain;
                if (!interfaces[adapter].empty()) {
                    line += (rule.adapterDirect != 0 ? " -i " : " -o ") + interfaces[adapter];
                }
                line += (address.empty() ? "" : " ") + address;
                line += (ports[port].empty() ? "" : " ") + ports[port] + " ";
                if (rule.blLog) {
                    lines.emplace(chain, adapter, port, 0, line + "-j LOG");
                }
                lines.emplace(chain, adapter, port, 1, line + targets[rule.policy]);
            }
        }
    }
    Texts sequence;
    for (const auto& entry : lines) {
        sequence.push_back(std::get<4>(entry));
    }
    return sequence;
}

TEST_F(RuleTest, RandomRulesAgreeWithASecondEvaluation) {
    for (const char* file : {"CN.iv4", "RU.iv4", "RU.iv6", "DE.iv6"}) {
        addCountryFile(file);
    }
    platform_.interfaces = {"eth0", "ppp1", "tun0"};
    const std::vector<std::pair<std::string, Texts>> adapters = {
        {"global", {""}}, {"eth0", {"eth0"}}, {"vpn", {"ppp1", "tun0"}}};
    RuleSource source;
    std::size_t compared = 0;

    for (int i = 0; i < 8000; ++i) {
        const FWRULE rule = source.rule();
        const auto adapter = source.oneOf(adapters);
        const Json::Value out = commandsOf(adapter.first, rule);

        for (const char* family : {"v4", "v6"}) {
            const Texts expected = expectedLines(rule, adapter.second, family);
            ASSERT_EQ(linesOf(out, family, adapter.first), expected)
                << "rule " << i << " on " << adapter.first << ", " << family;
            compared += expected.size();
        }
    }
    EXPECT_GT(compared, 10000U);  // most rules say something
}

}  // namespace
