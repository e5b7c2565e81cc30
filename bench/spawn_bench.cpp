/// Running a program and waiting for it, as each command line does, beside posix_spawn alone. The
/// times are of the processor, of the caller and the programs together: others share the machine.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tarncore.h"

#include "support/cases.h"

namespace {

struct Command {
    const char* name;
    const char* argv[4];
};

// A program that does nothing, and the two that a reload runs: for each line, and for each rule.
constexpr Command kCommands[] = {
    {"true", {"/bin/true"}},
    {"iptables", {"/sbin/iptables", "-S", "INPUT"}},
    {"tarnnetdtool", {"/usr/tarn/sbin/tarnnetdtool", "--get-ipv6-router-interface", "lo"}},
};

bool runByPlatform(const Command& command) {
    return TLIBCExecv(command.argv[0], command.argv, 1) == 0;
}

bool runBare(const Command& command) {
    pid_t pid = -1;
    int status = -1;
    return posix_spawn(&pid, command.argv[0], nullptr, nullptr,
                       const_cast<char* const*>(command.argv), environ) == 0 &&
           waitpid(pid, &status, 0) == pid && status == 0;
}

double processorSeconds() {
    double seconds = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        (void)getrusage(who, &usage);
        for (const timeval& part : {usage.ru_utime, usage.ru_stime}) {
            seconds += static_cast<double>(part.tv_sec) + 1e-6 * static_cast<double>(part.tv_usec);
        }
    }
    return seconds;
}

template <typename Run>
void measureCommand(const std::string& subject, const char* side, const Command& command, Run run) {
    measure(subject, side, 1, [&command, run](benchmark::State& state, int) {
        for (auto _ : state) {
            const double start = processorSeconds();
            if (!run(command)) {
                std::abort();
            }
            state.SetIterationTime(processorSeconds() - start);
        }
    })->UseManualTime();
}

}  // namespace

void registerMeasurements() {
    for (const Command& command : kCommands) {
        const std::string subject = std::string("spawn/") + command.name;
        measureCommand(subject, "library", command, runByPlatform);
        measureCommand(subject, "floor", command, runBare);
    }
}
