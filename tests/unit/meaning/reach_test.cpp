// What is not dropped, compared with decision diagrams.

#include <string>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwMeaning.h"

#include "bdd_oracle.h"
#include "packet_set.h"
#include "random_case.h"

namespace {

using FW::FW_MEANING;
using FW::FWINTERFACES;
using FW::FWPACKETSET;
using FW::FWREACH;
using FW::FWREACHABLE;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ReachRandomTest : public LibraryTest {};

FWPACKETSET makeQuery(Random& random, const std::vector<std::string>& interfaces) {
    FWPACKETSET query;
    if (pick(random, 2) == 0) {
        query.chains = static_cast<std::uint8_t>(1 + pick(random, 2));
    }
    if (pick(random, 2) == 0) {
        query.states = 1 << FW::FW_STATE_NEW;
    }
    if (pick(random, 2) == 0) {
        const auto protocol = static_cast<std::uint16_t>(pick(random, 2) == 0 ? 6 : 17);
        query.protocols = {{protocol, protocol}};
        if (pick(random, 2) == 0) {
            const auto port = static_cast<std::uint16_t>(pick(random, 2) == 0 ? 22 : 1024);
            query.destinationPorts = {{port, static_cast<std::uint16_t>(port + 100)}};
        }
    }
    if (pick(random, 3) == 0) {
        query.in = std::make_shared<FWINTERFACES>(FWINTERFACES{{oneOf(random, interfaces)}, {}});
    }
    return query;
}

TEST_F(ReachRandomTest, PacketsAreExactlyThoseThatAreNotDropped) {
    const TestCountries countries(6);
    const int profiles = countOf(200, 5000);
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(6000000 + number));
        const RandomCase made = makeCase(random, 3, countries, platform_);
        const std::vector<FW::FWRESOLVEDRULE> rules =
            FW::fwResolve(made.profile, made.environment).rules;
        const FW_MEANING meaning(rules);
        const FWPACKETSET query = makeQuery(random, made.interfaces);
        const FWREACHABLE reachable = meaning.reach(query);
        ASSERT_THAT(reachable.findings, IsEmpty());

        const BddOracle oracle(made.interfaces);
        const BddFunction function = oracle.fold(rules);
        const bdd dropped = function.outcomes[BddOracle::outcomeOf(FW::FW_PACKET_DROP, false)] |
                            function.outcomes[BddOracle::outcomeOf(FW::FW_PACKET_DROP, true)];
        bdd found = bddfalse;
        bdd examined = bddfalse;
        for (const FWREACH& reach : reachable.reach) {
            FWPACKETSET all;
            all.in = std::make_shared<FWINTERFACES>(reach.interfaces);
            const bdd own = oracle.packets(all);
            ASSERT_EQ(own & examined, bddfalse) << "profile " << number;
            examined |= own;
            for (const FWPACKETSET& set : reach.packets) {
                const bdd packets = oracle.packets(set);
                ASSERT_EQ(packets & found, bddfalse) << "profile " << number;
                ASSERT_EQ(packets - own, bddfalse) << "profile " << number;
                found |= packets;
            }
        }
        EXPECT_EQ(found, oracle.packets(query) - dropped) << "profile " << number;
        EXPECT_EQ(oracle.packets(query) - examined, bddfalse) << "profile " << number;
    }
    tellCompared(profiles, profiles, "questions");
}

TEST(ReachTest, SourcesOfAPortByInterface) {
    FW::FWRULE allow;
    allow.ipGroup = FW::FW_IP_GROUP_NETWORK;
    allow.ipList = {"10.0.0.0", "8"};
    allow.portGroup = FW::FW_PORT_GROUP_PORTS;
    allow.portList = {"445"};
    FW::FWRULE deny = allow;
    deny.policy = FW::FW_POLICY_DENY;
    deny.ipList = {"10.3.0.0", "16"};
    FW::FWPROFILE profile;
    profile.rules["eth0"] = {deny, allow};
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_DENY}, {"eth1", FW::FW_POLICY_DENY}};
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0", "eth1"}, "");
    const FW_MEANING meaning(FW::fwResolve(profile, environment).rules);

    FWPACKETSET query;
    query.chains = 1 << FW::FW_CHAIN_INPUT;
    query.protocols = {{6, 6}};
    query.destinationPorts = {{445, 445}};
    query.states = 1 << FW::FW_STATE_NEW;
    const std::vector<FWREACH> reach = meaning.reach(query).reach;

    // Everything from interfaces that nobody mentioned, and from the machine itself.
    ASSERT_THAT(reach, SizeIs(3));
    EXPECT_THAT(reach[0].interfaces.names, ElementsAre("+"));
    EXPECT_THAT(reach[0].interfaces.except, ElementsAre("eth0", "eth1"));
    ASSERT_THAT(reach[0].packets, SizeIs(1));
    EXPECT_EQ(reach[0].packets[0].sources, nullptr);
    EXPECT_THAT(reach[1].interfaces.names, ElementsAre("eth0"));
    ASSERT_THAT(reach[1].packets, SizeIs(1));
    ASSERT_THAT(*reach[1].packets[0].sources, SizeIs(2));
    EXPECT_EQ(FW::fwAddressText((*reach[1].packets[0].sources)[1].first, FW::FW_FAMILY_V4),
              "10.4.0.0");
    EXPECT_THAT(reach[2].interfaces.names, ElementsAre("eth1"));
    EXPECT_THAT(reach[2].packets, IsEmpty());
}

TEST(ReachTest, PortsAreNotReachedByProtocolsWithoutPorts) {
    std::vector<FW::FWRESOLVEDRULE> rules(2);
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const std::uint16_t protocol = i == 0 ? 6 : 17;
        rules[i].packets.protocols = {{protocol, protocol}};
        rules[i].verdict = FW::FW_PACKET_DROP;
    }
    const FW_MEANING meaning(rules);
    FWPACKETSET query;
    query.destinationPorts = {{80, 80}};
    const std::vector<FWREACH> ports = meaning.reach(query).reach;
    ASSERT_THAT(ports, SizeIs(1));
    EXPECT_THAT(ports[0].packets, IsEmpty());

    query.destinationPorts.clear();
    const std::vector<FWREACH> all = meaning.reach(query).reach;
    ASSERT_THAT(all, SizeIs(1));
    EXPECT_THAT(all[0].packets, SizeIs(1));
}

}  // namespace
