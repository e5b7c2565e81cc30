/// The blocked check of a service, beside jsoncpp's parse of the files that it reads.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tarnfirewall/tarnFW.h"

#include "support/cases.h"
#include "support/files.h"

void registerMeasurements() {
    for (const int rules : {10, 100, 1000, 10000}) {
        // Two ports, TCP: two queries, each of which reads the settings and the profile again.
        measure("blocked/fwServIsBlocked", "library", rules, [](benchmark::State& state, int size) {
            storeProfiles(1, size);
            for (auto _ : state) {
                std::map<std::string, FW::FW_POLICY> verdicts;
                if (!FW::TARNFW().fwServIsBlocked("smb", "eth0", verdicts)) {
                    std::abort();
                }
                benchmark::DoNotOptimize(verdicts);
            }
        });
        measure("blocked/fwServIsBlocked", "floor", rules, [](benchmark::State& state, int size) {
            const std::vector<std::string> texts = storeProfiles(1, size);
            for (auto _ : state) {
                for (const std::string& text : texts) {
                    Json::Value document;
                    benchmark::DoNotOptimize(Json::Reader().parse(text, document));
                }
            }
        });
    }
}
