#include "tarnfwadmin/process.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/program.h"

namespace tarnfw {
namespace {

std::optional<int> endOf(const std::function<int()>& work) {
    return exitStatusOf(startProcess("a process", work));
}

TEST(ProcessTest, EndsWithTheStatusOfItsWork) {
    EXPECT_EQ(endOf([] { return 0; }), 0);
    EXPECT_EQ(endOf([] { return 42; }), 42);
}

TEST(ProcessTest, AnExceptionEndsOnlyTheProcess) {
    EXPECT_EQ(endOf([]() -> int { throw std::runtime_error("no"); }), 1);
    EXPECT_EQ(endOf([]() -> int { throw 1; }), 1);
}

TEST(ProcessTest, BecomesAProgramWithItsArguments) {
    EXPECT_EQ(endOf([] { return becomeProgram({"/bin/sh", "-c", "exit $1", "sh", "7"}); }), 7);
    EXPECT_EQ(endOf([] { return becomeProgram({"/nowhere/program"}); }), kProgramNotRun);
}

TEST(ProcessTest, AKilledProcessHasNoExitStatus) {
    const auto killed = [] { return raise(SIGKILL); };
    EXPECT_EQ(endOf(killed), std::nullopt);
    EXPECT_EQ(waitStatusOf(startProcess("a process", killed)), SIGKILL);
}

TEST(ProcessTest, ProgramGetsItsInputAndItsVariable) {
    const Descriptor input = memoryFile("input");
    ASSERT_TRUE(writeText(input.get(), "given\n"));
    const std::vector<std::string> words = {"/bin/sh", "-c",
                                            "cat; echo \"$OWN\" >&2; exit ${OWN:+7}"};
    // In a copy of this process, and without one.
    for (const std::function<bool()>& enter :
         {std::function<bool()>([] { return true; }), std::function<bool()>()}) {
        ASSERT_EQ(lseek(input.get(), 0, SEEK_SET), 0);
        const ProgramAnswer answer = runProgram(words, input.get(), enter, 0, "OWN=value");
        EXPECT_EQ(answer.status, 7);
        EXPECT_EQ(answer.output, "given\n");
        EXPECT_EQ(answer.errors, "value\n");
        EXPECT_EQ(getenv("OWN"), nullptr);
    }
}

TEST(ProcessTest, MissingProgramIsAnError) {
    const Descriptor input = memoryFile("input");
    EXPECT_THROW((void)runProgram({"/nowhere/program"}, input.get()), Error);
    EXPECT_THROW((void)runProgram({"/nowhere/program"}, input.get(), [] { return true; }), Error);
    EXPECT_THROW((void)runProgram({"/bin/true"}, input.get(), [] { return false; }), Error);
}

TEST(ProcessTest, WaitsOnlyForChildren) {
    EXPECT_EQ(waitStatusOf(getpid()), std::nullopt);
}

// Where the handler of SIGALRM writes.
int alarmPipe = -1;

// The process ends only after several signals, so most of them interrupt the wait for it.
TEST(ProcessTest, WaitsOnAfterASignal) {
    Pipe alarms;
    alarmPipe = alarms.writeEnd.get();
    const pid_t process = startProcess("a process", [&] {
        char byte = 0;
        for (int count = 0; count < 5; ++count) {
            if (read(alarms.readEnd.get(), &byte, 1) != 1) {
                return 4;
            }
        }
        return 3;
    });
    struct sigaction action {};
    struct sigaction before {};
    // Without SA_RESTART, so that it interrupts waitpid().
    action.sa_handler = [](int) { (void)!write(alarmPipe, "x", 1); };
    ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
    const itimerval every = {{0, 1000}, {0, 1000}};  // a millisecond
    const itimerval never{};
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);
    EXPECT_EQ(exitStatusOf(process), 3);
    (void)setitimer(ITIMER_REAL, &never, nullptr);
    (void)sigaction(SIGALRM, &before, nullptr);
}

}  // namespace
}  // namespace tarnfw
