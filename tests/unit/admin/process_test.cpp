#include "tarnfwadmin/process.h"

#include <dlfcn.h>
#include <errno.h>
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

namespace {

// Of this process; the one that fails, from 1, or 0.
int reads = 0;
int failingRead = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void* to, size_t bytes) {
    if (++reads == failingRead) {
        errno = EIO;
        return -1;
    }
    using Function = ssize_t (*)(int, void*, size_t);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "read"))(fd, to, bytes);
}

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

TEST(ProcessTest, AnswerThatCannotBeReadIsAnError) {
    const Descriptor input = memoryFile("input");
    const std::vector<std::string> words = {"/bin/sh", "-c", "echo answer"};
    // Each of its reads in turn: of the text, and of the ends of the two streams.
    for (failingRead = 1; failingRead <= 3; ++failingRead) {
        reads = 0;
        try {
            (void)runProgram(words, input.get());
            ADD_FAILURE() << "read " << failingRead;
        } catch (const Error& error) {
            EXPECT_STREQ(error.what(), "cannot read what /bin/sh answers: Input/output error");
        }
    }
    failingRead = 0;
    EXPECT_EQ(runProgram(words, input.get()).output, "answer\n");
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
