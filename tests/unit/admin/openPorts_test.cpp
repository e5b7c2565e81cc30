// Which ports are open, to whom: in cases, and on random profiles compared with the decisions on
// single packets at and beside the edges of what is said.
#include "tarnfwadmin/openPorts.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "profile_testing.h"
#include "random_profile.h"
#include "tarnfwadmin/packetWords.h"

namespace {

using tarnfw::Meaning;
using tarnfw::OpenPorts;
using tarnfw::OpenRow;
using tarnfw::OpenTo;

constexpr FW::FW_FAMILY kFamilies[] = {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6};

using Texts = std::vector<std::string>;

FW::FWPROFILE profileOf(const Texts& rules) {
    return tarnfw::profileOf(
        {{"eth0", FW::FW_POLICY_DENY, rules}, {"eth1", FW::FW_POLICY_DENY, {}}});
}

std::string portsText(const char* protocol, const FW::FWINTERVALS& ports) {
    std::string text;
    for (const FW::FWINTERVAL& one : ports) {
        text += (text.empty() ? std::string(protocol) + " " : std::string(",")) +
                std::to_string(one.first);
        text += one.first == one.last ? "" : "-" + std::to_string(one.last);
    }
    return text.empty() ? "" : text + " ";
}

std::string toldTo(const OpenTo& to, FW::FW_FAMILY family) {
    std::string text;
    for (const FW::FWADDRESSINTERVAL& one : to.always) {
        text += " " + FW::fwAddressText(one.first, family);
    }
    for (const tarnfw::OpenPartly& part : to.partly) {
        text += part.areAllOthers ? " others" : " some";
        text += part.sourcePorts.empty() ? "" : " " + portsText("from", part.sourcePorts);
        text += part.destinations == nullptr ? "" : " to an address";
    }
    return text;
}

Texts told(const std::vector<OpenRow>& rows) {
    Texts texts;
    for (const OpenRow& row : rows) {
        std::string text = (row.isSpan ? "other " : "") + portsText("tcp", row.tcp) +
                           portsText("udp", row.udp) + "on";
        for (const std::string& interface : row.interfaces) {
            text += " " + interface;
        }
        for (const FW::FW_FAMILY family : kFamilies) {
            text += ":" + toldTo(*row.to[family], family);
        }
        texts.push_back(text);
    }
    return texts;
}

/// Of eth0 and eth1, where nothing or these tcp ports of IPv4 are in use.
Texts rowsOf(const FW::FWPROFILE& profile, const std::set<std::uint16_t>& used = {},
             const std::string& from = "") {
    OpenPorts open(Meaning(profile), tarnfw::packetAddressFrom(from));
    return told(open.rows({"eth0", "eth1"}, [&](const auto&, auto family, auto protocol) {
        const bool isUsed = family == FW::FW_FAMILY_V4 && protocol == FW::FW_PORT_PROTOCOL_TCP;
        return isUsed ? used : std::set<std::uint16_t>();
    }));
}

TEST(OpenPortsTest, EachPortIsInOneRow) {
    EXPECT_EQ(rowsOf(profileOf({"allow tcp 22 from 10.0.0.0/8", "allow tcp 80", "allow tcp 443",
                                "allow udp 53 from 192.168.1.0/24", "allow udp 443"})),
              (Texts{"tcp 22 on eth0: 10.0.0.0:", "tcp 80,443 udp 443 on eth0: 0.0.0.0: ::",
                     "udp 53 on eth0: 192.168.1.0:"}));
    EXPECT_EQ(rowsOf(profileOf({"allow tcp 20-30 from 10.0.0.0/8", "allow tcp 25-35"})),
              (Texts{"tcp 20-24 on eth0: 10.0.0.0:", "tcp 25-35 on eth0: 0.0.0.0: ::"}));
}

TEST(OpenPortsTest, PortsInUseAreLeftOutWhereTheyAre) {
    EXPECT_EQ(rowsOf(profileOf({"allow tcp 80-82"}), {81}),
              (Texts{"tcp 80,82 on eth0: 0.0.0.0: ::", "tcp 81 on eth0:: ::"}));
    EXPECT_EQ(rowsOf(profileOf({"allow tcp 80-82 from 10.0.0.0/8"}), {80, 81, 82}), Texts{});
}

TEST(OpenPortsTest, ManyPortsAreASpan) {
    FW::FWPROFILE profile = profileOf({"deny tcp 25"});
    profile.adapterPolicyMap["eth0"] = profile.adapterPolicyMap["eth1"] = FW::FW_POLICY_ALLOW;
    EXPECT_EQ(rowsOf(profile, {80}),
              (Texts{"tcp 25 on eth1: 0.0.0.0: ::",
                     "other tcp 0-24,26-65535 udp 0-65535 on eth0 eth1: 0.0.0.0: ::"}));
}

TEST(OpenPortsTest, PortsApartFromASpanAreNotOfIt) {
    const FW::FWPROFILE profile =
        profileOf({"allow tcp 22", "allow tcp 80,82", "allow tcp 30000-50000"});
    EXPECT_EQ(rowsOf(profile, {22, 82, 40000}),
              (Texts{"tcp 22,82 on eth0:: ::", "tcp 80 on eth0: 0.0.0.0: ::",
                     "other tcp 30000-50000 on eth0: 0.0.0.0: ::"}));
    EXPECT_EQ(rowsOf(profile, {22}), (Texts{"tcp 22 on eth0:: ::", "tcp 80,82 on eth0: 0.0.0.0: ::",
                                            "tcp 30000-50000 on eth0: 0.0.0.0: ::"}))
        << "nothing of the span is in use";
    EXPECT_EQ(rowsOf(profileOf({"allow tcp 1-3", "allow tcp 5-2000"}), {7}),
              (Texts{"other tcp 1-3,5-2000 on eth0: 0.0.0.0: ::"}));
}

TEST(OpenPortsTest, MoreThanTheSenderMayMatter) {
    EXPECT_EQ(rowsOf(profileOf({"allow tcp 22 from 10.0.0.0/8", "allow tcp 22 to 10.9.0.0/16",
                                "deny tcp source port 53", "allow tcp 80"})),
              (Texts{"tcp 22 on eth0: 10.0.0.0 others to an address:",
                     "tcp 80 on eth0: others from 0-52,54-65535 : others from 0-52,54-65535 "}));
}

TEST(OpenPortsTest, WhatMattersIsSaidAsBrieflyAsItCanBe) {
    EXPECT_EQ(
        rowsOf(profileOf({"allow both source port 53", "allow tcp 22 to 10.9.0.0/16"})).front(),
        "tcp 22 on eth0: others to an address others from 53 : others from 53 ");
}

TEST(OpenPortsTest, OfOneSenderAlone) {
    const FW::FWPROFILE profile =
        profileOf({"allow tcp 22 from 10.0.0.0/8", "allow tcp 23 from 11.0.0.0/8"});
    EXPECT_EQ(rowsOf(profile, {}, "10.1.2.3"), Texts{"tcp 22 on eth0: 10.1.2.3:"});
    EXPECT_EQ(rowsOf(profile, {}, "::ffff:11.1.2.3"), Texts{"tcp 23 on eth0: 11.1.2.3:"});
    EXPECT_EQ(rowsOf(profile, {}, "2001:db8::1"), Texts{});
}

// ---- On random profiles -------------------------------------------------------------------------

bool isLess(const FW::FWADDRESS& a, const FW::FWADDRESS& b) {
    return a.high != b.high ? a.high < b.high : a.low < b.low;
}

bool has(const FW::FWADDRESSES& addresses, const FW::FWADDRESS& address) {
    return std::any_of(
        addresses.begin(), addresses.end(), [&](const FW::FWADDRESSINTERVAL& interval) {
            return !isLess(address, interval.first) && !isLess(interval.last, address);
        });
}

bool has(const FW::FWINTERVALS& intervals, std::uint16_t number) {
    return std::any_of(intervals.begin(), intervals.end(), [number](const FW::FWINTERVAL& one) {
        return one.first <= number && number <= one.last;
    });
}

bool isOpen(const OpenTo& to, const FW::FWPACKET& packet) {
    return has(to.always, *packet.source) ||
           std::any_of(to.partly.begin(), to.partly.end(), [&](const tarnfw::OpenPartly& part) {
               return has(part.senders, *packet.source) &&
                      (part.sourcePorts.empty() || has(part.sourcePorts, *packet.sourcePort)) &&
                      (part.destinations == nullptr ||
                       has(*part.destinations, *packet.destination));
           });
}

/// An end of an interval of the rules, or a number beside it; or any.
FW::FWADDRESS addressNear(Random& random, const Meaning& meaning, FW::FW_FAMILY family) {
    FW::FWADDRESS address = {(std::uint64_t(random()) << 32U) | random(), random()};
    const FW::FWPACKETSET& packets = oneOf(random, meaning.rules()).packets;
    const auto& list = pick(random, 2) == 0 ? packets.sources : packets.destinations;
    if (list != nullptr && packets.families == (1U << family)) {
        const FW::FWADDRESSINTERVAL& interval = oneOf(random, *list);
        address = pick(random, 2) == 0 ? interval.first : interval.last;
        if (pick(random, 2) == 0) {
            const bool up = pick(random, 2) == 0;
            address.high += up ? std::uint64_t(1) << 32U : ~std::uint64_t(0) << 32U;
        }
    }
    if (family == FW::FW_FAMILY_V4) {
        address.high &= ~std::uint64_t(0) << 32U;
        address.low = 0;
    }
    return address;
}

std::uint16_t portNear(Random& random, const Meaning& meaning) {
    const FW::FWPACKETSET& packets = oneOf(random, meaning.rules()).packets;
    const auto& ports = pick(random, 2) == 0 ? packets.sourcePorts : packets.destinationPorts;
    if (ports.empty()) {
        return static_cast<std::uint16_t>(random());
    }
    const FW::FWINTERVAL& one = oneOf(random, ports);
    return static_cast<std::uint16_t>((pick(random, 2) == 0 ? one.first : one.last) +
                                      pick(random, 3) - 1);
}

TEST(RandomOpenPortsTest, AgreeWithTheDecisionOnEachPacket) {
    constexpr int kProfiles = 100;
    constexpr int kPackets = 200;
    const Texts interfaces = {"eth0", "eth1", "ppp0", "tun0", "sit0"};
    const TestCountries countries(3);
    int open = 0;
    int partly = 0;
    for (int i = 0; i < kProfiles; ++i) {
        Random random(static_cast<unsigned>(8200000 + i));
        const FW::FWPROFILE profile =
            makeProfile(random, 8, {"global", "eth0", "eth1", "vpn", "pppoe", "et+"});
        FW::FWENVIRONMENT environment;
        environment.adapters = FW::fwAdaptersByName(profile, "ppp0");
        environment.tunnels = {{"eth0", "sit0"}};
        environment.services["ssh"].dstPorts[FW::FW_PORT_PROTOCOL_TCP] = {"22"};
        environment.countries = [&countries](const std::string& country, FW::FW_FAMILY family) {
            return countries.find(country, family);
        };
        const Meaning meaning(profile, environment);
        OpenPorts ports(meaning);
        const std::vector<OpenRow> rows = ports.rows(
            interfaces, [](const auto&, auto, auto) { return std::set<std::uint16_t>(); });
        for (int n = 0; n < kPackets; ++n) {
            const bool tcp = pick(random, 2) == 0;
            const FW::FW_FAMILY family = oneOf(
                random, std::vector<FW::FW_FAMILY>(std::begin(kFamilies), std::end(kFamilies)));
            FW::FWPACKET packet;
            packet.chain = FW::FW_CHAIN_INPUT;
            packet.state = FW::FW_STATE_NEW;
            packet.in = oneOf(random, interfaces);
            packet.family = family;
            packet.protocol = static_cast<std::uint8_t>(tcp ? int{IPPROTO_TCP} : int{IPPROTO_UDP});
            packet.source = addressNear(random, meaning, family);
            packet.destination = addressNear(random, meaning, family);
            packet.sourcePort = portNear(random, meaning);
            packet.destinationPort = portNear(random, meaning);
            const std::size_t decider = meaning.answers().decide(packet).deciders.front();
            const bool isAllowed = decider == meaning.rules().size() ||
                                   meaning.rules()[decider].verdict != FW::FW_PACKET_DROP;
            int found = 0;
            bool isOpenInRows = false;
            for (const OpenRow& row : rows) {
                const bool isHere =
                    std::count(row.interfaces.begin(), row.interfaces.end(), *packet.in) != 0 &&
                    has(tcp ? row.tcp : row.udp, *packet.destinationPort);
                found += isHere ? 1 : 0;
                isOpenInRows = isOpenInRows || (isHere && isOpen(*row.to[family], packet));
            }
            SCOPED_TRACE("profile " + std::to_string(i) + ", packet " + std::to_string(n));
            ASSERT_LE(found, 1);
            ASSERT_EQ(isOpenInRows, isAllowed);
            const OpenTo to = ports.to(*packet.in, family,
                                       tcp ? FW::FW_PORT_PROTOCOL_TCP : FW::FW_PORT_PROTOCOL_UDP,
                                       *packet.destinationPort, std::nullopt);
            ASSERT_EQ(isOpen(to, packet), isAllowed);
            const OpenTo here = ports.to(*packet.in, family,
                                         tcp ? FW::FW_PORT_PROTOCOL_TCP : FW::FW_PORT_PROTOCOL_UDP,
                                         *packet.destinationPort, packet.destination);
            ASSERT_EQ(isOpen(here, packet), isAllowed);
            open += isAllowed ? 1 : 0;
            partly += to.partly.empty() ? 0 : 1;
        }
    }
    EXPECT_GT(open, kProfiles * kPackets / 20);
    EXPECT_LT(open, kProfiles * kPackets * 19 / 20);
    EXPECT_GT(partly, kProfiles);
}

}  // namespace
