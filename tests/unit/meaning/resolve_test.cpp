// Profiles as sets of packets: the same verdicts as the lines of the translation, and what single
// texts mean.

#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwEnvironment.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/tarnFW.h"

#include "iptables_lines.h"
#include "packet_set.h"
#include "random_case.h"

namespace {

using FW::FWADDRESSES;
using FW::FWENVIRONMENT;
using FW::FWPROFILE;
using FW::FWRESOLVED;
using FW::FWRESOLVEDRULE;
using FW::FWRULE;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::ValuesIn;

using Texts = std::vector<std::string>;

FWENVIRONMENT environmentOf(const std::vector<std::string>& interfaces) {
    FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow(interfaces, "");
    environment.acceptEstablished = false;
    return environment;
}

FWRULE anyRule() {
    FWRULE rule;
    rule.ipGroup = FW::FW_IP_GROUP_ANY;
    rule.portGroup = FW::FW_PORT_GROUP_ANY;
    return rule;
}

FWRULE addressRule(int group, const Texts& list, int type = FW::FW_IP_TYPE_V4) {
    FWRULE rule = anyRule();
    rule.ipGroup = group;
    rule.ipType = type;
    rule.ipList = list;
    return rule;
}

FWRULE portRule(const Texts& ports) {
    FWRULE rule = anyRule();
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.portList = ports;
    return rule;
}

FWRESOLVED resolve(const std::vector<FWRULE>& rules,
                   const FWENVIRONMENT& environment = environmentOf({"eth0"})) {
    FWPROFILE profile;
    profile.rules["eth0"] = rules;
    return FW::fwResolve(profile, environment);
}

/// The resolved rules without the fixed lines.
std::vector<FWRESOLVEDRULE> rulesOf(const FWRESOLVED& resolved) {
    std::vector<FWRESOLVEDRULE> rules;
    for (const FWRESOLVEDRULE& rule : resolved.rules) {
        if (rule.place.origin >= FW::FW_ORIGIN_RULE) {
            rules.push_back(rule);
        }
    }
    return rules;
}

Texts findingsOf(const FWRESOLVED& resolved) {
    Texts texts;
    for (const FW::FWFINDING& finding : resolved.findings) {
        texts.push_back(finding.place.adapter + " " + std::to_string(finding.place.position) +
                        ": " + finding.text);
    }
    return texts;
}

/// "10.0.0.0-10.255.255.255", or "any".
Texts addressTexts(const FWADDRESSES* addresses, FW::FW_FAMILY family) {
    if (addresses == nullptr) {
        return {"any"};
    }
    Texts texts;
    for (const FW::FWADDRESSINTERVAL& one : *addresses) {
        texts.push_back(FW::fwAddressText(one.first, family) + "-" +
                        FW::fwAddressText(one.last, family));
    }
    return texts;
}

/// "22-22", or "any".
Texts intervalTexts(const FW::FWINTERVALS& intervals) {
    Texts texts;
    for (const FW::FWINTERVAL& one : intervals) {
        texts.push_back(std::to_string(one.first) + "-" + std::to_string(one.last));
    }
    return intervals.empty() ? Texts{"any"} : texts;
}

// ---- The same as the lines ----

class ResolveRandomTest : public LibraryTest {};

/// The first resolved rule that has the packet.
const FWRESOLVEDRULE* firstMatch(const FWRESOLVED& resolved, const FW::FWPACKET& packet) {
    for (const FWRESOLVEDRULE& rule : resolved.rules) {
        if (hasPacket(rule.packets, packet)) {
            return &rule;
        }
    }
    return nullptr;
}

bool hasRefusedLine(const FamilyLines& lines, const FW::FWPLACE& place) {
    for (const std::vector<Line>& family : lines) {
        for (const Line& line : family) {
            if (line.refused && line.adapter == place.adapter && line.position == place.position) {
                return true;
            }
        }
    }
    return false;
}

std::string outcomeOf(const FWRESOLVEDRULE* rule) {
    if (rule == nullptr) {
        return "RETURN";
    }
    static const char* const kTargets[] = {"ACCEPT", "RETURN", "DROP"};
    return std::string(kTargets[rule->verdict]) + (rule->log ? " logged" : "") + " by " +
           rule->place.adapter + " " + std::to_string(rule->place.position);
}

std::string outcomeOf(const LineVerdict& verdict) {
    if (verdict.decider == nullptr) {
        return verdict.target;
    }
    return verdict.target + (verdict.logged ? " logged" : "") + " by " + verdict.decider->adapter +
           " " +
           (verdict.decider->adapter.empty() ? "0" : std::to_string(verdict.decider->position));
}

TEST_F(ResolveRandomTest, VerdictsAreThoseOfTheLines) {
    const TestCountries countries(1);
    storeCountries(countries);
    const int profiles = countOf(200, 5000);
    constexpr int kPackets = 500;
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(number));
        const RandomCase made = makeCase(random, 8, countries, platform_);
        const FamilyLines lines = linesOfProfile(made.profile, made.batch, countries.ranges());
        FWENVIRONMENT environment;
        ASSERT_TRUE(FW::fwEnvironmentGet(made.profile, FW::FW_ADAPTERS_PRESENT, {}, environment));
        environment.batch = made.batch;
        const FWRESOLVED resolved = FW::fwResolve(made.profile, environment);
        for (const FW::FWFINDING& finding : resolved.findings) {
            ASSERT_TRUE(hasRefusedLine(lines, finding.place))
                << "profile " << number << ": " << finding.text << textOf(lines);
        }
        for (int i = 0; i < kPackets; ++i) {
            const LinePacket packet = makePacket(random, lines, made.interfaces);
            ASSERT_EQ(outcomeOf(firstMatch(resolved, packetOf(packet))),
                      outcomeOf(decideByLines(lines, packet)))
                << "profile " << number << ", " << textOf(packet) << textOf(lines);
        }
    }
    tellCompared(profiles, std::int64_t(profiles) * kPackets, "packets at and beside edges");
}

// ---- Addresses, as the tool prints them ----

struct AddressCase {
    std::string text;
    FW::FW_FAMILY family;
    Texts addresses;  // none: refused
};

std::ostream& operator<<(std::ostream& stream, const AddressCase& c) {
    return stream << c.text;
}

constexpr FW::FW_FAMILY kV4 = FW::FW_FAMILY_V4;
constexpr FW::FW_FAMILY kV6 = FW::FW_FAMILY_V6;

const AddressCase kAddressCases[] = {
    {"10.0.0.1", kV4, {"10.0.0.1-10.0.0.1"}},
    {"10", kV4, {"10.0.0.0-10.0.0.0"}},
    {"10/8", kV4, {"10.0.0.0-10.255.255.255"}},
    {"010.0.0.1", kV4, {"8.0.0.1-8.0.0.1"}},
    {"0x0a.0.0.1", kV4, {"10.0.0.1-10.0.0.1"}},
    {"10.0.0.1/0x8", kV4, {"10.0.0.0-10.255.255.255"}},
    {"10.0.0.1/+8", kV4, {"10.0.0.0-10.255.255.255"}},
    {"10.1.2.3/255.255.255.0", kV4, {"10.1.2.0-10.1.2.255"}},
    {"10.1.2.3/255.255.255.252,10.1.2.1", kV4, {"10.1.2.0-10.1.2.3"}},
    {"10.0.0.1,10.0.0.9", kV4, {"10.0.0.1-10.0.0.1", "10.0.0.9-10.0.0.9"}},
    {"10.1.2.3/255.255.255.250", kV4, {"10.1.2.2-10.1.2.3", "10.1.2.6-10.1.2.7"}},
    {"10.1.2.3/31", kV4, {"10.1.2.2-10.1.2.3"}},
    {"167772161", kV4, {"10.0.0.1-10.0.0.1"}},
    {"0xa000001/8", kV4, {"10.0.0.0-10.255.255.255"}},
    {"10.256", kV4, {"10.0.1.0-10.0.1.0"}},
    {"10.0.0.1,\t10.256", kV4, {"10.0.0.1-10.0.0.1", "10.0.1.0-10.0.1.0"}},
    {"10.0.0.0000000000000000000001", kV4, {"10.0.0.0-10.0.0.0"}},
    {"10.0.0.1/255.0.0.00000000000000008", kV4, {"10.0.0.0-10.255.255.255"}},
    {std::string(248, '0') + "1.2.3.4", kV4, {"0.0.0.0-0.0.0.0"}},
    {"nowhere/0", kV4, {"any"}},
    {"nowhere/0.0.0.0", kV4, {"any"}},
    {"0.0.0.0/1", kV4, {"0.0.0.0-127.255.255.255"}},
    {"", kV4, {}},
    {"10.0.0.1/", kV4, {}},
    {"10.0.0.1/255.0", kV4, {}},
    {"10.0.0.1/33", kV4, {}},
    {"10.0.0.1/8/8", kV4, {}},
    {"256.0.0.1", kV4, {}},
    {"4294967296", kV4, {}},
    {"10.\t256", kV4, {}},
    {"10.256\tx", kV4, {}},
    {"10.0.0.1/255.256", kV4, {}},
    {"10.0.0.1/255.0000000000000000.0.0", kV4, {}},
    {std::string(249, '0') + "1.2.3.4", kV4, {}},
    {"10.0.0.1,", kV4, {}},
    {"10.0.0.1 -p tcp", kV4, {}},
    {"nowhere", kV4, {}},
    {"::1", kV4, {}},
    {"::ffff:10.0.0.1", kV4, {"10.0.0.1-10.0.0.1"}},
    {"::ffff:10.0.0.1/24", kV4, {"10.0.0.0-10.0.0.255"}},
    {"10.0.0.1/::ffff:255.0.0.0", kV4, {}},
    {"fe80::1/10", kV6, {"fe80::-febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}},
    {"fe80::1/ffff::", kV6, {"fe80::-fe80:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}},
    {"\tfe80::1,\tfe80::3/128", kV6, {"fe80::1-fe80::1", "fe80::3-fe80::3"}},
    {"fe80::1%lo", kV6, {}},
    {"fe80::1\t", kV6, {}},
    {"167772161", kV6, {}},
    {"::ffff:1.2.3.4", kV6, {"::ffff:1.2.3.4-::ffff:1.2.3.4"}},
    {"10.0.0.1/0", kV6, {"any"}},
    {"10.0.0.1", kV6, {}},
    {"::1/129", kV6, {}},
};

class AddressTest : public ::testing::TestWithParam<AddressCase> {};

TEST_P(AddressTest, IsReadAsIptablesReadsIt) {
    const AddressCase& c = GetParam();
    const FWRESOLVED resolved = resolve({addressRule(FW::FW_IP_GROUP_SINGLE, {c.text}, c.family)});
    const std::vector<FWRESOLVEDRULE> rules = rulesOf(resolved);
    if (c.addresses.empty()) {
        EXPECT_THAT(rules, IsEmpty());
        EXPECT_THAT(findingsOf(resolved),
                    ElementsAre("eth0 1: \"" + c.text +
                                (c.family == kV4 ? "\" is not an IPv4 address"
                                                 : "\" is not an IPv6 address")));
        return;
    }
    ASSERT_THAT(rules, SizeIs(1));
    EXPECT_EQ(rules[0].packets.families, 1U << c.family);
    EXPECT_THAT(addressTexts(rules[0].packets.sources.get(), c.family),
                ElementsAreArray(c.addresses));
}

INSTANTIATE_TEST_SUITE_P(Texts, AddressTest, ValuesIn(kAddressCases));

TEST(ResolveTest, MaskWithGapsIsExpandedUpToTheBound) {
    const std::vector<FWRESOLVEDRULE> rules =
        rulesOf(resolve({addressRule(FW::FW_IP_GROUP_NETWORK, {"10.0.0.7", "255.0.15.255"})}));
    ASSERT_THAT(rules, SizeIs(1));
    EXPECT_THAT(*rules[0].packets.sources, SizeIs(FW::FW_MASK_INTERVALS));

    EXPECT_THAT(
        findingsOf(resolve({addressRule(FW::FW_IP_GROUP_NETWORK, {"10.0.0.7", "255.0.7.255"})})),
        ElementsAre("eth0 1: \"10.0.0.7/255.0.7.255\" is too complex: its mask makes more than "
                    "4096 intervals"));
}

TEST(ResolveTest, MasksWithGapsOfOneRuleHaveTheBoundTogether) {
    const std::string mask = "/255.0.31.255";  // 2,048 intervals
    const auto addresses = [&](int count) {
        std::string text = "10.0.0.0" + mask;
        for (int i = 1; i < count; ++i) {
            text += ",10.0.0." + std::to_string(i) + mask;
        }
        return addressRule(FW::FW_IP_GROUP_SINGLE, {text});
    };
    EXPECT_THAT(findingsOf(resolve({addresses(2)})), IsEmpty());
    EXPECT_THAT(findingsOf(resolve({addresses(3)})), SizeIs(1));
}

/// Two countries that together have half as many intervals as a profile may have, less one.
FWENVIRONMENT environmentWithLongCountries() {
    FWADDRESSES lists[2];
    for (std::uint64_t i = 1; i < FW::FW_PROFILE_INTERVALS / 2; ++i) {
        lists[i % 2].push_back({{i << 40, 0}, {i << 40, 0}});
    }
    FWENVIRONMENT environment = environmentOf({"eth0"});
    environment.countries = [one = std::make_shared<const FWADDRESSES>(lists[0]),
                             other = std::make_shared<const FWADDRESSES>(lists[1])](
                                const std::string& code, FW::FW_FAMILY) {
        return code == "AA" ? one : other;
    };
    return environment;
}

TEST(ResolveTest, AddressesOfAllRulesHaveABound) {
    FWENVIRONMENT environment = environmentWithLongCountries();
    const auto countries = [](const Texts& codes) {
        return addressRule(FW::FW_IP_GROUP_COUNTRIES, codes, FW::FW_IP_TYPE_V6);
    };
    const FWRULE ipv4 = addressRule(FW::FW_IP_GROUP_SINGLE, {"10.0.0.1"});
    const FWRULE ipv6 = addressRule(FW::FW_IP_GROUP_SINGLE, {"::1"}, FW::FW_IP_TYPE_V6);
    const std::string why =
        "the profile is too complex: its addresses make more than 4000000 intervals";
    // Equal lists are made once, and that of a single country not at all.
    EXPECT_THAT(findingsOf(resolve({countries({"AA", "BB"}), countries({"AA", "BB"}),
                                    countries({"AA"}), countries({"BB", "AA"}), ipv4, ipv6, ipv4},
                                   environment)),
                ElementsAre("eth0 7: " + why));

    // Also where only what is repeated for a tunnel is too much.
    environment.tunnels["eth0"] = "sit0";
    EXPECT_THAT(
        findingsOf(resolve({countries({"AA", "BB"}), countries({"BB", "AA"}), ipv4, ipv6, ipv4},
                           environment)),
        ElementsAre("eth0 4: " + why, "eth0 5: " + why));
}

TEST(ResolveTest, EndsOfARangeAreFourNumbersOfTheFirst19Characters) {
    const auto range = [](const std::string& first, const std::string& last) {
        return resolve({addressRule(FW::FW_IP_GROUP_RANGE, {first, last})});
    };
    const std::vector<FWRESOLVEDRULE> cut =
        rulesOf(range("10.0.0.0000000000000000000001", "10.0.0.5"));
    ASSERT_THAT(cut, SizeIs(1));
    EXPECT_THAT(addressTexts(cut[0].packets.sources.get(), kV4), ElementsAre("10.0.0.0-10.0.0.5"));
    EXPECT_THAT(findingsOf(range("10.256", "10.257")),
                ElementsAre("eth0 1: \"10.256-10.257\" is not an IPv4 address"));
    EXPECT_THAT(findingsOf(range("167772161", "167772170")), SizeIs(1));
}

TEST(ResolveTest, RangeThatRunsBackwardsMatchesNothing) {
    const FWRESOLVED resolved =
        resolve({addressRule(FW::FW_IP_GROUP_RANGE, {"10.0.0.9", "10.0.0.1"})});
    EXPECT_THAT(rulesOf(resolved), IsEmpty());
    EXPECT_THAT(findingsOf(resolved), IsEmpty());
}

TEST(ResolveTest, CountriesAreUnitedAndASingleOneIsShared) {
    const auto interval = [](const std::string& first, const std::string& last) {
        return FW::FWADDRESSINTERVAL{FW::fwAddressFrom(first, kV4)->first,
                                     FW::fwAddressFrom(last, kV4)->last};
    };
    const auto aa = std::make_shared<FWADDRESSES>(FW::fwAddressesFrom(
        {interval("10.0.2.0", "10.0.2.255"), interval("10.0.0.0", "10.0.0.255")}));
    const auto bb = std::make_shared<FWADDRESSES>(FW::fwAddressesFrom(
        {interval("10.0.1.0", "10.0.1.255"), interval("10.9.0.9", "10.9.0.1")}));
    FWENVIRONMENT environment = environmentOf({"eth0"});
    environment.countries = [&](const std::string& country, FW::FW_FAMILY family) {
        return family == kV6 || country == "CC" ? nullptr : country == "AA" ? aa : bb;
    };
    const int group = FW::FW_IP_GROUP_COUNTRIES;
    const std::vector<FWRESOLVEDRULE> rules =
        rulesOf(resolve({addressRule(group, {"CC", "AA"}, FW::FW_IP_TYPE_BOTH),
                         addressRule(group, {"AA", "BB"}), addressRule(group, {"CC"})},
                        environment));
    ASSERT_THAT(rules, SizeIs(2));
    EXPECT_EQ(rules[0].packets.sources, aa);
    EXPECT_THAT(addressTexts(rules[1].packets.sources.get(), kV4),
                ElementsAre("10.0.0.0-10.0.2.255"));
}

TEST(ResolveTest, LinesThatIptablesTakesCountWithoutThoseThatItRefuses) {
    const FWRESOLVED both =
        resolve({addressRule(FW::FW_IP_GROUP_SINGLE, {"10.0.0.1"}, FW::FW_IP_TYPE_BOTH)});
    EXPECT_THAT(findingsOf(both), ElementsAre("eth0 1: \"10.0.0.1\" is not an IPv6 address"));
    ASSERT_THAT(rulesOf(both), SizeIs(1));
    EXPECT_EQ(rulesOf(both)[0].packets.families, 1U << kV4);

    const FWRESOLVED ports = resolve({portRule({"1", "2", "3", "4", "5", "6", "70000", "8", "9"})});
    EXPECT_THAT(findingsOf(ports),
                ElementsAre("eth0 1: \"70000\" is not a port or a range of ports"));
    ASSERT_THAT(rulesOf(ports), SizeIs(1));
    EXPECT_THAT(intervalTexts(rulesOf(ports)[0].packets.destinationPorts), ElementsAre("8-9"));
}

TEST(ResolveTest, CountriesThatTheMatchDoesNotTakeAreFindings) {
    FWENVIRONMENT environment = environmentOf({"eth0"});
    const auto some = std::make_shared<FWADDRESSES>(FWADDRESSES{{{1, 0}, {2, 0}}});
    environment.countries = [&](const std::string& country, FW::FW_FAMILY) {
        return country == "CC" ? nullptr : some;
    };
    environment.brokenCountries = {{"BB", kV4}};
    const auto countries = [](const Texts& codes) {
        return addressRule(FW::FW_IP_GROUP_COUNTRIES, codes);
    };
    const Texts fifteen(15, "AA");
    const Texts sixteen(16, "AA");
    const FWRESOLVED resolved =
        resolve({countries({"us"}), countries({"AA", "USA"}), countries({"BB"}), countries(fifteen),
                 countries(sixteen), countries({"A1", "CC"})},
                environment);
    EXPECT_THAT(findingsOf(resolved),
                ElementsAre("eth0 1: \"us\" is not the code of a country",
                            "eth0 2: \"USA\" is not the code of a country",
                            "eth0 3: the file of country \"BB\" ends within a record",
                            "eth0 5: there are more than 15 countries in one rule"));
    EXPECT_THAT(rulesOf(resolved), SizeIs(2));
}

TEST(ResolveTest, MoreCountriesThanALineTakesAreAFinding) {
    FWENVIRONMENT environment = environmentOf({"eth0"});
    const auto all = std::make_shared<FWADDRESSES>(FWADDRESSES{{{1, 0}, {2, 0}}});
    environment.countries = [&](const std::string& country, FW::FW_FAMILY family) {
        return family == kV6 && country > "C" ? nullptr : all;
    };
    Texts codes;
    for (char letter = 'A'; letter <= 'P'; ++letter) {
        codes.push_back(std::string("A") + letter);
    }
    codes.back() = "ZZ";
    const FWRESOLVED resolved =
        resolve({addressRule(FW::FW_IP_GROUP_COUNTRIES, codes, FW::FW_IP_TYPE_BOTH)}, environment);
    EXPECT_THAT(findingsOf(resolved),
                ElementsAre("eth0 1: there are more than 15 countries in one rule"));
    ASSERT_THAT(rulesOf(resolved), SizeIs(1));
    EXPECT_EQ(rulesOf(resolved)[0].packets.families, 1U << kV6);
}

// ---- Ports ----

struct PortCase {
    Texts entries;
    Texts ports;  // none: refused
};

std::ostream& operator<<(std::ostream& stream, const PortCase& c) {
    for (const std::string& entry : c.entries) {
        stream << entry << " ";
    }
    return stream;
}

const PortCase kPortCases[] = {
    {{"22"}, {"22-22"}},
    {{"0"}, {"0-0"}},
    {{"0x16"}, {"22-22"}},
    {{"026"}, {"22-22"}},
    {{"80:"}, {"80-65535"}},
    {{":80"}, {"0-80"}},
    {{"80:80"}, {"80-80"}},
    {{"80-80"}, {"80-80"}},
    {{"80-90"}, {"80-90"}},
    {{"22", "21", "23-24", "80"}, {"21-24", "80-80"}},
    {{"22,80", "90"}, {"22-22", "80-80", "90-90"}},
    {{"1", "2", "3", "4", "5", "6", "7", "8", "10"}, {"1-8", "10-10"}},
    {{"65536"}, {}},
    {{"80:22"}, {}},
    {{"22,80"}, {}},
    {{"ssh"}, {}},
    {{"90-80"}, {}},
    {{"80:", "22"}, {}},
    {{"80:80", "22"}, {}},
    {{"80-", "22"}, {}},
    {{"1-2-3"}, {}},
    {{""}, {}},
    {{"22", " 80"}, {}},
    {{"1,2,3,4,5,6,7,8,9,10,11,12,13,14,15", "16"}, {}},
};

class PortTest : public ::testing::TestWithParam<PortCase> {};

TEST_P(PortTest, IsReadAsIptablesReadsIt) {
    const PortCase& c = GetParam();
    const FWRESOLVED resolved = resolve({portRule(c.entries)});
    const std::vector<FWRESOLVEDRULE> rules = rulesOf(resolved);
    if (c.ports.empty()) {
        EXPECT_THAT(rules, IsEmpty());
        EXPECT_THAT(resolved.findings, SizeIs(1));
        return;
    }
    ASSERT_THAT(rules, SizeIs(1));
    EXPECT_THAT(intervalTexts(rules[0].packets.destinationPorts), ElementsAreArray(c.ports));
    EXPECT_THAT(intervalTexts(rules[0].packets.sourcePorts), ElementsAre("any"));
    EXPECT_THAT(intervalTexts(rules[0].packets.protocols), ElementsAre("6-6"));
}

INSTANTIATE_TEST_SUITE_P(Texts, PortTest, ValuesIn(kPortCases));

TEST(ResolveTest, SinglePortOfUdpIsReadInDecimal) {
    FWRULE rule = portRule({"026"});
    rule.protocol = FW::FW_PORT_PROTOCOL_TCP_UDP;
    const std::vector<FWRESOLVEDRULE> rules = rulesOf(resolve({rule}));
    ASSERT_THAT(rules, SizeIs(2));
    EXPECT_THAT(intervalTexts(rules[0].packets.destinationPorts), ElementsAre("22-22"));
    EXPECT_THAT(intervalTexts(rules[1].packets.destinationPorts), ElementsAre("26-26"));

    rule.portList = {"0x16"};
    const FWRESOLVED hexadecimal = resolve({rule});
    EXPECT_THAT(rulesOf(hexadecimal), SizeIs(1));
    EXPECT_THAT(findingsOf(hexadecimal),
                ElementsAre("eth0 1: \"0x16\" is not a port or a range of ports"));
}

// ---- What is left out ----

TEST(ResolveTest, FindingsSayWhatBecomesOfTheLines) {
    FWENVIRONMENT environment = environmentOf({"eth0"});
    environment.tunnels["eth0"] = "sit0";
    FWRULE table = anyRule();
    table.table = "nat";
    const FWRESOLVED resolved =
        resolve({addressRule(FW::FW_IP_GROUP_SINGLE, {"x is too complex: y"}),
                 addressRule(FW::FW_IP_GROUP_NETWORK, {"10.0.0.7", "255.0.7.255"}), table},
                environment);
    std::vector<std::pair<int, FW::FW_FINDING>> kinds;
    for (const FW::FWFINDING& finding : resolved.findings) {
        kinds.emplace_back(finding.place.position, finding.kind);
    }
    EXPECT_THAT(kinds, ElementsAre(std::pair(1, FW::FW_FINDING_REFUSED),
                                   std::pair(2, FW::FW_FINDING_TOO_COMPLEX),
                                   std::pair(3, FW::FW_FINDING_OF_OTHERS)));
}

TEST(ResolveTest, RuleWithoutLinesIsNoFinding) {
    FWRULE rule = anyRule();
    rule.ipGroup = FW::FW_IP_GROUP_NONE;
    rule.table = "nat";
    rule.chainList = {"FOO", std::string("B\0R", 3)};
    FWPROFILE profile;
    profile.rules["eth0"] = {rule};
    profile.rules["abcdefghijklmnop"] = {rule};
    FWRULE countries = rule;
    countries.ipGroup = FW::FW_IP_GROUP_COUNTRIES;
    countries.ipList = {"AA"};
    FWRULE ports = rule;
    ports.ipGroup = FW::FW_IP_GROUP_ANY;
    ports.portGroup = FW::FW_PORT_GROUP_PORTS;
    profile.rules["eth0"].push_back(countries);
    profile.rules["eth0"].push_back(ports);
    const FWRESOLVED resolved = FW::fwResolve(profile, environmentOf({"eth0", "abcdefghijklmnop"}));
    EXPECT_THAT(findingsOf(resolved), IsEmpty());
    EXPECT_THAT(rulesOf(resolved), IsEmpty());
}

TEST(ResolveTest, BlanksAroundTheNamesOfTableAndChainsAreSkipped) {
    FWRULE rule = anyRule();
    rule.table = " filter ";
    rule.chainList = {"INPUT_FIREWALL ", "OTHER "};
    const FWRESOLVED resolved = resolve({rule});
    EXPECT_THAT(findingsOf(resolved),
                ElementsAre("eth0 1: the chain \"OTHER \" is not the firewall's"));
    ASSERT_THAT(rulesOf(resolved), SizeIs(1));
    EXPECT_EQ(rulesOf(resolved)[0].packets.chains, 1U << FW::FW_CHAIN_INPUT);

    rule.table = "filter -v";
    EXPECT_THAT(findingsOf(resolve({rule})),
                ElementsAre("eth0 1: the table \"filter -v\" is not the firewall's"));
}

TEST(ResolveTest, RulesThatCannotBeAppliedAreFindings) {
    FWRULE policy = anyRule();
    policy.policy = static_cast<FW::FW_POLICY>(7);
    FWRULE table = anyRule();
    table.table = "nat";
    FWRULE chain = anyRule();
    chain.chainList.insert("OTHER");
    FWRULE nul = portRule({std::string("8\0", 2)});
    const FWRESOLVED resolved = resolve({policy, table, chain, nul, anyRule()});
    EXPECT_THAT(findingsOf(resolved),
                ElementsAre("eth0 1: there is no policy 7",
                            "eth0 2: the table \"nat\" is not the firewall's",
                            "eth0 3: the chain \"OTHER\" is not the firewall's",
                            "eth0 4: a text holds a NUL character"));
    const std::vector<FWRESOLVEDRULE> rules = rulesOf(resolved);
    ASSERT_THAT(rules, SizeIs(2));
    EXPECT_EQ(rules[0].place.position, 3);
    EXPECT_EQ(rules[1].place.position, 5);
}

// ---- Lines that are too long ----

using LongLineTest = LibraryTest;

/// A list of addresses that is so long.
std::string addressesOf(std::size_t bytes) {
    std::string text = "10.0.0.1";
    while (text.size() + 9 <= bytes) {
        text += ",10.0.0.2";
    }
    text += std::string(bytes - text.size(), '0');  // "10.0.0.20000" is an error, but no matter
    return text;
}

TEST_F(LongLineTest, AreFindingsExactlyWhereTheCommandCannotBeRun) {
    int runs = 0;
    int tooLong = 0;
    for (std::size_t bytes = 880; bytes < 1000; ++bytes) {
        for (const int type : {FW::FW_IP_TYPE_V4, FW::FW_IP_TYPE_BOTH}) {
            FWPROFILE profile;
            FWRULE rule = addressRule(FW::FW_IP_GROUP_SINGLE, {addressesOf(bytes)}, type);
            rule.portGroup = FW::FW_PORT_GROUP_PORTS;
            rule.portList = {"80", "6000-6010"};
            rule.blLog = bytes % 2 == 0;
            rule.policy = bytes % 3 == 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
            profile.rules["eth0"] = {rule};
            Json::Value lines;
            ASSERT_TRUE(FW::TARNFW_IPTABLES_RULES().fwRulesToIptablesRules(
                false, profile.rules, profile.adapterPolicyMap, lines));
            bool isRun = true;
            for (const char* const family : {"v4", "v6"}) {
                for (const Json::Value& line : lines[family]["eth0"]) {
                    isRun = isRun && FW::TARNFW().cmdExec(std::string("/sbin/ip") +
                                                          (family[1] == '6' ? "6" : "") +
                                                          "tables " + line.asString());
                }
            }
            (isRun ? runs : tooLong) += 1;
            std::vector<FW::FWFINDING> findings =
                FW::fwResolve(profile, environmentOf({"eth0"})).findings;
            EXPECT_EQ(isRun, findings.empty() || findings[0].kind != FW::FW_FINDING_NOT_RUN)
                << bytes << " " << type;
        }
    }
    EXPECT_GT(runs, 20);
    EXPECT_GT(tooLong, 20);
}

TEST_F(LongLineTest, AreTakenUpToAnotherLengthInABatch) {
    const std::string lineStart = "-A FORWARD_FIREWALL -i eth0 -s ";
    const std::string lineEnd = "  -j RETURN";
    FWENVIRONMENT environment = environmentOf({"eth0"});
    environment.tunnels["eth0"] = "sit0";
    const auto rule = [](const std::string& text) {
        return addressRule(FW::FW_IP_GROUP_SINGLE, {text});
    };
    const std::string longest = addressesOf(10238 + 1 - lineStart.size() - lineEnd.size());
    EXPECT_THAT(findingsOf(resolve({rule(longest)}, environment)),
                ElementsAre("eth0 1: a line is longer than the 1024 bytes that apply mode "
                            "\"lines\" runs"));
    environment.batch = true;
    EXPECT_THAT(findingsOf(resolve({rule(longest)}, environment)), IsEmpty());
    EXPECT_THAT(findingsOf(resolve({rule(longest + "0")}, environment)),
                ElementsAre("eth0 1: a line is longer than the 10238 bytes that apply mode "
                            "\"batch\" takes"));
    EXPECT_THAT(findingsOf(resolve({rule("10.0.0.1,\n10.0.0.2")}, environment)), SizeIs(1));
}

TEST(ResolveTest, InterfaceNameThatIsTooLongIsAFinding) {
    FWPROFILE profile;
    profile.adapterPolicyMap["abcdefghijklmnop"] = FW::FW_POLICY_DENY;
    EXPECT_THAT(findingsOf(FW::fwResolve(profile, environmentOf({"abcdefghijklmnop"}))),
                ElementsAre("abcdefghijklmnop 0: \"abcdefghijklmnop\" is not the name of an "
                            "interface"));
}

TEST(ResolveTest, ExceptedAddressThatIsNoneIsAFindingAndThereAreNoRules) {
    FWENVIRONMENT environment = environmentOf({"eth0"});
    environment.exceptedIp = "nowhere";
    const FWRESOLVED resolved = resolve({anyRule()}, environment);
    EXPECT_THAT(resolved.rules, IsEmpty());
    EXPECT_THAT(findingsOf(resolved), ElementsAre(" 0: \"nowhere\" is not an address"));
}

TEST(ResolveTest, EstablishedConnectionsOfTheExceptedAddressAreNotAccepted) {
    FWENVIRONMENT environment = environmentOf({"eth0"});
    environment.acceptEstablished = true;
    environment.exceptedIp = "10.0.0.5";
    std::vector<FWRESOLVEDRULE> rules = resolve({}, environment).rules;
    ASSERT_GE(rules.size(), 2U);
    const FWRESOLVEDRULE& v6 = rules.back();
    const FWRESOLVEDRULE& v4 = rules[rules.size() - 2];
    EXPECT_EQ(v4.place.origin, FW::FW_ORIGIN_ESTABLISHED);
    EXPECT_THAT(addressTexts(v4.packets.sources.get(), kV4),
                ElementsAre("0.0.0.0-10.0.0.4", "10.0.0.6-255.255.255.255"));
    EXPECT_THAT(addressTexts(v6.packets.sources.get(), kV6), ElementsAre("any"));
}

// ---- Services ----

TEST(ServicePacketsTest, AreThoseOfThePortsAndOfFurtherProtocols) {
    FW::ServPort ports;
    ports.dstPorts[FW::FW_PORT_PROTOCOL_TCP_UDP] = {"1723", "90-80", "5-7"};
    ports.srcPorts[FW::FW_PORT_PROTOCOL_UDP] = {"53"};
    const std::vector<FW::FWPACKETSET> packets = FW::fwServicePackets("vpn_server_pptp", ports);
    ASSERT_THAT(packets, SizeIs(4));
    EXPECT_THAT(intervalTexts(packets[0].protocols), ElementsAre("17-17"));
    EXPECT_THAT(intervalTexts(packets[0].sourcePorts), ElementsAre("53-53"));
    EXPECT_THAT(intervalTexts(packets[1].protocols), ElementsAre("6-6"));
    EXPECT_THAT(intervalTexts(packets[1].destinationPorts), ElementsAre("5-7", "1723-1723"));
    EXPECT_THAT(intervalTexts(packets[2].protocols), ElementsAre("17-17"));
    EXPECT_THAT(intervalTexts(packets[3].protocols), ElementsAre("47-47"));
    EXPECT_THAT(intervalTexts(packets[3].destinationPorts), ElementsAre("any"));

    ports.srcPorts.clear();
    ports.dstPorts[FW::FW_PORT_PROTOCOL_TCP_UDP] = {"abc", "90-80"};
    EXPECT_THAT(FW::fwServicePackets("own", ports), IsEmpty());
    ports.dstPorts[FW::FW_PORT_PROTOCOL_TCP_UDP] = {"abc"};
    EXPECT_THAT(FW::fwServicePackets("own", ports), IsEmpty());
    EXPECT_THAT(FW::fwServicePackets("own", {}), IsEmpty());
}

// ---- The order of rules ----

TEST(ResolveTest, WhatIsRepeatedForATunnelComesInTheOrderOfTheAdaptersThatItComesFrom) {
    FWPROFILE profile;
    for (const char* const adapter : {"eth0", "eth1", "pppoe"}) {
        profile.rules[adapter] = {anyRule()};
        profile.adapterPolicyMap[adapter] = FW::FW_POLICY_DENY;
    }
    FWENVIRONMENT environment = environmentOf({});
    environment.adapters = FW::fwAdaptersNow({"eth0", "eth1"}, "ppp0");
    environment.tunnels = {{"eth0", "eth1"}, {"pppoe", "eth1"}};
    Texts places;
    for (const FWRESOLVEDRULE& rule : rulesOf(FW::fwResolve(profile, environment))) {
        places.push_back(rule.packets.in->names.at(0) + ": " + rule.place.adapter + " " +
                         std::to_string(rule.place.position));
    }
    EXPECT_THAT(places, ElementsAre("eth0: eth0 1", "eth0: eth0 0", "eth1: eth0 1", "eth1: eth0 0",
                                    "eth1: eth1 1", "eth1: eth1 0", "eth1: pppoe 1",
                                    "eth1: pppoe 0", "ppp0: pppoe 1", "ppp0: pppoe 0"));
}

// ---- Adapters by name ----

TEST(AdaptersByNameTest, PppoeWithoutAConnectionHasRules) {
    FWPROFILE profile;
    profile.rules["pppoe"] = {anyRule()};
    FWENVIRONMENT environment = environmentOf({});
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::vector<FWRESOLVEDRULE> rules = rulesOf(FW::fwResolve(profile, environment));
    ASSERT_THAT(rules, SizeIs(1));
    EXPECT_THAT(rules[0].packets.in->names, ElementsAre("/pppoe"));
    EXPECT_THAT(environment.adapters.at("vpn").except, ElementsAre("tun1000"));
}

TEST(AdaptersByNameTest, AbsentAdaptersHaveRulesAndVpnIsBeginningsOfNames) {
    FWPROFILE profile;
    profile.rules["eth7"] = {anyRule()};
    profile.adapterPolicyMap["vpn"] = FW::FW_POLICY_DENY;
    profile.adapterPolicyMap["pppoe"] = FW::FW_POLICY_DENY;
    FWENVIRONMENT environment = environmentOf({});
    environment.adapters = FW::fwAdaptersByName(profile, "ppp0");
    const std::vector<FWRESOLVEDRULE> rules = rulesOf(FW::fwResolve(profile, environment));
    ASSERT_THAT(rules, SizeIs(3));
    EXPECT_THAT(rules[0].packets.in->names, ElementsAre("eth7"));
    EXPECT_THAT(rules[1].packets.in->names, ElementsAre("ppp0"));
    EXPECT_THAT(rules[2].packets.in->names, ElementsAre("ppp+", "tun+"));
    EXPECT_THAT(rules[2].packets.in->except, ElementsAre("tun1000", "ppp0"));
}

}  // namespace
