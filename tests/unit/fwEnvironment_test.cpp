// What fwEnvironmentGet() asks the platform for. tests/unit/meaning/ compares what follows from it
// with the translation's lines, for random profiles.

#include "tarnfirewall/fwEnvironment.h"

#include <filesystem>
#include <string>

#include "library_test.h"

namespace {

using FW::FWENVIRONMENT;
using FW::FWPROFILE;
using FW::FWRULE;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Key;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

FWRULE serviceRule(const std::string& service) {
    FWRULE rule;
    rule.portList = {service};
    return rule;
}

class FwEnvironmentTest : public LibraryTest {
protected:
    FwEnvironmentTest() {
        platform_.interfaces = {"eth0", "ppp0", "tun0", "tun1000"};
        platform_.pppoeInterface = "ppp0";
        platform_.services["ssh"] = {"SSH", 1, {"22"}, 0, {}};
        platform_.services["web"] = {"Web", 1, {"80"}, 2, {"81"}};
        platform_.services["hidden"] = {"", 1, {"9"}, 0, {}};
        profile_.rules["eth0"] = {serviceRule("ssh"), serviceRule("hidden"), serviceRule("none")};
        profile_.adapterPolicyMap["vpn"] = FW::FW_POLICY_DENY;
        profile_.adapterPolicyMap["pppoe"] = FW::FW_POLICY_DENY;
        profile_.adapterPolicyMap["eth7"] = FW::FW_POLICY_DENY;
    }

    FWENVIRONMENT get(FW::FW_ADAPTERS adapters = FW::FW_ADAPTERS_PRESENT) {
        FWENVIRONMENT environment;
        EXPECT_TRUE(FW::fwEnvironmentGet(profile_, adapters, {}, environment));
        return environment;
    }

    FWPROFILE profile_;
};

TEST_F(FwEnvironmentTest, OnlyAdaptersThatArePresentCount) {
    const FWENVIRONMENT environment = get();
    EXPECT_THAT(environment.adapters,
                UnorderedElementsAre(Key("eth0"), Key("global"), Key("ppp0"), Key("pppoe"),
                                     Key("tun0"), Key("tun1000"), Key("vpn")));
    EXPECT_THAT(environment.adapters.at("pppoe").names, ElementsAre("ppp0"));
    EXPECT_THAT(environment.adapters.at("vpn").names, ElementsAre("tun0"));
}

TEST_F(FwEnvironmentTest, AllAdaptersOfTheProfileCount) {
    const FWENVIRONMENT environment = get(FW::FW_ADAPTERS_ALL);
    EXPECT_THAT(environment.adapters.at("eth7").names, ElementsAre("eth7"));
    EXPECT_THAT(environment.adapters.at("vpn").names, ElementsAre("ppp+", "tun+"));
    EXPECT_THAT(environment.adapters.at("vpn").except, ElementsAre("tun1000", "ppp0"));
}

TEST_F(FwEnvironmentTest, TunnelsAreAskedForOnceForEachPresentAdapter) {
    platform_.popenOutput = {{"eth0", "six"}, {"ppp0", "sit0"}, {"eth7", "nowhere"}};
    EXPECT_THAT(get().tunnels, UnorderedElementsAre(Pair("eth0", "six"), Pair("pppoe", "sit0")));
    EXPECT_THAT(platform_.journalOf("popen "), ::testing::SizeIs(3));
    EXPECT_EQ(platform_.openStreams, 0);
}

TEST_F(FwEnvironmentTest, UsableServicesOfTheRulesAndOfTheListAreThere) {
    FWENVIRONMENT environment;
    ASSERT_TRUE(
        FW::fwEnvironmentGet(profile_, FW::FW_ADAPTERS_PRESENT, {"web", "hidden"}, environment));
    ASSERT_THAT(environment.services, UnorderedElementsAre(Key("ssh"), Key("web")));
    const FW::ServPort& web = environment.services["web"];
    EXPECT_THAT(web.dstPorts, ElementsAre(Pair(FW::FW_PORT_PROTOCOL_TCP, ElementsAre("80"))));
    EXPECT_THAT(web.srcPorts, ElementsAre(Pair(FW::FW_PORT_PROTOCOL_UDP, ElementsAre("81"))));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

TEST_F(FwEnvironmentTest, ApplyModeIsThatOfTheSettings) {
    EXPECT_FALSE(get().batch);
    writeFile(kSettingsFile, R"({"apply": "batch"})");
    EXPECT_TRUE(get().batch);
    writeFile(kSettingsFile, "{");
    EXPECT_FALSE(get().batch);
    EXPECT_FALSE(std::filesystem::exists(kLockDir));
}

TEST_F(FwEnvironmentTest, CountriesAreThoseWithAFile) {
    FWRULE rule;
    rule.ipGroup = FW::FW_IP_GROUP_COUNTRIES;
    rule.ipList = {"AA", "BB"};
    profile_.rules["eth0"] = {rule};
    // 10.0.0.1 to 10.0.0.9, twice, and half a record.
    const std::string record("\x01\x00\x00\x0a\x09\x00\x00\x0a", 8);
    writeFile(kGeoipDir + "AA.iv4", record + record + record.substr(0, 4));
    std::string ipv6(32, '\0');
    ipv6[3] = ipv6[19] = 0x20;
    ipv6[28] = 0x07;
    writeFile(kGeoipDir + "AA.iv6", ipv6);
    const FWENVIRONMENT environment = get();

    const auto v4 = environment.countries("AA", FW::FW_FAMILY_V4);
    ASSERT_EQ(v4->size(), 1U);
    EXPECT_EQ(FW::fwAddressText(v4->front().first, FW::FW_FAMILY_V4), "10.0.0.1");
    EXPECT_EQ(FW::fwAddressText(v4->front().last, FW::FW_FAMILY_V4), "10.0.0.9");
    const auto v6 = environment.countries("AA", FW::FW_FAMILY_V6);
    ASSERT_EQ(v6->size(), 1U);
    EXPECT_EQ(FW::fwAddressText(v6->front().first, FW::FW_FAMILY_V6), "2000::");
    EXPECT_EQ(FW::fwAddressText(v6->front().last, FW::FW_FAMILY_V6), "2000::7");
    EXPECT_EQ(environment.countries("BB", FW::FW_FAMILY_V4), nullptr);
    EXPECT_EQ(environment.countries("CC", FW::FW_FAMILY_V4), nullptr);
    EXPECT_THAT(environment.brokenCountries, ElementsAre(Pair("AA", FW::FW_FAMILY_V4)));

    // From eight bytes on the translation uses a file, whatever the family.
    writeFile(kGeoipDir + "AA.iv4", record);
    writeFile(kGeoipDir + "AA.iv6", ipv6.substr(0, 8));
    writeFile(kGeoipDir + "BB.iv4", record.substr(0, 7));
    EXPECT_THAT(get().brokenCountries, ElementsAre(Pair("AA", FW::FW_FAMILY_V6)));
}

TEST_F(FwEnvironmentTest, WhatCannotBeAskedFailsAndChangesNothing) {
    FWENVIRONMENT environment;
    environment.exceptedIp = "kept";
    const auto fails = [&] {
        return !FW::fwEnvironmentGet(profile_, FW::FW_ADAPTERS_PRESENT, {}, environment) &&
               environment.exceptedIp == "kept";
    };
    platform_.servicesResult = 0;
    EXPECT_TRUE(fails());
    EXPECT_THAT(platform_.logged(), Contains("Failed to enum services"));
    platform_.servicesResult = 1;

    platform_.interfacesResult = -1;
    EXPECT_TRUE(fails());
    platform_.interfacesResult = 0;
}

TEST_F(FwEnvironmentTest, WithoutServicesTheCatalogueIsNotRead) {
    profile_.rules.clear();
    platform_.servicesResult = 0;
    EXPECT_THAT(get().services, IsEmpty());
}

}  // namespace
