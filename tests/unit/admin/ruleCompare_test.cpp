// Which rules are the same, in whatever words.
#include "tarnfwadmin/ruleCompare.h"

#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

FW::FWRULE ruleOf(const std::string& words) {
    return ruleFrom({words}, {}, {{{"ssh", 1}, {"dns", 3}}, {"CN", "RU"}, {"CN"}});
}

struct PairCase {
    const char* name;
    const char* one;
    const char* other;
    bool same;
};

std::ostream& operator<<(std::ostream& out, const PairCase& c) {
    return out << c.one << " and " << c.other;
}

const PairCase kPairs[] = {
    {"Same", "allow tcp 22", "allow tcp 22", true},
    {"OtherWords", "allow tcp 22 from anywhere", "allow tcp/22", true},
    {"OrderOfPorts", "allow tcp 22,80", "allow tcp 80,22", true},
    {"OrderOfServices", "allow service ssh,dns", "allow service dns,ssh", true},
    {"OrderOfCountries", "deny from country CN,RU", "deny from country RU,CN", true},
    {"Mask", "allow from 10.0.0.0/8", "allow from 10.1.2.3/255.0.0.0", true},
    {"MaskWithGap", "allow from 10.0.0.0/255.0.255.0", "allow from 10.1.0.9/255.0.255.0", true},
    {"OtherMaskWithGap", "allow from 10.0.0.0/255.0.255.0", "allow from 10.0.0.0/255.0.0.255",
     false},
    {"SideOfAnywhere", "allow tcp 22 from anywhere", "allow tcp 22 to anywhere", true},
    {"Name", "allow tcp 22 \"one\"", "allow tcp 22 \"two\"", true},
    {"Off", "[off] allow tcp 22", "allow tcp 22", true},
    {"Policy", "allow tcp 22", "deny tcp 22", false},
    {"Port", "allow tcp 22", "allow tcp 23", false},
    {"MorePorts", "allow tcp 22", "allow tcp 22,23", false},
    {"Protocol", "allow tcp 22", "allow udp 22", false},
    {"BothProtocols", "allow tcp 22", "allow both 22", false},
    {"PortlessProtocol", "allow icmp", "allow igmp", false},
    {"SourcePort", "allow tcp 22", "allow tcp source port 22", false},
    {"Service", "allow tcp 22", "allow service ssh", false},
    {"Address", "allow from 10.0.0.1", "allow from 10.0.0.2", false},
    {"Side", "allow from 10.0.0.1", "allow to 10.0.0.1", false},
    {"Length", "allow from 10.0.0.0/8", "allow from 10.0.0.0/9", false},
    {"Family", "allow tcp 22 (IPv4)", "allow tcp 22", false},
    {"Log", "allow tcp 22, logged", "allow tcp 22", false},
    {"Direction", "allow tcp 22, outgoing", "allow tcp 22", false},
};

class SameRuleTest : public testing::TestWithParam<PairCase> {};

TEST_P(SameRuleTest, IsToldApart) {
    const FW::FWRULE one = ruleOf(GetParam().one);
    const FW::FWRULE other = ruleOf(GetParam().other);
    EXPECT_EQ(isSameRule(one, other), GetParam().same);
    EXPECT_EQ(isSameRule(other, one), GetParam().same);
}

INSTANTIATE_TEST_SUITE_P(, SameRuleTest, testing::ValuesIn(kPairs),
                         [](const auto& c) { return std::string(c.param.name); });

TEST(SameRulesTest, WhatDoesNotMatterToTheLinesDoesNotCount) {
    FW::FWRULE one = ruleOf("allow from anywhere");
    FW::FWRULE other = one;
    other.protocol = FW::FW_PORT_PROTOCOL_UDP;
    other.portList = {"22"};
    other.portDirect = FW::FW_PORT_DIRECT_SOURCE;
    other.ipList = {"10.0.0.1"};
    other.labelList = {"label"};
    EXPECT_TRUE(isSameRule(one, other));
    other.table = "mangle";
    EXPECT_FALSE(isSameRule(one, other));
    other.table = one.table;
    other.chainList.erase(other.chainList.begin());
    EXPECT_FALSE(isSameRule(one, other));
}

TEST(SameRulesTest, AReservedRuleIsAnotherOne) {
    const FW::FWRULE own = ruleOf("allow service ssh");
    FW::FWRULE reserved = own;
    reserved.portGroup = FW::FW_PORT_GROUP_RESERVED;
    EXPECT_FALSE(isSameRule(own, reserved));
    EXPECT_TRUE(isSameRule(reserved, reserved));
}

}  // namespace
}  // namespace tarnfw
