// Rules that cut each other in every field: each question ends at its bound, and says so.

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfirewall/fwMeaning.h"

#include "random_profile.h"

namespace {

using FW::FW_MEANING;
using FW::FWFINDING;
using ::testing::IsEmpty;
using ::testing::Not;

std::string rangeOf(Random& random, int count, bool narrow) {
    const int first = pick(random, count);
    const int last =
        narrow ? std::min(first + pick(random, count / 3), count - 1) : pick(random, count);
    return std::to_string(std::min(first, last)) + "-" + std::to_string(std::max(first, last));
}

/// Ranges of addresses and ports on both sides; those of the first rules are narrow.
FW_MEANING hostile(unsigned seed, int rules, int narrowRules = 0) {
    Random random(seed);
    FW::FWPROFILE profile;
    for (int i = 0; i < rules; ++i) {
        FW::FWRULE rule;
        rule.policy = pick(random, 2) == 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
        rule.ipGroup = FW::FW_IP_GROUP_RANGE;
        const std::string range = rangeOf(random, 256, i < narrowRules);
        rule.ipList = {"10.0.0." + range.substr(0, range.find('-')),
                       "10.0.0." + range.substr(range.find('-') + 1)};
        rule.ipDirect = pick(random, 2);
        rule.portGroup = FW::FW_PORT_GROUP_PORTS;
        rule.protocol = FW::FW_PORT_PROTOCOL_TCP;
        rule.portList = {rangeOf(random, 65536, i < narrowRules)};
        rule.portDirect = pick(random, 2);
        profile.rules["eth0"].push_back(rule);
    }
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"eth0"}, "");
    return FW_MEANING(FW::fwResolve(profile, environment).rules);
}

std::string textOf(const std::vector<FWFINDING>& findings) {
    return findings.empty() ? "" : findings.back().text;
}

TEST(HostileTest, DifferenceEndsAtItsBound) {
    const FW::FWDIFFERENCE difference = hostile(1, 1500).differenceFrom(hostile(2, 1500));
    EXPECT_EQ(textOf(difference.findings), "too complex: there may be more differences");
    EXPECT_THAT(difference.changes, Not(IsEmpty()));
}

TEST(HostileTest, ReachEndsAtItsBound) {
    FW::FWPACKETSET all;
    const FW::FWREACHABLE reachable = hostile(3, 4000).reach(all);
    EXPECT_EQ(textOf(reachable.findings), "too complex: more may get through");
    EXPECT_THAT(reachable.reach, Not(IsEmpty()));
}

TEST(HostileTest, ShadowsNameTheRulesThatAreTooComplex) {
    const FW::FWSHADOWS shadows = hostile(4, 1500, 1200).shadows();
    EXPECT_THAT(textOf(shadows.findings), ::testing::StartsWith("too complex"));
    EXPECT_THAT(shadows.shadows, Not(IsEmpty()));
}

TEST(HostileTest, DecisionNamesAllThatMayDecideAndMore) {
    const FW_MEANING meaning = hostile(5, 3000);
    FW::FWPACKET packet;
    packet.chain = FW::FW_CHAIN_INPUT;
    packet.in = "eth0";
    const FW::FWDECISION decision = meaning.decide(packet);
    EXPECT_TRUE(decision.tooComplex);
    EXPECT_THAT(decision.deciders, Not(IsEmpty()));
    EXPECT_TRUE(std::is_sorted(decision.deciders.begin(), decision.deciders.end()));
}

// ---- Memory ----

/// Calls a function that may take up to so many bytes more than there are now. It fails with
/// std::bad_alloc where it takes more.
void callWithin(std::uint64_t bytes, const std::function<void()>& function) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    std::uint64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    ASSERT_GT(pages, 0U);
    rlimit within = before;
    within.rlim_cur = pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) + bytes;
    ASSERT_EQ(setrlimit(RLIMIT_AS, &within), 0);
    EXPECT_NO_THROW(function());
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
}

using Addresses = std::shared_ptr<const FW::FWADDRESSES>;

/// `count` addresses of IPv4, each `step` after the one before.
Addresses addressesFrom(std::uint64_t first, std::uint64_t step, std::uint64_t count) {
    FW::FWADDRESSES list;
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::uint64_t address = first + i * step;
        list.push_back({{address << 32, 0}, {address << 32 | 0xffffffff, ~std::uint64_t(0)}});
    }
    return std::make_shared<const FW::FWADDRESSES>(std::move(list));
}

FW::FWRESOLVEDRULE denyFrom(Addresses sources) {
    FW::FWRESOLVEDRULE rule;
    rule.packets.families = 1 << FW::FW_FAMILY_V4;
    rule.packets.sources = std::move(sources);
    rule.verdict = FW::FW_PACKET_DROP;
    return rule;
}

std::vector<FW::FWRESOLVEDRULE> countries(std::uint64_t count) {
    std::vector<FW::FWRESOLVEDRULE> rules;
    for (std::uint64_t i = 0; i < count; ++i) {
        rules.push_back(denyFrom(addressesFrom(2 * i, 2 * count, 12000)));
    }
    return rules;
}

TEST(HostileTest, CountriesInTurnTakeNoMoreThanTheirLists) {
    const FW_MEANING denied(countries(60));
    callWithin(300000000, [&] {
        const FW::FWREACHABLE reachable = denied.reach({});
        EXPECT_THAT(reachable.findings, IsEmpty());
        ASSERT_EQ(reachable.reach.size(), 1U);
        // IPv6, and what is not of these countries: the parts of the whole between their ranges.
        EXPECT_EQ(reachable.reach[0].packets.size(), 2U);
    });
    const FW_MEANING none({});
    callWithin(300000000, [&] {
        const FW::FWDIFFERENCE difference = denied.differenceFrom(none);
        EXPECT_THAT(difference.findings, IsEmpty());
        EXPECT_EQ(difference.changes.size(), 60U);
    });
}

/// The numbers of `bits` bits that have a bit, counted from the first one, as intervals.
template <typename Append>
void forNumbersWith(int bit, int bits, Append append) {
    const std::uint64_t length = std::uint64_t(1) << (bits - 1 - bit);
    for (std::uint64_t first = length; first < std::uint64_t(1) << bits; first += 2 * length) {
        append(first, first + length - 1);
    }
}

TEST(HostileTest, DecisionEndsWithinARound) {
    // Each rule has half of each piece that those before it leave, and cuts the rest in two.
    std::vector<FW::FWRESOLVEDRULE> rules;
    for (int i = 0; i < 20; ++i) {
        FW::FWRESOLVEDRULE& rule = rules.emplace_back();
        rule.packets.families = 1 << FW::FW_FAMILY_V4;
        FW::FWADDRESSES addresses;
        forNumbersWith(i / 2, 32, [&](std::uint64_t first, std::uint64_t last) {
            addresses.push_back({{first << 32, 0}, {last << 32 | 0xffffffff, ~std::uint64_t(0)}});
        });
        FW::FWINTERVALS ports;
        forNumbersWith(i / 2, 16, [&](std::uint64_t first, std::uint64_t last) {
            ports.push_back({static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(last)});
        });
        const auto list = std::make_shared<const FW::FWADDRESSES>(std::move(addresses));
        rule.packets.protocols = {{6, 6}};
        (i % 2 == 0 ? rule.packets.sources : rule.packets.destinations) = list;
        (i % 2 == 0 ? rule.packets.sourcePorts : rule.packets.destinationPorts) = ports;
    }
    rules.resize(3000, rules.front());
    const FW_MEANING meaning(rules);
    FW::FWPACKET packet;
    packet.protocol = std::uint8_t(6);
    callWithin(400000000, [&] {
        const FW::FWDECISION decision = meaning.decide(packet);
        EXPECT_TRUE(decision.tooComplex);
        EXPECT_EQ(decision.deciders.front(), 0U);
        EXPECT_EQ(decision.deciders.back(), rules.size());
    });
}

TEST(HostileTest, LongListsOfEachRuleAreNotAllKept) {
    const auto listsFrom = [](std::uint64_t first) {
        std::vector<FW::FWRESOLVEDRULE> rules;
        for (std::uint64_t i = 0; i < 6000; ++i) {
            rules.push_back(denyFrom(addressesFrom(first + 512 * i, 2, 128)));
            rules.back().verdict = FW::FW_PACKET_NEXT;
        }
        return FW_MEANING(rules);
    };
    const FW_MEANING before = listsFrom(0);
    const FW_MEANING after = listsFrom(256);
    callWithin(60000000, [&] { EXPECT_THAT(after.differenceFrom(before).findings, IsEmpty()); });
}

// ---- The stack ----

void* callFunction(void* function) {
    (*static_cast<const std::function<void()>*>(function))();
    return nullptr;
}

/// Calls a function in a thread with a small stack.
void callOnASmallStack(const std::function<void()>& function) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 512 * 1024), 0);
    pthread_t thread{};
    std::function<void()> called = function;
    ASSERT_EQ(pthread_create(&thread, &attributes, callFunction, &called), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    pthread_attr_destroy(&attributes);
}

TEST(HostileTest, RulesThatCutInTurnNeedNoStack) {
    // Every second address; the rest is one piece up to the last rule.
    std::vector<FW::FWRESOLVEDRULE> rules;
    for (std::uint64_t i = 0; i < 3000; ++i) {
        rules.push_back(denyFrom(addressesFrom(2 * i, 1, 1)));
    }
    FW::FWRESOLVEDRULE& all = rules.emplace_back();
    all.verdict = FW::FW_PACKET_DROP;
    all.place = {FW::FW_ORIGIN_RULE, "eth0", 1};
    const FW_MEANING meaning(rules);
    const FW_MEANING none({});
    callOnASmallStack([&] {
        EXPECT_THAT(meaning.reach({}).findings, IsEmpty());
        EXPECT_THAT(meaning.differenceFrom(none).findings, IsEmpty());
        EXPECT_THAT(meaning.shadows().findings, IsEmpty());
        EXPECT_FALSE(meaning.decide({}).tooComplex);
    });
}

}  // namespace
