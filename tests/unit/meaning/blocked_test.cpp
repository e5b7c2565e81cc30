// Where a blocked check of the library decides about a port on an adapter, the engine agrees, or a
// rule is part of the answer that the check knows only in part; docs/model.md lists these.

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/tarnFW.h"

#include "random_case.h"

namespace {

using FW::FW_MEANING;
using FW::FWPACKET;
using FW::FWPACKETSET;
using FW::FWPLACE;
using FW::FWRULE;

constexpr std::uint16_t kPorts[] = {0, 22, 80, 443, 1723, 6005, 8080, 65535};

constexpr int kAllowed = 0;
constexpr int kBlocked = 1;

/// What new connections to a port of the machine meet, from all addresses of both families.
enum class Met { kAllThrough, kNoneThrough, kSome };

Met metBy(const FW_MEANING& meaning, const std::string& adapter, std::uint8_t protocol,
          std::uint16_t port) {
    FWPACKET packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.in = adapter;
    packet.protocol = protocol;
    packet.destinationPort = port;
    packet.state = FW::FW_STATE_NEW;
    int dropped = 0;
    const FW::FWDECISION decision = meaning.decide(packet);
    EXPECT_FALSE(decision.tooComplex);
    for (const std::size_t decider : decision.deciders) {
        dropped += meaning.rule(decider).verdict == FW::FW_PACKET_DROP ? 1 : 0;
    }
    return dropped == 0                                            ? Met::kAllThrough
           : dropped == static_cast<int>(decision.deciders.size()) ? Met::kNoneThrough
                                                                   : Met::kSome;
}

/// Whether the check knows all that a rule does to packets coming in, from any port, of both
/// families.
bool isKnownWhole(const FWRULE& rule) {
    return rule.ipGroup == FW::FW_IP_GROUP_ANY && rule.ipType == FW::FW_IP_TYPE_BOTH &&
           rule.adapterDirect != FW::FW_ADAPTER_DIRECT_OUT &&
           rule.chainList.count("INPUT_FIREWALL") != 0 && rule.policy != FW::FW_POLICY_NONE &&
           (rule.portDirect == FW::FW_PORT_DIRECT_DESTINATION ||
            rule.portGroup == FW::FW_PORT_GROUP_ANY) &&
           std::none_of(rule.portList.begin(), rule.portList.end(), [](const std::string& entry) {
               return entry == "90-80" || entry == "from";  // no port; a service with source ports
           });
}

/// A profile with the answers about one port on one adapter.
struct Answers {
    int verdict = 2;
    std::vector<FW::FWVERDICTSTEP> steps;
    Met met = Met::kSome;
};

class BlockedRandomTest : public LibraryTest {
protected:
    Answers ask(const RandomCase& made, const FW_MEANING& meaning, const std::string& adapter,
                bool udp, std::uint16_t port) {
        Answers answers;
        std::map<std::string, FW::FW_POLICY> verdicts;
        FW::TARNFW().fwPortExplainOf(
            made.profile, {FW::FW_PORT_DIRECT_DESTINATION, udp ? 2 : 1, std::to_string(port)},
            adapter, verdicts, answers.steps);
        answers.verdict = verdicts.at(adapter);
        answers.met = metBy(meaning, adapter, udp ? 17 : 6, port);
        return answers;
    }

    static bool agree(const Answers& answers) {
        return answers.verdict == kAllowed   ? answers.met == Met::kAllThrough
               : answers.verdict == kBlocked ? answers.met == Met::kNoneThrough
                                             : true;
    }

    const TestCountries countries_{5};
};

TEST_F(BlockedRandomTest, RulesForAnyAddressAgree) {
    const int profiles = countOf(300, 5000);
    int decided[2] = {};
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(6000000 + number));
        RandomCase made = makeCase(random, 8, countries_, platform_);
        FW::FWPROFILE plain;
        for (const std::string& adapter : {std::string("eth1"), std::string("global")}) {
            for (const FWRULE& rule : made.profile.rules[adapter]) {
                FWRULE known = rule;
                known.ipGroup = FW::FW_IP_GROUP_ANY;
                known.ipType = FW::FW_IP_TYPE_BOTH;
                if (isKnownWhole(known)) {
                    plain.rules[adapter].push_back(known);
                }
            }
        }
        plain.adapterPolicyMap["eth1"] = made.profile.adapterPolicyMap["eth1"];
        made.profile = plain;
        made.environment.tunnels.clear();
        const FW_MEANING meaning(FW::fwResolve(made.profile, made.environment).rules);
        for (const std::uint16_t port : kPorts) {
            for (const bool udp : {false, true}) {
                const Answers answers = ask(made, meaning, "eth1", udp, port);
                EXPECT_TRUE(agree(answers))
                    << "profile " << number << ", port " << port << ", verdict " << answers.verdict;
                if (answers.verdict < 2) {
                    ++decided[answers.verdict];
                }
            }
        }
    }
    EXPECT_GT(decided[kAllowed], profiles);
    EXPECT_GT(decided[kBlocked], profiles);
    tellCompared(profiles, decided[kAllowed] + decided[kBlocked], "verdicts");
}

TEST_F(BlockedRandomTest, WhereTheyDifferARuleIsNotKnownWhole) {
    const int profiles = countOf(300, 5000);
    int same = 0;
    int different = 0;
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(7000000 + number));
        const RandomCase made = makeCase(random, 4, countries_, platform_);
        const FW_MEANING meaning(FW::fwResolve(made.profile, made.environment).rules);
        for (const std::uint16_t port : kPorts) {
            for (const bool udp : {false, true}) {
                const Answers answers = ask(made, meaning, "eth1", udp, port);
                if (agree(answers)) {
                    same += answers.verdict < 2 ? 1 : 0;
                    continue;
                }
                ++different;
                // One of the rules that led to either answer, or a list that the check does not
                // ask.
                FWPACKET packet;
                packet.chain = FW::FW_CHAIN_INPUT;
                packet.in = "eth1";
                packet.protocol = static_cast<std::uint8_t>(udp ? 17 : 6);
                packet.destinationPort = port;
                packet.state = FW::FW_STATE_NEW;
                bool found = false;
                const auto look = [&](const std::string& list, int position) {
                    const FWRULE& rule =
                        made.profile.rules.at(list).at(static_cast<std::size_t>(position - 1));
                    found = found || !isKnownWhole(rule);
                };
                for (const FW::FWVERDICTSTEP& step : answers.steps) {
                    if (step.kind == FW::FW_VERDICT_STEP_RULE) {
                        look(step.list, step.position);
                    }
                }
                for (const std::size_t decider : meaning.decide(packet).deciders) {
                    const FWPLACE place = meaning.rule(decider).place;
                    if (place.origin == FW::FW_ORIGIN_RULE) {
                        look(place.adapter, place.position);
                    }
                    found = found || (!place.adapter.empty() && place.adapter != "eth1" &&
                                      place.adapter != "global");
                }
                EXPECT_TRUE(found)
                    << "profile " << number << ", port " << port << ", verdict " << answers.verdict;
            }
        }
    }
    EXPECT_GT(same, profiles);
    EXPECT_GT(different, profiles / 10);
    tellCompared(profiles, same + different, "verdicts");
}

}  // namespace
