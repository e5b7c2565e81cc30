// Rules that never take effect because an earlier one shadows them, and rules that only look like
// it.
#include "check/shadowCheck.h"

#include <algorithm>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "profileCheck_testing.h"

namespace tarnfw {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

struct ShadowCase {
    const char* name;
    const char* first;
    const char* later;
    bool shadowed;
};

std::ostream& operator<<(std::ostream& out, const ShadowCase& c) {
    return out << c.first << " before " << c.later;
}

class ShadowTest : public ProfileCheckTest, public testing::WithParamInterface<ShadowCase> {
protected:
    static std::vector<std::string> expected(const std::string& first, const std::string& later) {
        if (!GetParam().shadowed) {
            return {};
        }
        return {"home.json: " + later + ": warning: never takes effect: shadowed by " + first};
    }
    /// The findings about shadows; some addresses have one of their own besides.
    static std::vector<std::string> shadowsOf(const Json::Value& document) {
        std::vector<std::string> lines = linesOf(document);
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& line) {
                                       return line.find("never takes effect") == std::string::npos;
                                   }),
                    lines.end());
        return lines;
    }
    static Json::Value first() { return rule(GetParam().first); }
    static Json::Value later() { return rule(GetParam().later); }
};

TEST_P(ShadowTest, WithinOneList) {
    EXPECT_THAT(shadowsOf(profile({first(), later()})),
                ElementsAreArray(expected("rule 1 of global", "rule 2 of global")));
}

TEST_P(ShadowTest, ByGlobal) {
    Json::Value document = profile({first()});
    document["rules"]["wlan0"].append(later());
    EXPECT_THAT(shadowsOf(document),
                ElementsAreArray(expected("rule 1 of global", "rule 1 of wlan0")));
}

const ShadowCase kShadows[] = {
    {"Same", "{}", "{}", true},
    {"OtherPolicy", "{}", R"({"policy": 1})", true},
    {"OtherPort", "{}", R"({"portList": ["23"]})", false},
    {"FirstIsOff", R"({"enable": false})", "{}", false},
    {"LaterIsOff", "{}", R"({"enable": false})", false},
    {"PortInRange", R"({"portList": ["20-30"]})", "{}", true},
    {"RangeInPort", "{}", R"({"portList": ["20-30"]})", false},
    {"RangeInTouchingRanges", R"({"portList": ["1-24", "25-30"]})", R"({"portList": ["20-30"]})",
     true},
    {"RangeAcrossAGap", R"({"portList": ["1-24", "26-30"]})", R"({"portList": ["20-30"]})", false},
    {"SomePorts", R"({"portList": ["22", "80"]})", R"({"portList": ["80", "443"]})", false},
    {"TcpInBoth", R"({"protocol": 3})", "{}", true},
    {"BothInTcp", "{}", R"({"protocol": 3})", false},
    {"SourcePort", "{}", R"({"portDirect": 1})", false},
    {"PortInAny", R"({"portGroup": 3, "portList": []})", "{}", true},
    {"AnyInPort", R"({"portList": ["0-65535"]})", R"({"portGroup": 3, "portList": []})", false},
    {"IcmpInAny", R"({"portGroup": 3, "portList": []})", R"({"protocol": 4, "portList": []})",
     true},
    {"IcmpTwice", R"({"protocol": 4, "portList": []})", R"({"protocol": 4, "portList": []})", true},
    {"IgmpInIcmp", R"({"protocol": 4, "portList": []})", R"({"protocol": 32, "portList": []})",
     false},
    {"ServiceInPort", "{}", R"({"portGroup": 0, "portList": ["ssh"]})", true},
    {"PortInService", R"({"portGroup": 0, "portList": ["ssh"]})", "{}", true},
    {"ServiceInServices", R"({"portGroup": 2, "portList": ["ssh", "nfs"]})",
     R"({"portGroup": 0, "portList": ["nfs"]})", true},
    {"UdpOfAService", R"({"portList": ["111", "2049"]})",
     R"({"portGroup": 0, "portList": ["nfs"]})", false},
    {"RawProtocol", R"({"portList": ["1723"]})",
     R"({"portGroup": 0, "portList": ["vpn_server_pptp"]})", false},
    {"RawProtocolTwice", R"({"portGroup": 2, "portList": ["vpn_server_pptp"]})",
     R"({"portGroup": 0, "portList": ["vpn_server_pptp"]})", true},
    {"AddressInAny", "{}", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"]})", true},
    {"AnyInAddress", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"]})", R"({"ipType": 0})",
     false},
    {"AnyInWholeNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["1.0.0.0", "0"]})",
     R"({"ipType": 0})", true},
    {"AddressInNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.77", "24"]})",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"]})", true},
    {"AddressBesideNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.77", "24"]})",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.1.1"]})", false},
    {"RangeInNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "255.255.255.0"]})",
     R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.0", "10.0.0.255"]})", true},
    {"NetworkInRange", R"({"ipGroup": 4, "ipType": 1, "ipList": ["fe80::", "fe80::ffff"]})",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::5", "112"]})", true},
    {"NetworkBeyondRange", R"({"ipGroup": 4, "ipType": 1, "ipList": ["fe80::", "fe80::ffff"]})",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::5", "111"]})", false},
    {"NetworkInGaps", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.7.0.0", "255.0.255.0"]})",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.9.0.8", "29"]})", true},
    {"WiderInGaps", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.7.0.0", "255.0.255.0"]})",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.9.0.0", "23"]})", false},
    {"GapsInNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "8"]})",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.7.0.0", "255.0.255.0"]})", true},
    {"GapsBeyondNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "9"]})",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.7.0.0", "255.0.255.0"]})", false},
    {"GapsInFewerBits", R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:fff0:ff00::"]})",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:fff0:ffff::"]})", true},
    {"GapsInMoreBits", R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:fff0:ffff::"]})",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:fff0:ff00::"]})", false},
    {"MaskV6InLength", R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "32"]})",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:ffff::"]})", true},
    {"OctalLengthIsWider", R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "64"]})",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "064"]})", false},
    {"SecondOfSeveral", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1,10.1.0.0/16"]})",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.1.0.7"]})", true},
    {"SeveralInOneOfThem", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"]})",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1,10.0.0.2"]})", false},
    {"InBackwardRange", R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.9", "10.0.0.1"]})",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.5"]})", false},
    {"OtherSide", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"]})",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"], "ipDirect": 0})", false},
    {"OtherSideInAny", R"({"ipDirect": 0})", R"({"ipDirect": 1})", true},
    {"OneFamilyInBoth", "{}", R"({"ipType": 1})", true},
    {"BothInOneFamily", R"({"ipType": 1})", "{}", false},
    {"OtherFamily", R"({"ipType": 1})", R"({"ipType": 0})", false},
    {"CountryInCountries", R"({"ipGroup": 3, "ipType": 0, "ipList": ["FR", "DE"]})",
     R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE"]})", true},
    {"CountriesInCountry", R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE"]})",
     R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE", "FR"]})", false},
    {"CountryInAny", "{}", R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE"]})", true},
    {"AnyInCountry", R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE"]})", R"({"ipType": 0})", false},
    {"CountryInNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["1.0.0.0", "8"]})",
     R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE"]})", true},
    {"CountryBesideNetwork", R"({"ipGroup": 1, "ipType": 0, "ipList": ["2.0.0.0", "8"]})",
     R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE"]})", false},
    {"Logged", "{}", R"({"blLog": true})", true},
};

INSTANTIATE_TEST_SUITE_P(Shadows, ShadowTest, testing::ValuesIn(kShadows),
                         [](const auto& c) { return std::string(c.param.name); });

/// The lines about rules that never take effect.
std::vector<std::string> shadowLinesOf(const Json::Value& document) {
    std::vector<std::string> found;
    for (const std::string& line : linesOf(document)) {
        if (line.find("never takes effect") != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

class ShadowListTest : public ProfileCheckTest {};

TEST_F(ShadowListTest, DirectionCountsWhereLinesNameAnInterface) {
    const Json::Value incoming = rule();
    const Json::Value outgoing = rule(R"({"adapterDirect": 0})");
    Json::Value document = profile({});
    document["rules"]["wlan0"].append(incoming);
    document["rules"]["wlan0"].append(outgoing);
    EXPECT_THAT(shadowLinesOf(document), IsEmpty());
    EXPECT_THAT(shadowLinesOf(profile({incoming, outgoing})),
                ElementsAre("home.json: rule 2 of global: warning: never takes effect: shadowed by "
                            "rule 1 of global"));
}

TEST_F(ShadowListTest, AnotherAdaptersRuleDoesNotShadow) {
    Json::Value document = profile({});
    document["rules"]["wlan0"].append(rule());
    document["rules"]["global"].append(rule(R"({"portList": ["23"]})"));
    document["rules"]["eth0"].append(rule());
    EXPECT_THAT(shadowLinesOf(document), IsEmpty());
}

TEST_F(ShadowListTest, TheFirstOfSeveralIsNamed) {
    EXPECT_THAT(shadowLinesOf(profile({rule(R"({"policy": 1})"), rule(), rule()})),
                ElementsAre("home.json: rule 2 of global: warning: never takes effect: shadowed by "
                            "rule 1 of global",
                            "home.json: rule 3 of global: warning: never takes effect: shadowed by "
                            "rule 1 of global"));
}

TEST_F(ShadowListTest, SeveralRulesShadowOneTogether) {
    const Json::Value lower = rule(R"({"portList": ["1-1023"]})");
    const Json::Value upper = rule(R"({"portList": ["1024-65535"]})");
    EXPECT_THAT(shadowLinesOf(profile({lower, upper, rule(R"({"portList": ["1000-2000"]})")})),
                ElementsAre("home.json: rule 3 of global: warning: never takes effect: shadowed by "
                            "rules 1 and 2 of global together"));
    Json::Value document = profile({lower});
    document["rules"]["wlan0"].append(upper);
    document["rules"]["wlan0"].append(rule(R"({"portList": ["1000-2000"]})"));
    EXPECT_THAT(shadowLinesOf(document),
                ElementsAre("home.json: rule 2 of wlan0: warning: never takes effect: shadowed by "
                            "rule 1 of global and rule 1 of wlan0 together"));
}

TEST_F(ShadowListTest, RulesWithoutWhichTheSameHappensHaveNoEffect) {
    const auto linesAbout = [](Json::Value document, const char* adapter, int policy) {
        document["adapterPolicyMap"][adapter] = policy;
        EXPECT_THAT(linesOf(document), testing::Not(testing::Contains(HasSubstr("no effect"))));
        Machine machine;
        std::vector<std::string> lines;
        for (const Finding& finding : checkProfile(document, machine, NeedlessRules::kFound)) {
            if (!finding.isError) {
                lines.push_back(lineOf("home.json", finding));
            }
        }
        return lines;
    };
    Json::Value document = profile({});
    document["rules"]["wlan0"].append(rule());
    EXPECT_THAT(linesAbout(document, "wlan0", 1), IsEmpty());
    EXPECT_THAT(linesAbout(document, "wlan0", 0),
                ElementsAre("home.json: rule 1 of wlan0: warning: has no effect: the default "
                            "policy of wlan0 does the same"));
    document["rules"]["wlan0"].append(rule(R"({"portList": ["20-30"]})"));
    EXPECT_THAT(linesAbout(document, "wlan0", 1),
                ElementsAre("home.json: rule 1 of wlan0: warning: has no effect: rule 2 of wlan0 "
                            "does the same"));
    // It may be needed once an invalid rule between them is mended, and the library's stay.
    Json::Value between = document;
    between["rules"]["wlan0"].insert(1, rule(R"({"portList": ["x"]})"));
    EXPECT_THAT(linesAbout(between, "wlan0", 1), IsEmpty());
    document["rules"]["wlan0"][0] = rule(R"({"portGroup": 2, "portList": ["ssh"]})");
    EXPECT_THAT(linesAbout(document, "wlan0", 1), IsEmpty());
    // What no rule decides is open anyway.
    EXPECT_THAT(linesAbout(profile({rule()}), "global", 2),
                ElementsAre("home.json: rule 1 of global: warning: has no effect: no rule and no "
                            "default policy denies these packets"));
    EXPECT_THAT(linesAbout(profile({rule()}), "wlan0", 1), IsEmpty());
    EXPECT_THAT(linesAbout(profile({rule(R"({"blLog": true})")}), "global", 2), IsEmpty());
}

TEST_F(ShadowListTest, WhatTheEngineLeavesOutIsFoundOnce) {
    const Json::Value holes =
        rule(R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:0:0:ffff::"]})");
    EXPECT_THAT(
        linesOf(profile({holes})),
        ElementsAre(
            "home.json: rule 1 of global: warning: is not compared with other rules: "
            "\"fe80::/ffff:0:0:ffff::\" is too complex: its mask makes more than 4096 intervals"));
    const Json::Value wrong = rule(R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.256"]})");
    EXPECT_THAT(linesOf(profile({wrong})), testing::SizeIs(1));
}

TEST_F(ShadowListTest, LineThatCannotBeRunIsAnError) {
    std::string addresses = "10.0.0.1";
    for (int i = 2; i < 150; ++i) {
        addresses += ",10.0.0." + std::to_string(i);
    }
    Json::Value tooLong = rule(R"({"ipGroup": 0, "ipType": 0})");
    tooLong["ipList"][0] = addresses;
    EXPECT_THAT(linesOf(profile({tooLong})),
                testing::Contains("home.json: rule 1 of global: a line is longer than the 1024 "
                                  "bytes that apply mode \"lines\" runs: no reload succeeds"));
}

TEST_F(ShadowListTest, RulesOfLoAreNotShadowedByOthers) {
    Json::Value document = profile({});
    document["rules"]["lo"].append(rule());
    EXPECT_THAT(shadowLinesOf(document), IsEmpty());
}

TEST_F(ShadowListTest, ChainsAndTablesCount) {
    const Json::Value more =
        rule(R"({"chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL", "OUTPUT"]})");
    EXPECT_THAT(shadowLinesOf(profile({rule(), more})), IsEmpty());
    EXPECT_THAT(shadowLinesOf(profile({more, rule()})), testing::SizeIs(1));
    EXPECT_THAT(shadowLinesOf(profile({rule(R"({"table": "mangle"})"), rule()})), IsEmpty());
}

TEST_F(ShadowListTest, RulesWithErrorsAreLeftOut) {
    const Json::Value wrong = rule(R"({"portList": ["22", "x"]})");
    EXPECT_THAT(shadowLinesOf(profile({rule(), wrong})), IsEmpty());
    EXPECT_THAT(shadowLinesOf(profile({wrong, rule()})), IsEmpty());
}

TEST_F(ShadowListTest, RulesWithoutLinesAreLeftOut) {
    const Json::Value none = rule(R"({"ipGroup": 3, "ipList": ["XX"]})");
    EXPECT_THAT(shadowLinesOf(profile({rule(), none})), IsEmpty());
    EXPECT_THAT(shadowLinesOf(profile({rule(R"({"policy": 2})"), rule()})), IsEmpty());
}

}  // namespace
}  // namespace tarnfw
