// Differences of two profiles, compared with decision diagrams and with single decisions.

#include <string>
#include <utility>
#include <vector>

#include "library_test.h"
#include "tarnfirewall/fwMeaning.h"

#include "bdd_oracle.h"
#include "packet_set.h"
#include "random_case.h"

namespace {

using FW::FW_MEANING;
using FW::FWCHANGE;
using FW::FWDIFFERENCE;
using FW::FWRESOLVEDRULE;
using FW::FWRULE;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class DifferenceRandomTest : public LibraryTest {
protected:
    DifferenceRandomTest() : countries_(5) {}

    /// Compares the difference of two profiles with diagrams of both.
    void expectExact(const RandomCase& before, const FW::FWPROFILE& after,
                     const std::string& text) {
        const std::vector<FWRESOLVEDRULE> oldRules =
            FW::fwResolve(before.profile, before.environment).rules;
        const std::vector<FWRESOLVEDRULE> rules = FW::fwResolve(after, before.environment).rules;
        const FW_MEANING old(oldRules);
        const FW_MEANING current(rules);
        const FWDIFFERENCE difference = current.differenceFrom(old);
        ASSERT_THAT(difference.findings, IsEmpty());

        const BddOracle oracle(before.interfaces);
        const BddFunction was = oracle.fold(oldRules);
        const BddFunction is = oracle.fold(rules);
        bdd found[3] = {bddfalse, bddfalse, bddfalse};
        for (const FWCHANGE& change : difference.changes) {
            for (const FW::FWPACKETSET& set : change.packets) {
                const bdd packets = oracle.packets(set);
                for (const bdd& other : found) {
                    ASSERT_EQ(packets & other, bddfalse) << text << ": named twice";
                }
                found[change.change] |= packets;
            }
            expectDeciders(old, current, change, text);
        }
        const auto outcome = [](const BddFunction& function, FW::FW_PACKET_VERDICT verdict,
                                bool log) {
            return function.outcomes[BddOracle::outcomeOf(verdict, log)];
        };
        const auto dropped = [&](const BddFunction& function) {
            return outcome(function, FW::FW_PACKET_DROP, false) |
                   outcome(function, FW::FW_PACKET_DROP, true);
        };
        const auto logged = [&](const BddFunction& function) {
            return outcome(function, FW::FW_PACKET_DROP, true) |
                   outcome(function, FW::FW_PACKET_NEXT, true) |
                   outcome(function, FW::FW_PACKET_ACCEPT, true);
        };
        EXPECT_EQ(found[FW::FW_CHANGE_OPENED], dropped(was) - dropped(is)) << text;
        EXPECT_EQ(found[FW::FW_CHANGE_CLOSED], dropped(is) - dropped(was)) << text;
        EXPECT_EQ(found[FW::FW_CHANGE_LOGGING],
                  bdd_xor(logged(was), logged(is)) - bdd_xor(dropped(was), dropped(is)))
            << text;
        changes_ += static_cast<int>(difference.changes.size());
    }

    const TestCountries countries_;
    int changes_ = 0;

private:
    /// Each witness is one of its packets, and both sides decide about it as the change says.
    static void expectDeciders(const FW_MEANING& old, const FW_MEANING& current,
                               const FWCHANGE& change, const std::string& text) {
        ASSERT_EQ(change.witnesses.size(), change.packets.size()) << text;
        for (std::size_t i = 0; i < change.packets.size(); ++i) {
            const FW::FWPACKET& witness = change.witnesses[i];
            FW::FWPACKET full = witness;
            full.out = full.out.value_or("");
            full.sourcePort = full.sourcePort.value_or(std::uint16_t(0));
            full.destinationPort = full.destinationPort.value_or(std::uint16_t(0));
            full.icmpType = full.icmpType.value_or(std::uint8_t(0));
            EXPECT_TRUE(hasPacket(change.packets[i], full)) << text;
            EXPECT_THAT(old.decide(witness).deciders, ElementsAre(change.before)) << text;
            EXPECT_THAT(current.decide(witness).deciders, ElementsAre(change.after)) << text;
        }
    }
};

/// A list of the profile with rules.
std::vector<FWRULE>& someList(Random& random, FW::FWPROFILE& profile) {
    std::vector<std::string> adapters;
    for (const auto& [adapter, rules] : profile.rules) {
        if (!rules.empty()) {
            adapters.push_back(adapter);
        }
    }
    return profile.rules[adapters.empty() ? "eth0" : oneOf(random, adapters)];
}

/// Changes one rule or default policy: removes, inserts, moves or alters it.
FW::FWPROFILE edited(Random& random, const FW::FWPROFILE& profile, const FWRULE& other) {
    FW::FWPROFILE changed = profile;
    std::vector<FWRULE>& list = someList(random, changed);
    const auto place = [&] { return list.begin() + pick(random, static_cast<int>(list.size())); };
    switch (list.empty() ? 0 : pick(random, 6)) {
        case 0:
            list.insert(list.empty() ? list.end() : place(), other);
            break;
        case 1:
            list.erase(place());
            break;
        case 2:
            std::swap(*place(), *place());
            break;
        case 3:
            place()->policy =
                place()->policy == FW::FW_POLICY_DENY ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
            break;
        case 4:
            place()->blLog = !place()->blLog;
            break;
        default:
            changed.adapterPolicyMap["eth0"] =
                pick(random, 2) == 0 ? FW::FW_POLICY_DENY : FW::FW_POLICY_ALLOW;
            break;
    }
    return changed;
}

TEST_F(DifferenceRandomTest, OneEditIsExact) {
    const int profiles = countOf(400, 5000);
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(4000000 + number));
        const RandomCase made = makeCase(random, 5, countries_, platform_);
        RandomCase more = makeCase(random, 5, countries_, platform_);
        const std::vector<FWRULE>& others = someList(random, more.profile);
        const FWRULE other = others.empty() ? FWRULE() : oneOf(random, others);
        expectExact(made, edited(random, made.profile, other), "profile " + std::to_string(number));
    }
    EXPECT_GT(changes_, profiles / 5);
    tellCompared(profiles, changes_, "changes");
}

TEST_F(DifferenceRandomTest, UnrelatedProfilesAreExact) {
    const int profiles = countOf(200, 5000);
    for (int number = 0; number < profiles; ++number) {
        Random random(static_cast<unsigned>(5000000 + number));
        const RandomCase made = makeCase(random, 3, countries_, platform_);
        const RandomCase other = makeCase(random, 3, countries_, platform_);
        expectExact(made, other.profile, "profile " + std::to_string(number));
    }
    EXPECT_GT(changes_, profiles);
    tellCompared(profiles, changes_, "changes");
}

// ---- Named cases ----

FWRULE networkRule(FW::FW_POLICY policy, const std::string& address, const std::string& prefix) {
    FWRULE rule;
    rule.policy = policy;
    rule.ipGroup = FW::FW_IP_GROUP_NETWORK;
    rule.ipList = {address, prefix};
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.portList = {"445"};
    return rule;
}

FW_MEANING meaningOf(const std::vector<FWRULE>& rules, const std::string& adapter = "eth0") {
    FW::FWPROFILE profile;
    profile.rules[adapter] = rules;
    profile.adapterPolicyMap[adapter] = FW::FW_POLICY_DENY;
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0", "eth1"}, "");
    return FW_MEANING(FW::fwResolve(profile, environment).rules);
}

TEST(DifferenceTest, InsertedRuleOpensOneSetWithAHole) {
    const FWRULE deny = networkRule(FW::FW_POLICY_DENY, "10.3.0.0", "16");
    const FW_MEANING before = meaningOf({deny});
    const FW_MEANING after = meaningOf({deny, networkRule(FW::FW_POLICY_ALLOW, "10.0.0.0", "8")});
    const std::vector<FWCHANGE> changes = after.differenceFrom(before).changes;
    ASSERT_EQ(changes.size(), 1U);
    const FWCHANGE& change = changes[0];
    EXPECT_EQ(change.change, FW::FW_CHANGE_OPENED);
    ASSERT_EQ(change.packets.size(), 1U);
    const FW::FWPACKETSET& packets = change.packets[0];
    EXPECT_EQ(packets.chains, FW::FW_BOTH_CHAINS);
    EXPECT_THAT(packets.in->names, ElementsAre("eth0"));
    ASSERT_EQ(packets.sources->size(), 2U);
    EXPECT_EQ(FW::fwAddressText((*packets.sources)[0].last, FW::FW_FAMILY_V4), "10.2.255.255");
    EXPECT_EQ(FW::fwAddressText((*packets.sources)[1].first, FW::FW_FAMILY_V4), "10.4.0.0");
    EXPECT_EQ(before.rule(change.before).place.origin, FW::FW_ORIGIN_DEFAULT);
    EXPECT_EQ(after.rule(change.after).place.position, 2);
}

TEST(DifferenceTest, MovedRulesThatDoNotOverlapAreNoDifference) {
    const FWRULE one = networkRule(FW::FW_POLICY_ALLOW, "10.0.0.0", "24");
    const FWRULE other = networkRule(FW::FW_POLICY_DENY, "10.0.1.0", "24");
    EXPECT_THAT(meaningOf({one, other}).differenceFrom(meaningOf({other, one})).changes, IsEmpty());
}

TEST(DifferenceTest, NewInterfaceIsADifference) {
    const std::vector<FWCHANGE> changes =
        meaningOf({}, "eth1").differenceFrom(meaningOf({}, "eth0")).changes;
    ASSERT_EQ(changes.size(), 2U);
    EXPECT_EQ(changes[0].change, FW::FW_CHANGE_OPENED);
    EXPECT_EQ(changes[0].witnesses.at(0).in, "eth0");
    EXPECT_EQ(changes[1].change, FW::FW_CHANGE_CLOSED);
    EXPECT_EQ(changes[1].witnesses.at(0).in, "eth1");
}

}  // namespace
