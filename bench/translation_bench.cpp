/// Profile to command document, for both apply modes, beside loops that only concatenate
/// the same strings: into a list of texts (the floor), and into the document that the interface
/// asks for.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarnfirewall/fwIptables.h"

#include "support/allocations.h"
#include "support/cases.h"
#include "support/files.h"
#include "support/profiles.h"

namespace {

using Lines = std::vector<std::string>;

Json::Value translate(const FW::FWPROFILE& profile) {
    Json::Value commands;
    FW::TARNFW_IPTABLES_RULES translator;
    if (!translator.fwRulesToIptablesRules(true, profile.rules, profile.adapterPolicyMap,
                                           commands)) {
        std::abort();
    }
    return commands;
}

/// The same for a batch, which asks for tunnels once, not once per rule.
Json::Value translateForBatch(const FW::FWPROFILE& profile) {
    Json::Value commands;
    FW::TARNFW_IPTABLES_RULES translator;
    if (!translator.fwRulesToBatchRules(true, profile.rules, profile.adapterPolicyMap, commands,
                                        "")) {
        std::abort();
    }
    return commands;
}

/// The pieces that the lines of one family and adapter are made of.
struct PiecedLines {
    std::string family;
    std::string adapter;
    std::vector<std::vector<std::string>> lines;
};

std::vector<std::string> piecesOf(const std::string& line) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    while (start < line.size()) {
        const std::size_t end = std::min(line.find(" -", start), line.size());
        pieces.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

std::vector<PiecedLines> piecesOf(const Json::Value& commands) {
    std::vector<PiecedLines> all;
    for (const std::string& family : commands.getMemberNames()) {
        for (const std::string& adapter : commands[family].getMemberNames()) {
            PiecedLines pieced{family, adapter, {}};
            for (const Json::Value& line : commands[family][adapter]) {
                pieced.lines.push_back(piecesOf(line.asString()));
            }
            all.push_back(std::move(pieced));
        }
    }
    return all;
}

std::string concatenated(const std::vector<std::string>& pieces) {
    std::size_t length = pieces.size() - 1;
    for (const std::string& piece : pieces) {
        length += piece.size();
    }
    std::string line;
    line.reserve(length);
    for (const std::string& piece : pieces) {
        if (!line.empty()) {
            line += ' ';
        }
        line += piece;
    }
    return line;
}

std::size_t countLines(const Json::Value& commands) {
    std::size_t count = 0;
    for (const Json::Value& family : commands) {
        for (const Json::Value& lines : family) {
            count += lines.size();
        }
    }
    return count;
}

/// Runs `work`, and counts lines and the memory asked for each.
template <typename Work>
void countWhile(benchmark::State& state, std::size_t lines, Work work) {
    const std::uint64_t before = allocatedBytes();
    for (auto _ : state) {
        benchmark::DoNotOptimize(work());
    }
    const auto total = static_cast<double>(lines) * static_cast<double>(state.iterations());
    state.counters["lines"] = static_cast<double>(lines);
    state.counters["lines_per_second"] = benchmark::Counter(total, benchmark::Counter::kIsRate);
    state.counters["bytes_per_line"] = static_cast<double>(allocatedBytes() - before) / total;
}

Json::Value concatenateIntoDocument(const std::vector<PiecedLines>& all) {
    Json::Value commands;
    for (const PiecedLines& pieced : all) {
        Json::Value& lines = commands[pieced.family][pieced.adapter];
        for (const std::vector<std::string>& pieces : pieced.lines) {
            lines.append(concatenated(pieces));
        }
    }
    return commands;
}

std::vector<Lines> concatenateIntoLists(const std::vector<PiecedLines>& all) {
    std::vector<Lines> lists;
    for (const PiecedLines& pieced : all) {
        Lines& lines = lists.emplace_back();
        for (const std::vector<std::string>& pieces : pieced.lines) {
            lines.push_back(concatenated(pieces));
        }
    }
    return lists;
}

}  // namespace

void registerMeasurements() {
    for (const std::string& country : kCountries) {
        storeCountry(country, 1);
    }
    for (const NamedKind& named : kRuleKinds) {
        const RuleKind kind = named.kind;
        const std::string subject = std::string("translation/") + named.name;
        for (const int rules : {10, 100, 1000, 10000, 50000}) {
            measure(subject, "library", rules, [kind](benchmark::State& state, int size) {
                const FW::FWPROFILE profile = makeProfile("p", kind, size);
                countWhile(state, countLines(translate(profile)),
                           [&] { return translate(profile); });
            });
            measure(subject, "library-batch", rules, [kind](benchmark::State& state, int size) {
                const FW::FWPROFILE profile = makeProfile("p", kind, size);
                countWhile(state, countLines(translateForBatch(profile)),
                           [&] { return translateForBatch(profile); });
            });
            measure(subject, "floor", rules, [kind](benchmark::State& state, int size) {
                const Json::Value commands = translate(makeProfile("p", kind, size));
                const std::vector<PiecedLines> pieces = piecesOf(commands);
                if (concatenateIntoDocument(pieces) != commands) {
                    state.SkipWithError("the concatenated lines are not those of the library");
                    return;
                }
                countWhile(state, countLines(commands),
                           [&] { return concatenateIntoLists(pieces); });
            });
            measure(subject, "floor-document", rules, [kind](benchmark::State& state, int size) {
                const Json::Value commands = translate(makeProfile("p", kind, size));
                const std::vector<PiecedLines> pieces = piecesOf(commands);
                countWhile(state, countLines(commands),
                           [&] { return concatenateIntoDocument(pieces); });
            });
        }
    }
}
