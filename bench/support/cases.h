/// How the programs name what they measure: "subject/case/side/size", such as
/// "translation/plain/library/1000". Sides of one case and size are compared with each other.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>

/// Registers one measurement. `run` is called with the state and the size; its setup is before
/// the loop over the state. Returns the registered benchmark, for further settings.
inline benchmark::internal::Benchmark* measure(
    const std::string& subject, const std::string& side, int size,
    const std::function<void(benchmark::State&, int)>& run) {
    const std::string name = subject + "/" + side + "/" + std::to_string(size);
    return benchmark::RegisterBenchmark(name.c_str(),
                                        [run, size](benchmark::State& state) { run(state, size); })
        ->Unit(benchmark::kMicrosecond);
}
