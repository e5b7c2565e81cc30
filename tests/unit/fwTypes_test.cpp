#include "tarnfirewall/fwTypes.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwIptables.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Texts = std::vector<std::string>;

// ---- Checked by the compiler ----

template <typename Field, typename Wanted>
constexpr bool is = std::is_same_v<std::remove_reference_t<Field>, Wanted>;

template <typename Record>
constexpr bool isValue =
    std::is_default_constructible_v<Record>&& std::is_copy_constructible_v<Record>&&
        std::is_copy_assignable_v<Record>&& std::is_nothrow_move_constructible_v<Record>&&
            std::is_move_assignable_v<Record>&& std::is_destructible_v<Record> &&
    !std::is_polymorphic_v<Record>;

// Without the fixed type a number outside the list could not be stored.
static_assert(is<std::underlying_type_t<FW::FW_POLICY>, std::int32_t>);
static_assert(is<std::underlying_type_t<FW::FW_PORT_PROTOCOL>, std::int32_t>);
static_assert(std::is_convertible_v<FW::FW_POLICY, int>, "an unscoped enumeration");
static_assert(std::is_convertible_v<FW::FW_PORT_PROTOCOL, int>, "an unscoped enumeration");

static_assert(FW::FW_POLICY_ALLOW == 0);
static_assert(FW::FW_POLICY_DENY == 1);
static_assert(FW::FW_POLICY_NONE == 2);
static_assert(FW::FW_POLICY_MIXED == 3);
static_assert(FW::FW_POLICY_ALLOW_SOME == 4);
static_assert(FW::FW_POLICY_DENY_SOME == 5);

static_assert(FW::FW_PORT_PROTOCOL_TCP == 1);
static_assert(FW::FW_PORT_PROTOCOL_UDP == 2);
static_assert(FW::FW_PORT_PROTOCOL_TCP_UDP == 3);
static_assert(FW::FW_PORT_PROTOCOL_ICMP == 4);
static_assert(FW::FW_PORT_PROTOCOL_IGMP == 32);

static_assert(FW::FW_ADAPTER_DIRECT_OUT == 0);
static_assert(FW::FW_ADAPTER_DIRECT_IN == 1);

static_assert(FW::FW_IP_TYPE_V4 == 0);
static_assert(FW::FW_IP_TYPE_V6 == 1);
static_assert(FW::FW_IP_TYPE_BOTH == 2);

static_assert(FW::FW_IP_DIRECT_DESTINATION == 0);
static_assert(FW::FW_IP_DIRECT_SOURCE == 1);

static_assert(FW::FW_IP_GROUP_SINGLE == 0);
static_assert(FW::FW_IP_GROUP_NETWORK == 1);
static_assert(FW::FW_IP_GROUP_NONE == 2);
static_assert(FW::FW_IP_GROUP_COUNTRIES == 3);
static_assert(FW::FW_IP_GROUP_RANGE == 4);
static_assert(FW::FW_IP_GROUP_ANY == 5);

static_assert(FW::FW_PORT_DIRECT_DESTINATION == 0);
static_assert(FW::FW_PORT_DIRECT_SOURCE == 1);

static_assert(FW::FW_PORT_GROUP_SERVICES == 0);
static_assert(FW::FW_PORT_GROUP_PORTS == 1);
static_assert(FW::FW_PORT_GROUP_RESERVED == 2);
static_assert(FW::FW_PORT_GROUP_ANY == 3);

static_assert(isValue<FW::FWRULE>);
static_assert(isValue<FW::FWPROFILE>);
static_assert(isValue<FW::PortCompareST>);
static_assert(isValue<FW::ServPort>);
static_assert(std::is_aggregate_v<FW::PortCompareST>);
static_assert(std::is_aggregate_v<FW::ServPort>);

static_assert(is<decltype(FW::FWRULE::ruleID), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::enable), bool>);
static_assert(is<decltype(FW::FWRULE::adapterDirect), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::policy), FW::FW_POLICY>);
static_assert(is<decltype(FW::FWRULE::blLog), bool>);
static_assert(is<decltype(FW::FWRULE::labelList), Texts>);
static_assert(is<decltype(FW::FWRULE::name), std::string>);
static_assert(is<decltype(FW::FWRULE::table), std::string>);
static_assert(is<decltype(FW::FWRULE::chainList), std::set<std::string>>);
static_assert(is<decltype(FW::FWRULE::ipType), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::ipDirect), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::ipGroup), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::ipList), Texts>);
static_assert(is<decltype(FW::FWRULE::portDirect), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::portGroup), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::protocol), std::int32_t>);
static_assert(is<decltype(FW::FWRULE::portList), Texts>);

static_assert(is<decltype(FW::FWPROFILE::name), std::string>);
static_assert(is<decltype(FW::FWPROFILE::rules), std::map<std::string, std::vector<FW::FWRULE>>>);
static_assert(is<decltype(FW::FWPROFILE::adapterPolicyMap), std::map<std::string, FW::FW_POLICY>>);

static_assert(is<decltype(FW::PortCompareST::portDirect), std::int32_t>);
static_assert(is<decltype(FW::PortCompareST::protocol), std::int32_t>);
static_assert(is<decltype(FW::PortCompareST::port), std::string>);

static_assert(is<decltype(FW::ServPort::srcPorts), std::map<FW::FW_PORT_PROTOCOL, Texts>>);
static_assert(is<decltype(FW::ServPort::dstPorts), std::map<FW::FW_PORT_PROTOCOL, Texts>>);

static_assert(std::is_const_v<std::remove_reference_t<decltype(FW::FW_PREDEFINED_ADAPTERS)>>);
static_assert(std::is_const_v<std::remove_reference_t<decltype(FW::FW_FIREWALL_CHAINS)>>);
static_assert(std::is_const_v<std::remove_reference_t<decltype(FW::FW_FIREWALL_MODULES)>>);

// ---- Order and number of the fields: a binding names every field, in order ----

TEST(FieldOrderTest, RuleHasSeventeenFieldsInTheOrderOfTheTable) {
    const FW::FWRULE rule;
    const auto& [f1, f2, f3, f4, f5, f6, f7, f8, f9, f10, f11, f12, f13, f14, f15, f16, f17] = rule;
    EXPECT_EQ(&f1, &rule.ruleID);
    EXPECT_EQ(&f2, &rule.enable);
    EXPECT_EQ(&f3, &rule.adapterDirect);
    EXPECT_EQ(&f4, &rule.policy);
    EXPECT_EQ(&f5, &rule.blLog);
    EXPECT_EQ(&f6, &rule.labelList);
    EXPECT_EQ(&f7, &rule.name);
    EXPECT_EQ(&f8, &rule.table);
    EXPECT_EQ(&f9, &rule.chainList);
    EXPECT_EQ(&f10, &rule.ipType);
    EXPECT_EQ(&f11, &rule.ipDirect);
    EXPECT_EQ(&f12, &rule.ipGroup);
    EXPECT_EQ(&f13, &rule.ipList);
    EXPECT_EQ(&f14, &rule.portDirect);
    EXPECT_EQ(&f15, &rule.portGroup);
    EXPECT_EQ(&f16, &rule.protocol);
    EXPECT_EQ(&f17, &rule.portList);
}

TEST(FieldOrderTest, ProfileIsNameRulesAndPolicies) {
    const FW::FWPROFILE profile;
    const auto& [f1, f2, f3] = profile;
    EXPECT_EQ(&f1, &profile.name);
    EXPECT_EQ(&f2, &profile.rules);
    EXPECT_EQ(&f3, &profile.adapterPolicyMap);
}

TEST(FieldOrderTest, PortQueryIsDirectionProtocolAndPort) {
    const FW::PortCompareST query{1, FW::FW_PORT_PROTOCOL_UDP, "6000-6010"};
    EXPECT_EQ(query.portDirect, 1);
    EXPECT_EQ(query.protocol, 2);
    EXPECT_EQ(query.port, "6000-6010");
}

TEST(FieldOrderTest, ServicePortsAreSourceThenDestination) {
    const FW::ServPort ports{{{FW::FW_PORT_PROTOCOL_UDP, {"68"}}},
                             {{FW::FW_PORT_PROTOCOL_TCP, {"80", "6000-6010"}}}};
    EXPECT_THAT(ports.srcPorts.at(FW::FW_PORT_PROTOCOL_UDP), ElementsAre("68"));
    EXPECT_THAT(ports.dstPorts.at(FW::FW_PORT_PROTOCOL_TCP), ElementsAre("80", "6000-6010"));
}

// ---- Values ----

TEST(RuleTest, FreshRuleCarriesExactlyTheCreationValues) {
    const FW::FWRULE rule;
    EXPECT_EQ(rule.ruleID, 0);
    EXPECT_TRUE(rule.enable);
    EXPECT_EQ(rule.adapterDirect, 1);
    EXPECT_EQ(rule.policy, FW::FW_POLICY_ALLOW);
    EXPECT_FALSE(rule.blLog);
    EXPECT_THAT(rule.labelList, IsEmpty());
    EXPECT_EQ(rule.name, "");
    EXPECT_EQ(rule.table, "filter");
    EXPECT_THAT(rule.chainList, ElementsAre("FORWARD_FIREWALL", "INPUT_FIREWALL"));
    EXPECT_EQ(rule.ipType, 0);
    EXPECT_EQ(rule.ipDirect, 1);
    EXPECT_EQ(rule.ipGroup, 0);
    EXPECT_THAT(rule.ipList, IsEmpty());
    EXPECT_EQ(rule.portDirect, 0);
    EXPECT_EQ(rule.portGroup, 0);
    EXPECT_EQ(rule.protocol, FW::FW_PORT_PROTOCOL_TCP);
    EXPECT_THAT(rule.portList, IsEmpty());
}

TEST(RuleTest, FreshRulesShareNothing) {
    FW::FWRULE first;
    first.chainList.erase("INPUT_FIREWALL");
    EXPECT_THAT(FW::FWRULE().chainList, ElementsAre("FORWARD_FIREWALL", "INPUT_FIREWALL"));
}

TEST(RuleTest, ChainsAreUniqueAndInByteOrder) {
    FW::FWRULE rule;
    rule.chainList.insert({"a", "INPUT_FIREWALL", "\xc3\xa9", "Z", "z"});
    EXPECT_THAT(rule.chainList,
                ElementsAre("FORWARD_FIREWALL", "INPUT_FIREWALL", "Z", "a", "z", "\xc3\xa9"));
}

TEST(RuleTest, PolicyHoldsAnyNumber) {
    FW::FWRULE rule;
    for (const std::int32_t code : {-1, 77, std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max()}) {
        rule.policy = static_cast<FW::FW_POLICY>(code);
        EXPECT_EQ(static_cast<std::int32_t>(rule.policy), code);
    }
}

TEST(ProfileTest, FreshProfileIsEmpty) {
    const FW::FWPROFILE profile;
    EXPECT_EQ(profile.name, "");
    EXPECT_THAT(profile.rules, IsEmpty());
    EXPECT_THAT(profile.adapterPolicyMap, IsEmpty());
}

FW::FWPROFILE twoRules() {
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.rules["eth0"].resize(2);
    profile.rules["eth0"][0].name = "first";
    profile.rules["eth0"][0].portList = {"80", "443"};
    profile.rules["eth0"][1].name = "second";
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    return profile;
}

TEST(ProfileTest, ChangingACopyLeavesTheFirstOneUnchanged) {
    const FW::FWPROFILE first = twoRules();
    FW::FWPROFILE copy = first;
    copy.name = "away";
    copy.rules["eth0"][0].portList.emplace_back("22");
    copy.rules["eth0"][0].chainList.clear();
    copy.rules["eth0"].pop_back();
    copy.rules["vpn"].emplace_back();
    copy.adapterPolicyMap["eth0"] = FW::FW_POLICY_ALLOW;

    EXPECT_EQ(first.name, "home");
    ASSERT_EQ(first.rules.size(), 1u);
    ASSERT_EQ(first.rules.at("eth0").size(), 2u);
    EXPECT_THAT(first.rules.at("eth0")[0].portList, ElementsAre("80", "443"));
    EXPECT_EQ(first.rules.at("eth0")[0].chainList.size(), 2u);
    EXPECT_EQ(first.rules.at("eth0")[1].name, "second");
    EXPECT_EQ(first.adapterPolicyMap.at("eth0"), FW::FW_POLICY_DENY);
}

TEST(ProfileTest, AssignmentCopiesAndMoveTakesEverything) {
    FW::FWPROFILE assigned;
    assigned.rules["wlan0"].emplace_back();
    assigned = twoRules();
    const FW::FWPROFILE moved = std::move(assigned);
    EXPECT_EQ(moved.name, "home");
    EXPECT_EQ(moved.rules.size(), 1u);
    EXPECT_EQ(moved.rules.at("eth0")[0].name, "first");
    EXPECT_EQ(moved.adapterPolicyMap.at("eth0"), FW::FW_POLICY_DENY);
}

TEST(ProfileTest, AdaptersAreInByteOrder) {
    FW::FWPROFILE profile;
    for (const char* adapter : {"vpn", "eth10", "\xc3\xa9th", "eth2", "Eth0", "global"}) {
        profile.rules[adapter];
        profile.adapterPolicyMap[adapter] = FW::FW_POLICY_NONE;
    }
    Texts ofRules;
    for (const auto& entry : profile.rules) {
        ofRules.push_back(entry.first);
    }
    Texts ofPolicies;
    for (const auto& entry : profile.adapterPolicyMap) {
        ofPolicies.push_back(entry.first);
    }
    EXPECT_THAT(ofRules, ElementsAre("Eth0", "eth10", "eth2", "global", "vpn", "\xc3\xa9th"));
    EXPECT_EQ(ofPolicies, ofRules);
}

TEST(RuleTest, RulesAreFoundAndRemovedByAPredicate) {
    std::vector<FW::FWRULE> rules(4);
    rules[1].portGroup = 2;
    rules[1].ipGroup = 5;
    rules[1].portList = {"ssh"};
    rules[3] = rules[1];
    rules[2].name = "kept";

    const auto found = std::find_if(rules.cbegin(), rules.cend(), FW::fwRuleIsReserved);
    ASSERT_NE(found, rules.cend());
    EXPECT_EQ(found - rules.cbegin(), 1);

    rules.erase(std::remove_if(rules.begin(), rules.end(), FW::fwRuleIsReserved), rules.end());
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[1].name, "kept");
    EXPECT_THAT(rules[1].portList, IsEmpty());
}

TEST(RuleTest, ServicesForAnyAddressAreReserved) {
    FW::FWRULE rule;
    for (rule.portGroup = 0; rule.portGroup <= 4; ++rule.portGroup) {
        EXPECT_EQ(FW::fwRuleNamesServices(rule), rule.portGroup == 0 || rule.portGroup == 2)
            << rule.portGroup;
        for (rule.ipGroup = 0; rule.ipGroup <= 6; ++rule.ipGroup) {
            EXPECT_EQ(FW::fwRuleIsReserved(rule), rule.portGroup == 2 && rule.ipGroup == 5)
                << rule.portGroup << ' ' << rule.ipGroup;
        }
    }
}

// ---- Constant lists ----

TEST(ConstantListTest, AdapterNames) {
    EXPECT_STREQ(FW::FW_ADAPTER_GLOBAL, "global");
    EXPECT_STREQ(FW::FW_ADAPTER_PPPOE, "pppoe");
    EXPECT_STREQ(FW::FW_ADAPTER_VPN, "vpn");
    EXPECT_STREQ(FW::FW_PPPOE_INTERFACE, "ppp0");
}

template <typename List>
Texts iterated(const List& list) {
    Texts texts;
    for (const auto& text : list) {
        texts.emplace_back(text);
    }
    return texts;
}

TEST(ConstantListTest, PredefinedAdapters) {
    const Texts converted = FW::FW_PREDEFINED_ADAPTERS;
    EXPECT_THAT(converted, ElementsAre("global", "pppoe", "vpn"));
    EXPECT_EQ(iterated(FW::FW_PREDEFINED_ADAPTERS), converted);
    EXPECT_EQ(FW::FW_PREDEFINED_ADAPTERS[1], "pppoe");
}

TEST(ConstantListTest, FirewallChains) {
    const Texts converted = FW::FW_FIREWALL_CHAINS;
    EXPECT_THAT(converted, ElementsAre("INPUT_FIREWALL", "FORWARD_FIREWALL"));
    EXPECT_EQ(iterated(FW::FW_FIREWALL_CHAINS), converted);
    EXPECT_EQ(FW::FW_FIREWALL_CHAINS[1], "FORWARD_FIREWALL");
}

TEST(ConstantListTest, FirewallModules) {
    const Texts converted = FW::FW_FIREWALL_MODULES;
    EXPECT_THAT(converted, ElementsAre("compat_xtables.ko", "xt_geoip.ko", "xt_mac.ko"));
    EXPECT_EQ(iterated(FW::FW_FIREWALL_MODULES), converted);
    EXPECT_EQ(FW::FW_FIREWALL_MODULES[1], "xt_geoip.ko");
}

// ---- The address codes that look alike ----

class AddressCodeTest : public LibraryTest {
protected:
    // The lines that a deny rule with this code yields for eth0.
    Json::Value linesOf(std::int32_t ipGroup, const char* family) {
        FW::FWRULE rule;
        rule.policy = FW::FW_POLICY_DENY;
        rule.ipType = 2;
        rule.ipGroup = ipGroup;
        rule.portGroup = 3;
        rule.chainList = {"INPUT_FIREWALL"};
        Json::Value document;
        FW::TARNFW_IPTABLES_RULES translator;
        EXPECT_TRUE(translator.fwRulesToIptablesRules(false, {{"eth0", {rule}}}, {}, document, ""));
        return document[family]["eth0"];
    }
};

TEST_F(AddressCodeTest, IpGroup2SuppressesTheRule) {
    EXPECT_EQ(linesOf(2, "v4"), Json::Value());
    EXPECT_EQ(linesOf(2, "v6"), Json::Value());
}

TEST_F(AddressCodeTest, IpGroup5MatchesAnyAddress) {
    Json::Value expected;
    expected.append("-t filter -A INPUT_FIREWALL -i eth0 -j DROP");
    EXPECT_EQ(linesOf(5, "v4"), expected);
    EXPECT_EQ(linesOf(5, "v6"), expected);
}

}  // namespace
