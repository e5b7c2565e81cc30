/// The profile store and the settings, beside jsoncpp's own parse and write of the same texts. The
/// store finds a profile by what is inside its file, so an operation parses every file once; the
/// least that it needs is thus the parse of them all.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/tarnFW.h"

#include "support/cases.h"
#include "support/files.h"
#include "support/profiles.h"

namespace {

/// Files in the store, and their content.
struct Stored {
    int profiles;
    int rules;
    std::vector<std::string> texts;
};

void require(bool result) {
    if (!result) {
        std::abort();
    }
}

Json::Value parsed(const std::string& text) {
    Json::Value document;
    require(Json::Reader().parse(text, document, /*collectComments=*/true));
    return document;
}

void parseAll(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        benchmark::DoNotOptimize(parsed(text));
    }
}

// ---- The library's side -------------------------------------------------------------------------

void profileGet(benchmark::State& state, const Stored&) {
    for (auto _ : state) {
        FW::FWPROFILE profile;
        require(FW::TARNFW_JSON_DB().profileGet("p0", profile));
        benchmark::DoNotOptimize(profile);
    }
}

void profileSet(benchmark::State& state, const Stored& stored) {
    const FW::FWPROFILE profile = makeProfile("p0", RuleKind::Plain, stored.rules);
    for (auto _ : state) {
        state.PauseTiming();
        letFilesAge();
        state.ResumeTiming();
        require(FW::TARNFW_JSON_DB().profileSet("p0", profile));
    }
}

void profileNames(benchmark::State& state, const Stored&) {
    for (auto _ : state) {
        std::vector<std::string> names;
        require(FW::TARNFW_JSON_DB().profileEnum(names));
        benchmark::DoNotOptimize(names);
    }
}

void profileRecords(benchmark::State& state, const Stored&) {
    for (auto _ : state) {
        std::map<std::string, FW::FWPROFILE> profiles;
        require(FW::TARNFW_JSON_DB().profileEnum(profiles));
        benchmark::DoNotOptimize(profiles);
    }
}

void configGet(benchmark::State& state, const Stored&) {
    for (auto _ : state) {
        Json::Value settings;
        require(FW::TARNFW().configGet(settings));
        benchmark::DoNotOptimize(settings);
    }
}

// ---- The floors ---------------------------------------------------------------------------------

void parse(benchmark::State& state, const Stored& stored) {
    for (auto _ : state) {
        parseAll(stored.texts);
    }
}

void parseAndWrite(benchmark::State& state, const Stored& stored) {
    const Json::Value document = parsed(stored.texts[1]);
    for (auto _ : state) {
        parseAll(stored.texts);
        benchmark::DoNotOptimize(Json::StyledWriter().write(document));
    }
}

void parseSettings(benchmark::State& state, const Stored& stored) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(parsed(stored.texts[0]));
    }
}

using Side = void (*)(benchmark::State&, const Stored&);

struct Operation {
    const char* name;
    Side library;
    Side floor;
};

constexpr Operation kOperations[] = {
    {"profileGet", profileGet, parse},
    {"profileSet", profileSet, parseAndWrite},
    {"profileEnum-names", profileNames, parse},
    {"profileEnum-records", profileRecords, parse},
};

constexpr Operation kSettings = {"configGet", configGet, parseSettings};

/// Both sides of an operation on a store that depends on the size.
template <typename MakeStore>
void measureBoth(const std::string& subject, const Operation& operation, int size,
                 MakeStore makeStore) {
    for (const auto& [side, run] :
         {std::pair("library", operation.library), std::pair("floor", operation.floor)}) {
        measure(
            subject + operation.name, side, size,
            [makeStore, work = run](benchmark::State& state, int) { work(state, makeStore()); });
    }
}

Stored store(int profiles, int rules) {
    return {profiles, rules, storeProfiles(profiles, rules)};
}

}  // namespace

void registerMeasurements() {
    constexpr int kRulesOfMany = 100;
    for (const Operation& operation : kOperations) {
        for (const int rules : {10, 100, 1000, 10000}) {
            measureBoth("store-rules/", operation, rules, [rules] { return store(1, rules); });
        }
        for (const int profiles : {1, 10, 100, 300}) {
            measureBoth("store-profiles/", operation, profiles,
                        [profiles] { return store(profiles, kRulesOfMany); });
        }
    }
    measureBoth("store-rules/", kSettings, 1, [] { return store(1, 1); });
}
