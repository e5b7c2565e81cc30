/// The benchmarks' main: they write to fixed system paths, so they run in script/sandbox or not at
/// all.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "files.h"

void registerMeasurements();  // each program's own

namespace {

/// Tells how much memory the process has had at most. The kernel's count for a parent would begin
/// with the parent's own.
void tellPeak() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        long kib = 0;
        if (std::sscanf(line.c_str(), "VmHWM: %ld kB", &kib) == 1) {
            std::fprintf(stderr, "peak: %ld KiB\n", kib);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    requireSandbox();
    registerMeasurements();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    tellPeak();
    return 0;
}
