// Sets of packets in words: those of rules, and what earlier rules leave of them.
#include "tarnfwadmin/packetWords.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "profile_testing.h"

namespace tarnfw {
namespace {

using Texts = std::vector<std::string>;

std::shared_ptr<const FW::FWADDRESSES> listOf(const Texts& networks, FW::FW_FAMILY family) {
    std::vector<FW::FWADDRESSINTERVAL> intervals;
    for (const std::string& network : networks) {
        const std::size_t dash = network.find('-');
        intervals.push_back({FW::fwAddressFrom(network.substr(0, dash), family)->first,
                             FW::fwAddressFrom(network.substr(dash + 1), family)->last});
    }
    return std::make_shared<FW::FWADDRESSES>(FW::fwAddressesFrom(intervals));
}

class PacketWordsTest : public testing::Test {
protected:
    PacketWordsTest() {
        environment_.services["ssh"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"22"}}};
        environment_.services["nfs"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP_UDP, {"111", "2049"}}};
        environment_.services["smb"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"139", "445"}},
                                                 {FW::FW_PORT_PROTOCOL_UDP, {"137-138"}}};
        environment_.countries = [](const std::string& country, FW::FW_FAMILY family) {
            using List = std::shared_ptr<const FW::FWADDRESSES>;
            if (family == FW::FW_FAMILY_V6) {
                return country == "DE" ? listOf({"2001:db8::-2001:db8:1::"}, family) : List();
            }
            return country == "DE"
                       ? listOf({"5.0.0.0-5.0.0.255", "7.0.0.0-7.0.3.255", "9.1.1.1"}, family)
                       : listOf({"6.0.0.0-6.0.0.255", "8.0.0.0-8.0.3.255"}, family);
        };
    }

    void add(const std::string& adapter, const Texts& rules) {
        for (const std::string& words : rules) {
            profile_.rules[adapter].push_back(ruleOf(words));
        }
    }

    Meaning meaning() {
        environment_.adapters = FW::fwAdaptersByName(profile_, "");
        return Meaning(profile_, environment_);
    }

    /// The packets of the last rule of an adapter's list.
    std::string textOf(const std::string& adapter, const std::string& words) {
        profile_ = {};
        add(adapter, {words});
        const Meaning of = meaning();
        std::vector<FW::FWPACKETSET> sets;
        for (const FW::FWRESOLVEDRULE& rule : of.ownRules()) {
            sets.push_back(rule.packets);
        }
        return joined(PacketWords({of}), packetGroups(sets));
    }

    /// What gets through from the adapters with rules when they are denied by default, apart from
    /// the lines of every profile.
    std::vector<FW::FWPACKETSET> open() {
        environment_.adapters = FW::fwAdaptersByName(profile_, "");
        FW::FWINTERFACES asked;
        for (const auto& [adapter, rules] : profile_.rules) {
            profile_.adapterPolicyMap[adapter] = FW::FW_POLICY_DENY;
            const FW::FWINTERFACES& interfaces = environment_.adapters.at(adapter);
            asked.names.insert(asked.names.end(), interfaces.names.begin(), interfaces.names.end());
            asked.except.insert(asked.except.end(), interfaces.except.begin(),
                                interfaces.except.end());
        }
        FW::FWPACKETSET query;
        query.in = std::make_shared<FW::FWINTERFACES>(asked);
        std::vector<FW::FWPACKETSET> sets;
        for (const FW::FWREACH& reach : FW::FW_MEANING(meaning().ownRules()).reach(query).reach) {
            for (FW::FWPACKETSET set : reach.packets) {
                set.in = std::make_shared<FW::FWINTERFACES>(reach.interfaces);
                sets.push_back(std::move(set));
            }
        }
        return sets;
    }

    std::string openText() {
        const std::vector<FW::FWPACKETSET> sets = open();
        return joined(PacketWords({meaning()}), packetGroups(sets));
    }

    static std::string joined(const PacketWords& words, const std::vector<PacketGroup>& groups) {
        std::string text;
        for (const PacketGroup& group : groups) {
            text += (text.empty() ? "" : "; ") + words.text(group);
        }
        return text;
    }

    FW::FWENVIRONMENT environment_;
    FW::FWPROFILE profile_;
};

TEST_F(PacketWordsTest, RulesAreNamedAsTheirWordsAre) {
    const struct {
        const char* adapter;
        const char* words;
        const char* text;
    } cases[] = {
        {"global", "allow", "everything on every adapter from anywhere"},
        {"eth0", "allow tcp 8080", "tcp 8080 on eth0 from anywhere"},
        {"eth0", "allow tcp 8080 (IPv6)", "tcp 8080 on eth0 from anywhere (IPv6)"},
        {"eth0", "allow tcp 8080,9000-9010 from 10.0.0.0/8",
         "tcp 8080,9000-9010 on eth0 from 10.0.0.0/8"},
        {"eth0", "allow tcp 80 from 10.0.0.5-10.0.0.9", "tcp 80 on eth0 from 10.0.0.5-10.0.0.9"},
        {"eth0", "allow tcp/udp 53 to fe80::1", "tcp/udp 53 on eth0 to fe80::1"},
        {"eth0", "allow udp source port 53", "udp from source port 53 on eth0 from anywhere"},
        {"eth0", "allow icmp", "icmp on eth0 from anywhere"},
        {"eth0", "allow igmp", "igmp on eth0 from anywhere"},
        {"eth0", "allow service ssh", "service ssh on eth0 from anywhere"},
        {"eth0", "allow service nfs,smb", "service nfs,smb on eth0 from anywhere"},
        {"vpn", "allow service ssh", "service ssh on vpn from anywhere"},
        {"eth0", "allow service ssh, outgoing",
         "service ssh forwarded out through eth0 from anywhere"},
        {"eth0", "allow service ssh from country DE", "service ssh on eth0 from country DE"},
        {"eth0", "allow service ssh from country FR", "service ssh on eth0 from country FR (IPv4)"},
        {"eth0", "allow service ssh from country DE,FR",
         "service ssh on eth0 from country DE,FR (IPv4) and country DE (IPv6)"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(textOf(c.adapter, c.words), c.text) << c.words;
    }
}

TEST_F(PacketWordsTest, WhatEarlierRulesTakeAwayIsAnException) {
    add("eth0", {"deny tcp 445 from 10.3.0.0/16", "allow tcp 445 from 10.0.0.0/8"});
    EXPECT_EQ(openText(), "tcp 445 on eth0 from 10.0.0.0/8 except 10.3.0.0/16");
    add("eth0", {"allow tcp 445 from 192.168.0.0/16"});
    EXPECT_EQ(openText(), "tcp 445 on eth0 from 192.168.0.0/16, and 10.0.0.0/8 except 10.3.0.0/16");
}

TEST_F(PacketWordsTest, ExceptionsAtTheEdgeOfANetworkKeepItsName) {
    add("eth0", {"deny from 10.0.0.0/16", "allow service ssh from 10.0.0.0/8"});
    EXPECT_EQ(openText(), "service ssh on eth0 from 10.0.0.0/8 except 10.0.0.0/16");
}

TEST_F(PacketWordsTest, MostAddressesAreAnywhereWithExceptions) {
    add("eth0", {"deny from 10.3.0.0/16", "deny from fe80::/64", "deny from country DE",
                 "allow service ssh"});
    EXPECT_EQ(openText(),
              "service ssh on eth0 from anywhere except country DE, 10.3.0.0/16 and fe80::/64");
}

TEST_F(PacketWordsTest, OneFamilyIsNamedWhereTheAddressesDoNotShowIt) {
    add("eth0", {"deny from 10.3.0.0/16", "allow tcp 22 (IPv4)", "allow tcp 22 from fe80::/10"});
    EXPECT_EQ(openText(),
              "service ssh on eth0 from fe80::/10, and anywhere except 10.3.0.0/16 (IPv4)");
}

TEST_F(PacketWordsTest, ExceptionsAreAtTheEndOrInBrackets) {
    const PacketWords words;
    const auto senders = [&](const Texts& v4, const Texts& v6) {
        return words.sendersText({*listOf(v4, FW::FW_FAMILY_V4), *listOf(v6, FW::FW_FAMILY_V6)});
    };
    EXPECT_EQ(senders({"0.0.0.0-192.167.255.255", "192.169.0.0-255.255.255.255"}, {"::-7fff::"}),
              "::-7fff::, and everybody except 192.168.0.0/16 (IPv4)");
    EXPECT_EQ(senders({"128.0.0.0-192.168.0.255", "192.168.2.0-255.255.255.254"},
                      {"::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}),
              "everybody (IPv6), and 128.0.0.0/1 except 192.168.1.0/24 and 255.255.255.255");
    EXPECT_EQ(senders({"10.0.0.0-10.2.255.255", "10.4.0.0-10.255.255.255"},
                      {"fc00::-fcff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
                       "fd01::-fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}),
              "10.0.0.0/8 (except 10.3.0.0/16), fc00::/7 (except fd00::/16)");
    // A text that goes on.
    add("eth0",
        {"deny to 10.3.4.0/24", "deny from 192.168.1.7", "allow tcp 80 from 192.168.1.0/24"});
    EXPECT_EQ(openText(),
              "tcp 80 on eth0 from 192.168.1.0/24 (except 192.168.1.7) to anywhere (IPv4, except "
              "10.3.4.0/24)");
}

TEST_F(PacketWordsTest, PartsOfCountriesAreThoseCountriesWithExceptions) {
    add("eth0", {"deny from 7.0.1.0/24", "allow tcp 80 from country DE (IPv4)"});
    EXPECT_EQ(openText(), "tcp 80 on eth0 from country DE except 7.0.1.0/24 (IPv4)");
}

TEST_F(PacketWordsTest, KindsAreExceptionsWhereMostAreLetThrough) {
    add("eth0", {"deny tcp 22", "deny icmp", "allow"});
    EXPECT_EQ(openText(), "everything except service ssh, icmp on eth0 from anywhere");
}

TEST_F(PacketWordsTest, ServicesAreNamedOnlyWhereTheirPortsAreApart) {
    environment_.services["ftp"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"21"}}};
    add("eth0", {"allow tcp 20-22"});
    EXPECT_EQ(openText(), "tcp 20-22 on eth0 from anywhere");
    add("eth0", {"allow tcp 1-1024"});
    EXPECT_EQ(openText(), "tcp 1-1024 on eth0 from anywhere");
    EXPECT_EQ(textOf("eth0", "allow tcp 21,22"), "service ftp,ssh on eth0 from anywhere");
    profile_ = {};
    add("eth0", {"allow tcp 1-1024"});
    add("eth1", {"allow tcp 139,445", "allow udp 137-138", "allow tcp 8080"});
    EXPECT_EQ(openText(),
              "tcp 1-1024 on eth0 from anywhere; service smb, tcp 8080 on eth1 from anywhere");
}

TEST_F(PacketWordsTest, AdaptersAreNamedTogether) {
    add("global", {"deny tcp 22", "allow tcp 80"});
    EXPECT_EQ(openText(), "tcp 80 on every adapter from anywhere");
    profile_ = {};
    add("eth0", {"allow tcp 80"});
    add("eth1", {"allow tcp 80"});
    add("vpn", {"allow tcp 80"});
    EXPECT_EQ(openText(), "tcp 80 on eth0, eth1 and vpn from anywhere");
}

TEST_F(PacketWordsTest, ChainsAreNamedWhereTheyDiffer) {
    FW::FWPACKETSET set;
    const PacketWords words;
    set.chains = 1U << FW::FW_CHAIN_INPUT;
    EXPECT_EQ(words.text(packetGroups({set}).at(0)),
              "everything on every adapter to this machine itself from anywhere");
    set.chains = 1U << FW::FW_CHAIN_FORWARD;
    set.in = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{"eth0"}, {}});
    EXPECT_EQ(words.text(packetGroups({set}).at(0)),
              "everything forwarded from eth0 from anywhere");
    set.out = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{"+"}, {"eth1"}});
    EXPECT_EQ(words.text(packetGroups({set}).at(0)),
              "everything forwarded from eth0 out through every adapter except eth1 from anywhere");
}

TEST_F(PacketWordsTest, PartsOfMasksWithGapsAreThoseMasksWithExceptions) {
    add("eth0", {"deny from 10.3.0.0/24", "allow tcp 80 from 10.0.0.1/255.0.255.0"});
    EXPECT_EQ(openText(), "tcp 80 on eth0 from 10.0.0.0/255.0.255.0 except 10.3.0.0/24");
    profile_ = {};
    add("eth0", {"deny from 10.0.0.1/255.0.255.0", "allow tcp 80 from 10.0.0.0/8"});
    EXPECT_EQ(openText(), "tcp 80 on eth0 from 10.0.0.0/8 except 10.0.0.0/255.0.255.0");
}

TEST_F(PacketWordsTest, AServiceWithAProtocolOfIpv4AloneIsNamed) {
    environment_.services["vpn_server_ipsec"].dstPorts = {
        {FW::FW_PORT_PROTOCOL_UDP, {"500", "4500"}}};
    const auto textOfGroups = [this](const Texts& rules) {
        profile_ = {};
        for (const std::string& words : rules) {
            profile_.rules["eth0"].push_back(ruleFrom(
                {words}, {}, {{{"vpn_server_ipsec", 2}, {"ssh", 1}}, {"DE"}, {"DE", "FR"}}));
        }
        const Meaning of = meaning();
        std::vector<FW::FWPACKETSET> sets;
        for (const FW::FWRESOLVEDRULE& rule : of.ownRules()) {
            sets.push_back(rule.packets);
        }
        const PacketWords words({of});
        return joined(words, words.groups(sets));
    };
    EXPECT_EQ(textOfGroups({"allow service vpn_server_ipsec"}),
              "service vpn_server_ipsec on eth0 from anywhere");
    EXPECT_EQ(textOfGroups({"allow service vpn_server_ipsec from 10.0.0.0/8"}),
              "service vpn_server_ipsec on eth0 from 10.0.0.0/8");
    EXPECT_EQ(textOfGroups({"allow service vpn_server_ipsec,ssh"}),
              "service vpn_server_ipsec,ssh on eth0 from anywhere");
    EXPECT_EQ(textOfGroups({"allow service vpn_server_ipsec (IPv6)"}),
              "udp 500,4500, protocol 50 on eth0 from anywhere (IPv6)");
    EXPECT_EQ(textOfGroups({"allow udp 500,4500"}), "udp 500,4500 on eth0 from anywhere");
}

TEST_F(PacketWordsTest, ShortenedListsBeginWithWhatPeopleLookFor) {
    environment_.services.clear();
    std::string ports;
    for (int i = 0; i < 12; ++i) {
        const std::string name = std::string("s") + static_cast<char>('a' + i);
        const std::string port = std::to_string(7000 + 2 * i);
        environment_.services[name].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {port, "1" + port}}};
        ports += port + ",1" + port + ",";
    }
    environment_.services["https"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"443"}}};
    environment_.services["ssh"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"22"}}};
    EXPECT_EQ(textOf("eth0", "allow tcp " + ports + "22,443"),
              "service ssh,https,sa,sb,sc,sd,se,sf and 6 more on eth0 from anywhere");
    EXPECT_EQ(textOf("eth0", "allow udp " + ports + "20-23,443"),
              "udp 20-23,443,7000,7002,7004,7006,7008,7010 and 18 more on eth0 from anywhere");
}

TEST_F(PacketWordsTest, LongListsEndWithTheNumberOfTheOthers) {
    Texts networks;
    for (int i = 0; i < 20; ++i) {
        networks.push_back("10." + std::to_string(i) + ".0.1");
    }
    const PacketWords words({}, 3);
    EXPECT_EQ(words.sendersText({*listOf(networks, FW::FW_FAMILY_V4), {}}),
              "10.0.0.1, 10.1.0.1, 10.2.0.1 and 17 more");
}

TEST_F(PacketWordsTest, SendersOfBothFamilies) {
    const PacketWords words;
    EXPECT_EQ(words.sendersText({}), "nobody");
    EXPECT_EQ(words.sendersText({allAddresses(), {}}), "everybody (IPv4)");
    EXPECT_EQ(words.sendersText({allAddresses(), allAddresses()}), "everybody");
    EXPECT_EQ(words.sendersText({*listOf({"10.0.0.0-10.0.0.255"}, FW::FW_FAMILY_V4),
                                 *listOf({"fe80::1"}, FW::FW_FAMILY_V6)}),
              "10.0.0.0/24, fe80::1");
}

// ---- Groups ----

TEST_F(PacketWordsTest, GroupsHaveThePacketsOfTheSets) {
    add("eth0", {"deny tcp 22 from 10.3.0.0/16", "allow tcp 22 from 10.0.0.0/8", "allow icmp",
                 "allow service smb to 10.0.0.1", "deny tcp 80 (IPv6)", "allow tcp 80-90"});
    add("eth1", {"allow tcp 85 from country DE", "allow udp 1-100", "allow igmp"});
    const std::vector<FW::FWPACKETSET> sets = open();
    const auto meaningOf = [](const std::vector<FW::FWPACKETSET>& all) {
        std::vector<FW::FWRESOLVEDRULE> rules;
        for (const FW::FWPACKETSET& set : all) {
            rules.push_back({set, FW::FW_PACKET_DROP, false, {}});
        }
        return FW::FW_MEANING(rules);
    };
    std::vector<FW::FWPACKETSET> grouped;
    for (const PacketGroup& group : packetGroups(sets)) {
        const std::vector<FW::FWPACKETSET> more = packetSets(group);
        grouped.insert(grouped.end(), more.begin(), more.end());
    }
    const FW::FWDIFFERENCE difference = meaningOf(grouped).differenceFrom(meaningOf(sets));
    EXPECT_TRUE(difference.findings.empty());
    EXPECT_TRUE(difference.changes.empty());
    EXPECT_FALSE(sets.empty());
}

TEST_F(PacketWordsTest, InterfacesThatAreEveryNameTogetherBecomeThat) {
    FW::FWPACKETSET one;
    one.in =
        std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{"+", "tun1000"}, {"eth0", "tun+"}});
    FW::FWPACKETSET other;
    other.in = std::make_shared<FW::FWINTERFACES>(FW::FWINTERFACES{{"eth0", "tun+"}, {"tun1000"}});
    const std::vector<PacketGroup> groups = packetGroups({one, other});
    ASSERT_EQ(groups.size(), 1U);
    ASSERT_EQ(groups[0].ways.size(), 1U);
    EXPECT_EQ(groups[0].ways[0].in, nullptr);
}

}  // namespace
}  // namespace tarnfw
