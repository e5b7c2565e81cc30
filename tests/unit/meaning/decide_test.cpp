// Decisions about single packets, known in every field or not.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwMeaning.h"

#include "bdd_oracle.h"
#include "iptables_lines.h"
#include "packet_set.h"
#include "random_case.h"

namespace {

using FW::FW_MEANING;
using FW::FWDECISION;
using FW::FWPACKET;
using FW::FWRESOLVEDRULE;

class DecideRandomTest : public LibraryTest {};

/// "DROP logged by eth0 3".
std::string outcomeOf(const FW_MEANING& meaning, const FWDECISION& decision) {
    if (decision.deciders.size() != 1) {
        return std::to_string(decision.deciders.size()) + " deciders";
    }
    if (decision.deciders[0] == meaning.size()) {
        return "RETURN";
    }
    const FWRESOLVEDRULE rule = meaning.rule(decision.deciders[0]);
    static const char* const kTargets[] = {"ACCEPT", "RETURN", "DROP"};
    return std::string(kTargets[rule.verdict]) + (rule.log ? " logged" : "") + " by " +
           rule.place.adapter + " " + std::to_string(rule.place.position);
}

std::string outcomeOf(const LineVerdict& verdict) {
    if (verdict.decider == nullptr) {
        return verdict.target;
    }
    return verdict.target + (verdict.logged ? " logged" : "") + " by " + verdict.decider->adapter +
           " " +
           (verdict.decider->adapter.empty() ? "0" : std::to_string(verdict.decider->position));
}

/// Takes away each field of a packet with a chance of one in `chance`.
FWPACKET withUnknownFields(Random& random, FWPACKET packet, int chance) {
    const auto forget = [&](auto& field) {
        if (pick(random, chance) == 0) {
            field.reset();
        }
    };
    forget(packet.chain);
    forget(packet.family);
    forget(packet.in);
    forget(packet.out);
    forget(packet.protocol);
    forget(packet.source);
    forget(packet.destination);
    forget(packet.sourcePort);
    forget(packet.destinationPort);
    forget(packet.icmpType);
    forget(packet.state);
    // An address says nothing without its family, as a port without its protocol.
    if (!packet.family) {
        packet.source.reset();
        packet.destination.reset();
    }
    if (!packet.protocol) {
        packet.sourcePort.reset();
        packet.destinationPort.reset();
        packet.icmpType.reset();
    }
    return packet;
}

/// Whether a packet may be `other`, all of whose fields are known.
bool mayBe(const FWPACKET& packet, const FWPACKET& other) {
    const auto agree = [](const auto& known, const auto& value) {
        return !known || *known == *value;
    };
    const auto agreeAddress = [](const auto& known, const auto& value) {
        return !known || (known->high == value->high && known->low == value->low);
    };
    const bool ports = other.protocol == 6 || other.protocol == 17;
    const bool type = other.protocol == 1 || other.protocol == 58;
    return agree(packet.chain, other.chain) && agree(packet.family, other.family) &&
           agree(packet.in, other.in) && agree(packet.protocol, other.protocol) &&
           (other.chain == FW::FW_CHAIN_INPUT || agree(packet.out, other.out)) &&
           agreeAddress(packet.source, other.source) &&
           agreeAddress(packet.destination, other.destination) &&
           (!ports || (agree(packet.sourcePort, other.sourcePort) &&
                       agree(packet.destinationPort, other.destinationPort))) &&
           (!type || agree(packet.icmpType, other.icmpType)) && agree(packet.state, other.state);
}

TEST_F(DecideRandomTest, DecisionsAreThoseOfTheLinesAndOfTheDiagrams) {
    const TestCountries countries(2);
    storeCountries(countries);
    const int profiles = countOf(200, 5000);
    constexpr int kPackets = 5000;  // of each: a million in the short run
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(1000000 + number));
        const RandomCase made =
            makeCase(random, pick(random, 8) == 0 ? 60 : 8, countries, platform_);
        const FamilyLines lines = linesOfProfile(made.profile, made.batch, countries.ranges());
        const std::vector<FWRESOLVEDRULE> rules =
            FW::fwResolve(made.profile, made.environment).rules;
        const FW_MEANING meaning(rules);
        const BddOracle oracle(made.interfaces);
        const BddFunction function = oracle.fold(rules);
        for (int i = 0; i < kPackets; ++i) {
            const LinePacket packet = makePacket(random, lines, made.interfaces);
            const FWPACKET same = packetOf(packet);
            const FWDECISION decision = meaning.decide(same);
            ASSERT_EQ(outcomeOf(meaning, decision), outcomeOf(decideByLines(lines, packet)))
                << "profile " << number << ", " << textOf(packet) << textOf(lines);
            const FWRESOLVEDRULE decider = meaning.rule(decision.deciders[0]);
            ASSERT_EQ(BddOracle::outcomeOf(decider.verdict, decider.log),
                      oracle.outcomeOf(function, same))
                << "profile " << number << ", " << textOf(packet) << textOf(lines);
        }
    }
    tellCompared(profiles, std::int64_t(profiles) * kPackets, "packets at and beside edges");
}

TEST_F(DecideRandomTest, UnknownFieldsYieldEveryDecider) {
    const TestCountries countries(3);
    storeCountries(countries);
    const int profiles = countOf(200, 5000);
    std::int64_t packets = 0;
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(2000000 + number));
        const RandomCase made = makeCase(random, 8, countries, platform_);
        const FamilyLines lines = linesOfProfile(made.profile, made.batch, countries.ranges());
        const FW_MEANING meaning(FW::fwResolve(made.profile, made.environment).rules);
        for (int i = 0; i < 20; ++i) {
            const FWPACKET known = packetOf(makePacket(random, lines, made.interfaces));
            const FWPACKET asked = withUnknownFields(random, known, 3);
            const FWDECISION decision = meaning.decide(asked);
            ASSERT_FALSE(decision.tooComplex);
            ASSERT_TRUE(std::is_sorted(decision.deciders.begin(), decision.deciders.end()));
            // Whatever it turns out to be, its decider is one of them.
            for (int k = 0; k < 20; ++k) {
                FWPACKET one = packetOf(makePacket(random, lines, made.interfaces));
                if (asked.family && one.family != asked.family) {
                    continue;
                }
                const auto take = [](auto& field, const auto& from) {
                    if (from) {
                        field = from;
                    }
                };
                take(one.chain, asked.chain);
                take(one.in, asked.in);
                take(one.out, asked.out);
                take(one.protocol, asked.protocol);
                take(one.source, asked.source);
                take(one.destination, asked.destination);
                take(one.sourcePort, asked.sourcePort);
                take(one.destinationPort, asked.destinationPort);
                take(one.icmpType, asked.icmpType);
                take(one.state, asked.state);
                if (one.chain == FW::FW_CHAIN_FORWARD && !one.out) {
                    one.out = "eth0";
                }
                ASSERT_TRUE(mayBe(asked, one));
                const std::size_t decider = meaning.decide(one).deciders.at(0);
                ASSERT_EQ(std::count(decision.deciders.begin(), decision.deciders.end(), decider),
                          1)
                    << "profile " << number << ", rule " << decider << textOf(lines);
                ++packets;
            }
        }
    }
    tellCompared(profiles, packets, "packets that one with unknown fields may be");
}

/// The packets that a packet may be.
FW::FWPACKETSET setOf(const FWPACKET& packet) {
    FW::FWPACKETSET set;
    const auto name = [](const std::optional<std::string>& known) {
        return known ? std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{*known}, {}}) : nullptr;
    };
    const auto address =
        [&](const std::optional<FW::FWADDRESS>& known) -> std::shared_ptr<const FW::FWADDRESSES> {
        if (!known) {
            return nullptr;
        }
        FW::FWADDRESSINTERVAL one{*known, *known};
        if (packet.family == FW::FW_FAMILY_V4) {
            one.last = {known->high | 0xffffffff, ~std::uint64_t(0)};
        }
        return std::make_shared<FW::FWADDRESSES>(FW::FWADDRESSES{one});
    };
    const auto number = [](const auto& known) {
        return known ? FW::FWINTERVALS{{*known, *known}} : FW::FWINTERVALS();
    };
    set.chains = packet.chain ? std::uint8_t(1U << *packet.chain) : FW::FW_BOTH_CHAINS;
    set.families = packet.family ? std::uint8_t(1U << *packet.family) : FW::FW_BOTH_FAMILIES;
    set.states = packet.state ? std::uint8_t(1U << *packet.state) : FW::FW_ALL_STATES;
    set.in = name(packet.in);
    set.out = packet.chain == FW::FW_CHAIN_INPUT ? nullptr : name(packet.out);
    set.protocols = number(packet.protocol);
    set.sources = address(packet.source);
    set.destinations = address(packet.destination);
    if (packet.protocol == 6 || packet.protocol == 17) {
        set.sourcePorts = number(packet.sourcePort);
        set.destinationPorts = number(packet.destinationPort);
    }
    if (packet.protocol == 1 || packet.protocol == 58) {
        set.icmpTypes = number(packet.icmpType);
    }
    return set;
}

TEST_F(DecideRandomTest, DecidersAreExactlyThoseOfTheDiagrams) {
    const TestCountries countries(8);
    storeCountries(countries);
    const int profiles = countOf(200, 5000);
    constexpr int kQuestions = 10;
    std::size_t several = 0;
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(8000000 + number));
        const RandomCase made = makeCase(random, 4, countries, platform_);
        const FamilyLines lines = linesOfProfile(made.profile, made.batch, countries.ranges());
        const std::vector<FWRESOLVEDRULE> rules =
            FW::fwResolve(made.profile, made.environment).rules;
        const FW_MEANING meaning(rules);
        const BddOracle oracle(made.interfaces);
        std::vector<bdd> sets;
        for (const FWRESOLVEDRULE& rule : rules) {
            sets.push_back(oracle.packets(rule.packets));
        }
        for (int i = 0; i < kQuestions; ++i) {
            FWPACKET asked =
                withUnknownFields(random, packetOf(makePacket(random, lines, made.interfaces)), 3);
            if (!asked.chain) {
                asked.out.reset();  // which a packet for the machine does not have
            }
            for (std::optional<std::string>* const name : {&asked.in, &asked.out}) {
                if (*name && !(*name)->empty() && (*name)->back() == '+') {
                    name->reset();  // no set has an interface of this name alone
                }
            }
            bdd open = oracle.packets(setOf(asked));
            std::vector<std::size_t> expected;
            for (std::size_t rule = 0; rule < rules.size() && open != bddfalse; ++rule) {
                if ((open & sets[rule]) != bddfalse) {
                    expected.push_back(rule);
                    open -= sets[rule];
                }
            }
            if (open != bddfalse) {
                expected.push_back(rules.size());
            }
            ASSERT_EQ(meaning.decide(asked).deciders, expected)
                << "profile " << number << textOf(lines);
            several += expected.size() > 1 ? 1 : 0;
        }
    }
    EXPECT_GT(several, static_cast<std::size_t>(profiles));
    tellCompared(profiles, std::int64_t(profiles) * kQuestions, "packets with unknown fields");
}

TEST_F(DecideRandomTest, RulesAreGivenBack) {
    const TestCountries countries(7);
    storeCountries(countries);
    for (int number = 0; number < 20; ++number) {
        Random random(static_cast<unsigned>(7000000 + number));
        const RandomCase made = makeCase(random, 8, countries, platform_);
        const FamilyLines lines = linesOfProfile(made.profile, made.batch, countries.ranges());
        const std::vector<FWRESOLVEDRULE> rules =
            FW::fwResolve(made.profile, made.environment).rules;
        const FW_MEANING meaning(rules);
        ASSERT_EQ(meaning.size(), rules.size());
        for (std::size_t i = 0; i < rules.size(); ++i) {
            const FWRESOLVEDRULE rule = meaning.rule(i);
            EXPECT_EQ(rule.verdict, rules[i].verdict);
            EXPECT_EQ(rule.log, rules[i].log);
            EXPECT_EQ(rule.place.origin, rules[i].place.origin);
            EXPECT_EQ(rule.place.adapter, rules[i].place.adapter);
            EXPECT_EQ(rule.place.position, rules[i].place.position);
            for (int k = 0; k < 50; ++k) {
                const LinePacket packet = makePacket(random, lines, made.interfaces);
                ASSERT_EQ(hasPacket(rule.packets, packetOf(packet)),
                          hasPacket(rules[i].packets, packetOf(packet)))
                    << "profile " << number << ", rule " << i << ", " << textOf(packet);
            }
        }
    }
}

// ---- Named cases ----

FW::FWRULE tcpRule(FW::FW_POLICY policy, const std::string& port, const std::string& address = "") {
    FW::FWRULE rule;
    rule.policy = policy;
    rule.chainList = {"INPUT_FIREWALL"};
    rule.ipGroup = address.empty() ? FW::FW_IP_GROUP_ANY : FW::FW_IP_GROUP_SINGLE;
    rule.ipList = {address};
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.portList = {port};
    return rule;
}

/// The rules of eth0, which denies by default.
FW_MEANING meaningOf(const std::vector<FW::FWRULE>& rules) {
    FW::FWPROFILE profile;
    profile.rules["eth0"] = rules;
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0"}, "");
    return FW_MEANING(FW::fwResolve(profile, environment).rules);
}

FWPACKET tcpPacket(const std::string& source, std::uint16_t port) {
    FWPACKET packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.family = FW::FW_FAMILY_V4;
    packet.in = "eth0";
    packet.protocol = std::uint8_t(6);
    packet.source = FW::fwAddressFrom(source, FW::FW_FAMILY_V4)->first;
    packet.destination = FW::fwAddressFrom("10.9.9.9", FW::FW_FAMILY_V4)->first;
    packet.sourcePort = std::uint16_t(40000);
    packet.destinationPort = port;
    packet.state = FW::FW_STATE_NEW;
    return packet;
}

/// Places of the deciders: "eth0 2", "end".
std::vector<std::string> decidersOf(const FW_MEANING& meaning, const FWPACKET& packet) {
    std::vector<std::string> places;
    for (const std::size_t decider : meaning.decide(packet).deciders) {
        if (decider == meaning.size()) {
            places.emplace_back("end");
            continue;
        }
        const FW::FWPLACE place = meaning.rule(decider).place;
        places.push_back(place.adapter + " " + std::to_string(place.position));
    }
    return places;
}

using ::testing::ElementsAre;

TEST(DecideTest, RuleThatEarlierOnesCoverTogetherIsNoDecider) {
    const FW_MEANING meaning =
        meaningOf({tcpRule(FW::FW_POLICY_ALLOW, "0-99"), tcpRule(FW::FW_POLICY_DENY, "100-65535"),
                   tcpRule(FW::FW_POLICY_ALLOW, "80-200")});
    FWPACKET packet = tcpPacket("10.0.0.1", 80);
    packet.destinationPort.reset();
    EXPECT_THAT(decidersOf(meaning, packet), ElementsAre("eth0 1", "eth0 2"));
}

TEST(DecideTest, UnknownSourceYieldsTheRulesForSomeSources) {
    const FW_MEANING meaning = meaningOf({tcpRule(FW::FW_POLICY_ALLOW, "22", "10.0.0.1"),
                                          tcpRule(FW::FW_POLICY_ALLOW, "23", "10.0.0.2")});
    FWPACKET packet = tcpPacket("10.0.0.1", 22);
    EXPECT_THAT(decidersOf(meaning, packet), ElementsAre("eth0 1"));
    packet.source.reset();
    EXPECT_THAT(decidersOf(meaning, packet), ElementsAre("eth0 1", "eth0 0"));
}

TEST(DecideTest, ListOfACountryIsNotCopied) {
    FW::FWADDRESSES ranges;
    for (std::uint64_t i = 0; i < 100; ++i) {
        ranges.push_back({{i << 40, 0}, {i << 40 | 0xffffffff, ~std::uint64_t(0)}});
    }
    const auto country = std::make_shared<const FW::FWADDRESSES>(ranges);
    FW::FWRULE rule;
    rule.ipGroup = FW::FW_IP_GROUP_COUNTRIES;
    rule.ipList = {"AA"};
    rule.portGroup = FW::FW_PORT_GROUP_ANY;
    FW::FWPROFILE profile;
    profile.rules["eth0"] = {rule};
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0"}, "");
    environment.countries = [&](const std::string&, FW::FW_FAMILY) { return country; };
    const std::vector<FWRESOLVEDRULE> rules = FW::fwResolve(profile, environment).rules;
    const FW_MEANING meaning(rules);
    EXPECT_EQ(rules.back().packets.sources, country);
    EXPECT_EQ(meaning.rule(rules.size() - 1).packets.sources, country);
}

// ---- Sets that no profile makes ----

/// A rule that drops a set, then one that drops everything.
FW_MEANING meaningOfSet(const FW::FWPACKETSET& packets) {
    std::vector<FWRESOLVEDRULE> rules(2);
    rules[0].packets = packets;
    for (FWRESOLVEDRULE& rule : rules) {
        rule.verdict = FW::FW_PACKET_DROP;
        rule.place = {FW::FW_ORIGIN_RULE, "eth0", &rule == &rules[0] ? 1 : 2};
    }
    return FW_MEANING(rules);
}

TEST(DecideTest, PortsAreThoseOfTcpAndUdpAlone) {
    FW::FWPACKETSET ports;
    ports.destinationPorts = {{0, 80}};
    FWPACKET packet = tcpPacket("10.0.0.1", 80);
    EXPECT_THAT(decidersOf(meaningOfSet(ports), packet), ElementsAre("eth0 1"));
    packet.protocol = std::uint8_t(1);
    packet.icmpType = std::uint8_t(8);
    EXPECT_THAT(decidersOf(meaningOfSet(ports), packet), ElementsAre("eth0 2"));
    packet.protocol = std::uint8_t(47);
    EXPECT_THAT(decidersOf(meaningOfSet(ports), packet), ElementsAre("eth0 2"));
    packet.protocol.reset();
    packet.icmpType.reset();
    packet.destinationPort.reset();
    packet.sourcePort.reset();
    EXPECT_THAT(decidersOf(meaningOfSet(ports), packet), ElementsAre("eth0 1", "eth0 2"));

    FW::FWPACKETSET types;
    types.icmpTypes = {{0, 0}};
    EXPECT_THAT(decidersOf(meaningOfSet(types), tcpPacket("10.0.0.1", 80)), ElementsAre("eth0 2"));
}

TEST(DecideTest, MaskWithoutACodeAndInterfacesWithoutANameAreNoPacket) {
    std::vector<FW::FWPACKETSET> sets(7);
    sets[0].chains = 0;
    sets[1].families = 0;
    sets[2].states = 0;
    sets[3].in = std::make_shared<FW::FWINTERFACES>();
    sets[4].out = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{}, {"eth0"}});
    sets[5].protocols = {{47, 47}};
    sets[5].sourcePorts = {{1, 2}};
    sets[6].destinationPorts = {{1, 2}};
    sets[6].icmpTypes = {{8, 8}};
    for (std::size_t i = 0; i < sets.size(); ++i) {
        const FW_MEANING meaning = meaningOfSet(sets[i]);
        EXPECT_THAT(decidersOf(meaning, tcpPacket("10.0.0.1", 1)), ElementsAre("eth0 2")) << i;
        EXPECT_THAT(decidersOf(meaning, FWPACKET()), ElementsAre("eth0 2")) << i;
        EXPECT_THAT(meaningOfSet(meaning.rule(0).packets).decide(FWPACKET()).deciders,
                    ElementsAre(1U))
            << i;
        const FW::FWREACHABLE reachable = meaning.reach(sets[i]);
        EXPECT_TRUE(std::all_of(reachable.reach.begin(), reachable.reach.end(),
                                [](const FW::FWREACH& one) { return one.packets.empty(); }))
            << i;
        const std::vector<FW::FWSHADOW> shadows = meaning.shadows().shadows;
        ASSERT_FALSE(shadows.empty()) << i;
        EXPECT_EQ(shadows[0].place.position, 1) << i;
        EXPECT_TRUE(shadows[0].neverDecides) << i;
        EXPECT_TRUE(shadows[0].by.empty()) << i;
        std::vector<FWRESOLVEDRULE> without = {meaning.rule(1)};
        EXPECT_TRUE(meaning.differenceFrom(FW_MEANING(without)).changes.empty()) << i;
        EXPECT_TRUE(FW_MEANING(without).differenceFrom(meaning).changes.empty()) << i;
    }
}

TEST(DecideTest, PacketOfAnUnnamedInterfaceMeetsNoRule) {
    const FW_MEANING meaning = meaningOf({});
    FWPACKET packet = tcpPacket("10.0.0.1", 22);
    packet.in = "eth7";
    EXPECT_THAT(decidersOf(meaning, packet), ElementsAre("end"));
    EXPECT_EQ(meaning.rule(meaning.size()).verdict, FW::FW_PACKET_NEXT);
}

}  // namespace
