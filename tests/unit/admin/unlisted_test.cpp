// Adapters that a profile does not mention: whether its list "global" leaves them open.
#include "tarnfwadmin/unlisted.h"

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfirewall/fwDB.h"

#include "profileCheck_testing.h"

namespace tarnfw {
namespace {

/// The machine's adapters that the profile does not mention: "wlan0 open: not in the profile".
std::vector<std::string> unlistedOf(const Json::Value& document) {
    FW::FWPROFILE profile;
    FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    Machine machine;
    std::vector<std::string> texts;
    for (const UnlistedAdapter& adapter : unlistedAdapters(profile, machine)) {
        texts.push_back(adapter.name + " " + textOf(adapter));
    }
    return texts;
}

const std::vector<std::string> kOpen = {"wlan0 open: not in the profile"};
const std::vector<std::string> kNotOpen = {"wlan0 not in the profile"};

/// A rule for every port.
Json::Value everything(const std::string& changes) {
    return changed(rule(R"({"portGroup": 3, "portList": []})"), changes);
}

struct GlobalCase {
    const char* name;
    std::vector<const char*> rules;  // changes to everything()
    bool open;
};

std::ostream& operator<<(std::ostream& out, const GlobalCase& c) {
    return out << c.name;
}

class GlobalTest : public ProfileCheckTest, public testing::WithParamInterface<GlobalCase> {};

TEST_P(GlobalTest, LeavesTheAdapterOpenOrNot) {
    std::vector<Json::Value> rules;
    for (const char* const changes : GetParam().rules) {
        rules.push_back(everything(changes));
    }
    EXPECT_EQ(unlistedOf(profile(rules)), GetParam().open ? kOpen : kNotOpen);
}

const GlobalCase kGlobals[] = {
    {"NoRules", {}, true},
    {"DenyAll", {R"({"policy": 1})"}, false},
    {"AllowOnePortThenDenyAll",
     {R"({"portGroup": 1, "portList": ["22"]})", R"({"policy": 1})"},
     false},
    {"AllowAllBeforeDenyAll", {"{}", R"({"policy": 1})"}, true},
    {"AllowSomeThenDenyAll",
     {R"({"ipType": 0, "ipGroup": 0, "ipList": ["10.0.0.0/8"]})", R"({"policy": 1})"},
     false},
    {"DenyAllIsOff", {R"({"policy": 1, "enable": false})"}, true},
    {"DenyNothing", {R"({"policy": 2})"}, true},
    {"DenyTcp", {R"({"policy": 1, "portGroup": 1, "portList": ["0-65535"]})"}, true},
    {"DenyIpv4", {R"({"policy": 1, "ipType": 0})"}, true},
    {"DenyBothApart", {R"({"policy": 1, "ipType": 0})", R"({"policy": 1, "ipType": 1})"}, false},
    {"DenyInHalves",
     {R"({"policy": 1, "ipType": 1})",
      R"({"policy": 1, "ipType": 0, "ipGroup": 1, "ipList": ["128.0.0.0", "1"]})",
      R"({"policy": 1, "ipType": 0, "ipGroup": 1, "ipList": ["0.0.0.0", "1"]})"},
     false},
    {"DenyOneHalf",
     {R"({"policy": 1, "ipType": 1})",
      R"({"policy": 1, "ipType": 0, "ipGroup": 1, "ipList": ["128.0.0.0", "1"]})"},
     true},
    {"AllowInHalves",
     {R"({"ipType": 0, "ipGroup": 1, "ipList": ["0.0.0.0", "1"]})",
      R"({"ipType": 0, "ipGroup": 1, "ipList": ["128.0.0.0", "1"]})",
      R"({"ipType": 1, "ipGroup": 1, "ipList": ["::", "1"]})",
      R"({"ipType": 1, "ipGroup": 1, "ipList": ["8000::", "1"]})"},
     true},
    {"AllowInHalvesBeforeDenyAll",
     {R"({"ipType": 0, "ipGroup": 1, "ipList": ["0.0.0.0", "1"]})",
      R"({"ipType": 0, "ipGroup": 1, "ipList": ["128.0.0.0", "1"]})", R"({"policy": 1})"},
     true},
    {"AllowOneHalfDenyTheOther",
     {R"({"policy": 1, "ipType": 1})", R"({"ipType": 0, "ipGroup": 1, "ipList": ["0.0.0.0", "1"]})",
      R"({"policy": 1, "ipType": 0, "ipGroup": 1, "ipList": ["128.0.0.0", "1"]})"},
     false},
    {"DenyAfterAllowOfTheSame",
     {R"({"policy": 1, "ipType": 1})",
      R"({"ipType": 0, "ipGroup": 4, "ipList": ["0.0.0.0", "200.255.255.255"]})",
      R"({"policy": 1, "ipType": 0, "ipGroup": 4, "ipList": ["10.0.0.0", "10.0.0.9"]})",
      R"({"ipType": 0})"},
     true},
    {"DenyMaskWithGaps",
     {R"({"policy": 1, "ipType": 1})",
      R"({"policy": 1, "ipType": 0, "ipGroup": 1, "ipList": ["0.0.0.0", "128.0.0.1"]})"},
     true},
    {"DenyToOneAddress", {R"({"policy": 1, "ipDirect": 0, "ipGroup": 3, "ipList": ["DE"]})"}, true},
    {"DenyInAnotherTable", {R"({"policy": 1, "table": "raw"})"}, true},
};

INSTANTIATE_TEST_SUITE_P(Globals, GlobalTest, testing::ValuesIn(kGlobals),
                         [](const auto& c) { return std::string(c.param.name); });

class UnlistedTest : public ProfileCheckTest {};

TEST_F(UnlistedTest, RulesOrADefaultPolicyAreAMention) {
    Json::Value document = profile({});
    document["adapterPolicyMap"]["wlan0"] = 2;
    EXPECT_TRUE(unlistedOf(document).empty());
    document = profile({});
    document["rules"]["wlan0"].append(rule(R"({"enable": false})"));
    EXPECT_TRUE(unlistedOf(document).empty());
    document = profile({});
    document["adapterPolicyMap"]["global"] = 1;
    EXPECT_EQ(unlistedOf(document), kNotOpen);
    document = profile({});
    document["rules"]["wlan1"].append(rule());
    EXPECT_EQ(unlistedOf(document), kOpen);
}

TEST_F(UnlistedTest, InterfacesThatAProfileHasLinesFor) {
    const auto hasLines = [](const Json::Value& document, const std::string& interface) {
        FW::FWPROFILE profile;
        FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
        Machine machine;
        return hasLinesFor(profile, interface, machine);
    };
    Json::Value document = profile({rule()});
    EXPECT_FALSE(hasLines(document, "wlan0")) << "global is for all";
    document["rules"]["wlan0"].append(rule());
    EXPECT_TRUE(hasLines(document, "wlan0"));
    EXPECT_FALSE(hasLines(document, "wlan01")) << "another one";
    EXPECT_FALSE(hasLines(document, "wlan.")) << "no pattern";
    document = profile({});
    document["rules"]["wlan0"].append(rule(R"({"enable": false})"));
    EXPECT_FALSE(hasLines(document, "wlan0"));
    document["adapterPolicyMap"]["wlan0"] = 2;
    EXPECT_FALSE(hasLines(document, "wlan0"));
    document["adapterPolicyMap"]["wlan0"] = 1;
    EXPECT_TRUE(hasLines(document, "wlan0"));
    document = profile({});
    document["adapterPolicyMap"]["ppp0"] = 1;
    EXPECT_FALSE(hasLines(document, "ppp0")) << "never applied";
}

}  // namespace
}  // namespace tarnfw
