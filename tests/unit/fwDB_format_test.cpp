#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <json/json.h>

#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwDB.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace FW {

// Compared and printed field by field, so that a failing round trip shows what was lost.
bool operator==(const FWRULE& a, const FWRULE& b) {
    return a.ruleID == b.ruleID && a.enable == b.enable && a.adapterDirect == b.adapterDirect &&
           a.policy == b.policy && a.blLog == b.blLog && a.labelList == b.labelList &&
           a.name == b.name && a.table == b.table && a.chainList == b.chainList &&
           a.ipType == b.ipType && a.ipDirect == b.ipDirect && a.ipGroup == b.ipGroup &&
           a.ipList == b.ipList && a.portDirect == b.portDirect && a.portGroup == b.portGroup &&
           a.protocol == b.protocol && a.portList == b.portList;
}

void PrintTo(const FWRULE& rule, std::ostream* out) {
    *out << "{ruleID " << rule.ruleID << ", enable " << rule.enable << ", adapterDirect "
         << rule.adapterDirect << ", policy " << static_cast<std::int32_t>(rule.policy)
         << ", blLog " << rule.blLog << ", labelList " << ::testing::PrintToString(rule.labelList)
         << ", name " << ::testing::PrintToString(rule.name) << ", table "
         << ::testing::PrintToString(rule.table) << ", chainList "
         << ::testing::PrintToString(rule.chainList) << ", ipType " << rule.ipType << ", ipDirect "
         << rule.ipDirect << ", ipGroup " << rule.ipGroup << ", ipList "
         << ::testing::PrintToString(rule.ipList) << ", portDirect " << rule.portDirect
         << ", portGroup " << rule.portGroup << ", protocol " << rule.protocol << ", portList "
         << ::testing::PrintToString(rule.portList) << "}";
}

}  // namespace FW

namespace {

using Rules = std::map<std::string, std::vector<FW::FWRULE>>;
using Policies = std::map<std::string, FW::FW_POLICY>;

constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();

// The reader of rules works on a document of its own: by value.
static_assert(std::is_same_v<decltype(&FW::TARNFW_JSON_DB::jsonToRuleList),
                             void (FW::TARNFW_JSON_DB::*)(Json::Value, Rules&)>);

Json::Value toJson(const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    return document;
}

Json::Value toJson(const Rules& rules) {
    Json::Value document;
    FW::TARNFW_JSON_DB().ruleListToJson(rules, document);
    return document;
}

FW::FWPROFILE toProfile(const Json::Value& document) {
    FW::FWPROFILE profile;
    FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    return profile;
}

Rules toRules(const Json::Value& document) {
    Rules rules;
    FW::TARNFW_JSON_DB().jsonToRuleList(document, rules);
    return rules;
}

// The one rule of a document that has only this rule, under "eth0".
FW::FWRULE readRule(const std::string& text) {
    const Rules rules = toRules(parseJson("{\"eth0\": [" + text + "]}"));
    EXPECT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules.at("eth0").size(), 1u);
    return rules.at("eth0").at(0);
}

// A rule with no field at its creation value.
FW::FWRULE everyFieldSet() {
    FW::FWRULE rule;
    rule.ruleID = 42;
    rule.enable = false;
    rule.adapterDirect = 0;
    rule.policy = FW::FW_POLICY_DENY;
    rule.blLog = true;
    rule.labelList = {"office", "a \"quoted\" one", ""};
    rule.name = "printers";
    rule.table = "mangle";
    rule.chainList = {"FORWARD_FIREWALL", "INPUT_FIREWALL", "A_CHAIN", "z"};
    rule.ipType = 2;
    rule.ipDirect = 0;
    rule.ipGroup = 1;
    rule.ipList = {"192.168.1.0", "255.255.255.0"};
    rule.portDirect = 1;
    rule.portGroup = 1;
    rule.protocol = FW::FW_PORT_PROTOCOL_TCP_UDP;
    rule.portList = {"9100", "515", "6000-6010"};
    return rule;
}

class FormatTest : public LibraryTest {};

// ---- Records to documents ----

TEST_F(FormatTest, RuleIsWrittenWithExactlyItsSeventeenMembers) {
    const Json::Value written = toJson(Rules{{"eth0", {everyFieldSet()}}});
    EXPECT_EQ(written, parseJson(R"({"eth0": [{
        "ruleIndex": 0, "enable": false, "adapterDirect": 0, "protocol": 3, "policy": 1,
        "blLog": true, "name": "printers", "table": "mangle",
        "labelList": ["office", "a \"quoted\" one", ""],
        "chainList": ["A_CHAIN", "FORWARD_FIREWALL", "INPUT_FIREWALL", "z"],
        "ipType": 2, "ipDirect": 0, "ipGroup": 1, "ipList": ["192.168.1.0", "255.255.255.0"],
        "portDirect": 1, "portGroup": 1, "portList": ["9100", "515", "6000-6010"]}]})"));
    EXPECT_EQ(written["eth0"][0].size(), 17u);
    EXPECT_FALSE(written["eth0"][0].isMember("ruleID"));
}

TEST_F(FormatTest, MembersAreWrittenWithTheirTypes) {
    const Json::Value written = toJson(Rules{{"eth0", {FW::FWRULE()}}});
    const Json::Value& rule = written["eth0"][0];
    for (const char* key : {"ruleIndex", "adapterDirect", "protocol", "policy", "ipType",
                            "ipDirect", "ipGroup", "portDirect", "portGroup"}) {
        EXPECT_EQ(rule[key].type(), Json::intValue) << key;
    }
    for (const char* key : {"enable", "blLog"}) {
        EXPECT_EQ(rule[key].type(), Json::booleanValue) << key;
    }
    for (const char* key : {"name", "table"}) {
        EXPECT_EQ(rule[key].type(), Json::stringValue) << key;
    }
    for (const char* key : {"labelList", "chainList", "ipList", "portList"}) {
        EXPECT_EQ(rule[key].type(), Json::arrayValue) << key;
    }
}

TEST_F(FormatTest, StoredRuleLooksAsDocumented) {
    FW::FWRULE rule;
    rule.ipType = 2;
    rule.ipGroup = 5;
    rule.portGroup = 1;
    rule.portList = {"22"};
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.rules["eth0"] = {rule};
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_DENY}, {"global", FW::FW_POLICY_NONE}};

    EXPECT_EQ(Json::StyledWriter().write(toJson(profile)),
              "{\n"
              "   \"adapterPolicyMap\" : {\n"
              "      \"eth0\" : 1,\n"
              "      \"global\" : 2\n"
              "   },\n"
              "   \"name\" : \"home\",\n"
              "   \"rules\" : {\n"
              "      \"eth0\" : [\n"
              "         {\n"
              "            \"adapterDirect\" : 1,\n"
              "            \"blLog\" : false,\n"
              "            \"chainList\" : [ \"FORWARD_FIREWALL\", \"INPUT_FIREWALL\" ],\n"
              "            \"enable\" : true,\n"
              "            \"ipDirect\" : 1,\n"
              "            \"ipGroup\" : 5,\n"
              "            \"ipList\" : [],\n"
              "            \"ipType\" : 2,\n"
              "            \"labelList\" : [],\n"
              "            \"name\" : \"\",\n"
              "            \"policy\" : 0,\n"
              "            \"portDirect\" : 0,\n"
              "            \"portGroup\" : 1,\n"
              "            \"portList\" : [ \"22\" ],\n"
              "            \"protocol\" : 1,\n"
              "            \"ruleIndex\" : 0,\n"
              "            \"table\" : \"filter\"\n"
              "         }\n"
              "      ]\n"
              "   }\n"
              "}\n");
}

TEST_F(FormatTest, RuleIndexCountsFromZeroForEachAdapter) {
    const Json::Value written =
        toJson(Rules{{"eth0", std::vector<FW::FWRULE>(3)}, {"vpn", std::vector<FW::FWRULE>(2)}});
    ASSERT_EQ(written["eth0"].size(), 3u);
    ASSERT_EQ(written["vpn"].size(), 2u);
    for (Json::ArrayIndex i = 0; i < 3; ++i) {
        EXPECT_EQ(written["eth0"][i]["ruleIndex"].asUInt(), i);
    }
    EXPECT_EQ(written["vpn"][0]["ruleIndex"].asInt(), 0);
    EXPECT_EQ(written["vpn"][1]["ruleIndex"].asInt(), 1);
}

TEST_F(FormatTest, RulesAreAppendedToWhatTheDocumentHolds) {
    Json::Value document = parseJson(R"({"eth0": ["present"], "wlan0": 7})");
    FW::TARNFW_JSON_DB().ruleListToJson({{"eth0", std::vector<FW::FWRULE>(2)}}, document);
    ASSERT_EQ(document["eth0"].size(), 3u);
    EXPECT_EQ(document["eth0"][0].asString(), "present");
    EXPECT_EQ(document["eth0"][1]["ruleIndex"].asInt(), 0);
    EXPECT_EQ(document["eth0"][2]["ruleIndex"].asInt(), 1);
    EXPECT_EQ(document["wlan0"].asInt(), 7);
}

TEST_F(FormatTest, AdapterWithoutRulesGetsNoMember) {
    const Json::Value written = toJson(Rules{{"eth0", {}}, {"vpn", {FW::FWRULE()}}});
    EXPECT_THAT(written.getMemberNames(), ElementsAre("vpn"));
    EXPECT_TRUE(toJson(Rules{{"eth0", {}}}).isNull());
}

TEST_F(FormatTest, EmptyProfileHasNullRulesAndNullPolicies) {
    FW::FWPROFILE profile;
    profile.name = "home";
    EXPECT_EQ(toJson(profile),
              parseJson(R"({"name": "home", "rules": null, "adapterPolicyMap": null})"));
}

TEST_F(FormatTest, EmptyRuleListIsWrittenAsNullRulesAndReadsBackWithoutTheAdapter) {
    FW::FWPROFILE profile;
    profile.rules["eth0"];
    const Json::Value written = toJson(profile);
    EXPECT_TRUE(written.isMember("rules"));
    EXPECT_TRUE(written["rules"].isNull());
    EXPECT_THAT(toProfile(written).rules, IsEmpty());
}

TEST_F(FormatTest, PoliciesAreResetAndRulesAreNot) {
    Json::Value document =
        parseJson(R"({"adapterPolicyMap": {"old": 1}, "rules": {"eth0": ["present"]}})");
    FW::FWPROFILE profile;
    profile.rules["eth0"].emplace_back();
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    EXPECT_TRUE(document["adapterPolicyMap"].isNull());
    EXPECT_EQ(document["rules"]["eth0"].size(), 2u);
}

TEST_F(FormatTest, PoliciesAreWrittenAsIntegersWhateverTheirValue) {
    FW::FWPROFILE profile;
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_ALLOW},
                                {"eth1", FW::FW_POLICY_DENY},
                                {"eth2", FW::FW_POLICY_NONE},
                                {"eth3", static_cast<FW::FW_POLICY>(-9)}};
    const Json::Value written = toJson(profile);
    EXPECT_EQ(written["adapterPolicyMap"],
              parseJson(R"({"eth0": 0, "eth1": 1, "eth2": 2, "eth3": -9})"));
    EXPECT_EQ(written["adapterPolicyMap"]["eth3"].type(), Json::intValue);
}

TEST_F(FormatTest, ChainsAreWrittenAsTheRecordHoldsThem) {
    FW::FWRULE none;
    none.chainList.clear();
    FW::FWRULE other;
    other.chainList = {"ONLY"};
    const Json::Value written = toJson(Rules{{"eth0", {none, other}}});
    EXPECT_EQ(written["eth0"][0]["chainList"], Json::Value(Json::arrayValue));
    EXPECT_EQ(written["eth0"][1]["chainList"], parseJson(R"(["ONLY"])"));
}

// ---- Documents to records ----

TEST_F(FormatTest, EmptyRuleObjectReadsAsZerosAndBothChains) {
    FW::FWRULE expected;
    expected.ruleID = 0;
    expected.enable = false;
    expected.adapterDirect = 0;
    expected.protocol = 0;
    expected.policy = FW::FW_POLICY_ALLOW;
    expected.blLog = false;
    expected.name = "";
    expected.table = "";
    expected.chainList = {"FORWARD_FIREWALL", "INPUT_FIREWALL"};
    expected.ipType = 0;
    expected.ipDirect = 0;
    expected.ipGroup = 0;
    expected.portDirect = 0;
    expected.portGroup = 0;
    EXPECT_EQ(readRule("{}"), expected);
}

TEST_F(FormatTest, EveryMemberIsReadInWhateverOrderItStands) {
    EXPECT_EQ(readRule(R"({"portList": ["9100", "515", "6000-6010"], "portGroup": 1,
        "portDirect": 1, "ipList": ["192.168.1.0", "255.255.255.0"], "ipGroup": 1, "ipDirect": 0,
        "ipType": 2, "chainList": ["z", "A_CHAIN"],
        "labelList": ["office", "a \"quoted\" one", ""], "table": "mangle", "name": "printers",
        "blLog": true, "policy": 1, "protocol": 3, "adapterDirect": 0, "enable": false,
        "ruleIndex": 99, "unknown": {}, "ruleID": 42})"),
              everyFieldSet());
}

TEST_F(FormatTest, RuleIndexIsIgnored) {
    const Rules rules = toRules(
        parseJson(R"({"eth0": [{"name": "a", "ruleIndex": 5}, {"name": "b", "ruleIndex": 0}]})"));
    ASSERT_EQ(rules.at("eth0").size(), 2u);
    EXPECT_EQ(rules.at("eth0")[0].name, "a");
    EXPECT_EQ(rules.at("eth0")[1].name, "b");
    EXPECT_EQ(rules.at("eth0")[0].ruleID, 0);
}

struct ChainCase {
    const char* name;
    const char* rule;
    std::set<std::string> chains;
};

const ChainCase kChains[] = {
    {"OneFirewallChain",
     R"({"chainList": ["INPUT_FIREWALL"]})",
     {"FORWARD_FIREWALL", "INPUT_FIREWALL"}},
    {"OtherChain", R"({"chainList": ["OTHER"]})", {"FORWARD_FIREWALL", "INPUT_FIREWALL", "OTHER"}},
    {"RepeatedChain",
     R"({"chainList": ["X", "X", "INPUT_FIREWALL"]})",
     {"FORWARD_FIREWALL", "INPUT_FIREWALL", "X"}},
    {"EmptyList", R"({"chainList": []})", {"FORWARD_FIREWALL", "INPUT_FIREWALL"}},
    {"NullList", R"({"chainList": null})", {"FORWARD_FIREWALL", "INPUT_FIREWALL"}},
    {"NoList", R"({"name": "x"})", {"FORWARD_FIREWALL", "INPUT_FIREWALL"}},
};

class ChainListTest : public FormatTest, public ::testing::WithParamInterface<ChainCase> {};

TEST_P(ChainListTest, RuleKeepsBothFirewallChains) {
    EXPECT_EQ(readRule(GetParam().rule).chainList, GetParam().chains);
}

INSTANTIATE_TEST_SUITE_P(, ChainListTest, ::testing::ValuesIn(kChains),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(FormatTest, PolicyOfAnAdapterIsReadAsAnInteger) {
    const FW::FWPROFILE profile = toProfile(parseJson(
        R"({"name": "home", "adapterPolicyMap": {"eth0": 1, "eth1": 0, "eth2": 2, "eth3": 77}})"));
    EXPECT_EQ(profile.name, "home");
    EXPECT_EQ(profile.adapterPolicyMap, (Policies{{"eth0", FW::FW_POLICY_DENY},
                                                  {"eth1", FW::FW_POLICY_ALLOW},
                                                  {"eth2", FW::FW_POLICY_NONE},
                                                  {"eth3", static_cast<FW::FW_POLICY>(77)}}));
    EXPECT_THAT(profile.rules, IsEmpty());
}

TEST_F(FormatTest, EmptyDocumentReadsAsAnEmptyProfile) {
    const FW::FWPROFILE profile = toProfile(parseJson("{}"));
    EXPECT_EQ(profile.name, "");
    EXPECT_THAT(profile.rules, IsEmpty());
    EXPECT_THAT(profile.adapterPolicyMap, IsEmpty());
}

TEST_F(FormatTest, NullMembersReadAsEmpty) {
    const FW::FWPROFILE profile =
        toProfile(parseJson(R"({"name": null, "rules": null, "adapterPolicyMap": null})"));
    EXPECT_EQ(profile.name, "");
    EXPECT_THAT(profile.rules, IsEmpty());
    EXPECT_THAT(profile.adapterPolicyMap, IsEmpty());
}

TEST_F(FormatTest, ReadingAddsToWhatTheProfileHolds) {
    FW::FWPROFILE profile;
    profile.name = "old";
    profile.rules["eth0"].resize(1);
    profile.rules["eth0"][0].name = "present";
    profile.rules["eth1"].resize(1);
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_ALLOW}, {"eth1", FW::FW_POLICY_NONE}};

    FW::TARNFW_JSON_DB().jsonToProfile(
        parseJson(R"({"name": "new", "rules": {"eth0": [{"name": "read"}], "vpn": [{}]},
                      "adapterPolicyMap": {"eth0": 1, "vpn": 0}})"),
        profile);

    EXPECT_EQ(profile.name, "new");
    ASSERT_EQ(profile.rules.size(), 3u);
    ASSERT_EQ(profile.rules["eth0"].size(), 2u);
    EXPECT_EQ(profile.rules["eth0"][0].name, "present");
    EXPECT_EQ(profile.rules["eth0"][1].name, "read");
    EXPECT_EQ(profile.rules["eth1"].size(), 1u);
    EXPECT_EQ(profile.rules["vpn"].size(), 1u);
    EXPECT_EQ(profile.adapterPolicyMap, (Policies{{"eth0", FW::FW_POLICY_DENY},
                                                  {"eth1", FW::FW_POLICY_NONE},
                                                  {"vpn", FW::FW_POLICY_ALLOW}}));
}

// ---- Types of members ----

struct ScalarCase {
    const char* name;
    const char* rule;
    std::function<void(FW::FWRULE&)> change;  // what is read, starting from an empty rule object
};

const ScalarCase kConversions[] = {
    {"NumberAsBoolean", R"({"enable": 1, "blLog": 0.5})",
     [](FW::FWRULE& rule) { rule.enable = rule.blLog = true; }},
    {"ZeroAsBoolean", R"({"enable": 0, "blLog": 0.0})", [](FW::FWRULE&) {}},
    {"BooleanAsInteger", R"({"policy": true, "ipType": true})",
     [](FW::FWRULE& rule) {
         rule.policy = FW::FW_POLICY_DENY;
         rule.ipType = 1;
     }},
    {"FractionAsInteger", R"({"protocol": 2.75})", [](FW::FWRULE& rule) { rule.protocol = 2; }},
    {"NumberAsText", R"({"name": 5, "portList": [80, true]})",
     [](FW::FWRULE& rule) {
         rule.name = "5";
         rule.portList = {"80", "true"};
     }},
    {"NullAsAnything", R"({"name": null, "enable": null, "ipGroup": null, "ipList": null})",
     [](FW::FWRULE&) {}},
    {"CodesOutsideTheirLists",
     R"({"policy": 99, "ipGroup": -1, "portGroup": 2147483647, "protocol": -2147483648})",
     [](FW::FWRULE& rule) {
         rule.policy = static_cast<FW::FW_POLICY>(99);
         rule.ipGroup = -1;
         rule.portGroup = kMax;
         rule.protocol = kMin;
     }},
};

class ConversionTest : public FormatTest, public ::testing::WithParamInterface<ScalarCase> {};

TEST_P(ConversionTest, IsThatOfTheJsonLibrary) {
    FW::FWRULE expected = readRule("{}");
    GetParam().change(expected);
    EXPECT_EQ(readRule(GetParam().rule), expected);
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, ConversionTest, ::testing::ValuesIn(kConversions),
                         [](const auto& c) { return std::string(c.param.name); });

struct MismatchCase {
    const char* name;
    const char* document;
};

const MismatchCase kMismatches[] = {
    {"NameIsAnObject", R"({"name": {}})"},
    {"PolicyOfAnAdapterIsText", R"({"adapterPolicyMap": {"eth0": "deny"}})"},
    {"RuleIsANumber", R"({"rules": {"eth0": [5]}})"},
    {"RuleIdIsText", R"({"rules": {"eth0": [{"ruleID": "1"}]}})"},
    {"EnableIsText", R"({"rules": {"eth0": [{"enable": "yes"}]}})"},
    {"AdapterDirectIsText", R"({"rules": {"eth0": [{"adapterDirect": "in"}]}})"},
    {"ProtocolIsText", R"({"rules": {"eth0": [{"protocol": "tcp"}]}})"},
    {"PolicyIsText", R"({"rules": {"eth0": [{"policy": "deny"}]}})"},
    {"LogIsAList", R"({"rules": {"eth0": [{"blLog": []}]}})"},
    {"RuleNameIsAList", R"({"rules": {"eth0": [{"name": ["a"]}]}})"},
    {"TableIsAnObject", R"({"rules": {"eth0": [{"table": {}}]}})"},
    {"LabelIsAnObject", R"({"rules": {"eth0": [{"labelList": [{}]}]}})"},
    {"ChainIsAList", R"({"rules": {"eth0": [{"chainList": [["X"]]}]}})"},
    {"IpTypeIsTooLarge", R"({"rules": {"eth0": [{"ipType": 2147483648}]}})"},
    {"IpDirectIsAnObject", R"({"rules": {"eth0": [{"ipDirect": {}}]}})"},
    {"IpGroupIsText", R"({"rules": {"eth0": [{"ipGroup": "5"}]}})"},
    {"AddressIsAnObject", R"({"rules": {"eth0": [{"ipList": ["10.0.0.1", {}]}]}})"},
    {"PortDirectIsText", R"({"rules": {"eth0": [{"portDirect": ""}]}})"},
    {"PortGroupIsAList", R"({"rules": {"eth0": [{"portGroup": [1]}]}})"},
    {"PortIsAnObject", R"({"rules": {"eth0": [{"portList": [{}]}]}})"},
};

class MismatchTest : public FormatTest, public ::testing::WithParamInterface<MismatchCase> {};

TEST_P(MismatchTest, RaisesTheJsonError) {
    FW::FWPROFILE profile;
    EXPECT_THROW(FW::TARNFW_JSON_DB().jsonToProfile(parseJson(GetParam().document), profile),
                 Json::Exception);
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, MismatchTest, ::testing::ValuesIn(kMismatches),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- Round trips ----

TEST_F(FormatTest, WritingAndReadingKeepsEveryFieldButTheRuleId) {
    FW::FWRULE expected = everyFieldSet();
    expected.ruleID = 0;
    const Rules rules = toRules(toJson(Rules{{"eth0", {everyFieldSet()}}}));
    ASSERT_EQ(rules.count("eth0"), 1u);
    EXPECT_THAT(rules.at("eth0"), ElementsAre(expected));
}

// Random profiles; the seed is fixed, so that a failure can be repeated.
class RandomProfiles {
public:
    explicit RandomProfiles(std::uint32_t seed) : random_(seed) {}

    FW::FWPROFILE profile() {
        FW::FWPROFILE made;
        made.name = text();
        for (int i = number(0, 4); i > 0; --i) {
            std::vector<FW::FWRULE>& rules = made.rules[text()];
            for (int j = number(0, 4); j > 0; --j) {
                rules.push_back(rule());
            }
        }
        for (int i = number(0, 4); i > 0; --i) {
            made.adapterPolicyMap[text()] = static_cast<FW::FW_POLICY>(code());
        }
        return made;
    }

private:
    FW::FWRULE rule() {
        FW::FWRULE made;
        made.ruleID = code();
        made.enable = number(0, 1) == 1;
        made.adapterDirect = code();
        made.policy = static_cast<FW::FW_POLICY>(code());
        made.blLog = number(0, 1) == 1;
        made.labelList = texts();
        made.name = text();
        made.table = text();
        made.chainList.clear();
        for (const std::string& chain : texts()) {
            made.chainList.insert(chain);
        }
        made.ipType = code();
        made.ipDirect = code();
        made.ipGroup = code();
        made.ipList = texts();
        made.portDirect = code();
        made.portGroup = code();
        made.protocol = code();
        made.portList = texts();
        return made;
    }

    std::vector<std::string> texts() {
        std::vector<std::string> made;
        for (int i = number(0, 3); i > 0; --i) {
            made.push_back(text());
        }
        return made;
    }

    // Words that need escapes, names that the library knows, and characters of all lengths.
    std::string text() {
        static const char* const kPieces[] = {"eth0",
                                              "global",
                                              "INPUT_FIREWALL",
                                              "a",
                                              " ",
                                              "\"",
                                              "\\",
                                              "/",
                                              "\n",
                                              "\t",
                                              "\x01",
                                              "\x7f",
                                              "// no comment",
                                              "\xc3\xa9",
                                              "\xe2\x82\xac",
                                              "\xf0\x9f\x94\xa5",
                                              "\\u0041",
                                              "null"};
        std::string made;
        for (int i = number(0, 3); i > 0; --i) {
            made += kPieces[number(0, static_cast<int>(std::size(kPieces)) - 1)];
        }
        return made;
    }

    std::int32_t code() {
        switch (number(0, 4)) {
            case 0:
                return kMin;
            case 1:
                return kMax;
            case 2:
                return number(kMin, kMax);
            default:
                return number(-1, 33);
        }
    }

    int number(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }

    std::mt19937 random_;
};

// A profile after it has been written and read.
FW::FWPROFILE afterRoundTrip(FW::FWPROFILE profile) {
    for (auto entry = profile.rules.begin(); entry != profile.rules.end();) {
        for (FW::FWRULE& rule : entry->second) {
            rule.ruleID = 0;
            rule.chainList.insert({"FORWARD_FIREWALL", "INPUT_FIREWALL"});
        }
        entry = entry->second.empty() ? profile.rules.erase(entry) : std::next(entry);
    }
    return profile;
}

TEST_F(FormatTest, RandomProfilesSurviveTheirDocumentAndItsText) {
    RandomProfiles random(20240229);
    for (int i = 0; i < 300; ++i) {
        SCOPED_TRACE(i);
        const FW::FWPROFILE profile = random.profile();
        const FW::FWPROFILE expected = afterRoundTrip(profile);
        const std::string stored = Json::StyledWriter().write(toJson(profile));

        const FW::FWPROFILE read = toProfile(parseJson(stored));

        ASSERT_EQ(read.name, expected.name) << stored;
        ASSERT_EQ(read.rules, expected.rules) << stored;
        ASSERT_EQ(read.adapterPolicyMap, expected.adapterPolicyMap) << stored;
        ASSERT_EQ(toJson(afterRoundTrip(read)), toJson(read)) << stored;
    }
    EXPECT_THAT(logLines(platform_), IsEmpty());
}

}  // namespace
