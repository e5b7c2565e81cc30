// Work in a separate process: its result, its messages, its end.
#include "commands/applying.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <syslog.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "process/signalsWait.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

/// Runs `change`; what it wrote to standard error is in `errors` then.
bool run(const std::function<bool()>& change, std::string& errors) {
    testing::internal::CaptureStderr();
    bool result = false;
    try {
        result = runWhole("Working", change);
    } catch (...) {
        errors = testing::internal::GetCapturedStderr();
        throw;
    }
    errors = testing::internal::GetCapturedStderr();
    return result;
}

std::string failureOf(const std::function<bool()>& change) {
    std::string errors;
    try {
        (void)run(change, errors);
    } catch (const Error& failure) {
        return failure.what();
    }
    return "no failure";
}

/// Logs, and says something as another program would.
bool noisy(bool result) {
    syslog(LOG_ERR, "fwDB:1 logged");
    std::cerr << "iptables: said\n" << std::flush;
    return result;
}

TEST(RunWholeTest, TheResultIsThatOfTheChange) {
    std::string errors;
    EXPECT_TRUE(run([] { return true; }, errors));
    EXPECT_FALSE(run([] { return false; }, errors));
    EXPECT_EQ(errors, "");
}

TEST(RunWholeTest, TheLogIsShownOfAFailureAlone) {
    std::string errors;
    EXPECT_TRUE(run([] { return noisy(true); }, errors));
    EXPECT_EQ(errors, "iptables: said\n");
    EXPECT_FALSE(run([] { return noisy(false); }, errors));
    EXPECT_EQ(errors, "tarnfw: fwDB:1 logged\niptables: said\n");
}

TEST(RunWholeTest, WhatIsThrownIsTheReason) {
    EXPECT_EQ(failureOf([]() -> bool { throw std::runtime_error("out of order"); }),
              "out of order");
}

TEST(RunWholeTest, AKilledProcessIsAFailure) {
    EXPECT_EQ(failureOf([] { return raise(SIGKILL) == 0; }),
              "the process that applied the change was killed; see \"tarnfw status\"");
}

TEST(RunWholeTest, TheProgramsOfAKilledProcessHaveEnded) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    (void)failureOf([&] {
        if (fork() == 0) {  // a program that goes on for a while
            usleep(200000);
            _exit(write(ends[1], "x", 1) == 1 ? 0 : 1);
        }
        return raise(SIGKILL) == 0;
    });
    char written = ' ';
    EXPECT_EQ(read(ends[0], &written, 1), 1);
    close(ends[0]);
    close(ends[1]);
}

TEST(RunWholeTest, TheWorkIsNotOfTheTerminalsSession) {
    const pid_t session = getsid(0);
    std::string errors;
    EXPECT_TRUE(run([&] { return getsid(0) != session && getpgid(0) == getpid(); }, errors));
}

TEST(RunWholeTest, SignalsWaitUntilItIsDone) {
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
        const auto interrupted = [&] {
            const pid_t parent = getpid();
            (void)runWhole("Working", [&] { return kill(parent, number) == 0; });
            _exit(0);
        };
        EXPECT_EXIT(interrupted(), testing::KilledBySignal(number), "") << number;
        const auto finished = [&] {
            const SignalsWait outer;
            const pid_t parent = getpid();
            _exit(runWhole("Working", [&] { return kill(parent, number) == 0; }) ? 7 : 1);
        };
        EXPECT_EXIT(finished(), testing::ExitedWithCode(7), "") << number;
    }
}

}  // namespace
}  // namespace tarnfw
