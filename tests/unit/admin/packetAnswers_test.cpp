// Which rule decides for a packet: case tables over the fields of a rule, and the order of lists.
// What happens to many of them, and who may send them.
#include "tarnfwadmin/packetAnswers.h"

#include <netinet/in.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/meaning.h"

namespace {

using FW::FW_POLICY;
using FW::FWPROFILE;
using FW::FWRULE;
using tarnfw::Meaning;
using tarnfw::PacketAnswers;
using tarnfw::PortDecision;
using tarnfw::PortPackets;
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

/// A packet as these tests write it, for several ports.
struct Packet {
    Texts adapters = {"eth0"};  // that include the interface
    tarnfw::Address source;
    std::optional<tarnfw::Address> destination;
    FW::FW_PORT_PROTOCOL protocol = kTcp;
    PortSpan ports;
    std::optional<std::uint16_t> sourcePort;
    bool established = false;
    std::optional<std::string> out;  // of a forwarded one
    bool forwarded = false;
};

Packet packetFrom(const std::string& source, const PortSpan& span = {22, 22}) {
    Packet packet;
    packet.source = tarnfw::addressFrom(source).value();
    packet.ports = span;
    return packet;
}

const Packet kPacket = packetFrom("192.168.1.20");

/// What a profile means on a machine whose PPPoE interface is ppp0.
Meaning meaningOf(const FWPROFILE& profile, bool batch = false) {
    FW::FWENVIRONMENT environment = tarnfw::environmentOf({profile});
    environment.adapters = FW::fwAdaptersByName(profile, "ppp0");
    environment.batch = batch;
    return Meaning(profile, environment);
}

PortPackets questionOf(const Meaning& meaning, const Packet& packet) {
    PortPackets packets;
    packets.ports = packet.ports;
    FW::FWPACKET& asked = packets.packet;
    asked.chain = packet.forwarded ? FW::FW_CHAIN_FORWARD : FW::FW_CHAIN_INPUT;
    asked.family = tarnfw::familyOf(packet.source);
    asked.in = interfaceFor(meaning, packet.adapters.back());
    asked.out = packet.out;
    asked.protocol = packet.protocol == kTcp ? IPPROTO_TCP : IPPROTO_UDP;
    asked.source = tarnfw::addressNumber(packet.source);
    if (packet.destination) {
        asked.destination = tarnfw::addressNumber(*packet.destination);
    }
    asked.sourcePort = packet.sourcePort;
    asked.state = packet.established ? FW::FW_STATE_ESTABLISHED : FW::FW_STATE_NEW;
    return packets;
}

std::string placed(const FW::FWPLACE& place) {
    return place.adapter + "/" + std::to_string(place.position);
}

/// "0-21 allow eth0/1; 22 deny default of eth0 unless global/1; ..."
std::string told(const Meaning& meaning, const std::vector<PortDecision>& decisions) {
    std::string text;
    for (const PortDecision& decision : decisions) {
        const FW::FWPLACE place = placeOf(meaning, decision.by);
        text += (text.empty() ? "" : "; ") + tarnfw::portSpanText(decision.ports.value()) +
                (decision.denied ? " deny " : " allow ");
        switch (place.origin) {
            case FW::FW_ORIGIN_RULE:
                text += placed(place);
                break;
            case FW::FW_ORIGIN_DEFAULT:
                text += "default of " + place.adapter;
                break;
            case FW::FW_ORIGIN_END:
                text += "nothing";
                break;
            case FW::FW_ORIGIN_LOOPBACK:
                text += "loopback";
                break;
            case FW::FW_ORIGIN_ESTABLISHED:
                text += "established";
                break;
            default:
                text += "neighbours";
                break;
        }
        for (const std::size_t number : decision.unless) {
            text += " unless " + placed(placeOf(meaning, number));
        }
    }
    return text;
}

std::string decided(const FWPROFILE& profile, const Packet& packet) {
    const Meaning meaning = meaningOf(profile);
    return told(meaning, decisionsFor(meaning, questionOf(meaning, packet)));
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

Packet sentBy(Packet packet, std::uint16_t port) {
    packet.sourcePort = port;
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
    {"MaskWithAGapHit", from(kAll, 1, {"192.0.1.20", "255.0.255.255"}), kPacket, true},
    {"MaskWithAGapMissed", from(kAll, 1, {"192.0.1.21", "255.0.255.255"}), kPacket, false},
    {"LengthV6", from(kAll, 1, {"2001:db8::", "32"}), kPacketV6, true},
    {"MaskV6", from(kAll, 1, {"2001:db8::", "ffff:ffff::"}), kPacketV6, true},
    {"MaskV6WithAGapHit",
     from(kAll, 1, {"2001:7db8::20", "ffff:fff:ffff:ffff:ffff:ffff:ffff:ffff"}), kPacketV6, true},
    {"MaskV6WithAGapMissed",
     from(kAll, 1, {"2001:7db8::21", "ffff:fff:ffff:ffff:ffff:ffff:ffff:ffff"}), kPacketV6, false},
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
    {"SourcePort", sourcePorts(kDeny, {"1000-2000"}), sentBy(kPacket, 1500), true},
    {"OtherSourcePort", sourcePorts(kDeny, {"1000-2000"}), sentBy(kPacket, 22), false},
    {"DestinationIsNoSource", sourcePorts(kDeny, {"22"}), sentBy(kPacket, 5000), false},
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
    {"ServiceWithASourcePort", services(kDeny, {"answers"}), sentBy(kPacket, 53), true},
    {"ServiceWithAnotherSourcePort", services(kDeny, {"answers"}), sentBy(kPacket, 54), false},
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

TEST(NotCountedTest, NamesMasksWithTooManyGaps) {
    FWPROFILE profile;
    profile.rules["eth0"] = {from(kAll, 1, {"10.0.0.1", "255.0.255.255"}),
                             from(kAll, 1, {"10.0.0.1", "255.0.0.255"}),
                             from(kAll, 0, {"10.0.0.256"})};
    const Texts texts = notCounted(meaningOf(profile));
    ASSERT_EQ(texts.size(), 1U) << "what iptables refuses is in no kernel";
    EXPECT_EQ(texts.front().substr(0, 34), "rule 2 of eth0 is not counted: \"10");
}

// Such an address is compared with the packet's, unless it is written in a way of its own.
TEST(NotCountedTest, OneThatMayMatchAPacketIsNamedWithItsDecision) {
    FWPROFILE profile;
    profile.rules["eth0"] = {from(kAll, 1, {"0.0.0.0x14", "0.0.0.255"}),
                             to(kAll, 1, {"0.0.0.5", "0.0.0.255"}),
                             from(kAll, 1, {"0.0.0.21", "0.0.0.255"})};
    profile.adapterPolicyMap["eth0"] = kAllow;
    tarnfw::PortPackets packets = tarnfw::packetsFrom("192.168.1.20", "tcp/22", "eth0");
    const tarnfw::Meaning meaning =
        meaningOf(profile).between(tarnfw::packetAddressFrom("192.168.1.20"), std::nullopt);
    const auto decisions = decisionsFor(meaning, packets);
    ASSERT_EQ(decisions.size(), 1U);
    EXPECT_FALSE(decisions.front().denied);
    EXPECT_TRUE(decisions.front().isDoubtful());
    ASSERT_EQ(decisions.front().uncounted.size(), 2U) << "the third one does not match";
    EXPECT_EQ(reasonText(meaning, decisions.front().uncounted.front()).substr(0, 16),
              "rule 1 of eth0: ");
    EXPECT_EQ(decisions.front().uncounted.back().place.position, 2);
    packets.ports = tarnfw::PortSpan{0, 65535};
    EXPECT_EQ(decisionsFor(meaning, packets).size(), 1U);
}

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
     on({"vpn", "tun0"}, kSomePorts),
     "20-21 deny default of vpn; 22 allow tun0/1; 23 deny vpn/1; 24-30 deny default of vpn"},
    {"DefaultPolicyEndsTheFirstName",
     {{"vpn", {ports(kDeny, {"22"})}}},
     {{"tun0", kAllow}},
     on({"vpn", "tun0"}),
     "22 allow default of tun0"},
    {"Ppp0NeverHasALine",
     {{"ppp0", {everything(kDeny)}}, {"pppoe", {ports(kAllow, {"23"})}}},
     {{"ppp0", kDeny}, {"pppoe", kDeny}},
     on({"pppoe"}, kSomePorts),
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

    std::string reasonFor(const Packet& packet, bool batch = false) {
        const Meaning meaning = meaningOf(profile_, batch);
        return reasonText(meaning, decisionsFor(meaning, questionOf(meaning, packet)).front().by);
    }

    std::string verdict() {
        const Meaning meaning = meaningOf(profile_);
        FW::FWPACKETSET packets = tarnfw::newConnections("six");
        packets.families = 1U << FW::FW_FAMILY_V6;
        packets.protocols = {{IPPROTO_TCP, IPPROTO_TCP}};
        packets.destinationPorts = {{22, 22}};
        switch (PacketAnswers(meaning).outcomes(packets).verdict()) {
            case FW::FW_POLICY_MIXED:
                return "mixed";
            case FW::FW_POLICY_DENY:
                return "denied";
            case FW::FW_POLICY_ALLOW:
                return "allowed";
            default:
                return "undecided";
        }
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
    EXPECT_EQ(decided(profile_, on({"six"}, kPacketV6)), "22 deny six/1");
}

TEST_F(TunnelTest, ANetworkOfEveryIpv4AddressIsAllOfIpv6InLines) {
    const std::string opens =
        " (IPv4) (repeated for the 6in4 tunnel six), where \"/0\" is all of IPv6";
    const std::string denies =
        "the default policy of wlan0: deny (repeated for the 6in4 tunnel six)";
    const Packet packet = on({"six"}, kPacketV6);
    profile_.rules["wlan0"] = {from(v4_, 0, {"10.1.2.3/0"})};
    EXPECT_EQ(reasonFor(packet), "rule 1 of wlan0: allow tcp 22 from 10.1.2.3/0" + opens);
    EXPECT_EQ(reasonFor(packet, true), denies);
    EXPECT_EQ(reasonFor(on({"wlan0"}, kPacketV6)), "the default policy of wlan0: deny");
    EXPECT_EQ(verdict(), "allowed");
    profile_.rules["wlan0"] = {from(v4_, 1, {"0.0.0.0", "0"})};
    EXPECT_EQ(reasonFor(packet), "rule 1 of wlan0: allow tcp 22 from 0.0.0.0/0" + opens);
    EXPECT_EQ(reasonFor(packet, true), denies);
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
    EXPECT_EQ(verdict(), "mixed") << "it depends on the machine's address";
    profile_.rules["wlan0"] = {ports(kAllow, {"22"})};
    EXPECT_EQ(verdict(), "allowed");
}

// ---- Who is allowed ----

std::string allowedTo(const FWPROFILE& profile, FW::FW_FAMILY family) {
    const Meaning meaning = meaningOf(profile);
    FW::FWPACKETSET packets = tarnfw::newConnections("eth0");
    packets.families = static_cast<std::uint8_t>(1U << family);
    packets.protocols = {{IPPROTO_TCP, IPPROTO_TCP}};
    const tarnfw::PacketParts parts = PacketAnswers(meaning).parts(packets);
    const tarnfw::PacketSenders senders = parts.to(22, std::nullopt).senders();
    EXPECT_FALSE(senders.tooComplex);
    std::string text;
    const auto add = [&](const FW::FWADDRESSES& addresses, const char* before) {
        for (const FW::FWADDRESSINTERVAL& interval : addresses) {
            text += (text.empty() ? "" : " ") + std::string(before) +
                    FW::fwAddressText(interval.first, family) + "-" +
                    FW::fwAddressText(interval.last, family);
        }
    };
    add(senders.allowed, "");
    add(senders.depends, "perhaps ");
    return text;
}

TEST(SendersTest, AreThoseWhosePacketsAreAllAllowed) {
    const FW::FW_FAMILY v4 = FW::FW_FAMILY_V4;
    FWPROFILE profile;
    EXPECT_EQ(allowedTo(profile, v4), "0.0.0.0-255.255.255.255");
    EXPECT_EQ(allowedTo(profile, FW::FW_FAMILY_V6), "::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    profile.adapterPolicyMap["eth0"] = kDeny;
    EXPECT_EQ(allowedTo(profile, v4), "");
    profile.rules["eth0"] = {from(everything(kDeny), 1, {"10.3.0.0", "16"}),
                             from(ports(kAllow, {"22"}), 1, {"10.0.0.0", "8"}),
                             from(ports(kAllow, {"22"}), 1, {"11.0.0.0", "8"}),
                             from(ports(kAllow, {"23"}), 1, {"12.0.0.0", "8"})};
    EXPECT_EQ(allowedTo(profile, v4), "10.0.0.0-10.2.255.255 10.4.0.0-11.255.255.255");
    EXPECT_EQ(allowedTo(profile, FW::FW_FAMILY_V6), "");
    profile.adapterPolicyMap["eth0"] = kAllow;
    EXPECT_EQ(allowedTo(profile, v4), "0.0.0.0-10.2.255.255 10.4.0.0-255.255.255.255");
    profile.rules["eth0"] = {from(sourcePorts(kDeny, {"1000"}), 1, {"10.0.0.0", "8"})};
    EXPECT_EQ(allowedTo(profile, v4),
              "0.0.0.0-9.255.255.255 11.0.0.0-255.255.255.255 perhaps 10.0.0.0-10.255.255.255");
}

TEST(SendersTest, MayDependOnTheAddressThatTheyUse) {
    FWPROFILE profile;
    profile.rules["eth0"] = {to(ports(kAllow, {"22"}), 0, {"192.168.1.10"})};
    profile.adapterPolicyMap["eth0"] = kDeny;
    const Meaning meaning = meaningOf(profile);
    FW::FWPACKETSET packets = tarnfw::newConnections("eth0");
    packets.families = 1U << FW::FW_FAMILY_V4;
    packets.protocols = {{IPPROTO_TCP, IPPROTO_TCP}};
    const tarnfw::PacketParts parts = PacketAnswers(meaning).parts(packets);
    const auto to = [&parts](const char* address) {
        return parts.to(22, FW::fwAddressFrom(address, FW::FW_FAMILY_V4)->first).senders();
    };
    EXPECT_EQ(to("192.168.1.10").allowed.size(), 1U);
    EXPECT_TRUE(to("192.168.1.11").allowed.empty());
    EXPECT_TRUE(to("192.168.1.11").depends.empty());
    EXPECT_EQ(parts.to(22, std::nullopt).senders().depends.size(), 1U);
    EXPECT_TRUE(parts.to(23, std::nullopt).senders().depends.empty());
}

// ---- What happens to many packets ----

TEST(PacketOutcomesTest, AreOfAllPacketsTogether) {
    FWPROFILE profile;
    profile.rules["global"] = {from(ports(kAllow, {"22"}), 1, {"10.0.0.0", "8"})};
    profile.adapterPolicyMap["eth0"] = kDeny;
    const Meaning meaning = meaningOf(profile);
    const auto outcomes = [&](const PacketAnswers& answers, const char* interface,
                              std::uint16_t port) {
        FW::FWPACKETSET packets = tarnfw::newConnections(interface);
        packets.protocols = {{IPPROTO_TCP, IPPROTO_TCP}};
        packets.destinationPorts = {{port, port}};
        const tarnfw::PacketOutcomes found = answers.outcomes(packets);
        EXPECT_FALSE(found.tooComplex);
        return std::string(found.denied ? "denied " : "") + (found.allowed ? "allowed " : "") +
               (found.undecided ? "undecided" : "");
    };
    const PacketAnswers all(meaning);
    EXPECT_EQ(outcomes(all, "eth0", 22), "denied allowed ");
    EXPECT_EQ(outcomes(all, "eth0", 23), "denied ");
    EXPECT_EQ(outcomes(all, "eth1", 22), "allowed undecided");
    EXPECT_EQ(outcomes(all, "eth1", 23), "undecided");
    EXPECT_EQ(outcomes(PacketAnswers(meaning, "global"), "eth0", 22), "allowed undecided");
}

TEST(PacketOutcomesTest, VerdictsOfAListLeaveTheUndecidedToOthers) {
    tarnfw::PacketOutcomes outcomes;
    EXPECT_EQ(outcomes.verdict(), kNone);
    outcomes.undecided = true;
    EXPECT_EQ(outcomes.verdict(), kNone);
    outcomes.allowed = true;
    EXPECT_EQ(outcomes.verdict(), kAllow);
    EXPECT_EQ(outcomes.verdictOfPart(), kNone);
    outcomes.denied = true;
    EXPECT_EQ(outcomes.verdict(), FW::FW_POLICY_MIXED);
    EXPECT_EQ(outcomes.verdictOfPart(), FW::FW_POLICY_MIXED);
    tarnfw::PacketOutcomes complex;
    complex.tooComplex = true;
    complex.denied = true;
    EXPECT_EQ(complex.verdict(), FW::FW_POLICY_MIXED) << "some may be allowed";
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
    packet.forwarded = true;
    packet.out = "docker0";
    EXPECT_EQ(decided(profile, packet),
              "22 deny docker0/1; 23-25 allow default of eth0; 26 deny eth0/3");
    packet.out = "eth1";
    EXPECT_EQ(decided(profile, packet), "22-25 allow default of eth0; 26 deny eth0/3");
    packet.out.reset();
    EXPECT_EQ(decided(profile, packet),
              "22 allow default of eth0 unless docker0/1; 23-24 allow default of eth0; "
              "25 allow default of eth0 unless eth0/2; 26 deny eth0/3");
    packet.forwarded = false;
    EXPECT_EQ(decided(profile, packet),
              "22-23 allow default of eth0; 24 deny eth0/1; 25 allow default of eth0; "
              "26 deny eth0/3");
}

// ---- Without ports ----

TEST(ProtocolDecisionTest, IsOneForAllPackets) {
    FWPROFILE profile;
    FWRULE icmp = everything(kDeny);
    icmp.portGroup = 1;
    icmp.protocol = FW::FW_PORT_PROTOCOL_ICMP;
    profile.rules["eth0"] = {ports(kAllow, {"22"}), icmp};
    const Meaning meaning = meaningOf(profile);
    PortPackets packets = questionOf(meaning, kPacket);
    packets.ports.reset();
    packets.packet.protocol = IPPROTO_ICMP;
    packets.packet.source.reset();
    const std::vector<PortDecision> decisions = decisionsFor(meaning, packets);
    ASSERT_EQ(decisions.size(), 1U);
    EXPECT_FALSE(decisions.front().ports);
    EXPECT_EQ(placed(placeOf(meaning, decisions.front().by)), "eth0/2");
    packets.packet.protocol = IPPROTO_GRE;
    EXPECT_EQ(placeOf(meaning, decisionsFor(meaning, packets).front().by).origin,
              FW::FW_ORIGIN_END);
}

// ---- In words ----

TEST(ReasonTextTest, NamesTheRuleOrThePolicy) {
    FWPROFILE profile;
    profile.rules["eth0"] = {ports(kDeny, {"23"}), ports(kAllow, {"22"})};
    profile.adapterPolicyMap["eth0"] = kDeny;
    const Meaning meaning = meaningOf(profile);
    const auto reasons = [&](const Packet& packet) {
        Texts texts;
        for (const PortDecision& decision : decisionsFor(meaning, questionOf(meaning, packet))) {
            texts.push_back(reasonText(meaning, decision.by));
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

TEST(PacketsFromTest, ReadsAddressPortAndInterface) {
    const PortPackets packets = tarnfw::packetsFrom("2001:db8::5", "udp/6000-6010", "eth0");
    EXPECT_EQ(packets.packet.in, "eth0");
    EXPECT_EQ(FW::fwAddressText(packets.packet.source.value(), packets.packet.family.value()),
              "2001:db8::5");
    EXPECT_EQ(packets.packet.protocol, IPPROTO_UDP);
    EXPECT_EQ(packets.ports->first, 6000);
    EXPECT_EQ(packets.ports->last, 6010);
    EXPECT_EQ(tarnfw::packetsFrom("10.0.0.5", "tcp/22", "eth0").packet.protocol, IPPROTO_TCP);
    EXPECT_EQ(tarnfw::packetsFrom("10.0.0.5", "53/udp", "eth0").packet.protocol, IPPROTO_UDP);
}

TEST(PacketsFromTest, OtherTextsAreInvalid) {
    const auto kindOf = [](const char* address, const char* port) {
        try {
            (void)tarnfw::packetsFrom(address, port, "eth0");
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
