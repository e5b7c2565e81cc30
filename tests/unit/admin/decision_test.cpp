// Which rule decides for a packet: case tables over the fields of a rule, and the order of lists.
#include "tarnfwadmin/decision.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/machine.h"

namespace {

using FW::FW_POLICY;
using FW::FWPROFILE;
using FW::FWRULE;
using tarnfw::DecidedBy;
using tarnfw::Decider;
using tarnfw::Decision;
using tarnfw::Packet;
using tarnfw::PortSpan;
using ::testing::ValuesIn;

using Texts = std::vector<std::string>;

constexpr FW_POLICY kAllow = FW::FW_POLICY_ALLOW;
constexpr FW_POLICY kDeny = FW::FW_POLICY_DENY;
constexpr FW_POLICY kNone = FW::FW_POLICY_NONE;
constexpr FW::FW_PORT_PROTOCOL kTcp = FW::FW_PORT_PROTOCOL_TCP;
constexpr FW::FW_PORT_PROTOCOL kUdp = FW::FW_PORT_PROTOCOL_UDP;

template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

// ---- Rules, packets and answers as these tests write them ----

FWRULE everything(FW_POLICY policy) {
    FWRULE rule;
    rule.policy = policy;
    rule.ipType = 2;
    rule.ipGroup = 5;
    rule.portGroup = 3;
    return rule;
}

FWRULE ports(FW_POLICY policy, const Texts& list, std::int32_t protocol = kTcp) {
    FWRULE rule = everything(policy);
    rule.portGroup = 1;
    rule.protocol = protocol;
    rule.portList = list;
    return rule;
}

FWRULE sourcePorts(FW_POLICY policy, const Texts& list) {
    FWRULE rule = ports(policy, list);
    rule.portDirect = 1;
    return rule;
}

FWRULE services(FW_POLICY policy, const Texts& names) {
    FWRULE rule = everything(policy);
    rule.portGroup = 0;
    rule.portList = names;
    return rule;
}

FWRULE from(FWRULE rule, std::int32_t ipGroup, const Texts& list) {
    rule.ipGroup = ipGroup;
    rule.ipList = list;
    return rule;
}

FWRULE to(FWRULE rule, std::int32_t ipGroup, const Texts& list) {
    rule = from(std::move(rule), ipGroup, list);
    rule.ipDirect = 0;
    return rule;
}

template <typename Value>
FWRULE with(FWRULE rule, Value FWRULE::*field, Value value) {
    rule.*field = std::move(value);
    return rule;
}

Packet packetFrom(const std::string& source, const PortSpan& span = {22, 22}) {
    Packet packet;
    packet.adapters = {"eth0"};
    packet.source = tarnfw::addressFrom(source).value();
    packet.ports = span;
    return packet;
}

const Packet kPacket = packetFrom("192.168.1.20");

std::string placed(const tarnfw::RulePlace& place) {
    return place.adapter + "/" + std::to_string(place.position);
}

/// "0-21 allow eth0/1; 22 deny default of eth0 unless global/1; ..."
std::string told(const std::vector<Decision>& decisions) {
    std::string text;
    for (const Decision& decision : decisions) {
        text += (text.empty() ? "" : "; ") + tarnfw::portSpanText(decision.ports) +
                (decision.denied ? " deny " : " allow ");
        switch (decision.by) {
            case DecidedBy::kRule:
                text += placed(decision.place);
                break;
            case DecidedBy::kDefaultPolicy:
                text += "default of " + decision.place.adapter;
                break;
            case DecidedBy::kNothing:
                text += "nothing";
                break;
            case DecidedBy::kLoopback:
                text += "loopback";
                break;
            case DecidedBy::kEstablished:
                text += "established";
                break;
        }
        for (const auto& place : decision.unless) {
            text += " unless " + placed(place);
        }
    }
    return text;
}

std::string decided(const FWPROFILE& profile, const Packet& packet) {
    tarnfw::Machine machine;
    return told(Decider(profile, machine, tarnfw::ApplyMode::kLines).decide(packet));
}

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// ---- One rule on eth0, whose default policy is the other outcome ----

struct RuleCase {
    const char* name;
    FWRULE rule;
    Packet packet;
    bool matches;
};

void PrintTo(const RuleCase& c, std::ostream* out) {
    *out << c.name;
}

Packet udp(Packet packet) {
    packet.protocol = kUdp;
    return packet;
}

Packet bound(Packet packet, const std::string& destination) {
    packet.destination = tarnfw::addressFrom(destination).value();
    return packet;
}

Packet sentBy(Packet packet, const PortSpan& span) {
    packet.sourcePorts = span;
    return packet;
}

const Packet kPacketV6 = packetFrom("2001:db8::20");
const FWRULE kAll = everything(kDeny);

const RuleCase kRules[] = {
    {"Everything", kAll, kPacket, true},
    {"Disabled", with(kAll, &FWRULE::enable, false), kPacket, false},
    {"NoTarget", everything(kNone), kPacket, false},
    {"Outgoing", with(kAll, &FWRULE::adapterDirect, 0), kPacket, false},
    {"OtherTable", with(kAll, &FWRULE::table, std::string("mangle")), kPacket, false},
    {"ForwardedOnly", with(kAll, &FWRULE::chainList, std::set<std::string>{"FORWARD_FIREWALL"}),
     kPacket, false},
    {"InputOnly", with(kAll, &FWRULE::chainList, std::set<std::string>{"INPUT_FIREWALL"}), kPacket,
     true},
    // Families.
    {"V4RuleV4Packet", with(kAll, &FWRULE::ipType, 0), kPacket, true},
    {"V4RuleV6Packet", with(kAll, &FWRULE::ipType, 0), kPacketV6, false},
    {"V6RuleV4Packet", with(kAll, &FWRULE::ipType, 1), kPacket, false},
    {"V6RuleV6Packet", with(kAll, &FWRULE::ipType, 1), kPacketV6, true},
    {"UnknownFamily", with(kAll, &FWRULE::ipType, 3), kPacket, false},
    // Single addresses.
    {"Address", from(kAll, 0, {"192.168.1.20"}), kPacket, true},
    {"OtherAddress", from(kAll, 0, {"192.168.1.21"}), kPacket, false},
    {"AddressWithLength", from(kAll, 0, {"192.168.1.0/24"}), kPacket, true},
    {"AddressOfTheOtherFamily", from(kAll, 0, {"2001:db8::20"}), kPacket, false},
    {"AddressV6", from(kAll, 0, {"2001:DB8:0::20"}), kPacketV6, true},
    {"NoAddressAtAll", from(kAll, 0, {}), kPacket, false},
    {"NoSuchAddress", from(kAll, 0, {"192.168.1.256"}), kPacket, false},
    // Networks.
    {"Mask", from(kAll, 1, {"192.168.1.0", "255.255.255.0"}), kPacket, true},
    {"OtherNetwork", from(kAll, 1, {"192.168.2.0", "255.255.255.0"}), kPacket, false},
    {"Length", from(kAll, 1, {"192.168.0.0", "16"}), kPacket, true},
    {"HostBitsSet", from(kAll, 1, {"192.168.1.77", "24"}), kPacket, true},
    {"LengthZero", from(kAll, 1, {"10.0.0.0", "0"}), kPacket, true},
    {"MaskWithAGapHit", from(kAll, 1, {"10.168.0.20", "0.255.0.255"}), kPacket, true},
    {"MaskWithAGapMissed", from(kAll, 1, {"10.168.0.21", "0.255.0.255"}), kPacket, false},
    {"LengthV6", from(kAll, 1, {"2001:db8::", "32"}), kPacketV6, true},
    {"MaskV6", from(kAll, 1, {"2001:db8::", "ffff:ffff::"}), kPacketV6, true},
    {"MaskV6WithAGapHit", from(kAll, 1, {"::20", "::ffff"}), kPacketV6, true},
    {"MaskV6WithAGapMissed", from(kAll, 1, {"::21", "::ffff"}), kPacketV6, false},
    {"LengthOctal", from(kAll, 1, {"2001:db8:0:80::", "070"}), kPacketV6, true},
    {"AddressOctal", from(kAll, 0, {"0300.168.1.024"}), kPacket, true},
    {"AddressShort", from(kAll, 1, {"192.168", "16"}), kPacket, true},
    {"AddressMapped", from(kAll, 0, {"::ffff:192.168.1.20"}), kPacket, true},
    {"SecondOfSeveral", from(kAll, 0, {"10.0.0.1,192.168.1.0/24"}), kPacket, true},
    {"NoneOfSeveral", from(kAll, 0, {"10.0.0.1,192.168.2.0/24"}), kPacket, false},
    {"SeveralAndNoAddress", from(kAll, 0, {"192.168.1.20,"}), kPacket, false},
    {"NetworkOfTheOtherFamily", from(kAll, 1, {"::", "1"}), kPacket, false},
    {"LengthZeroOfAnything", from(kAll, 1, {"any", "0"}), kPacket, true},
    {"MaskOfTheOtherFamily", from(kAll, 1, {"192.168.1.0", "ffff::"}), kPacket, false},
    {"NoMask", from(kAll, 1, {"192.168.1.20"}), kPacket, false},
    {"LengthTooLong", from(kAll, 1, {"192.168.1.20", "33"}), kPacket, false},
    // Ranges, and groups without an address.
    {"RangeFirst", from(kAll, 4, {"192.168.1.20", "192.168.1.30"}), kPacket, true},
    {"RangeLast", from(kAll, 4, {"192.168.1.10", "192.168.1.20"}), kPacket, true},
    {"RangeBelow", from(kAll, 4, {"192.168.1.10", "192.168.1.19"}), kPacket, false},
    {"RangeBackwards", from(kAll, 4, {"192.168.1.30", "192.168.1.10"}), kPacket, false},
    {"RangeV6", from(kAll, 4, {"2001:db8::1f", "2001:db8::21"}), kPacketV6, true},
    {"Nowhere", from(kAll, 2, {"192.168.1.20"}), kPacket, false},
    {"UnknownGroup", from(kAll, 6, {"192.168.1.20"}), kPacket, false},
    // The other side of the address.
    {"ToThisAddress", to(kAll, 0, {"10.0.0.1"}), bound(kPacket, "10.0.0.1"), true},
    {"ToAnotherAddress", to(kAll, 0, {"10.0.0.1"}), bound(kPacket, "10.0.0.2"), false},
    {"ToTheSourceItself", to(kAll, 0, {"192.168.1.20"}), bound(kPacket, "10.0.0.2"), false},
    {"ToAnywhere", to(kAll, 5, {}), kPacket, true},
    {"ToNowhere", to(kAll, 2, {}), kPacket, false},
    // Ports and protocols.
    {"Port", ports(kDeny, {"22"}), kPacket, true},
    {"OtherPort", ports(kDeny, {"23"}), kPacket, false},
    {"PortAmongMany", ports(kDeny, {"80", "20-25"}), kPacket, true},
    {"NoPort", ports(kDeny, {}), kPacket, false},
    {"NoNumber", ports(kDeny, {"ssh"}), kPacket, false},
    // One line is refused as a whole.
    {"BesideWhatIsNoPort", ports(kDeny, {"22", "99999"}), kPacket, false},
    {"BehindAFullLine", ports(kDeny, {"1", "2", "3", "4", "5", "6", "99999", "22"}), kPacket, true},
    {"InAFullLine", ports(kDeny, {"1", "2", "3", "4", "5", "99999", "22"}), kPacket, false},
    {"UdpRuleTcpPacket", ports(kDeny, {"22"}, kUdp), kPacket, false},
    {"UdpRuleUdpPacket", ports(kDeny, {"22"}, kUdp), udp(kPacket), true},
    {"BothRuleUdpPacket", ports(kDeny, {"22"}, 3), udp(kPacket), true},
    {"Icmp", ports(kDeny, {"22"}, 4), kPacket, false},
    {"UnknownProtocol", ports(kDeny, {"22"}, 0), kPacket, false},
    {"UnknownPortGroup", with(ports(kDeny, {"22"}), &FWRULE::portGroup, 4), kPacket, false},
    {"EverythingUdp", kAll, udp(kPacket), true},
    // Source ports.
    {"SourcePort", sourcePorts(kDeny, {"1000-2000"}), sentBy(kPacket, {1500, 1500}), true},
    {"OtherSourcePort", sourcePorts(kDeny, {"1000-2000"}), sentBy(kPacket, {22, 22}), false},
    {"DestinationIsNoSource", sourcePorts(kDeny, {"22"}), sentBy(kPacket, {5000, 5000}), false},
    {"AnySourcePort", sourcePorts(kDeny, {"0-65535"}), kPacket, true},
    // Services; see the catalogue below.
    {"Service", services(kDeny, {"shell"}), kPacket, true},
    {"ReservedService", with(services(kDeny, {"shell"}), &FWRULE::portGroup, 2), kPacket, true},
    {"OneOfTheServices", services(kDeny, {"names", "shell"}), kPacket, true},
    {"ServiceOfTheOtherProtocol", services(kDeny, {"shell"}), udp(kPacket), false},
    {"UnknownService", services(kDeny, {"nothing"}), kPacket, false},
    {"ServiceWithoutTitle", services(kDeny, {"hidden"}), kPacket, false},
    {"ServiceIgnoresTheRulesSide", with(services(kDeny, {"shell"}), &FWRULE::portDirect, 1),
     kPacket, true},
    {"ServiceWithASourcePort", services(kDeny, {"answers"}), sentBy(kPacket, {53, 53}), true},
    {"ServiceWithAnotherSourcePort", services(kDeny, {"answers"}), sentBy(kPacket, {54, 54}),
     false},
    // Countries; see the data below.
    {"Country", from(kAll, 3, {"AA"}), kPacket, true},
    {"OtherCountry", from(kAll, 3, {"BB"}), kPacket, false},
    {"OneOfTheCountries", from(kAll, 3, {"BB", "AA"}), kPacket, true},
    {"CountryWithoutData", from(kAll, 3, {"ZZ"}), kPacket, false},
    {"NoCountry", from(kAll, 3, {}), kPacket, false},
    {"CountryWithoutDataForTheFamily", from(kAll, 3, {"AA"}), kPacketV6, false},
    {"CountryV6", from(kAll, 3, {"BB"}), kPacketV6, true},
};

class OneRuleTest : public ::testing::TestWithParam<RuleCase> {
protected:
    OneRuleTest() {
        writeFile(
            "/usr/tarn/etc/services.d/test.json",
            R"([{"name": "shell", "title": "Shell", "dst": {"protocol": "tcp", "ports": [22]}},
                      {"name": "names", "title": "Names",
                       "dst": {"protocol": "tcp/udp", "ports": [53]}},
                      {"name": "hidden", "dst": {"protocol": "tcp", "ports": [22]}},
                      {"name": "answers", "title": "Answers",
                       "src": {"protocol": "tcp", "ports": [53]}}])");
        // Two records: 10.0.0.0 to 10.255.255.255, and 192.168.1.0 to 192.168.1.255.
        const std::uint32_t v4[] = {0x0a000000, 0x0affffff, 0xc0a80100, 0xc0a801ff};
        writeFile("/usr/share/xt_geoip/AA.iv4",
                  std::string(reinterpret_cast<const char*>(v4), sizeof v4));
        writeFile("/usr/share/xt_geoip/BB.iv4",
                  std::string(reinterpret_cast<const char*>(v4), sizeof v4 / 2));
        // 2001:db8:: to 2001:db8::ff, words in native order.
        const std::uint32_t v6[] = {0x20010db8, 0, 0, 0, 0x20010db8, 0, 0, 0xff};
        writeFile("/usr/share/xt_geoip/BB.iv6",
                  std::string(reinterpret_cast<const char*>(v6), sizeof v6));
    }
};

TEST_P(OneRuleTest, DecidesOrLeavesItToTheDefaultPolicy) {
    const RuleCase& c = GetParam();
    FWPROFILE profile;
    profile.rules["eth0"] = {c.rule};
    profile.adapterPolicyMap["eth0"] = kAllow;
    EXPECT_EQ(decided(profile, c.packet),
              c.matches ? "22 deny eth0/1" : "22 allow default of eth0");
}

INSTANTIATE_TEST_SUITE_P(, OneRuleTest, ValuesIn(kRules), caseName<RuleCase>);

// ---- Several rules, lists and ports ----

struct ProfileCase {
    const char* name;
    std::map<std::string, std::vector<FWRULE>> rules;
    std::map<std::string, FW_POLICY> policies;
    Packet packet;
    const char* decided;
};

void PrintTo(const ProfileCase& c, std::ostream* out) {
    *out << c.name;
}

Packet on(const Texts& adapters, Packet packet = kPacket) {
    packet.adapters = adapters;
    return packet;
}

Packet established(Packet packet) {
    packet.established = true;
    return packet;
}

const Packet kAllPorts = packetFrom("192.168.1.20", {0, 65535});
const Packet kSomePorts = packetFrom("192.168.1.20", {20, 30});
const FWRULE kUnknownTo = to(everything(kDeny), 0, {"192.168.1.10"});

const ProfileCase kProfiles[] = {
    {"Nothing", {}, {}, kAllPorts, "0-65535 allow nothing"},
    {"NoDefaultPolicy", {}, {{"eth0", kNone}}, kPacket, "22 allow nothing"},
    {"DefaultDeny", {}, {{"eth0", kDeny}}, kAllPorts, "0-65535 deny default of eth0"},
    {"OtherAdapter",
     {{"eth1", {everything(kDeny)}}},
     {{"eth1", kDeny}},
     kPacket,
     "22 allow nothing"},
    {"FirstMatchDecides",
     {{"eth0", {ports(kAllow, {"22"}), everything(kDeny), ports(kAllow, {"22"})}}},
     {},
     kPacket,
     "22 allow eth0/1"},
    {"PositionsCountWhatIsOff",
     {{"eth0", {with(everything(kDeny), &FWRULE::enable, false), ports(kDeny, {"22"})}}},
     {},
     kPacket,
     "22 deny eth0/2"},
    {"GlobalFirst",
     {{"global", {ports(kAllow, {"22"})}}, {"eth0", {everything(kDeny)}}},
     {{"eth0", kDeny}},
     kSomePorts,
     "20-21 deny eth0/1; 22 allow global/1; 23-30 deny eth0/1"},
    {"GlobalDirectionIsNoInterface",
     {{"global", {with(everything(kDeny), &FWRULE::adapterDirect, 0)}}},
     {},
     kPacket,
     "22 deny global/1"},
    // The store never writes one, but a file can hold it.
    {"GlobalDefaultPolicy",
     {{"eth0", {everything(kAllow)}}},
     {{"global", kDeny}},
     kPacket,
     "22 deny default of global"},
    {"PortsAreSplitAtTheRulesBoundaries",
     {{"eth0", {ports(kDeny, {"22", "25-27"}), ports(kAllow, {"24-40"}), ports(kDeny, {"10-23"})}}},
     {{"eth0", kAllow}},
     packetFrom("192.168.1.20", {5, 45}),
     "5-9 allow default of eth0; 10-21 deny eth0/3; 22 deny eth0/1; 23 deny eth0/3; "
     "24 allow eth0/2; 25-27 deny eth0/1; 28-40 allow eth0/2; 41-45 allow default of eth0"},
    {"NeighboursOfOneRuleAreOne",
     {{"eth0", {ports(kDeny, {"20-24", "25-30"})}}},
     {},
     kSomePorts,
     "20-30 deny eth0/1"},
    {"FirstAndLastPort",
     {{"eth0", {ports(kDeny, {"0", "65535"})}}},
     {},
     kAllPorts,
     "0 deny eth0/1; 1-65534 allow nothing; 65535 deny eth0/1"},
    // An interface with two names in the profile: one list after the other, in the kernel's order.
    {"TwoNames",
     {{"tun0", {ports(kAllow, {"22"})}}, {"vpn", {ports(kDeny, {"22-23"})}}},
     {{"vpn", kDeny}},
     on({"vpn", "tun0", "vpn"}, kSomePorts),
     "20-21 deny default of vpn; 22 allow tun0/1; 23 deny vpn/1; 24-30 deny default of vpn"},
    {"DefaultPolicyEndsTheFirstName",
     {{"vpn", {ports(kDeny, {"22"})}}},
     {{"tun0", kAllow}},
     on({"vpn", "tun0"}),
     "22 allow default of tun0"},
    {"Ppp0NeverHasALine",
     {{"ppp0", {everything(kDeny)}}, {"pppoe", {ports(kAllow, {"23"})}}},
     {{"ppp0", kDeny}, {"pppoe", kDeny}},
     on({"ppp0", "pppoe"}, kSomePorts),
     "20-22 deny default of pppoe; 23 allow pppoe/1; 24-30 deny default of pppoe"},
    // The fixed lines.
    {"Loopback",
     {{"global", {everything(kDeny)}}},
     {{"lo", kDeny}},
     on({"lo"}, kSomePorts),
     "20-30 allow loopback"},
    {"Established",
     {{"global", {everything(kDeny)}}},
     {},
     established(kPacket),
     "22 allow established"},
    // Unknown parts of a packet.
    {"LocalAddressNotTold",
     {{"eth0", {kUnknownTo}}},
     {{"eth0", kAllow}},
     kPacket,
     "22 allow default of eth0 unless eth0/1"},
    {"LocalAddressTold",
     {{"eth0", {kUnknownTo}}},
     {{"eth0", kAllow}},
     bound(kPacket, "192.168.1.10"),
     "22 deny eth0/1"},
    {"SourcePortNotTold",
     {{"eth0", {sourcePorts(kDeny, {"1000"}), ports(kAllow, {"22"}), everything(kDeny)}}},
     {},
     kSomePorts,
     "20-21 deny eth0/3; 22 allow eth0/2 unless eth0/1; 23-30 deny eth0/3"},
    {"SourcePortsToldInPart",
     {{"eth0", {sourcePorts(kDeny, {"1000"})}}},
     {},
     sentBy(kPacket, {999, 1000}),
     "22 allow nothing unless eth0/1"},
    {"SameOutcomeIsNoException",
     {{"eth0", {kUnknownTo, everything(kDeny)}}},
     {},
     kPacket,
     "22 deny eth0/2"},
    {"OnceForTwoSourcePorts",
     {{"eth0", {sourcePorts(kDeny, {"1000", "2000"})}}},
     {},
     kPacket,
     "22 allow nothing unless eth0/1"},
    {"LocalAddressAndPort",
     {{"eth0", {to(ports(kDeny, {"22"}), 0, {"192.168.1.10"})}}},
     {},
     packetFrom("192.168.1.20", {21, 23}),
     "21 allow nothing; 22 allow nothing unless eth0/1; 23 allow nothing"},
};

class ProfileDecisionTest : public ::testing::TestWithParam<ProfileCase> {};

TEST_P(ProfileDecisionTest, IsThis) {
    const ProfileCase& c = GetParam();
    FWPROFILE profile;
    profile.rules = c.rules;
    profile.adapterPolicyMap = c.policies;
    EXPECT_EQ(decided(profile, c.packet), c.decided);
}

INSTANTIATE_TEST_SUITE_P(, ProfileDecisionTest, ValuesIn(kProfiles), caseName<ProfileCase>);

// ---- Through a 6in4 tunnel ----

/// IPv6 of wlan0 comes in through "six"; wlan0 is the one adapter that is there.
class TunnelTest : public ::testing::Test {
protected:
    TunnelTest() {
        writeFile("/etc.defaults/tarninfo.conf", "support_wireless=\"yes\"\n");
        writeFile("/usr/tarn/sbin/tarnnetdtool",
                  "#!/bin/sh\n[ \"$2\" = wlan0 ] && set -- \"$1\" six\nprintf %s \"$2\"\n");
        std::filesystem::permissions("/usr/tarn/sbin/tarnnetdtool",
                                     std::filesystem::perms::owner_all);
        profile_.adapterPolicyMap["wlan0"] = kDeny;
    }

    std::string reasonFor(const Packet& packet,
                          tarnfw::ApplyMode mode = tarnfw::ApplyMode::kLines) {
        tarnfw::Machine machine;
        Decider decider(profile_, machine, mode);
        return decider.reason(decider.decide(packet).front());
    }

    std::string verdict() {
        tarnfw::Machine machine;
        Packet packet = on({"six"}, kPacketV6);
        const auto found =
            Decider(profile_, machine, tarnfw::ApplyMode::kLines).verdictForAll(packet);
        return !found                          ? "depends"
               : *found == FW::FW_POLICY_MIXED ? "mixed"
               : *found == kDeny               ? "denied"
                                               : "allowed";
    }

    FWPROFILE profile_;
    const FWRULE v4_ = with(ports(kAllow, {"22"}), &FWRULE::ipType, 0);
};

TEST_F(TunnelTest, TheRulesOfItsAdapterDecide) {
    EXPECT_EQ(reasonFor(on({"six"}, kPacketV6)),
              "the default policy of wlan0: deny (repeated for the 6in4 tunnel six)");
    EXPECT_EQ(reasonFor(on({"six"})), "no rule and no default policy matches");
    EXPECT_EQ(reasonFor(on({"wlan0"}, kPacketV6)), "the default policy of wlan0: deny");
    profile_.rules["wlan0"] = {v4_};
    EXPECT_EQ(reasonFor(on({"six"}, kPacketV6)),
              "rule 1 of wlan0: allow tcp 22 from anywhere (IPv4) (repeated for the 6in4 tunnel "
              "six)");
    EXPECT_EQ(reasonFor(on({"wlan0"}, kPacketV6)), "the default policy of wlan0: deny");
}

TEST_F(TunnelTest, ItsOwnRulesComeInTheOrderOfTheNames) {
    profile_.rules["six"] = {ports(kDeny, {"22"})};
    profile_.rules["wlan0"] = {v4_};
    tarnfw::Machine machine;
    EXPECT_EQ(
        told(Decider(profile_, machine, tarnfw::ApplyMode::kLines).decide(on({"six"}, kPacketV6))),
        "22 deny six/1");
}

TEST_F(TunnelTest, ANetworkOfEveryIpv4AddressIsAllOfIpv6InLines) {
    const std::string opens =
        " (IPv4) (repeated for the 6in4 tunnel six), where \"/0\" is all of IPv6";
    const std::string denies =
        "the default policy of wlan0: deny (repeated for the 6in4 tunnel six)";
    const Packet packet = on({"six"}, kPacketV6);
    profile_.rules["wlan0"] = {from(v4_, 0, {"10.1.2.3/0"})};
    EXPECT_EQ(reasonFor(packet), "rule 1 of wlan0: allow tcp 22 from 10.1.2.3/0" + opens);
    EXPECT_EQ(reasonFor(packet, tarnfw::ApplyMode::kBatch), denies);
    EXPECT_EQ(reasonFor(on({"wlan0"}, kPacketV6)), "the default policy of wlan0: deny");
    EXPECT_EQ(verdict(), "allowed");
    profile_.rules["wlan0"] = {from(v4_, 1, {"0.0.0.0", "0"})};
    EXPECT_EQ(reasonFor(packet), "rule 1 of wlan0: allow tcp 22 from 0.0.0.0/0" + opens);
    EXPECT_EQ(reasonFor(packet, tarnfw::ApplyMode::kBatch), denies);
    // ip6tables refuses these.
    for (const auto& refused : {from(v4_, 1, {"0.0.0.0", "0.0.0.0"}), from(v4_, 0, {"10.0.0.0/8"}),
                                from(v4_, 4, {"0.0.0.0", "255.255.255.255"})}) {
        profile_.rules["wlan0"] = {refused};
        EXPECT_EQ(reasonFor(packet), denies);
    }
    EXPECT_EQ(verdict(), "denied");
}

TEST_F(TunnelTest, TheVerdictIsForAllSenders) {
    const FWRULE some = from(ports(kAllow, {"22"}), 1, {"2001:db8::", "32"});
    profile_.rules["wlan0"] = {with(some, &FWRULE::ipType, 1)};
    EXPECT_EQ(verdict(), "mixed");
    profile_.rules["wlan0"] = {to(some, 1, {"2001:db8::", "32"})};
    EXPECT_EQ(verdict(), "depends");
    profile_.rules["wlan0"] = {ports(kAllow, {"22"})};
    EXPECT_EQ(verdict(), "allowed");
}

// ---- Who is allowed ----

std::string allowedTo(const FWPROFILE& profile, const char* family) {
    tarnfw::Machine machine;
    Packet packet = kPacket;
    packet.source = *tarnfw::addressFrom(family);
    const auto senders =
        tarnfw::Decider(profile, machine, tarnfw::ApplyMode::kBatch).allowedSenders(packet);
    if (!senders) {
        return "depends";
    }
    std::string text;
    for (const tarnfw::AddressRange& range : *senders) {
        text.append(text.empty() ? "" : " ").append(tarnfw::spelled(range));
    }
    return text;
}

TEST(AllowedSendersTest, AreRangesWithGapsBetweenThem) {
    FWPROFILE profile;
    EXPECT_EQ(allowedTo(profile, "0.0.0.0"), "0.0.0.0/0");
    EXPECT_EQ(allowedTo(profile, "::"), "::/0");
    profile.adapterPolicyMap["eth0"] = kDeny;
    EXPECT_EQ(allowedTo(profile, "0.0.0.0"), "");
    profile.rules["eth0"] = {from(everything(kDeny), 1, {"10.3.0.0", "16"}),
                             from(ports(kAllow, {"22"}), 1, {"10.0.0.0", "8"}),
                             from(ports(kAllow, {"22"}), 1, {"11.0.0.0", "8"}),
                             from(ports(kAllow, {"23"}), 1, {"12.0.0.0", "8"})};
    EXPECT_EQ(allowedTo(profile, "0.0.0.0"), "10.0.0.0-10.2.255.255 10.4.0.0-11.255.255.255");
    EXPECT_EQ(allowedTo(profile, "::"), "");
    profile.adapterPolicyMap["eth0"] = kAllow;
    EXPECT_EQ(allowedTo(profile, "0.0.0.0"), "0.0.0.0-10.2.255.255 10.4.0.0-255.255.255.255");
    profile.rules["eth0"].push_back(kUnknownTo);
    EXPECT_EQ(allowedTo(profile, "0.0.0.0"), "depends");
}

// ---- Forwarded ----

TEST(ForwardedTest, MeetsTheRulesForBothInterfacesInTheForwardChain) {
    FWPROFILE profile;
    profile.rules["docker0"] = {with(ports(kDeny, {"22"}), &FWRULE::adapterDirect, 0),
                                with(ports(kDeny, {"23"}), &FWRULE::adapterDirect, 1)};
    profile.rules["eth0"] = {
        with(ports(kDeny, {"24"}), &FWRULE::chainList, std::set<std::string>{"INPUT_FIREWALL"}),
        with(ports(kDeny, {"25"}), &FWRULE::adapterDirect, 0), ports(kDeny, {"26"})};
    profile.adapterPolicyMap = {{"docker0", kDeny}, {"eth0", kAllow}};
    Packet packet = packetFrom("192.168.1.20", {22, 26});
    packet.forwardedTo = Texts{"docker0"};
    EXPECT_EQ(decided(profile, packet),
              "22 deny docker0/1; 23-25 allow default of eth0; 26 deny eth0/3");
    packet.forwardedTo = Texts{};
    EXPECT_EQ(decided(profile, packet), "22-25 allow default of eth0; 26 deny eth0/3");
    tarnfw::Machine machine;
    EXPECT_EQ(Decider(profile, machine, tarnfw::ApplyMode::kLines).verdictForAll(packet),
              FW::FW_POLICY_MIXED);
    packet.ports = {26, 26};
    EXPECT_EQ(Decider(profile, machine, tarnfw::ApplyMode::kLines).verdictForAll(packet), kDeny);
    profile.rules["eth0"].insert(profile.rules["eth0"].begin(),
                                 from(ports(kAllow, {"26"}), 1, {"255.255.255.0", "24"}));
    EXPECT_EQ(Decider(profile, machine, tarnfw::ApplyMode::kLines).verdictForAll(packet),
              FW::FW_POLICY_MIXED);
    profile.rules["eth0"].erase(profile.rules["eth0"].begin());
    packet.ports = {22, 26};
    packet.forwardedTo.reset();
    EXPECT_EQ(decided(profile, packet),
              "22-23 allow default of eth0; 24 deny eth0/1; 25 allow default of eth0; "
              "26 deny eth0/3");
}

// ---- In words ----

TEST(DecisionReasonTest, NamesTheRuleOrThePolicy) {
    FWPROFILE profile;
    profile.rules["eth0"] = {ports(kDeny, {"23"}), ports(kAllow, {"22"})};
    profile.adapterPolicyMap["eth0"] = kDeny;
    tarnfw::Machine machine;
    Decider decider(profile, machine, tarnfw::ApplyMode::kLines);
    const auto reasons = [&](const Packet& packet) {
        Texts texts;
        for (const Decision& decision : decider.decide(packet)) {
            texts.push_back(decider.reason(decision));
        }
        return texts;
    };
    EXPECT_EQ(
        reasons(packetFrom("10.0.0.1", {22, 24})),
        (Texts{"rule 2 of eth0: allow tcp 22 from anywhere",
               "rule 1 of eth0: deny tcp 23 from anywhere", "the default policy of eth0: deny"}));
    EXPECT_EQ(reasons(on({"eth1"})), Texts{"no rule and no default policy matches"});
    EXPECT_EQ(reasons(on({"lo"})), Texts{"packets of the machine to itself are always allowed"});
    EXPECT_EQ(reasons(established(kPacket)),
              Texts{"packets of established connections are always allowed"});
}

// ---- A packet from words ----

TEST(PacketFromTest, ReadsAddressPortAndInterface) {
    const Packet packet = tarnfw::packetFrom("2001:db8::5", "udp/6000-6010", "eth0");
    EXPECT_EQ(packet.adapters, Texts{"eth0"});
    EXPECT_EQ(spelled(packet.source), "2001:db8::5");
    EXPECT_EQ(packet.protocol, FW::FW_PORT_PROTOCOL_UDP);
    EXPECT_EQ(packet.ports.first, 6000);
    EXPECT_EQ(packet.ports.last, 6010);
    EXPECT_EQ(tarnfw::packetFrom("10.0.0.5", "tcp/22", "eth0").protocol, kTcp);
    EXPECT_EQ(tarnfw::packetFrom("10.0.0.5", "53/udp", "eth0").protocol, kUdp);
}

TEST(PacketFromTest, OtherTextsAreInvalid) {
    const auto kindOf = [](const char* address, const char* port) {
        try {
            (void)tarnfw::packetFrom(address, port, "eth0");
        } catch (const tarnfw::Error& error) {
            return error.kind() == tarnfw::ErrorKind::kInvalid ? "invalid" : "another kind";
        }
        return "valid";
    };
    EXPECT_STREQ(kindOf("10.0.0.5", "tcp/22"), "valid");
    EXPECT_STREQ(kindOf("10.0.0", "tcp/22"), "invalid");
    for (const char* const port :
         {"", "22", "tcp", "tcp/", "icmp/22", "tcp/65536", "tcp/23-22", "both/22"}) {
        EXPECT_STREQ(kindOf("10.0.0.5", port), "invalid") << port;
    }
}

}  // namespace
