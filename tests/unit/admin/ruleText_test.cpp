// Rules in plain words: every code of every field, and unknown codes.
#include "tarnfwadmin/ruleText.h"

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using FW::FW_POLICY;
using FW::FWRULE;
using ::testing::ValuesIn;

using Texts = std::vector<std::string>;

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

// ---- Policies ----

struct PolicyCase {
    const char* name;
    std::int32_t policy;
    const char* text;
};

void PrintTo(const PolicyCase& c, std::ostream* out) {
    *out << c.policy;
}

// The verdicts above 2 are no policies of a rule or an adapter.
const PolicyCase kPolicies[] = {
    {"Allow", FW::FW_POLICY_ALLOW, "allow"},
    {"Deny", FW::FW_POLICY_DENY, "deny"},
    {"None", FW::FW_POLICY_NONE, "none"},
    {"Mixed", FW::FW_POLICY_MIXED, "unknown policy 3"},
    {"AllowSome", FW::FW_POLICY_ALLOW_SOME, "unknown policy 4"},
    {"DenySome", FW::FW_POLICY_DENY_SOME, "unknown policy 5"},
    {"NextToTheLast", 6, "unknown policy 6"},
    {"Negative", -1, "unknown policy -1"},
    {"Lowest", kLowest, "unknown policy -2147483648"},
    {"Highest", kHighest, "unknown policy 2147483647"},
};

class PolicyTextTest : public ::testing::TestWithParam<PolicyCase> {};

TEST_P(PolicyTextTest, IsThisText) {
    EXPECT_EQ(tarnfw::policyText(static_cast<FW_POLICY>(GetParam().policy)), GetParam().text);
}

TEST_P(PolicyTextTest, OpensTheRule) {
    FWRULE rule;
    rule.policy = static_cast<FW_POLICY>(GetParam().policy);
    rule.ipGroup = 5;
    rule.ipType = 2;
    rule.portGroup = 3;
    EXPECT_EQ(tarnfw::ruleText(rule), std::string(GetParam().text) + " everything from anywhere");
}

INSTANTIATE_TEST_SUITE_P(All, PolicyTextTest, ValuesIn(kPolicies), caseName<PolicyCase>);

// ---- Ports ----

struct PortCase {
    const char* name;
    std::int32_t portGroup;
    std::int32_t protocol;
    std::int32_t portDirect;
    Texts portList;
    const char* text;
};

void PrintTo(const PortCase& c, std::ostream* out) {
    *out << "port group " << c.portGroup << ", protocol " << c.protocol << ", side "
         << c.portDirect;
}

const PortCase kPorts[] = {
    {"Service", 0, 1, 0, {"ssh"}, "service ssh"},
    {"Services", 0, 1, 0, {"ssh", "https"}, "service ssh,https"},
    {"ServicesOfTheReservedRule", 2, 1, 0, {"ssh", "https"}, "service ssh,https"},
    // A service has protocols and sides of its own.
    {"ServiceWithAProtocol", 0, 2, 1, {"ssh"}, "service ssh"},
    {"Tcp", 1, 1, 0, {"22"}, "tcp 22"},
    {"Udp", 1, 2, 0, {"53"}, "udp 53"},
    {"TcpAndUdp", 1, 3, 0, {"53"}, "tcp/udp 53"},
    {"Icmp", 1, 4, 0, {}, "icmp"},
    {"Igmp", 1, 32, 0, {}, "igmp"},
    {"ProtocolZero", 1, 0, 0, {"22"}, "unknown protocol 0 22"},
    {"ProtocolBetween", 1, 5, 0, {"22"}, "unknown protocol 5 22"},
    {"ProtocolBelowIgmp", 1, 31, 0, {}, "unknown protocol 31"},
    {"ProtocolAboveIgmp", 1, 33, 0, {}, "unknown protocol 33"},
    {"ProtocolNegative", 1, -1, 0, {}, "unknown protocol -1"},
    {"PortsAndRanges", 1, 1, 0, {"22", "6000-6010", "80"}, "tcp 22,6000-6010,80"},
    {"AnyPort", 1, 1, 0, {}, "tcp"},
    {"SourcePort", 1, 1, 1, {"20"}, "tcp source port 20"},
    {"SourcePorts", 1, 2, 1, {"67", "68"}, "udp source port 67,68"},
    {"AnySourcePort", 1, 1, 1, {}, "tcp"},
    // Whatever is not the destination is the source.
    {"OtherSide", 1, 1, 2, {"20"}, "tcp source port 20"},
    {"NegativeSide", 1, 1, -1, {"20"}, "tcp source port 20"},
    {"Everything", 3, 1, 0, {}, "everything"},
    {"EverythingWithPorts", 3, 2, 1, {"22"}, "everything"},
    {"GroupNextToTheLast", 4, 1, 0, {"22"}, "unknown port group 4"},
    {"GroupNegative", -1, 1, 0, {"22"}, "unknown port group -1"},
    {"GroupHighest", kHighest, 1, 0, {}, "unknown port group 2147483647"},
};

class PortTextTest : public ::testing::TestWithParam<PortCase> {};

TEST_P(PortTextTest, FollowsThePolicy) {
    const PortCase& c = GetParam();
    FWRULE rule;
    rule.portGroup = c.portGroup;
    rule.protocol = c.protocol;
    rule.portDirect = c.portDirect;
    rule.portList = c.portList;
    rule.ipGroup = 5;
    rule.ipType = 2;
    EXPECT_EQ(tarnfw::ruleText(rule), "allow " + std::string(c.text) + " from anywhere");
}

INSTANTIATE_TEST_SUITE_P(All, PortTextTest, ValuesIn(kPorts), caseName<PortCase>);

// ---- Addresses ----

struct AddressCase {
    const char* name;
    std::int32_t ipGroup;
    std::int32_t ipDirect;
    Texts ipList;
    const char* text;
};

void PrintTo(const AddressCase& c, std::ostream* out) {
    *out << "ip group " << c.ipGroup << ", side " << c.ipDirect;
}

const AddressCase kAddresses[] = {
    {"FromOne", 0, 1, {"10.0.0.1"}, "from 10.0.0.1"},
    {"ToOne", 0, 0, {"10.0.0.1"}, "to 10.0.0.1"},
    {"OneOfMany", 0, 1, {"10.0.0.1", "10.0.0.2"}, "from 10.0.0.1"},
    {"FromAMask", 1, 1, {"10.0.0.0", "255.0.0.0"}, "from 10.0.0.0/8"},
    {"ToAPrefix", 1, 0, {"fe80::", "10"}, "to fe80::/10"},
    {"FromNowhere", 2, 1, {"10.0.0.1"}, "from nowhere"},
    {"ToNowhere", 2, 0, {}, "to nowhere"},
    {"FromACountry", 3, 1, {"CN"}, "from country CN"},
    {"ToCountries", 3, 0, {"CN", "DE", "US"}, "to country CN,DE,US"},
    {"FromARange", 4, 1, {"10.0.0.1", "10.0.0.9"}, "from 10.0.0.1-10.0.0.9"},
    {"ToARange", 4, 0, {"10.0.0.1", "10.0.0.9"}, "to 10.0.0.1-10.0.0.9"},
    {"FromAnywhere", 5, 1, {"10.0.0.1"}, "from anywhere"},
    {"ToAnywhere", 5, 0, {}, "to anywhere"},
    // Whatever is not the destination is the source.
    {"OtherSide", 0, 2, {"10.0.0.1"}, "from 10.0.0.1"},
    {"NegativeSide", 0, -1, {"10.0.0.1"}, "from 10.0.0.1"},
    {"GroupNextToTheLast", 6, 1, {"10.0.0.1"}, "from unknown ip group 6"},
    {"GroupNegative", -1, 0, {}, "to unknown ip group -1"},
    {"GroupLowest", kLowest, 1, {}, "from unknown ip group -2147483648"},
    // A file may hold a list that is too short; there is nothing to name then.
    {"NoAddress", 0, 1, {}, "from "},
    {"NoNetwork", 1, 1, {}, "from /"},
    {"NoMask", 1, 1, {"10.0.0.0"}, "from 10.0.0.0/"},
    {"NoCountry", 3, 1, {}, "from country "},
    {"NoRange", 4, 1, {}, "from -"},
    {"NoEndOfTheRange", 4, 1, {"10.0.0.1"}, "from 10.0.0.1-"},
};

class AddressTextTest : public ::testing::TestWithParam<AddressCase> {};

TEST_P(AddressTextTest, FollowsThePorts) {
    const AddressCase& c = GetParam();
    FWRULE rule;
    rule.portGroup = 3;
    rule.ipGroup = c.ipGroup;
    rule.ipDirect = c.ipDirect;
    rule.ipList = c.ipList;
    rule.ipType = 2;
    EXPECT_EQ(tarnfw::ruleText(rule), "allow everything " + std::string(c.text));
}

INSTANTIATE_TEST_SUITE_P(All, AddressTextTest, ValuesIn(kAddresses), caseName<AddressCase>);

// ---- What follows ----

struct RestCase {
    const char* name;
    bool enable;
    std::int32_t adapterDirect;
    bool blLog;
    std::int32_t ipType;
    const char* ruleName;
    const char* text;
};

void PrintTo(const RestCase& c, std::ostream* out) {
    *out << c.text;
}

const RestCase kRests[] = {
    {"Plain", true, 1, false, 2, "", "deny tcp 22 from 10.0.0.1"},
    {"Off", false, 1, false, 2, "", "[off] deny tcp 22 from 10.0.0.1"},
    {"Outgoing", true, 0, false, 2, "", "deny tcp 22 from 10.0.0.1, outgoing"},
    {"OtherDirection", true, 2, false, 2, "", "deny tcp 22 from 10.0.0.1"},
    {"NegativeDirection", true, -1, false, 2, "", "deny tcp 22 from 10.0.0.1"},
    {"Logged", true, 1, true, 2, "", "deny tcp 22 from 10.0.0.1, logged"},
    {"V4", true, 1, false, 0, "", "deny tcp 22 from 10.0.0.1 (IPv4)"},
    {"V6", true, 1, false, 1, "", "deny tcp 22 from 10.0.0.1 (IPv6)"},
    {"UnknownFamily", true, 1, false, 3, "",
     "deny tcp 22 from 10.0.0.1 (unknown address family 3)"},
    {"NegativeFamily", true, 1, false, -1, "",
     "deny tcp 22 from 10.0.0.1 (unknown address family -1)"},
    {"Named", true, 1, false, 2, "Office", "deny tcp 22 from 10.0.0.1  \"Office\""},
    {"All", false, 0, true, 0, "Two words",
     "[off] deny tcp 22 from 10.0.0.1, outgoing, logged (IPv4)  \"Two words\""},
};

class RestTextTest : public ::testing::TestWithParam<RestCase> {};

TEST_P(RestTextTest, StandsAroundTheMatches) {
    const RestCase& c = GetParam();
    FWRULE rule;
    rule.enable = c.enable;
    rule.adapterDirect = c.adapterDirect;
    rule.policy = FW::FW_POLICY_DENY;
    rule.blLog = c.blLog;
    rule.name = c.ruleName;
    rule.ipType = c.ipType;
    rule.ipList = {"10.0.0.1"};
    rule.portGroup = 1;
    rule.portList = {"22"};
    EXPECT_EQ(tarnfw::ruleText(rule), c.text);
}

INSTANTIATE_TEST_SUITE_P(All, RestTextTest, ValuesIn(kRests), caseName<RestCase>);

TEST(ShortAddressTextTest, HasMasksOfIpv4AsLengths) {
    FWRULE rule;
    rule.ipGroup = 1;
    rule.ipList = {"192.168.1.0", "255.255.255.0"};
    EXPECT_EQ(tarnfw::addressText(rule), "from 192.168.1.0/24");
    rule.ipDirect = 0;
    rule.ipList = {"10.0.0.0", "8"};
    EXPECT_EQ(tarnfw::addressText(rule), "to 10.0.0.0/8");
    rule.ipList = {"2001:db8::", "64"};
    EXPECT_EQ(tarnfw::addressText(rule), "to 2001:db8::/64");
    // What is no mask, and what only looks like one, stays as it is.
    rule.ipList = {"10.0.0.0", "255.0.255.0"};
    EXPECT_EQ(tarnfw::addressText(rule), "to 10.0.0.0/255.0.255.0");
    rule.ipList = {"10.0.0.0"};
    EXPECT_EQ(tarnfw::addressText(rule), "to 10.0.0.0/");
    rule.ipGroup = 4;
    rule.ipList = {"0.0.0.0", "255.255.255.0"};
    EXPECT_EQ(tarnfw::addressText(rule), "to 0.0.0.0-255.255.255.0");
}

// The example that the header gives.
TEST(RuleTextTest, IsTheLineOfTheComment) {
    FWRULE rule;
    rule.policy = FW::FW_POLICY_DENY;
    rule.portGroup = 1;
    rule.portList = {"22", "6000-6010"};
    rule.ipGroup = 1;
    rule.ipList = {"192.168.1.0", "255.255.255.0"};
    rule.blLog = true;
    EXPECT_EQ(tarnfw::ruleText(rule), "deny tcp 22,6000-6010 from 192.168.1.0/24, logged (IPv4)");
}

}  // namespace
