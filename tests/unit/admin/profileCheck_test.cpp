// The checks of a profile's shape and meaning: each kind of finding, and documents without any.
#include "tarnfwadmin/profileCheck.h"

#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfirewall/fwDB.h"

#include "profileCheck_testing.h"
#include "tarnfwadmin/profileDocument.h"

namespace tarnfw {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

// ---- One rule -----------------------------------------------------------------------------------

struct RuleCase {
    const char* name;
    const char* changes;             // to a rule without findings
    std::vector<std::string> lines;  // after "home.json: rule 1 of global: "
};

std::ostream& operator<<(std::ostream& out, const RuleCase& c) {
    return out << c.changes;
}

class RuleTest : public ProfileCheckTest, public testing::WithParamInterface<RuleCase> {};

TEST_P(RuleTest, HasTheseFindings) {
    std::vector<std::string> lines;
    for (const std::string& line : GetParam().lines) {
        lines.push_back("home.json: rule 1 of global: " + line);
    }
    EXPECT_THAT(linesOf(profile({rule(GetParam().changes)})), ElementsAreArray(lines));
}

const RuleCase kShapes[] = {
    {"Whole", "{}", {}},
    {"NoProtocol", R"({"protocol": null})", {"\"protocol\" is missing"}},
    {"RuleId", R"({"ruleID": 42})", {}},
    {"RuleIdText", R"({"ruleID": "42"})", {"ruleID: must be a whole number, not \"42\""}},
    {"TwoMissing",
     R"({"table": null, "name": null})",
     {"\"name\" is missing", "\"table\" is missing"}},
    {"Misspelt", R"({"portlist": []})", {"portlist: unknown member; did you mean \"portList\"?"}},
    {"TwoUnknown",
     R"({"colour": 1, "size": 2})",
     {"colour: unknown member", "size: unknown member"}},
    {"TextForNumber",
     R"({"policy": "1"})",
     {"policy: \"1\" is not one of 0, 1, 2; did you mean 1 without quotes?"}},
    {"TextOfNoNumber", R"({"policy": "3"})", {"policy: \"3\" is not one of 0, 1, 2"}},
    {"BooleanForNumber", R"({"ipType": true})", {"ipType: true is not one of 0, 1, 2"}},
    {"UnknownGroup", R"({"ipGroup": 6})", {"ipGroup: 6 is not one of 0, 1, 2, 3, 4, 5"}},
    {"UnknownProtocol", R"({"protocol": 5})", {"protocol: 5 is not one of 1, 2, 3, 4, 32"}},
    {"NumberForBoolean", R"({"enable": 1})", {"enable: must be true or false, not 1"}},
    {"NumberForText", R"({"name": 7})", {"name: must be a string, not 7"}},
    {"TextForList", R"({"portList": "22"})", {"portList: must be an array, not \"22\""}},
    {"NumberInList", R"({"portList": ["1", 22]})", {"portList entry 2: must be a string, not 22"}},
    {"ObjectForText", R"({"table": {}})", {"table: must be a string, not an object"}},
    {"NegativeIndex", R"({"ruleIndex": -1})", {"ruleIndex: -1 is below 0"}},
    {"FractionIndex", R"({"ruleIndex": 0.5})", {"ruleIndex: must be a whole number, not 0.5"}},
    {"ChainTwice",
     R"({"chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL", "INPUT_FIREWALL"]})",
     {"chainList: contains the same text twice"}},
};

const RuleCase kAddresses[] = {
    {"Single", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1"]})", {}},
    {"SingleV6", R"({"ipGroup": 0, "ipType": 1, "ipList": ["2001:db8::1"]})", {}},
    {"NoSingle", R"({"ipGroup": 0, "ipType": 0, "ipList": []})", {"ipList: needs an address"}},
    {"BadV4",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.256"]})",
     {"ipList entry 1: \"10.0.0.256\" is not an IPv4 address"}},
    {"BadV6",
     R"({"ipGroup": 0, "ipType": 1, "ipList": ["2001:::1"]})",
     {"ipList entry 1: \"2001:::1\" is not an IPv6 address"}},
    {"HostName",
     R"({"ipGroup": 0, "ipType": 2, "ipList": ["example.org"]})",
     {"ipList entry 1: \"example.org\" is not an address"}},
    {"TwoSingles",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1", "10.0.0.2"]})",
     {"ipList entry 2: warning: is ignored: ipGroup 0 uses one address"}},
    {"V6InV4Rule",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["::1"]})",
     {"ipType: 0 means IPv4, but the address is IPv6 (1)"}},
    {"V4InV6Rule",
     R"({"ipGroup": 0, "ipType": 1, "ipList": ["10.0.0.1"]})",
     {"ipType: 1 means IPv6, but the address is IPv4 (0)"}},
    {"V4InBoth",
     R"({"ipGroup": 0, "ipType": 2, "ipList": ["10.0.0.1"]})",
     {"ipType: 2 means both families, but the address is IPv4 (0)"}},
    {"NetworkByMask",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "255.255.255.0"]})",
     {}},
    {"NetworkByLength",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "0"], "policy": 1})",
     {}},
    {"NetworkV6", R"({"ipGroup": 1, "ipType": 1, "ipList": ["2001:db8::", "128"]})", {}},
    {"NoNetwork",
     R"({"ipGroup": 1, "ipType": 0, "ipList": []})",
     {"ipList: needs an address and a mask"}},
    {"NoMask",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0"]})",
     {"ipList: needs a mask or prefix length"}},
    {"LongPrefix",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "33"]})",
     {"ipList entry 2: \"33\" is not a prefix length (0-32) or mask of IPv4"}},
    {"MaskWithGap", R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "255.0.255.0"]})", {}},
    {"MaskV6", R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:ffff::"]})", {}},
    {"MaskV6WithGap",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "ffff:fff0:ffff::"]})",
     {}},
    {"MaskOfOtherFamily",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "255.0.0.0"]})",
     {"ipList entry 2: \"255.0.0.0\" is not a prefix length (0-128) or mask of IPv6"}},
    {"OctalLength",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["fe80::", "064"]})",
     {"ipList: warning: \"fe80::/064\" is read as fe80::/52"}},
    {"LeadingZero",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["010.0.0.1"]})",
     {"ipList entry 1: warning: \"010.0.0.1\" is read as 8.0.0.1"}},
    {"TextOfMoreCharactersThanIptablesReads",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.0000000000000000000001"]})",
     {"ipList entry 1: warning: \"10.0.0.0000000000000000000001\" is read as 10.0.0.0"}},
    {"ShortV4",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.1", "16"]})",
     {"ipList: warning: \"10.1/16\" is read as 10.1.0.0/16"}},
    {"AddressOfNoFamily",
     R"({"ipGroup": 0, "ipType": 3, "ipList": ["10.0.0.1"]})",
     {"ipType: 3 is not one of 0, 1, 2"}},
    {"SingleWithMask", R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.0/8"]})", {}},
    {"SeveralInOne",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["10.0.0.1,10.1.0.0/16"]})",
     {"ipList entry 1: warning: \"10.0.0.1,10.1.0.0/16\" is read as 10.0.0.1, 10.1.0.0/16"}},
    {"EveryAddressOfBoth",
     R"({"ipGroup": 1, "ipType": 2, "ipList": ["any", "0"], "policy": 1})",
     {"ipList: warning: \"any/0\" is read as 0.0.0.0/0",
      "ipList: warning: \"any/0\" is read as ::/0"}},
    {"MappedInV4",
     R"({"ipGroup": 0, "ipType": 0, "ipList": ["::ffff:1.2.3.4"]})",
     {"ipList entry 1: warning: \"::ffff:1.2.3.4\" is read as 1.2.3.4"}},
    {"LongPrefixV6",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["::", "129"]})",
     {"ipList entry 2: \"129\" is not a prefix length (0-128) or mask of IPv6"}},
    {"NetworkAndMore",
     R"({"ipGroup": 1, "ipType": 0, "ipList": ["10.0.0.0", "8", "10.0.0.1", "8"]})",
     {"ipList entry 3: warning: is ignored: ipGroup 1 uses an address and a mask",
      "ipList entry 4: warning: is ignored: ipGroup 1 uses an address and a mask"}},
    {"NetworkOfOtherFamily",
     R"({"ipGroup": 1, "ipType": 1, "ipList": ["10.0.0.0", "8"]})",
     {"ipType: 1 means IPv6, but the address is IPv4 (0)"}},
    {"None",
     R"({"ipGroup": 2})",
     {"ipGroup: warning: 2 matches no address: the rule has no effect"}},
    {"NoneOff", R"({"ipGroup": 2, "enable": false})", {}},
    {"Country", R"({"ipGroup": 3, "ipList": ["DE"]})", {}},
    {"CountryV4", R"({"ipGroup": 3, "ipType": 0, "ipList": ["DE", "FR"]})", {}},
    {"NoCountry",
     R"({"ipGroup": 3, "ipList": []})",
     {"ipList: warning: names no country: the rule has no effect"}},
    {"CountryInWords",
     R"({"ipGroup": 3, "ipList": ["DE", "Germany"]})",
     {"ipList entry 2: \"Germany\" is not a country code (two capital letters)"}},
    {"CountrySmall",
     R"({"ipGroup": 3, "ipList": ["de"]})",
     {"ipList entry 1: \"de\" is not a country code (two capital letters)"}},
    {"CountryWithoutData",
     R"({"ipGroup": 3, "ipList": ["XX"]})",
     {"ipList entry 1: warning: there is no data for country \"XX\", which is left out"}},
    {"CountryWithoutV6Data",
     R"({"ipGroup": 3, "ipList": ["FR"]})",
     {"ipList entry 1: warning: there is no IPv6 data for country \"FR\", which is left out"}},
    {"CountryWithoutV4Data",
     R"({"ipGroup": 3, "ipType": 0, "ipList": ["XX"]})",
     {"ipList entry 1: warning: there is no IPv4 data for country \"XX\", which is left out"}},
    {"Range", R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.1", "10.0.0.1"]})", {}},
    {"NoRange",
     R"({"ipGroup": 4, "ipType": 0, "ipList": []})",
     {"ipList: needs the first and the last address"}},
    {"HalfARange",
     R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.1"]})",
     {"ipList: needs the last address of the range"}},
    {"RangeBackwards",
     R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.9", "10.0.0.5"]})",
     {"ipList: warning: the range runs backwards: \"10.0.0.5\" is before \"10.0.0.9\": the rule "
      "has "
      "no effect"}},
    {"RangeWithoutAFamily",
     R"({"ipGroup": 4, "ipType": 7, "ipList": ["fd00::1", "fd00::9"]})",
     {"ipType: 7 is not one of 0, 1, 2"}},
    {"ShortRange",
     R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.1", "10.2"]})",
     {"ipList entry 1: warning: \"10.1\" is read as 10.1.0.0",
      "ipList entry 2: warning: \"10.2\" is read as 10.2.0.0"}},
    {"RangeOfTwoFamilies",
     R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.9", "::1"]})",
     {"ipList: \"10.0.0.9\" and \"::1\" are of different families"}},
    {"RangeWithBadEnds",
     R"({"ipGroup": 4, "ipType": 1, "ipList": ["here", "there"]})",
     {"ipList entry 1: \"here\" is not an IPv6 address",
      "ipList entry 2: \"there\" is not an IPv6 address"}},
    {"RangeOfOtherFamily",
     R"({"ipGroup": 4, "ipType": 1, "ipList": ["10.0.0.1", "10.0.0.2"]})",
     {"ipType: 1 means IPv6, but the address is IPv4 (0)"}},
    {"RangeAndMore",
     R"({"ipGroup": 4, "ipType": 0, "ipList": ["10.0.0.1", "10.0.0.2", "10.0.0.3"]})",
     {"ipList entry 3: warning: is ignored: ipGroup 4 uses a first and a last address"}},
    {"AnyAndMore",
     R"({"ipList": ["10.0.0.1"]})",
     {"ipList entry 1: warning: is ignored: ipGroup 5 matches any address"}},
};

const RuleCase kPorts[] = {
    {"Ports", R"({"portList": ["0", "65535", "6000-6010", "80-80"]})", {}},
    {"PortTooLarge",
     R"({"portList": ["80", "99999"]})",
     {"portList entry 2: \"99999\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortName",
     R"({"portList": ["http"]})",
     {"portList entry 1: \"http\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortOctal",
     R"({"portList": ["010"]})",
     {"portList entry 1: \"010\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortRangeOctal",
     R"({"portList": ["8-010"]})",
     {"portList entry 1: \"8-010\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortEmpty",
     R"({"portList": [""]})",
     {"portList entry 1: \"\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortBlank",
     R"({"portList": ["2 2"]})",
     {"portList entry 1: \"2 2\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortRangeTooLarge",
     R"({"portList": ["1-65536"]})",
     {"portList entry 1: \"1-65536\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"PortRangeBackwards",
     R"({"portList": ["90-80"]})",
     {"portList entry 1: \"90-80\" is a range that runs backwards"}},
    {"NegativePort",
     R"({"portList": ["-1"]})",
     {"portList entry 1: \"-1\" is not a port (0-65535) or a range of ports (6000-6010)"}},
    {"NoPort", R"({"portList": []})", {"portList: warning: names no port: the rule has no effect"}},
    {"NoPortOff", R"({"portList": [], "enable": false})", {}},
    {"IcmpWithoutPorts", R"({"protocol": 4, "portList": []})", {}},
    {"IcmpWithPort",
     R"({"protocol": 4, "portList": ["8"]})",
     {"portList entry 1: warning: is ignored: ICMP and IGMP have no ports"}},
    {"Services", R"({"portGroup": 0, "portList": ["ssh", "nfs"]})", {}},
    {"ReservedServices", R"({"portGroup": 2, "portList": ["ssh"]})", {}},
    {"UnknownService",
     R"({"portGroup": 0, "portList": ["ssh", "telepathy"]})",
     {"portList entry 2: \"telepathy\" is not a service that the firewall knows"}},
    {"MisspeltService",
     R"({"portGroup": 0, "portList": ["shs"]})",
     {"portList entry 1: \"shs\" is not a service that the firewall knows; did you mean \"ssh\"?"}},
    {"ServiceWithoutTitle",
     R"({"portGroup": 2, "portList": ["inner"]})",
     {"portList entry 1: \"inner\" is not a service that the firewall knows"}},
    {"NoService",
     R"({"portGroup": 0, "portList": []})",
     {"portList: warning: names no service: the rule has no effect"}},
    {"AnyPort", R"({"portGroup": 3, "portList": []})", {}},
    {"AnyPortAndMore",
     R"({"portGroup": 3, "portList": ["22"]})",
     {"portList entry 1: warning: is ignored: portGroup 3 matches any port"}},
};

const RuleCase kTargets[] = {
    {"NoTarget", R"({"policy": 2})", {"policy: warning: 2 means none: the rule has no effect"}},
    {"OtherChain",
     R"({"chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL", "OUTPUT"]})",
     {"chainList entry 3: warning: \"OUTPUT\" is not one of the firewall's chains: each reload "
      "adds the "
      "rule there again and never removes it"}},
    {"LacksAChain",
     R"({"chainList": ["INPUT_FIREWALL"]})",
     {"chainList: warning: the rule is added to \"FORWARD_FIREWALL\" anyway"}},
    {"NoChainName",
     R"({"chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL", "X -j ACCEPT"]})",
     {"chainList entry 3: \"X -j ACCEPT\" is not the name of a chain"}},
    {"OtherTable",
     R"({"table": "nat"})",
     {"table: warning: \"nat\" is not \"filter\", the table with the firewall's chains"}},
    {"NoTable", R"({"table": ""})", {"table: \"\" is not the name of a table"}},
    {"TableOfWords",
     R"({"table": "filter -F"})",
     {"table: \"filter -F\" is not the name of a table"}},
};

std::string nameOf(const testing::TestParamInfo<RuleCase>& info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Shapes, RuleTest, testing::ValuesIn(kShapes), nameOf);
INSTANTIATE_TEST_SUITE_P(Addresses, RuleTest, testing::ValuesIn(kAddresses), nameOf);
INSTANTIATE_TEST_SUITE_P(Ports, RuleTest, testing::ValuesIn(kPorts), nameOf);
INSTANTIATE_TEST_SUITE_P(Targets, RuleTest, testing::ValuesIn(kTargets), nameOf);

// ---- The document -------------------------------------------------------------------------------

struct DocumentCase {
    const char* name;
    const char* changes;             // to a profile without rules
    std::vector<std::string> lines;  // after "home.json: "
};

std::ostream& operator<<(std::ostream& out, const DocumentCase& c) {
    return out << c.changes;
}

class DocumentTest : public ProfileCheckTest, public testing::WithParamInterface<DocumentCase> {};

TEST_P(DocumentTest, HasTheseFindings) {
    std::vector<std::string> lines;
    for (const std::string& line : GetParam().lines) {
        lines.push_back("home.json: " + line);
    }
    EXPECT_THAT(linesOf(changed(profile({}), GetParam().changes)), ElementsAreArray(lines));
}

const DocumentCase kDocuments[] = {
    {"Empty", "{}", {}},
    {"NoName", R"({"name": null})", {"\"name\" is missing"}},
    {"NameNumber", R"({"name": 7})", {"name: must be a string, not 7"}},
    {"NameEmpty", R"({"name": ""})", {"name: a profile needs a name"}},
    {"NameOfATest",
     R"({"name": ".test_home"})",
     {"name: warning: \".test_home\" is a test profile's name: lists do not show it"}},
    {"UnknownMember", R"({"comment": "mine"})", {"comment: unknown member"}},
    {"RulesArray", R"({"rules": []})", {"rules: must be an object or null, not an array"}},
    {"RulesEmpty", R"({"rules": {}})", {"rules: must not be empty; use null for none"}},
    {"ListEmpty", R"({"rules": {"global": []}})", {"rules.global: must not be empty"}},
    {"ListOfNumbers",
     R"({"rules": {"global": [7]}})",
     {"rule 1 of global: must be an object, not 7"}},
    {"PolicyUnknown",
     R"({"adapterPolicyMap": {"wlan0": 3, "global": 2}})",
     {"adapterPolicyMap.wlan0: 3 is not one of 0, 1, 2"}},
    {"PolicyOfGlobal",
     R"({"adapterPolicyMap": {"global": 0}})",
     {"adapterPolicyMap.global: must be 2, not 0"}},
    {"PoliciesNull", R"({"name": "x"})", {}},
};

INSTANTIATE_TEST_SUITE_P(Documents, DocumentTest, testing::ValuesIn(kDocuments),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ProfileCheckTest, WhatIsNoObjectHasOneFinding) {
    EXPECT_THAT(linesOf(parsed("[1]")), ElementsAre("home.json: must be an object, not an array"));
    EXPECT_THAT(linesOf(Json::Value()), ElementsAre("home.json: must be an object, not null"));
}

TEST_F(ProfileCheckTest, WhatADocumentLacksIsNotAddedByReadingIt) {
    for (const char* const text :
         {"{}", R"({"name": "x"})", R"({"name": "x", "rules": {}})",
          R"({"name": "x", "adapterPolicyMap": {}})", R"({"rules": {}, "adapterPolicyMap": {}})"}) {
        Machine machine;
        ProfileDocument document(text);
        EXPECT_FALSE(document.check(machine)) << text;
    }
    Json::Value shown;
    shown["name"] = "x";
    const Json::Value before = shown;
    makeStoredForm(shown);
    EXPECT_EQ(shown, before);
}

TEST_F(ProfileCheckTest, RulesOfAnAbsentAdapterAreChecked) {
    Json::Value document = profile({});
    document["rules"]["eth0.7"].append(rule());
    document["rules"]["eth0.7"].append(rule(R"({"portList": ["x"]})"));
    document["adapterPolicyMap"]["eth0.7"] = 0;
    EXPECT_THAT(linesOf(document),
                ElementsAre("home.json: rules[\"eth0.7\"]: warning: there is no adapter \"eth0.7\" "
                            "now: its rules and default policy have no effect until there is one; "
                            "the package's udev rule then applies them, without it the next "
                            "reload does",
                            "home.json: rule 2 of eth0.7: portList entry 1: \"x\" is not a port "
                            "(0-65535) or a range of ports (6000-6010)"));
}

TEST_F(ProfileCheckTest, WithoutACatalogueServicesAreNotChecked) {
    std::filesystem::remove_all("/usr/tarn/etc.defaults/services.d");
    EXPECT_THAT(linesOf(profile({rule(R"({"portGroup": 0, "portList": ["ssh"]})")})),
                ElementsAre("home.json: warning: the service catalogue is empty: services are not "
                            "checked"));
}

TEST_F(ProfileCheckTest, EachFileThatMakesTheCatalogueUnreadableIsAnError) {
    const std::string directory = "/usr/tarn/etc.defaults/services.d/";
    writeFile(directory + "b.json", "[");
    writeFile("/usr/tarn/etc/services.d/c.json", "[]");
    std::filesystem::permissions("/usr/tarn/etc/services.d/c.json",
                                 std::filesystem::perms::group_write,
                                 std::filesystem::perm_options::add);
    std::filesystem::create_symlink("test.json", directory + "link.json");
    const std::string start = "home.json: the service catalogue cannot be read: ";
    EXPECT_THAT(
        linesOf(profile({rule(R"({"portGroup": 0, "portList": ["ssh"]})")})),
        ElementsAre(start + directory + "b.json: it is not valid JSON",
                    start + directory + "link.json: it is a symbolic link",
                    start + "/usr/tarn/etc/services.d/c.json: group or others may write it"));
    EXPECT_THAT(linesOf(profile({rule()})), IsEmpty());
}

TEST_F(ProfileCheckTest, AnInvalidServiceMakesTheCatalogueUnreadable) {
    writeFile("/usr/tarn/etc/services.d/c.json", R"({"name": "ssh", "dst": {"protocol": "sctp"}})");
    EXPECT_THAT(
        linesOf(profile({rule(R"({"portGroup": 0, "portList": ["ssh"]})")})),
        ElementsAre("home.json: the service catalogue cannot be read: a file has an invalid "
                    "service; the log names it"));
}

TEST_F(ProfileCheckTest, AnIpv4NetworkOfEveryAddressOpensATunnelToAllOfIpv6) {
    const auto network = [](const char* members) {
        return rule(std::string(R"({"ipGroup": 1, "ipType": 0, )") + members + "}");
    };
    EXPECT_THAT(
        linesOf(
            profile({network(R"("ipList": ["0.0.0.0", "0"])"),
                     network(R"("ipList": ["10.0.0.0", "8"], "portList": ["1"])"),
                     network(R"("ipGroup": 0, "ipList": ["10.1.2.3/0"], "portList": ["3"])"),
                     network(R"("ipList": ["0.0.0.0", "0"], "portList": ["2"], "policy": 1)")})),
        ElementsAre(
            "home.json: rule 1 of global: ipList: warning: \"/0\" is every address: in apply "
            "mode \"lines\" it opens a 6in4 tunnel of the adapter to all of IPv6 as well",
            "home.json: rule 3 of global: ipList: warning: \"/0\" is every address: in apply "
            "mode \"lines\" it opens a 6in4 tunnel of the adapter to all of IPv6 as well"));
}

TEST_F(ProfileCheckTest, ANulInAnyTextIsAnError) {
    Json::Value document = profile({rule(), rule(R"({"name": "a\u0000b", "labelList": ["\u0000"],
        "ipGroup": 0, "ipList": ["10.0.0.5\u0000 -h"], "portList": ["22\u0000"]})")});
    document["name"] = std::string("ho\0me", 5);
    std::vector<std::string> nul;
    for (const std::string& line : linesOf(document)) {
        if (line.find("contains a NUL character") != std::string::npos) {
            nul.push_back(line);
        }
    }
    EXPECT_THAT(nul, ElementsAre("home.json: name: \"ho?me\" contains a NUL character",
                                 "home.json: rule 2 of global: ipList entry 1: \"10.0.0.5? -h\" "
                                 "contains a NUL character",
                                 "home.json: rule 2 of global: labelList entry 1: \"?\" contains a "
                                 "NUL character",
                                 "home.json: rule 2 of global: name: \"a?b\" contains a NUL "
                                 "character",
                                 "home.json: rule 2 of global: portList entry 1: \"22?\" contains "
                                 "a NUL character"));
}

TEST_F(ProfileCheckTest, ANulInTheNameOfAnAdapterIsAnError) {
    Json::Value document = profile({});
    document["rules"][std::string("et\0", 3)].append(rule());
    document["adapterPolicyMap"][std::string("po\0", 3)] = 0;
    EXPECT_THAT(linesOf(document),
                testing::IsSupersetOf(
                    {"home.json: rules[\"et?\"]: \"et?\" contains a NUL character",
                     "home.json: adapterPolicyMap[\"po?\"]: \"po?\" contains a NUL character"}));
}

TEST_F(ProfileCheckTest, PlacesAreData) {
    Json::Value document = profile({rule(), rule(R"({"portList": ["23"]})")});
    document["rules"]["eth0.7"].append(rule(R"({"portList": ["x"]})"));
    document["rules"]["global"].append(rule());
    Machine machine;
    std::vector<std::string> places;
    for (const Finding& finding : checkProfile(document, machine)) {
        const Json::Value entry = jsonOf(finding);
        places.push_back(
            entry["path"].asString() + " " + entry["adapter"].asString() + " " +
            (entry["position"].isNull() ? "-" : entry["position"].asString()) +
            (finding.shadowedBy.empty() ? "" : " by " + placeText(finding.shadowedBy[0])));
    }
    EXPECT_THAT(places,
                ElementsAre("rules[\"eth0.7\"]  -", "rules[\"eth0.7\"][0].portList[0] eth0.7 1",
                            "rules.global[2] global 3 by rule 1 of global"));
}

TEST_F(ProfileCheckTest, FindingsOfOneRuleAreThoseThatConcernIt) {
    FW::FWPROFILE stored;
    FW::TARNFW_JSON_DB().jsonToProfile(
        profile({rule(), rule(), rule(R"({"portList": ["x"]})"), rule(R"({"portList": ["y"]})")}),
        stored);
    Machine machine;
    const auto textsAt = [&](std::size_t position) {
        std::vector<std::string> texts;
        for (const Finding& finding : ruleFindings(stored, {{"global", position}}, machine)) {
            texts.push_back(textOf(finding));
        }
        return texts;
    };
    const std::string shadow =
        "rule 2 of global: warning: never takes effect: shadowed by rule 1 of global";
    EXPECT_THAT(textsAt(1), ElementsAre(shadow));
    EXPECT_THAT(textsAt(2), ElementsAre(shadow));
    EXPECT_THAT(textsAt(3), ElementsAre("rule 3 of global: portList entry 1: \"x\" is not a port "
                                        "(0-65535) or a range of ports (6000-6010)"));
}

TEST_F(ProfileCheckTest, ControlCharactersDoNotReachTheTerminal) {
    EXPECT_THAT(
        linesOf(profile({rule(R"({"portList": ["\u001b[2J\n"]})")})),
        ElementsAre("home.json: rule 1 of global: portList entry 1: \"?[2J?\" is not a port "
                    "(0-65535) or a range of ports (6000-6010)"));
}

// Most rules of a long list have the same codes; the count is that of all of them.
TEST_F(ProfileCheckTest, ErrorsAreCountedForEveryRule) {
    FW::FWRULE valid;
    valid.ipGroup = FW::FW_IP_GROUP_ANY;
    valid.portGroup = FW::FW_PORT_GROUP_ANY;
    FW::FWRULE wrongCode = valid;
    wrongCode.ipType = 7;
    FW::FWRULE wrongPort = valid;
    wrongPort.portGroup = FW::FW_PORT_GROUP_PORTS;
    wrongPort.portList = {"x"};
    Machine machine;
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.adapterPolicyMap = {{"global", FW::FW_POLICY_NONE}};
    profile.rules["global"] = {valid, valid};
    EXPECT_EQ(errorsOf(profile, machine), 0U);
    profile.rules["global"] = {valid, wrongPort, valid, wrongPort};
    EXPECT_EQ(errorsOf(profile, machine), 2U);
    profile.rules["global"] = {valid, wrongCode, wrongPort, wrongCode, wrongCode};
    EXPECT_EQ(errorsOf(profile, machine), 4U);
    profile.adapterPolicyMap["global"] = FW::FW_POLICY_DENY;
    EXPECT_EQ(errorsOf(profile, machine), 5U);
}

// The rules are checked in portions; what concerns the profile or an adapter counts once.
TEST_F(ProfileCheckTest, ErrorsOfALongListAreCountedOnce) {
    FW::FWRULE valid;
    valid.ipGroup = FW::FW_IP_GROUP_ANY;
    valid.portGroup = FW::FW_PORT_GROUP_ANY;
    FW::FWRULE wrongPort = valid;
    wrongPort.portGroup = FW::FW_PORT_GROUP_PORTS;
    wrongPort.portList = {"x"};
    Machine machine;
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.adapterPolicyMap = {{"global", FW::FW_POLICY_NONE}};
    profile.rules["global"].assign(350, valid);
    for (const std::size_t i : {0U, 99U, 100U, 199U, 200U, 349U}) {
        profile.rules["global"][i] = wrongPort;
    }
    EXPECT_EQ(errorsOf(profile, machine), 6U);
    profile.rules["a b"].assign(350, valid);  // no adapter's name
    EXPECT_EQ(errorsOf(profile, machine), 7U);
}

// ---- The adapters of the default policies -------------------------------------------------------

struct AdapterCase {
    const char* name;
    const char* adapter;
    const char* finding;  // with its place as text
};

std::ostream& operator<<(std::ostream& out, const AdapterCase& c) {
    return out << c.adapter;
}

class AdapterTest : public ProfileCheckTest, public testing::WithParamInterface<AdapterCase> {};

TEST_P(AdapterTest, HasThisFinding) {
    Json::Value document = profile({});
    document["adapterPolicyMap"][GetParam().adapter] = 1;
    EXPECT_THAT(linesOf(document),
                ElementsAre(std::string("home.json: adapterPolicyMap") + GetParam().finding));
}

const AdapterCase kAdapters[] = {
    {"Away", "eth7",
     ".eth7: warning: there is no adapter \"eth7\" now: its rules and default policy have no "
     "effect until there is one; the package's udev rule then applies them, without it the next "
     "reload does"},
    {"Misspelt", "wlna0",
     ".wlna0: warning: there is no adapter \"wlna0\" now: its rules and default policy have no "
     "effect until there is one; the package's udev rule then applies them, without it the next "
     "reload does; did you mean \"wlan0\"?"},
    {"PredefinedMisspelt", "ppoe",
     ".ppoe: warning: there is no adapter \"ppoe\" now: its rules and default policy have no "
     "effect until there is one; the package's udev rule then applies them, without it the next "
     "reload does; did you mean \"pppoe\"?"},
    {"OfAnotherNumber", "wlan1",
     ".wlan1: warning: there is no adapter \"wlan1\" now: its rules and default policy have no "
     "effect until there is one; the package's udev rule then applies them, without it the next "
     "reload does"},
    {"VpnAway", "vpn",
     ".vpn: warning: \"vpn\" has no interface now: its rules and default policy have no effect "
     "until there is one; the package's udev rule then applies them, without it the next "
     "reload does"},
    {"Loopback", "lo",
     ".lo: warning: \"lo\" is never filtered: its rules and default policy have no effect"},
    {"PppoeInterface", "ppp0",
     ".ppp0: warning: rules and default policies of \"ppp0\" are never applied; use \"pppoe\""},
    {"NoName", "eth0 -j ACCEPT",
     "[\"eth0 -j ACCEPT\"]: \"eth0 -j ACCEPT\" is not the name of an adapter"},
    {"NameThatNegates", "!x", "[\"!x\"]: \"!x\" is not the name of an adapter"},
    {"NameOfADirectory", "..", "[\"..\"]: \"..\" is not the name of an adapter"},
    {"NameTooLong", "abcdefghijklmnop",
     ".abcdefghijklmnop: \"abcdefghijklmnop\" is not the name of an adapter"},
};

INSTANTIATE_TEST_SUITE_P(Adapters, AdapterTest, testing::ValuesIn(kAdapters),
                         [](const auto& c) { return std::string(c.param.name); });

}  // namespace
}  // namespace tarnfw
