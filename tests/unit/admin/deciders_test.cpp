// Who decides about many packets: in cases, and on random profiles compared with the decisions on
// single packets at and beside the edges of what is said.
#include "tarnfwadmin/deciders.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "profile_testing.h"
#include "random_profile.h"
#include "tarnfwadmin/packetAnswers.h"
#include "tarnfwadmin/verdicts.h"

namespace {

using FW::FWPACKETSET;
using tarnfw::Decider;
using tarnfw::Deciders;
using tarnfw::Meaning;

constexpr FW::FW_FAMILY kFamilies[] = {FW::FW_FAMILY_V4, FW::FW_FAMILY_V6};

std::vector<FWPACKETSET> packetsTo(const std::string& port, const std::string& interface) {
    FW::PortCompareST question;
    EXPECT_EQ(tarnfw::portQuestionFrom(port, question), "");
    return packetsFor(tarnfw::questionAbout(question), interface);
}

// ---- Cases --------------------------------------------------------------------------------------

FW::FWPROFILE profileOf(const std::vector<std::string>& global, const std::vector<std::string>& own,
                        FW::FW_POLICY policy) {
    return tarnfw::profileOf({{"global", FW::FW_POLICY_NONE, global}, {"eth0", policy, own}});
}

/// "10.0.0.0-10.255.255.255 ::-ffff:...:ffff"; "?" for a family where it depends on more.
std::string sendersOf(const Decider& decider) {
    std::string text;
    for (const FW::FW_FAMILY family : kFamilies) {
        const auto& senders = decider.senders[family];
        if (!senders) {
            text += " ?";
            continue;
        }
        for (const FW::FWADDRESSINTERVAL& interval : *senders) {
            text += " " + FW::fwAddressText(interval.first, family) + "-" +
                    FW::fwAddressText(interval.last, family);
        }
    }
    return text;
}

constexpr char kAllOfV4[] = " 0.0.0.0-255.255.255.255";
constexpr char kAllOfV6[] = " ::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";

/// Those of tcp 22, or other ports, through eth0: "allow rule 1 of global 10.0.0.0-10.0.0.0", ...
std::vector<std::string> told(const FW::FWPROFILE& profile, const std::string& port = "tcp/22",
                              const std::string& adapter = "") {
    const Meaning meaning(profile);
    const Deciders found = decidersOf(meaning, packetsTo(port, "eth0"), adapter);
    EXPECT_FALSE(found.tooComplex);
    std::vector<std::string> texts;
    for (const Decider& decider : found.all) {
        texts.push_back((decider.denied ? "deny " : "allow ") +
                        tarnfw::placeText(placeOf(meaning, decider.by)) + sendersOf(decider));
    }
    return texts;
}

using Texts = std::vector<std::string>;
constexpr FW::FW_POLICY kAllow = FW::FW_POLICY_ALLOW;
constexpr FW::FW_POLICY kDeny = FW::FW_POLICY_DENY;
constexpr FW::FW_POLICY kNone = FW::FW_POLICY_NONE;

TEST(DecidersTest, EachHasWhatTheEarlierOnesLeave) {
    EXPECT_EQ(told(profileOf({"deny tcp 22 from 10.3.0.0/16", "allow tcp 22 from 10.0.0.0/8",
                              "allow tcp 22 from 10.1.0.0/16", "deny tcp 23"},
                             {"allow tcp 22 from 11.0.0.0/8"}, kDeny)),
              (Texts{"deny rule 1 of global 10.3.0.0-10.3.255.255",
                     "allow rule 2 of global 10.0.0.0-10.2.255.255 10.4.0.0-10.255.255.255",
                     "allow rule 1 of eth0 11.0.0.0-11.255.255.255",
                     std::string("deny the default policy of eth0 0.0.0.0-9.255.255.255 "
                                 "12.0.0.0-255.255.255.255") +
                         kAllOfV6}));
}

TEST(DecidersTest, TheLastOneMayBeARuleOrNothing) {
    const std::string all = std::string(kAllOfV4) + kAllOfV6;
    EXPECT_EQ(told(profileOf({}, {"allow tcp 22", "deny any"}, kDeny)),
              Texts{"allow rule 1 of eth0" + all});
    EXPECT_EQ(told(profileOf({}, {}, kAllow)), Texts{"allow the default policy of eth0" + all});
    EXPECT_EQ(told(profileOf({}, {}, kNone)), Texts{"allow no rule" + all});
    EXPECT_EQ(told(profileOf({}, {"deny tcp 22 from 0.0.0.0/0", "allow tcp 22 from ::/0"}, kNone)),
              (Texts{std::string("deny rule 1 of eth0") + kAllOfV4,
                     std::string("allow rule 2 of eth0") + kAllOfV6}))
        << "and leaves nothing";
}

TEST(DecidersTest, OfOneSenderToOneAddress) {
    const Meaning meaning(profileOf({"deny any from 10.3.0.0/16", "deny tcp 22 to 10.0.0.9"},
                                    {"allow tcp 22 from 10.0.0.0/8", "deny tcp 22"}, kAllow));
    const auto textFor = [&](const char* from, const char* to) {
        std::vector<FWPACKETSET> packets = packetsTo("tcp/22", "eth0");
        packets.front().families = 1U << FW::FW_FAMILY_V4;
        packets.front().sources = std::make_shared<FW::FWADDRESSES>(
            tarnfw::onlyAddress(*tarnfw::packetAddressFrom(from)));
        packets.front().destinations =
            std::make_shared<FW::FWADDRESSES>(tarnfw::onlyAddress(*tarnfw::packetAddressFrom(to)));
        std::string text;
        for (const Decider& decider : decidersOf(meaning, packets).all) {
            text += tarnfw::placeText(placeOf(meaning, decider.by)) + sendersOf(decider) + ";";
        }
        return text;
    };
    EXPECT_EQ(textFor("10.3.0.1", "10.0.0.9"), "rule 1 of global 10.3.0.1-10.3.0.1;");
    EXPECT_EQ(textFor("10.4.0.1", "10.0.0.9"), "rule 2 of global 10.4.0.1-10.4.0.1;");
    EXPECT_EQ(textFor("10.4.0.1", "10.0.0.8"), "rule 1 of eth0 10.4.0.1-10.4.0.1;");
    EXPECT_EQ(textFor("11.4.0.1", "10.0.0.8"), "rule 2 of eth0 11.4.0.1-11.4.0.1;");
    EXPECT_EQ(textFor("::ffff:11.4.0.1", "10.0.0.8"), "rule 2 of eth0 11.4.0.1-11.4.0.1;");
}

TEST(DecidersTest, OfOneTypeOfIcmp) {
    const Meaning meaning(profileOf({}, {"allow icmp"}, kDeny));
    FWPACKETSET packets = tarnfw::newConnections("eth0");
    packets.families = 1U << FW::FW_FAMILY_V6;
    packets.protocols = {{IPPROTO_ICMPV6, IPPROTO_ICMPV6}};
    const std::size_t all = decidersOf(meaning, {packets}).all.size();
    packets.icmpTypes = {{128, 128}};
    const Deciders found = decidersOf(meaning, {packets});
    EXPECT_EQ(all, 2U) << "neighbour discovery has types of its own";
    ASSERT_EQ(found.all.size(), 1U);
    EXPECT_EQ(tarnfw::placeText(placeOf(meaning, found.all.front().by)), "rule 1 of eth0");
}

TEST(DecidersTest, OfOneAdapterAloneIsWhatItsListDecides) {
    const FW::FWPROFILE profile =
        profileOf({"allow tcp 22 from 10.0.0.0/8"}, {"deny tcp 22"}, kDeny);
    EXPECT_EQ(told(profile, "tcp/22", "global"),
              (Texts{"allow rule 1 of global 10.0.0.0-10.255.255.255",
                     std::string("allow no rule 0.0.0.0-9.255.255.255 11.0.0.0-255.255.255.255") +
                         kAllOfV6}));
}

TEST(DecidersTest, MoreThanTheSenderMayMatter) {
    const std::string both = " ? ?";
    EXPECT_EQ(told(profileOf({}, {"allow tcp 22 to 10.0.0.5"}, kDeny)),
              (Texts{"allow rule 1 of eth0 ?",
                     "deny the default policy of eth0 ?" + std::string(kAllOfV6)}));
    EXPECT_EQ(told(profileOf({}, {"allow tcp 22"}, kDeny), "tcp/22-23"),
              (Texts{"allow rule 1 of eth0" + both, "deny the default policy of eth0" + both}));
    EXPECT_EQ(told(profileOf({}, {"allow tcp 22"}, kDeny), "both/22"),
              (Texts{"allow rule 1 of eth0" + both, "deny the default policy of eth0" + both}));
    EXPECT_EQ(told(profileOf({}, {"allow tcp/udp 22"}, kDeny), "both/22"),
              Texts{"allow rule 1 of eth0" + std::string(kAllOfV4) + kAllOfV6});
}

/// Rules for as many addresses, none beside another one.
std::vector<FW::FWRULE> rulesForAddresses(const FW::FWRULE& rule, std::size_t count) {
    std::vector<FW::FWRULE> rules(count, rule);
    for (std::size_t i = 0; i < count; ++i) {
        rules[i].ipList = {"10.0." + std::to_string(i / 100) + "." + std::to_string(i % 100 * 2)};
    }
    return rules;
}

TEST(DecidersTest, OfThousandsOfRulesThoseBesideEachOtherAreNotTooComplex) {
    FW::FWPROFILE profile = profileOf({}, {"deny any from 10.0.0.0"}, kAllow);
    std::vector<FW::FWRULE>& rules = profile.rules["eth0"];
    rules = rulesForAddresses(rules.front(), 10000);
    const Deciders found = decidersOf(Meaning(profile), packetsTo("tcp/22", "eth0"));
    EXPECT_FALSE(found.tooComplex);
    ASSERT_EQ(found.all.size(), 10001U);
    EXPECT_EQ(found.all.back().senders[FW::FW_FAMILY_V4].value().size(), 10001U);
    EXPECT_FALSE(found.all.back().denied);
}

#ifndef TARN_SLOW
TEST(DecidersTest, WhatIsTooComplexIsSaidAndTheVerdictIsKnown) {
    // One rule is left with what thousands of earlier ones cut out of it.
    FW::FWPROFILE profile =
        profileOf({}, {"deny any from 10.0.0.0", "deny any from 10.0.0.0/8"}, kDeny);
    std::vector<FW::FWRULE>& rules = profile.rules["eth0"];
    const FW::FWRULE network = rules.back();
    rules = rulesForAddresses(rules.front(), 6000);
    rules.push_back(network);
    const Meaning meaning(profile);
    FW::PortCompareST question;
    ASSERT_EQ(tarnfw::portQuestionFrom("tcp/22", question), "");
    const auto answers = explainedVerdicts(meaning, {tarnfw::questionAbout(question)}, {"eth0"});
    const Deciders& found = answers.back().ports.front().deciders;
    EXPECT_TRUE(found.tooComplex);
    EXPECT_GE(found.all.size(), 6000U) << "what is found is not lost";
    EXPECT_EQ(answers.back().verdict, FW::FW_POLICY_DENY);
    rules.back().policy = kAllow;
    EXPECT_EQ(explainedVerdicts(Meaning(profile), {tarnfw::questionAbout(question)}, {"eth0"})
                  .back()
                  .verdict,
              FW::FW_POLICY_MIXED);
}
#endif

// ---- On random profiles -------------------------------------------------------------------------

bool isLess(const FW::FWADDRESS& a, const FW::FWADDRESS& b) {
    return a.high != b.high ? a.high < b.high : a.low < b.low;
}

bool has(const std::shared_ptr<const FW::FWADDRESSES>& addresses, const FW::FWADDRESS& address) {
    return addresses == nullptr ||
           std::any_of(
               addresses->begin(), addresses->end(), [&](const FW::FWADDRESSINTERVAL& interval) {
                   return !isLess(address, interval.first) && !isLess(interval.last, address);
               });
}

bool has(const FW::FWINTERVALS& intervals, std::uint16_t number) {
    return intervals.empty() ||
           std::any_of(intervals.begin(), intervals.end(), [number](const FW::FWINTERVAL& one) {
               return one.first <= number && number <= one.last;
           });
}

bool has(const FWPACKETSET& set, const FW::FWPACKET& packet) {
    return (set.families & (1U << *packet.family)) != 0 && has(set.protocols, *packet.protocol) &&
           has(set.sources, *packet.source) && has(set.destinations, *packet.destination) &&
           has(set.sourcePorts, *packet.sourcePort) &&
           has(set.destinationPorts, *packet.destinationPort);
}

/// An address, one of a list's ends, or one beside it.
FW::FWADDRESS addressIn(Random& random, const std::shared_ptr<const FW::FWADDRESSES>& addresses,
                        FW::FW_FAMILY family) {
    const bool ipv4 = family == FW::FW_FAMILY_V4;
    FW::FWADDRESS address = {(std::uint64_t(random()) << 32U) | random(), random()};
    if (addresses != nullptr) {
        const FW::FWADDRESSINTERVAL& interval = oneOf(random, *addresses);
        address = pick(random, 2) == 0 ? interval.first : interval.last;
        if (pick(random, 2) == 0) {
            const bool up = pick(random, 2) == 0;
            address.high += up ? std::uint64_t(1) << 32U : ~std::uint64_t(0) << 32U;
        }
    }
    if (ipv4) {
        address.high &= ~std::uint64_t(0) << 32U;
        address.low = 0;
    }
    return address;
}

std::uint16_t portIn(Random& random, const FW::FWINTERVALS& ports) {
    if (ports.empty()) {
        return static_cast<std::uint16_t>(random());
    }
    const FW::FWINTERVAL& interval = oneOf(random, ports);
    return static_cast<std::uint16_t>((pick(random, 2) == 0 ? interval.first : interval.last) +
                                      pick(random, 3) - 1);
}

FW::FWENVIRONMENT environmentFor(const FW::FWPROFILE& profile, const TestCountries& countries) {
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "ppp0");
    environment.tunnels = {{"eth0", "sit0"}};
    environment.services["ssh"].dstPorts[FW::FW_PORT_PROTOCOL_TCP] = {"22"};
    environment.services["web"].dstPorts[FW::FW_PORT_PROTOCOL_TCP_UDP] = {"80", "443", "8000-8080"};
    environment.countries = [&countries](const std::string& country, FW::FW_FAMILY family) {
        return countries.find(country, family);
    };
    return environment;
}

class RandomDecidersTest : public ::testing::Test {
protected:
    /// Compares what is said of a packet with the decision about it.
    void check(const Meaning& meaning, const Deciders& found, const FW::FWPACKET& packet) {
        std::vector<const Decider*> by;
        for (const Decider& decider : found.all) {
            const auto count = std::count_if(decider.packets.begin(), decider.packets.end(),
                                             [&](const auto& set) { return has(set, packet); });
            ASSERT_LE(count, 1) << "sets of one rule have a packet in common";
            if (count == 1) {
                by.push_back(&decider);
            }
        }
        ASSERT_EQ(by.size(), 1U) << "one decides about each packet";
        const FW::FWDECISION decision = meaning.answers().decide(packet);
        ASSERT_EQ(decision.deciders.size(), 1U);
        const std::size_t number = decision.deciders.front();
        EXPECT_EQ(tarnfw::placeText(placeOf(meaning, number)),
                  tarnfw::placeText(placeOf(meaning, by.front()->by)));
        EXPECT_EQ(tunnelOf(meaning, number), tunnelOf(meaning, by.front()->by));
        EXPECT_EQ(meaning.answers().rule(number).verdict == FW::FW_PACKET_DROP, by.front()->denied);
        ++packets_;
        for (const Decider& decider : found.all) {
            const auto& senders = decider.senders[*packet.family];
            if (senders) {
                const bool isOne =
                    has(std::make_shared<const FW::FWADDRESSES>(*senders), *packet.source);
                EXPECT_EQ(isOne, &decider == by.front());
                ++senders_;
            }
        }
    }

    const TestCountries countries_{5};
    int packets_ = 0;
    int senders_ = 0;
};

TEST_F(RandomDecidersTest, DecideAboutEachPacketAsItsOwnDecisionIs) {
    constexpr int kProfiles = 150;
    constexpr int kPackets = 40;
    const std::vector<std::string> ports = {"tcp/22",   "udp/53",        "both/443", "tcp/1723",
                                            "tcp/6005", "tcp/7990-8100", "udp/500",  "tcp/0-65535"};
    for (int i = 0; i < kProfiles; ++i) {
        Random random(static_cast<unsigned>(8000000 + i));
        const FW::FWPROFILE profile =
            makeProfile(random, 8, {"global", "eth0", "eth1", "vpn", "pppoe", "et+", "+"});
        const Meaning meaning(profile, environmentFor(profile, countries_));
        for (const char* const interface : {"eth0", "eth01", "ppp0", "tun0", "sit0", "lo"}) {
            const std::vector<FWPACKETSET> asked = packetsTo(oneOf(random, ports), interface);
            const Deciders found = decidersOf(meaning, asked);
            ASSERT_FALSE(found.tooComplex);
            ASSERT_FALSE(found.all.empty());
            for (int n = 0; n < kPackets; ++n) {
                FWPACKETSET near = oneOf(random, oneOf(random, found.all).packets);
                const FWPACKETSET& question = oneOf(random, asked);
                FW::FWPACKET packet;
                packet.chain = FW::FW_CHAIN_INPUT;
                packet.state = FW::FW_STATE_NEW;
                packet.in = interface;
                packet.family = kFamilies[near.families == 1U << FW::FW_FAMILY_V4 ? 0 : 1];
                packet.protocol = static_cast<std::uint8_t>(question.protocols.front().first);
                packet.source = addressIn(random, near.sources, *packet.family);
                packet.destination = addressIn(random, near.destinations, *packet.family);
                packet.sourcePort = portIn(random, near.sourcePorts);
                packet.destinationPort = portIn(random, near.destinationPorts);
                if (has(question.destinationPorts, *packet.destinationPort)) {
                    SCOPED_TRACE("profile " + std::to_string(i) + ", " + interface);
                    check(meaning, found, packet);
                }
            }
        }
    }
    EXPECT_GT(packets_, kProfiles * 100);
    EXPECT_GT(senders_, kProfiles * 100);
}

TEST_F(RandomDecidersTest, AddUpToTheExactVerdict) {
    constexpr int kProfiles = 200;
    int mixed = 0;
    for (int i = 0; i < kProfiles; ++i) {
        Random random(static_cast<unsigned>(8100000 + i));
        const FW::FWPROFILE profile = makeProfile(random, 6, {"global", "eth0", "vpn"});
        const Meaning meaning(profile, environmentFor(profile, countries_));
        FW::PortCompareST question;
        ASSERT_EQ(tarnfw::portQuestionFrom(i % 2 == 0 ? "tcp/22" : "both/443", question), "");
        const auto exact =
            exactVerdicts(meaning, {tarnfw::questionAbout(question)}, {"eth0", "eth1"});
        const auto explained =
            explainedVerdicts(meaning, {tarnfw::questionAbout(question)}, {"eth0", "eth1"});
        ASSERT_EQ(explained.size(), exact.size());
        for (std::size_t n = 0; n < exact.size(); ++n) {
            EXPECT_EQ(explained[n].verdict, exact[n].verdict)
                << "profile " << i << ", " << exact[n].adapter;
            EXPECT_TRUE(exact[n].ports.front().deciders.all.empty());
            EXPECT_FALSE(explained[n].ports.front().deciders.all.empty());
            mixed += exact[n].verdict == FW::FW_POLICY_MIXED ? 1 : 0;
        }
    }
    EXPECT_GT(mixed, kProfiles / 10);
}

// Of masks with too many gaps it is known for one address whether they match it.
TEST_F(RandomDecidersTest, NoVerdictLeavesOutWhatARuleThatIsNotCountedDoes) {
    constexpr int kProfiles = 200;
    constexpr int kPackets = 30;
    int doubtful = 0;
    int byUncounted = 0;
    for (int i = 0; i < kProfiles; ++i) {
        Random random(static_cast<unsigned>(8200000 + i));
        FW::FWPROFILE profile = makeProfile(random, 4, {"global", "eth0"});
        for (auto& [adapter, rules] : profile.rules) {
            for (FW::FWRULE& rule : rules) {
                if (pick(random, 2) == 0) {
                    rule.ipType = FW::FW_IP_TYPE_V4;
                    rule.ipGroup = FW::FW_IP_GROUP_NETWORK;
                    rule.ipList = {"0.0.0." + std::to_string(pick(random, 3)), "0.0.0.255"};
                }
            }
        }
        const Meaning meaning(profile, environmentFor(profile, countries_));
        FW::PortCompareST question;
        ASSERT_EQ(tarnfw::portQuestionFrom(i % 2 == 0 ? "tcp/22" : "tcp/443", question), "");
        const tarnfw::PacketQuestion asked = tarnfw::questionAbout(question);
        const tarnfw::AdapterAnswer answer = exactVerdicts(meaning, {asked}, {"eth0"}).back();
        doubtful += answer.ports.front().outcomes.verdict() != answer.verdict ? 1 : 0;
        for (int n = 0; n < kPackets; ++n) {
            FW::FWPACKET packet;
            packet.chain = FW::FW_CHAIN_INPUT;
            packet.state = FW::FW_STATE_NEW;
            packet.in = "eth0";
            packet.family = FW::FW_FAMILY_V4;
            packet.protocol = IPPROTO_TCP;
            const std::string source = "192.0.2." + std::to_string(pick(random, 4));
            const std::string destination = "198.51.100." + std::to_string(pick(random, 4));
            const auto from = tarnfw::packetAddressFrom(source);
            const auto to = tarnfw::packetAddressFrom(destination);
            packet.source = tarnfw::addressNumber(*from);
            packet.destination = tarnfw::addressNumber(*to);
            packet.sourcePort = portIn(random, oneOf(random, meaning.rules()).packets.sourcePorts);
            packet.destinationPort = i % 2 == 0 ? 22 : 443;
            const Meaning exact = meaning.between(from, to);
            const std::size_t number = exact.answers().decide(packet).deciders.front();
            const bool isDropped = exact.answers().rule(number).verdict == FW::FW_PACKET_DROP;
            byUncounted += meaning.isUncounted(placeOf(exact, number)) ? 1 : 0;
            EXPECT_TRUE(answer.verdict == FW::FW_POLICY_MIXED ||
                        isDropped == (answer.verdict == FW::FW_POLICY_DENY))
                << "profile " << i << ": " << tarnfw::verdictText(answer.verdict) << ", but "
                << tarnfw::reasonText(exact, number) << " decides about " << source;
        }
    }
    EXPECT_GT(doubtful, kProfiles / 10);
    EXPECT_GT(byUncounted, kProfiles);
}

}  // namespace
