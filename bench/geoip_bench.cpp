/// The ranges of one country as a document, beside reading the file alone.
#include <benchmark/benchmark.h>
#include <json/json.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "tarnfirewall/fwGeoip.h"

#include "support/cases.h"
#include "support/files.h"

namespace {

constexpr char kCountry[] = "ZZ";

void readCountry(benchmark::State& state, int ranges) {
    storeCountry(kCountry, ranges);
    for (auto _ : state) {
        Json::Value document;
        if (!FW::FW_GEOIP().countryIPGet(kCountry, false, document) ||
            document.size() != static_cast<Json::ArrayIndex>(ranges)) {
            std::abort();
        }
        benchmark::DoNotOptimize(document);
    }
}

void readFileAlone(benchmark::State& state, int ranges) {
    storeCountry(kCountry, ranges);
    const std::string path = kGeoipDir + kCountry + ".iv4";
    for (auto _ : state) {
        const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(
            std::fopen(path.c_str(), "rb"), &std::fclose);
        char chunk[4096];
        while (std::fread(chunk, 1, sizeof(chunk), file.get()) > 0) {
            benchmark::DoNotOptimize(chunk);
        }
    }
}

}  // namespace

void registerMeasurements() {
    for (const int ranges : {100, 1000, 10000, 100000}) {
        measure("geoip/countryIPGet", "library", ranges, readCountry);
        measure("geoip/countryIPGet", "floor", ranges, readFileAlone);
    }
}
