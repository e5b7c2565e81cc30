/// What a profile means: resolving it beside its translation, and the questions about it. "decide"
/// is the time for one packet.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwMeaning.h"

#include "support/cases.h"
#include "support/meaning_cases.h"

namespace {

using FW::FW_MEANING;
using FW::FWPACKET;
using FW::FWRESOLVEDRULE;

using Rules = std::vector<FWRESOLVEDRULE>;

Rules rulesOf(MeaningKind kind, int size, unsigned seed = 1) {
    FW::FWRESOLVED resolved =
        FW::fwResolve(makeMeaningProfile(kind, size, seed), makeMeaningEnvironment());
    if (!resolved.findings.empty()) {
        std::abort();
    }
    return std::move(resolved.rules);
}

void resolve(benchmark::State& state, MeaningKind kind, int size) {
    const FW::FWPROFILE profile = makeMeaningProfile(kind, size);
    const FW::FWENVIRONMENT environment = makeMeaningEnvironment();
    for (auto _ : state) {
        benchmark::DoNotOptimize(FW::fwResolve(profile, environment));
    }
}

void translate(benchmark::State& state, MeaningKind kind, int size) {
    const FW::FWPROFILE profile = makeMeaningProfile(kind, size);
    for (auto _ : state) {
        Json::Value commands;
        FW::TARNFW_IPTABLES_RULES translator;
        if (!translator.fwRulesToIptablesRules(true, profile.rules, profile.adapterPolicyMap,
                                               commands)) {
            std::abort();
        }
        benchmark::DoNotOptimize(commands);
    }
}

std::size_t heapBytes() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// The lists of countries that rules have, each once.
std::size_t countryBytes(const Rules& rules) {
    std::set<const FW::FWADDRESSES*> lists;
    for (const FWRESOLVEDRULE& rule : rules) {
        for (const auto& list : {rule.packets.sources, rule.packets.destinations}) {
            if (list != nullptr && list->size() > 1000) {
                lists.insert(list.get());
            }
        }
    }
    std::size_t bytes = 0;
    for (const FW::FWADDRESSES* const list : lists) {
        bytes += list->capacity() * sizeof(FW::FWADDRESSINTERVAL);
    }
    return bytes;
}

/// Counts the bytes held for each rule of the profile: by FW_MEANING alone, after the resolved
/// rules are gone; by both, while they are there; and by both with the lists of countries.
void prepare(benchmark::State& state, MeaningKind kind, int size) {
    const auto perRule = [size](std::size_t bytes) {
        return static_cast<double>(bytes) / static_cast<double>(size);
    };
    (void)rulesOf(kind, size);  // makes the lists of countries, which stay
    const std::size_t before = heapBytes();
    {
        const Rules rules = rulesOf(kind, size);
        for (auto _ : state) {
            benchmark::DoNotOptimize(FW_MEANING(rules));
        }
        const FW_MEANING meaning(rules);
        const std::size_t both = heapBytes() - before;
        state.counters["bytes_per_rule"] = perRule(both);
        state.counters["with_countries"] = perRule(both + countryBytes(rules));
    }
    const std::size_t empty = heapBytes();
    const FW_MEANING meaning(rulesOf(kind, size));
    state.counters["meaning_alone"] = perRule(heapBytes() - empty);
}

/// Packets at the edges of random rules.
std::vector<FWPACKET> packetsFor(const Rules& rules) {
    std::mt19937 random(7);
    const auto flip = [&random] { return random() % 2 == 0; };
    std::vector<FWPACKET> packets;
    static const char* const kNames[] = {"eth0", "eth1", "tun0", "eth9"};
    for (int i = 0; i < 4096; ++i) {
        const FW::FWPACKETSET& set = rules[random() % rules.size()].packets;
        FWPACKET packet;
        packet.chain = FW::FW_CHAIN_INPUT;
        packet.family = set.families == 2 ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4;
        packet.in = kNames[random() % 4];
        packet.protocol = flip() ? std::uint8_t(6) : std::uint8_t(17);
        const auto address = [&](const auto& list) {
            if (list == nullptr || random() % 4 == 0) {
                return FW::FWADDRESS{std::uint64_t(random()) << 32, 0};
            }
            const FW::FWADDRESSINTERVAL& one = (*list)[random() % list->size()];
            return flip() ? one.first : one.last;
        };
        packet.source = address(set.sources);
        packet.destination = address(set.destinations);
        const auto port = [&](const FW::FWINTERVALS& list) {
            return list.empty() || random() % 4 == 0 ? static_cast<std::uint16_t>(random())
                   : flip()                          ? list.front().first
                                                     : list.back().last;
        };
        packet.sourcePort = port(set.sourcePorts);
        packet.destinationPort = port(set.destinationPorts);
        packet.state = FW::FW_STATE_NEW;
        packets.push_back(packet);
    }
    return packets;
}

/// TCP packets that no rule matches: with addresses and ports near the ends of all, where ranges
/// are few.
std::vector<FWPACKET> unmatchedPackets(const Rules& rules, const FW_MEANING& meaning) {
    std::mt19937 random(8);
    const auto nearEnd = [&random](std::uint64_t last) {
        const std::uint64_t distance = random() % (last / 5000 + 2);
        return random() % 2 == 0 ? distance : last - distance;
    };
    std::vector<FWPACKET> packets;
    for (int i = 0; i < 10000000 && packets.size() < 1024; ++i) {
        FWPACKET packet;
        packet.chain = FW::FW_CHAIN_INPUT;
        packet.family = FW::FW_FAMILY_V4;
        packet.in = "eth0";
        packet.protocol = std::uint8_t(6);
        packet.source = FW::FWADDRESS{nearEnd(0xffffffff) << 32, 0};
        packet.destination = FW::FWADDRESS{nearEnd(0xffffffff) << 32, 0};
        packet.sourcePort = static_cast<std::uint16_t>(nearEnd(0xffff));
        packet.destinationPort = static_cast<std::uint16_t>(nearEnd(0xffff));
        packet.state = FW::FW_STATE_NEW;
        const std::size_t decider = meaning.decide(packet).deciders.front();
        if (decider >= rules.size() || rules[decider].place.origin == FW::FW_ORIGIN_DEFAULT) {
            packets.push_back(packet);
        }
    }
    return packets;
}

/// Of the least times of each packet, in microseconds: "p50", "p99" and "worst".
void countTimes(benchmark::State& state, const FW_MEANING& meaning,
                const std::vector<FWPACKET>& packets) {
    using Clock = std::chrono::steady_clock;
    std::vector<double> times;
    for (const FWPACKET& packet : packets) {
        double least = std::numeric_limits<double>::max();
        for (int i = 0; i < 9; ++i) {
            const Clock::time_point start = Clock::now();
            benchmark::DoNotOptimize(meaning.decide(packet));
            const std::chrono::duration<double, std::micro> took = Clock::now() - start;
            least = std::min(least, took.count());
        }
        times.push_back(least);
    }
    std::sort(times.begin(), times.end());
    state.counters["p50"] = times[times.size() / 2];
    state.counters["p99"] = times[times.size() * 99 / 100];
    state.counters["worst"] = times.back();
}

void decideAll(benchmark::State& state, const FW_MEANING& meaning,
               const std::vector<FWPACKET>& packets) {
    if (packets.empty()) {
        std::abort();
    }
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(meaning.decide(packets[next++ % packets.size()]));
    }
    countTimes(state, meaning, packets);
}

void decide(benchmark::State& state, MeaningKind kind, int size) {
    const Rules rules = rulesOf(kind, size);
    decideAll(state, FW_MEANING(rules), packetsFor(rules));
}

void decideUnmatched(benchmark::State& state, MeaningKind kind, int size) {
    const Rules rules = rulesOf(kind, size);
    const FW_MEANING meaning(rules);
    decideAll(state, meaning, unmatchedPackets(rules, meaning));
}

void shadows(benchmark::State& state, MeaningKind kind, int size) {
    const FW_MEANING meaning(rulesOf(kind, size));
    std::size_t found = 0;
    std::size_t given_up = 0;
    for (auto _ : state) {
        const FW::FWSHADOWS shadows = meaning.shadows();
        found = shadows.shadows.size();
        given_up = shadows.findings.size();
    }
    state.counters["found"] = static_cast<double>(found);
    state.counters["too_complex"] = static_cast<double>(given_up);
}

/// Counts the pairs of rules that differ.
void countDifferences(benchmark::State& state, const FW_MEANING& before, const FW_MEANING& after) {
    FW::FWDIFFERENCE difference;
    for (auto _ : state) {
        difference = after.differenceFrom(before);
    }
    state.counters["found"] = static_cast<double>(difference.changes.size());
    state.counters["too_complex"] = static_cast<double>(difference.findings.size());
}

/// The policy of a rule in the middle is changed.
void edit(benchmark::State& state, MeaningKind kind, int size) {
    FW::FWPROFILE profile = makeMeaningProfile(kind, size);
    const FW_MEANING before(FW::fwResolve(profile, makeMeaningEnvironment()).rules);
    FW::FWRULE& rule = profile.rules["eth0"][profile.rules["eth0"].size() / 2];
    rule.policy = rule.policy == FW::FW_POLICY_DENY ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
    const FW_MEANING after(FW::fwResolve(profile, makeMeaningEnvironment()).rules);
    countDifferences(state, before, after);
}

/// From where new connections to a TCP port of the machine get through, on all interfaces.
void reach(benchmark::State& state, MeaningKind kind, int size) {
    const FW_MEANING meaning(rulesOf(kind, size));
    FW::FWPACKETSET query;
    query.chains = 1 << FW::FW_CHAIN_INPUT;
    query.protocols = {{6, 6}};
    query.destinationPorts = {{445, 445}};
    query.states = 1 << FW::FW_STATE_NEW;
    FW::FWREACHABLE reachable;
    for (auto _ : state) {
        reachable = meaning.reach(query);
    }
    state.counters["found"] = static_cast<double>(reachable.reach.size());
    state.counters["too_complex"] = static_cast<double>(reachable.findings.size());
}

void unrelated(benchmark::State& state, MeaningKind kind, int size) {
    const FW_MEANING before(rulesOf(kind, size, 1));
    const FW_MEANING after(rulesOf(kind, size, 2));
    countDifferences(state, before, after);
}

}  // namespace

void registerMeasurements() {
    storeMeaningCountries();
    using Run = void (*)(benchmark::State&, MeaningKind, int);
    struct Question {
        const char* name;
        const char* side;
        Run run;
    };
    static constexpr Question kQuestions[] = {
        {"resolve", "library", resolve},
        {"resolve", "floor", translate},
        {"prepare", "library", prepare},
        {"decide", "library", decide},
        {"unmatched", "library", decideUnmatched},
        {"shadows", "library", shadows},
        {"edit", "library", edit},
        {"unrelated", "library", unrelated},
        {"reach", "library", reach},
    };
    for (const NamedMeaningKind& named : kMeaningKinds) {
        for (const Question& question : kQuestions) {
            for (const int rules : {1000, 5000, 10000}) {
                const MeaningKind kind = named.kind;
                const Run run = question.run;
                measure(std::string("meaning/") + named.name + "-" + question.name, question.side,
                        rules, [=](benchmark::State& state, int size) { run(state, kind, size); });
            }
        }
    }
}
