// The tables of a report: their rows and columns, and every cell compared with what the engine says
// of packets of the cell.
#include "report/matrix.h"

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "random_profile.h"
#include "report/facts.h"
#include "report/matrixRows.h"
#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

using ::testing::ElementsAre;
using Texts = std::vector<std::string>;

FW::FWRULE ruleOf(const std::string& words) {
    return ruleFrom({words}, {}, {{{"ssh", 1}, {"nfs", 3}}, {}, {}});
}

class MatrixTest : public testing::Test {
protected:
    MatrixTest() {
        environment_.services["ssh"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"22"}}};
        environment_.services["nfs"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP_UDP, {"111", "2049"}}};
    }

    void add(const std::string& adapter, const Texts& rules, FW::FW_POLICY policy) {
        for (const std::string& words : rules) {
            profile_.rules[adapter].push_back(ruleOf(words));
        }
        profile_.adapterPolicyMap[adapter] = policy;
    }

    Meaning meaning() {
        environment_.adapters = FW::fwAdaptersByName(profile_, "");
        return Meaning(profile_, environment_);
    }

    FW::FWENVIRONMENT environment_;
    FW::FWPROFILE profile_;
};

Texts sendersOf(const Matrix& matrix) {
    Texts texts;
    for (const MatrixSenders& senders : matrix.senders) {
        texts.push_back(senders.text);
    }
    return texts;
}

/// "service ssh: allow deny", a text for each row.
Texts rowsOf(const Matrix& matrix) {
    constexpr const char* kWords[] = {" allow", " deny", " none", " depends"};
    Texts texts;
    for (const MatrixRow& row : matrix.rows) {
        texts.push_back(row.text + ":");
        for (const MatrixCell& cell : row.cells) {
            texts.back() += kWords[static_cast<std::size_t>(cell.verdict)];
            texts.back() += cell.log == CellLog::kAll    ? "+log"
                            : cell.log == CellLog::kSome ? "+some"
                                                         : "";
        }
    }
    return texts;
}

Texts decidersOf(const MatrixCell& cell) {
    Texts texts;
    for (const FW::FWPLACE& place : cell.deciders) {
        texts.push_back(placeText(place));
    }
    return texts;
}

/// Titles of all tables, "eth0 v4".
Texts titlesOf(const std::vector<Matrix>& matrices) {
    Texts texts;
    for (const Matrix& matrix : matrices) {
        std::string text = matrix.isOther ? "others" : "";
        for (const std::string& adapter : matrix.adapters) {
            text += (text.empty() ? "" : " ") + adapter;
        }
        texts.push_back(text + (matrix.family == FW::FW_FAMILY_V6 ? " v6" : " v4") +
                        (matrix.chains == FW::FW_BOTH_CHAINS         ? ""
                         : matrix.chains == 1U << FW::FW_CHAIN_INPUT ? " input"
                                                                     : " forward"));
    }
    return texts;
}

TEST_F(MatrixTest, SendersWithTheSameRightsAreOneColumn) {
    add("eth0",
        {"deny tcp 445 from 10.3.0.0/16", "allow tcp 445 from 10.0.0.0/8",
         "allow service ssh from 192.168.0.0/16", "allow service ssh from 172.16.0.0/12"},
        FW::FW_POLICY_DENY);
    const Matrix matrix = matricesOf(meaning()).front();
    EXPECT_THAT(sendersOf(matrix),
                ElementsAre("172.16.0.0/12, 192.168.0.0/16", "10.0.0.0/8 except 10.3.0.0/16",
                            "everybody except 10.0.0.0-10.2.255.255, 10.4.0.0-10.255.255.255, "
                            "172.16.0.0/12 and 192.168.0.0/16"));
    EXPECT_THAT(rowsOf(matrix),
                ElementsAre("service ssh: allow deny deny", "tcp 445: deny allow deny",
                            "everything else: deny deny deny"));
    EXPECT_EQ(matrix.rows[0].ports, "tcp 22");
    EXPECT_THAT(decidersOf(matrix.rows[0].cells[0]),
                ElementsAre("rule 3 of eth0", "rule 4 of eth0"));
    EXPECT_THAT(decidersOf(matrix.rows[1].cells[2]),
                ElementsAre("rule 1 of eth0", "the default policy of eth0"));
}

TEST_F(MatrixTest, EachAdapterHasItsTables) {
    add("global", {"allow icmp"}, FW::FW_POLICY_NONE);
    add("eth0", {"allow tcp 22 (IPv4)"}, FW::FW_POLICY_DENY);
    add("vpn", {"deny tcp 22, logged"}, FW::FW_POLICY_ALLOW);
    const std::vector<Matrix> matrices = matricesOf(meaning());
    EXPECT_THAT(titlesOf(matrices),
                ElementsAre("eth0 v4", "eth0 v6", "vpn v4", "vpn v6", "others v4", "others v6"));
    EXPECT_THAT(rowsOf(matrices[0]),
                ElementsAre("service ssh: allow", "icmp: allow", "everything else: deny"));
    EXPECT_THAT(rowsOf(matrices[1]), ElementsAre("icmp: allow", "everything else: deny"));
    EXPECT_THAT(rowsOf(matrices[2]),
                ElementsAre("service ssh: deny+log", "icmp: allow", "everything else: allow"));
    EXPECT_THAT(rowsOf(matrices[4]), ElementsAre("icmp: allow", "everything else: none"));
    EXPECT_THAT(decidersOf(matrices[4].rows[1].cells[0]), ElementsAre("no rule"));
}

TEST_F(MatrixTest, SendersThatAreLoggedHaveAColumnOfTheirOwn) {
    add("eth0", {"deny any from 10.0.0.0/8, logged", "deny tcp 22 to 10.0.0.5, logged"},
        FW::FW_POLICY_DENY);
    const Matrix matrix = matricesOf(meaning()).front();
    EXPECT_THAT(sendersOf(matrix), ElementsAre("10.0.0.0/8", "everybody except 10.0.0.0/8"));
    EXPECT_THAT(rowsOf(matrix),
                ElementsAre("service ssh: deny+log deny+some", "everything else: deny+log deny"));
}

TEST_F(MatrixTest, AdaptersWithTheSameTablesShareThem) {
    add("global", {"allow icmp"}, FW::FW_POLICY_NONE);
    add("eth0", {"allow service ssh"}, FW::FW_POLICY_DENY);
    add("eth1", {"allow service nfs"}, FW::FW_POLICY_DENY);
    add("eth2", {"deny tcp 22 from 10.0.0.0/8", "allow tcp 22"}, FW::FW_POLICY_DENY);
    add("eth3", {"deny udp 1", "allow tcp 22"}, FW::FW_POLICY_DENY);
    add("eth4", {"allow service ssh (IPv4)", "allow tcp 22 (IPv6)"}, FW::FW_POLICY_DENY);
    profile_.rules["eth3"].front().enable = false;
    add("eth5", {}, FW::FW_POLICY_NONE);
    const std::vector<Matrix> matrices = matricesOf(meaning());
    EXPECT_THAT(titlesOf(matrices),
                ElementsAre("eth0 eth3 eth4 v4", "eth0 eth3 eth4 v6", "eth1 v4", "eth1 v6",
                            "eth2 v4", "eth2 v6", "others eth5 v4", "others eth5 v6"));
    EXPECT_THAT(rowsOf(matrices[0]),
                ElementsAre("service ssh: allow", "icmp: allow", "everything else: deny"));
    EXPECT_THAT(decidersOf(matrices[0].rows[0].cells[0]),
                ElementsAre("rule 1 of eth0", "rule 2 of eth3", "rule 1 of eth4"));
    const Json::Value tables = reportFacts(meaning())["tables"];
    EXPECT_EQ(tables[0]["title"], "eth0, eth3 and eth4");
    EXPECT_EQ(tables[6]["title"], "eth5 and every other interface");
}

TEST_F(MatrixTest, OfManyDecidersSomeAreNamed) {
    Texts rules;
    for (int i = 0; i < 40; ++i) {
        rules.push_back("allow tcp 22 to 10.0.0." + std::to_string(i));
    }
    add("eth0", rules, FW::FW_POLICY_DENY);
    const MatrixCell cell = matricesOf(meaning()).front().rows.front().cells.front();
    EXPECT_EQ(cell.deciders.size(), kMostDeciders);
    EXPECT_EQ(placeText(cell.deciders.front()), "rule 1 of eth0");
    EXPECT_EQ(placeText(cell.deciders.back()), "the default policy of eth0");
    EXPECT_TRUE(cell.moreDeciders);
}

TEST_F(MatrixTest, WhatTheTableDoesNotHaveDepends) {
    add("eth0", {"allow tcp 22 to 10.0.0.5"}, FW::FW_POLICY_DENY);
    const Matrix matrix = matricesOf(meaning()).front();
    EXPECT_THAT(rowsOf(matrix), ElementsAre("service ssh: depends", "everything else: deny"));
    EXPECT_THAT(decidersOf(matrix.rows[0].cells[0]),
                ElementsAre("rule 1 of eth0", "the default policy of eth0"));
}

TEST_F(MatrixTest, SourcePortsMakeRowsOfTheirOwn) {
    add("eth0", {"allow udp source port 53", "deny service nfs"}, FW::FW_POLICY_DENY);
    EXPECT_THAT(rowsOf(matricesOf(meaning()).front()),
                ElementsAre("service nfs (udp not from source port 53): deny",
                            "udp 0-110,112-2048,2050-65535 from source port 53: allow",
                            "udp 111,2049 from source port 53: allow", "everything else: deny"));
}

TEST_F(MatrixTest, RowsAreOfTheRulesForTheInterface) {
    add("eth0", {"allow service ssh"}, FW::FW_POLICY_DENY);
    add("vpn", {"allow tcp 443 (IPv4)", "allow service nfs to 10.0.0.5"}, FW::FW_POLICY_DENY);
    const std::vector<Matrix> matrices = matricesOf(meaning());
    ASSERT_EQ(matrices.size(), 6U);
    EXPECT_THAT(rowsOf(matrices[0]), ElementsAre("service ssh: allow", "everything else: deny"));
    EXPECT_THAT(rowsOf(matrices[2]),
                ElementsAre("service nfs: depends", "tcp 443: allow", "everything else: deny"));
    // Who looks for a service looks in both families.
    EXPECT_THAT(rowsOf(matrices[3]), ElementsAre("service nfs: deny", "everything else: deny"));
    EXPECT_THAT(rowsOf(matrices[4]), ElementsAre("everything: none"));
}

TEST_F(MatrixTest, PairsOfPortsAreNotAllTriedOut) {
    Texts rules;
    for (int i = 0; i < 600; ++i) {
        rules.push_back("allow tcp source port " + std::to_string(2 * i + 1));
        rules.push_back("allow tcp " + std::to_string(2 * i + 1001));
    }
    add("eth0", rules, FW::FW_POLICY_DENY);
    const Matrix matrix = matricesOf(meaning()).front();
    EXPECT_EQ(matrix.rows.size(), kMostRows);
    // 601 classes on both sides; udp and the other protocols are in the row of the rest.
    EXPECT_EQ(matrix.rows.size() + matrix.otherRows, 601U * 601U);
    EXPECT_THAT(matrix.rows.front().text,
                testing::StartsWith("tcp 1001 not from source port 1,3,"));
    EXPECT_EQ(matrix.rows.back().text, "everything else");
}

TEST_F(MatrixTest, ForwardedPacketsHaveATableWhereItDiffers) {
    FW::FWRULE rule = ruleOf("allow tcp 8080");
    rule.chainList = {"INPUT_FIREWALL"};
    profile_.rules["eth0"] = {rule};
    profile_.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    EXPECT_THAT(titlesOf(matricesOf(meaning())),
                ElementsAre("eth0 v4 input", "eth0 v4 forward", "eth0 v6 input", "eth0 v6 forward",
                            "others v4", "others v6"));
}

TEST_F(MatrixTest, AdaptersMayHaveAnyName) {
    int port = 8080;
    for (const char* const name : {"", "+", "et+", "eth0", "lo", "<b> \n"}) {
        add(name, {"allow tcp " + std::to_string(++port)}, FW::FW_POLICY_DENY);
    }
    // Of a name with a blank, iptables takes no rule.
    EXPECT_THAT(titlesOf(matricesOf(meaning())),
                ElementsAre("+ et+ v4", "+ et+ v6", "+ et+ eth0 v4", "+ et+ eth0 v6",
                            "others + <b> \n v4", "others + <b> \n v6"));
}

TEST_F(MatrixTest, OfTooManyOnlyTheLargestAreShown) {
    Texts rules;
    for (int i = 0; i < 200; ++i) {
        const std::string n = std::to_string(i);
        rules.push_back("allow tcp " + std::to_string(2 * i + 3000) + " from 10." + n + ".0.0/" +
                        (i < 100 ? "24" : "16"));
        rules.push_back("allow udp " + std::to_string(2 * i + 3000));
    }
    add("eth0", rules, FW::FW_POLICY_DENY);
    const Matrix matrix = matricesOf(meaning()).front();
    EXPECT_EQ(matrix.senders.size(), kMostSenders);
    EXPECT_EQ(matrix.senders.size() + matrix.otherSenders, 201U);
    EXPECT_THAT(matrix.senders.front().text, testing::EndsWith("/16"));
    EXPECT_THAT(matrix.senders.back().text, testing::StartsWith("everybody except "));
    EXPECT_EQ(matrix.rows.size(), kMostRows);
    EXPECT_EQ(matrix.rows.size() + matrix.otherRows, 401U);
    EXPECT_EQ(matrix.rows.back().text, "everything else");
}

TEST_F(MatrixTest, RulesWithoutEffectAreMarked) {
    add("eth0",
        {"allow tcp 80-90", "allow tcp 91-100", "deny tcp 85-95", "deny udp 53", "allow tcp 443"},
        FW::FW_POLICY_DENY);
    profile_.rules["eth0"].back().enable = false;
    const Json::Value facts = reportFacts(meaning());
    Texts effects;
    for (const Json::Value& rule : facts["rules"]) {
        effects.push_back(rule["effect"].asString());
    }
    EXPECT_THAT(effects, ElementsAre("yes", "yes", "never", "needless", "off"));
    EXPECT_EQ(facts["rules"][2]["because"].size(), 2U);
    EXPECT_EQ(facts["rules"][2]["because"][1]["position"].asInt(), 2);
    EXPECT_EQ(facts["rules"][3]["because"][0]["by"], "defaultPolicy");
}

TEST_F(MatrixTest, RulesWithoutALineNeverTakeEffect) {
    add("eth0", {"allow tcp 9000", "allow tcp 9002 from 10.0.0.1-10.0.0.9", "allow tcp 9004"},
        FW::FW_POLICY_DENY);
    add("lo", {"deny tcp 22"}, FW::FW_POLICY_ALLOW);
    profile_.rules["eth0"][0].policy = FW::FW_POLICY_NONE;
    std::swap(profile_.rules["eth0"][1].ipList[0], profile_.rules["eth0"][1].ipList[1]);
    FW::FWRULE& complex = profile_.rules["eth0"][2];
    complex.ipGroup = FW::FW_IP_GROUP_NETWORK;
    complex.ipType = FW::FW_IP_TYPE_V4;
    complex.ipList = {"0.0.0.5", "0.0.0.255"};
    Finding none;
    none.rule = RulePlace{"eth0", 1};
    none.path = "policy";
    none.text = "2 means none: the rule has no effect";
    none.isError = false;
    const Json::Value rules = reportFacts(meaning(), {none})["rules"];
    Texts effects;
    for (const Json::Value& rule : rules) {
        effects.push_back(rule["effect"].asString());
        const bool isExplained = !rule["because"].empty();
        ASSERT_EQ(rule["findings"].size(), isExplained ? 0U : 1U) << rule;
    }
    EXPECT_THAT(effects, ElementsAre("never", "never", "unknown", "never"));
    EXPECT_EQ(rules[0]["findings"][0], "policy: warning: 2 means none: the rule has no effect");
    EXPECT_EQ(rules[1]["findings"][0], "no line for the packet filter is made of it");
    EXPECT_THAT(rules[2]["findings"][0].asString(),
                testing::StartsWith("not counted in this report: "));
    ASSERT_EQ(rules[3]["because"].size(), 1U);
    EXPECT_EQ(rules[3]["because"][0]["by"], "loopback");
}

TEST_F(MatrixTest, ChangesSayWhatIsOpened) {
    add("eth0", {"allow service ssh"}, FW::FW_POLICY_DENY);
    const Meaning before = meaning();
    add("eth0", {"allow tcp 8080 from 10.0.0.0/8"}, FW::FW_POLICY_DENY);
    const Json::Value changes = changeFacts("old", before, meaning());
    EXPECT_EQ(changes["since"], "old");
    EXPECT_FALSE(changes["same"].asBool());
    EXPECT_EQ(changes["texts"][0], "opens tcp 8080 on eth0, for 10.0.0.0/8 (rule 2 of eth0)");
}

// ---- Random profiles: each cell against single packets ------------------------------------------

std::uint16_t valueOf(Random& random, const FW::FWINTERVALS& intervals, int highest) {
    const FW::FWINTERVAL one = intervals.empty()
                                   ? FW::FWINTERVAL{0, static_cast<std::uint16_t>(highest)}
                                   : oneOf(random, intervals);
    const int values[] = {one.first, one.last, one.first + pick(random, one.last - one.first + 1)};
    return static_cast<std::uint16_t>(values[pick(random, 3)]);
}

FW::FWADDRESS addressIn(Random& random, const FW::FWADDRESSINTERVAL& interval) {
    switch (pick(random, 3)) {
        case 0:
            return interval.first;
        case 1:
            return interval.last;
        default:
            FW::FWADDRESS address{interval.first.high, interval.first.low};
            const std::uint64_t span = interval.last.high - interval.first.high;
            address.high += span == 0 ? 0 : random() % span;
            return address;
    }
}

/// A packet of a cell, with anything for what the table does not have.
FW::FWPACKET packetOf(Random& random, const Matrix& matrix, const MatrixRow& row,
                      const MatrixSenders& senders) {
    const PacketKind& kind = oneOf(random, row.kinds);
    FW::FWPACKET packet;
    packet.chain = matrix.chains == FW::FW_BOTH_CHAINS
                       ? (pick(random, 2) == 0 ? FW::FW_CHAIN_INPUT : FW::FW_CHAIN_FORWARD)
                       : (matrix.chains == 1U << FW::FW_CHAIN_INPUT ? FW::FW_CHAIN_INPUT
                                                                    : FW::FW_CHAIN_FORWARD);
    packet.family = matrix.family;
    packet.in = oneOf(random, matrix.interfaces);
    packet.out = oneOf(random, Texts{"eth0", "eth1", "tun3", "ppp1", "wlan0"});
    packet.state = FW::FW_STATE_NEW;
    packet.source = addressIn(random, oneOf(random, senders.addresses));
    const char* const to = matrix.family == FW::FW_FAMILY_V6 ? "2001:db8::1" : "10.1.2.3";
    packet.destination = pick(random, 2) == 0 ? FW::FWADDRESS{random() * 4294967296UL + random(), 0}
                                              : FW::fwAddressFrom(to, matrix.family)->first;
    std::uint16_t protocol = valueOf(random, kind.protocols, 255);
    if (kind.protocols.front().first == kIcmpOfFamily) {
        protocol = matrix.family == FW::FW_FAMILY_V6 ? 58 : 1;
    }
    packet.protocol = static_cast<std::uint8_t>(protocol);
    packet.sourcePort = valueOf(random, kind.sourcePorts, 65535);
    packet.destinationPort = valueOf(random, kind.destinationPorts, 65535);
    packet.icmpType = static_cast<std::uint8_t>(valueOf(random, kind.icmpTypes, 255));
    return packet;
}

std::size_t sizeOf(const FW::FWINTERVALS& intervals, std::size_t whole) {
    std::size_t size = 0;
    for (const FW::FWINTERVAL& one : intervals) {
        size += one.last - one.first + 1U;
    }
    return intervals.empty() ? whole : size;
}

/// How many combinations of protocol, ports and type the rows have.
std::size_t sizeOf(const std::vector<MatrixRow>& rows) {
    std::size_t size = 0;
    for (const MatrixRow& row : rows) {
        for (const PacketKind& kind : row.kinds) {
            const std::uint16_t protocol = kind.protocols.front().first;
            if (protocol == 6 || protocol == 17) {
                size += sizeOf(kind.sourcePorts, 65536) * sizeOf(kind.destinationPorts, 65536);
            } else if (protocol == kIcmpOfFamily) {
                size += sizeOf(kind.icmpTypes, 256);
            } else {
                size += sizeOf(kind.protocols, 256);
            }
        }
    }
    return size;
}

/// All there are: TCP and UDP with two ports, ICMP with its types, and the other protocols without
/// the ICMP of the other family.
constexpr std::size_t kAllKinds = 2 * 65536UL * 65536UL + 256 + 252;

CellVerdict verdictOf(const FW::FWRESOLVEDRULE& rule) {
    return rule.verdict == FW::FW_PACKET_DROP       ? CellVerdict::kDeny
           : rule.place.origin == FW::FW_ORIGIN_END ? CellVerdict::kNone
                                                    : CellVerdict::kAllow;
}

/// That each address is in one column; how many intervals there are.
std::size_t checkAddresses(const Matrix& matrix) {
    std::vector<FW::FWADDRESSINTERVAL> all;
    std::size_t count = 0;
    for (const MatrixSenders& senders : matrix.senders) {
        all.insert(all.end(), senders.addresses.begin(), senders.addresses.end());
        count += senders.addresses.size();
    }
    std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
        return std::tie(a.first.high, a.first.low) < std::tie(b.first.high, b.first.low);
    });
    for (std::size_t i = 1; i < all.size(); ++i) {
        FW::FWADDRESS after = all[i - 1].last;
        if (++after.low == 0) {
            ++after.high;
        }
        EXPECT_EQ(after.high, all[i].first.high);
        EXPECT_EQ(after.low, all[i].first.low);
    }
    EXPECT_EQ(all.front().first.high, 0U);
    EXPECT_EQ(all.back().last.high, ~0ULL);
    return count;
}

TEST(MatrixRandomTest, CellsSayWhatHappensToTheirPackets) {
    const TestCountries countries(7);
    const Texts adapters = {"global", "eth0", "eth1", "vpn", "pppoe"};
    const int profiles = countOf(60, 2000);
    std::size_t packets = 0;
    std::set<CellVerdict> seen;
    for (int number = 0; number < profiles; ++number) {
        SCOPED_TRACE("profile " + std::to_string(number));
        Random random(static_cast<unsigned>(9000000 + number));
        const FW::FWPROFILE profile = makeProfile(random, 5, adapters);
        FW::FWENVIRONMENT environment;
        environment.adapters = FW::fwAdaptersByName(profile, "ppp9");
        environment.services["ssh"].dstPorts = {{FW::FW_PORT_PROTOCOL_TCP, {"22"}}};
        environment.services["from"].srcPorts = {{FW::FW_PORT_PROTOCOL_TCP_UDP, {"1000-1999"}}};
        environment.countries = [&countries](const std::string& country, FW::FW_FAMILY family) {
            return countries.find(country, family);
        };
        const Meaning meaning(profile, environment);
        for (const Matrix& matrix : matricesOf(meaning)) {
            ASSERT_FALSE(matrix.tooComplex);
            if (matrix.otherRows == 0) {
                ASSERT_EQ(sizeOf(matrix.rows), kAllKinds);
            }
            if (matrix.otherSenders == 0) {
                ASSERT_GT(checkAddresses(matrix), 0U);
            }
            for (int i = 0; i < 300; ++i) {
                const MatrixRow& row = oneOf(random, matrix.rows);
                const std::size_t column = random() % matrix.senders.size();
                const MatrixCell& cell = row.cells.at(column);
                const FW::FWPACKET packet = packetOf(random, matrix, row, matrix.senders[column]);
                const FW::FWDECISION decision = meaning.answers().decide(packet);
                ASSERT_EQ(decision.deciders.size(), 1U);
                const FW::FWRESOLVEDRULE decider =
                    meaning.answers().rule(decision.deciders.front());
                if (decider.place.origin == FW::FW_ORIGIN_NEIGHBOURS) {
                    continue;
                }
                ++packets;
                seen.insert(cell.verdict);
                const auto isDecider = [&](const FW::FWPLACE& place) {
                    return place.origin == decider.place.origin &&
                           place.adapter == decider.place.adapter &&
                           place.position == decider.place.position;
                };
                ASSERT_EQ(std::count_if(cell.deciders.begin(), cell.deciders.end(), isDecider), 1)
                    << row.text << " from " << matrix.senders[column].text << ": "
                    << placeText(decider.place);
                ASSERT_TRUE(cell.log == CellLog::kSome ||
                            (cell.log == CellLog::kAll) == decider.log);
                if (cell.verdict == CellVerdict::kDepends) {
                    ASSERT_GT(cell.deciders.size(), 1U);
                } else {
                    ASSERT_EQ(cell.verdict, verdictOf(decider))
                        << row.text << " from " << matrix.senders[column].text;
                }
            }
        }
    }
    EXPECT_GT(packets, 10000U);
    EXPECT_EQ(seen.size(), 4U);
}

TEST(MatrixRandomTest, NoTwoColumnsHaveTheSameVerdictsAndLogging) {
    const TestCountries countries(7);
    for (unsigned number = 0; number < 20; ++number) {
        Random random(9500000 + number);
        const FW::FWPROFILE profile = makeProfile(random, 5, {"global", "eth0"});
        FW::FWENVIRONMENT environment;
        environment.adapters = FW::fwAdaptersByName(profile, "");
        environment.countries = [&countries](const std::string& country, FW::FW_FAMILY family) {
            return countries.find(country, family);
        };
        for (const Matrix& matrix : matricesOf(Meaning(profile, environment))) {
            std::set<std::vector<std::pair<CellVerdict, CellLog>>> columns;
            for (std::size_t column = 0; column < matrix.senders.size(); ++column) {
                std::vector<std::pair<CellVerdict, CellLog>> verdicts;
                for (const MatrixRow& row : matrix.rows) {
                    const MatrixCell& cell = row.cells.at(column);
                    verdicts.emplace_back(cell.verdict, cell.log);
                }
                EXPECT_TRUE(columns.insert(verdicts).second);
            }
        }
    }
}

}  // namespace
}  // namespace tarnfw
