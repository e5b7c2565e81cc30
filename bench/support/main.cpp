/// The benchmarks' main: they write to fixed system paths, so they run in script/sandbox or not at
/// all.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "files.h"
#include "peak.h"

void registerMeasurements();  // each program's own

int main(int argc, char** argv) {
    requireSandbox();
    registerMeasurements();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    tellPeak(stderr);
    return 0;
}
