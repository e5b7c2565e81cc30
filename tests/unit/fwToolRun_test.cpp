// Running a program with text on its standard input: its input, its result, and that neither the
// caller's signals nor its descriptors interfere.

#include "fwToolRun.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fwXtablesLock.h"
#include "needs.h"

namespace {

using FW::ToolResult;
using FW::ToolRun;

const std::string kXtablesLock = "/run/xtables.lock";

std::vector<std::string> shell(const std::string& script) {
    return {"/bin/sh", "-c", script};
}

ToolResult resultOf(const std::string& script, const std::string& input = "") {
    return ToolRun(shell(script), input).finish();
}

TEST(ToolRunTest, OutputErrorsAndStatusAreKept) {
    const ToolResult result = resultOf("echo out; echo err >&2; exit 3");
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.output, "out\n");
    EXPECT_EQ(result.errors, "err\n");
}

TEST(ToolRunTest, InputArrivesWhole) {
    const std::string input(3'000'000, 'x');
    const ToolResult result = resultOf("cat; wc -c >&2", input);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, input);
    EXPECT_EQ(result.errors, "0\n");
}

TEST(ToolRunTest, InputThatIsNotReadIsNoFailure) {
    EXPECT_EQ(resultOf("exit 0", std::string(3'000'000, 'x')).status, 0);
}

TEST(ToolRunTest, SignalCountsAsAStatus) {
    EXPECT_EQ(resultOf("kill -TERM $$").status, 128 + SIGTERM);
}

TEST(ToolRunTest, ProgramThatDoesNotExist) {
    const ToolResult result = ToolRun({"/nowhere/tool"}, "").finish();
    EXPECT_EQ(result.status, 127);
    EXPECT_EQ(result.errors, "No such file or directory");
    ToolRun fed({"/nowhere/tool"});
    fed.feed("line\n");
    EXPECT_FALSE(fed.awaitOutput("done\n"));
    EXPECT_EQ(fed.finish().status, 127);
}

TEST(ToolRunTest, ArgumentsAreNotSplit) {
    const ToolResult result = ToolRun({"/bin/echo", "a  b", "", "$HOME"}, "").finish();
    EXPECT_EQ(result.output, "a  b  $HOME\n");
}

TEST(ToolRunTest, EnvironmentIsFixed) {
    ASSERT_EQ(setenv("LD_PRELOAD_OF_SOMEBODY", "x", 1), 0);
    EXPECT_EQ(ToolRun({"/usr/bin/env"}, "").finish().output,
              "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n"
              "XTABLES_LOCKFILE=/proc/self/fd/1\n");
}

TEST(ToolRunTest, CallersDescriptorsStayBehind) {
    const int inherited = open("/dev/null", O_RDONLY);  // not closed by executing a program
    ASSERT_GE(inherited, 3);
    const ToolResult result = resultOf("ls /proc/$$/fd");
    EXPECT_EQ(result.output, "0\n1\n2\n");
    close(inherited);
}

TEST(ToolRunTest, ClosedStandardDescriptorsDoNotMatter) {
    const pid_t child = fork();
    if (child == 0) {
        for (const int fd : {0, 1, 2}) {
            close(fd);
        }
        const ToolResult result = resultOf("cat; echo err >&2", "in");
        ToolRun fed(shell("cat"));
        fed.feed("fed");
        const bool right =
            result.output == "in" && result.errors == "err\n" && fed.finish().output == "fed";
        _exit(right ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(ToolRunTest, SignalsAreThoseOfAFreshProcess) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &before), 0);
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    const ToolResult ended = resultOf("kill -TERM $$; echo blocked");
    const ToolResult broken = resultOf("kill -PIPE $$; echo ignored");
    (void)std::signal(SIGPIPE, ignored);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    EXPECT_EQ(ended.status, 128 + SIGTERM);
    EXPECT_EQ(broken.status, 128 + SIGPIPE);
}

TEST(ToolRunTest, StatusIsLostWhereTheCallerIgnoresItsChildren) {
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    const ToolResult result = resultOf("echo done; exit 3");
    (void)std::signal(SIGCHLD, before);
    EXPECT_EQ(result.status, std::nullopt);
    EXPECT_EQ(result.output, "done\n");
}

// ---- Input piece by piece ----

TEST(ToolRunTest, PiecesArriveInOrderAndTheInputEnds) {
    ToolRun run(shell("cat; echo end"));
    run.feed("one\n");
    run.feed("");
    run.feed("two\n");
    EXPECT_EQ(run.finish().output, "one\ntwo\nend\n");
}

TEST(ToolRunTest, FeedingDoesNotWaitForTheProgram) {
    TARN_NEEDS_LARGE_BUFFERS();
    // Reads nothing before the second program has read all of its input.
    ToolRun first(shell("read -r path; until [ -e \"$path\" ]; do :; done; cat >/dev/null"));
    ToolRun second(shell("cat >/dev/null; : >/tmp/second_is_through"));
    first.feed("/tmp/second_is_through\n" + std::string(1'000'000, 'x'));
    second.feed(std::string(1'000'000, 'x'));
    EXPECT_EQ(second.finish().status, 0);
    EXPECT_EQ(first.finish().status, 0);
}

TEST(ToolRunTest, AwaitingReturnsWhenWhatWasFedIsDone) {
    ToolRun run(shell("read -r line; : >/tmp/$line; echo done; cat"));
    run.feed("is_done\n");
    EXPECT_TRUE(run.awaitOutput("done\n"));
    EXPECT_EQ(access("/tmp/is_done", F_OK), 0);
    EXPECT_EQ(run.finish().status, 0);
}

TEST(ToolRunTest, ProgramThatBuffersItsOutputPrintsWhenItHasMoreThanThat) {
    ToolRun run({"/bin/sed", "--quiet", "p"});
    run.feed("done\n" + std::string(ToolRun::outputBufferBytes(), '#') + "\n");
    EXPECT_TRUE(run.awaitOutput("done\n"));
    EXPECT_EQ(run.finish().status, 0);
}

TEST(ToolRunTest, LookingAtTheOutputLeavesThePositionOfTheProgram) {
    ToolRun run({"/usr/bin/perl", "-e",
                 "syswrite STDOUT, '0123456789'; sysseek STDOUT, 2, 0; <STDIN>;"
                 "syswrite STDOUT, 'xy'"});
    ASSERT_TRUE(run.awaitOutput("9"));
    run.feed("go on\n");
    EXPECT_EQ(run.finish().output, "01xy456789");
}

TEST(ToolRunTest, AwaitingFindsALineThatComesInPieces) {
    ToolRun run(shell("printf do; read -r line; printf 'ne\\n'; cat"));
    ASSERT_TRUE(run.awaitOutput("do"));
    run.feed("go on\n");
    EXPECT_TRUE(run.awaitOutput("done\n"));
    EXPECT_EQ(run.finish().status, 0);
}

TEST(ToolRunTest, AwaitingTellsThatTheProgramHasEnded) {
    ToolRun run(shell("read -r line; exit 2"));
    run.feed("line\n");
    EXPECT_FALSE(run.awaitOutput("done\n"));
    run.feed("more\n");  // no signal for the caller
    EXPECT_EQ(run.finish().status, 2);
}

/// Makes sending fail: puts /dev/null in the place of the socket, which stays open under another
/// number. Returns that.
int breakInput() {
    for (int fd = 3; fd < 100; ++fd) {
        struct stat info {};
        if (fstat(fd, &info) == 0 && S_ISSOCK(info.st_mode)) {
            const int kept = fcntl(fd, F_DUPFD_CLOEXEC, 100);
            const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
            EXPECT_EQ(dup3(null, fd, O_CLOEXEC), fd);
            close(null);
            return kept;
        }
    }
    return -1;
}

TEST(ToolRunTest, ProgramWhoseInputCannotBeSentIsKilled) {
    ToolRun run(shell("read -r line; echo \"$line\"; cat; : >/tmp/took_it_for_the_end; exit 0"));
    run.feed("first\n");
    ASSERT_TRUE(run.awaitOutput("first\n"));
    const int kept = breakInput();
    ASSERT_GE(kept, 0);
    const auto begin = std::chrono::steady_clock::now();
    run.feed("second\n");
    EXPECT_FALSE(run.awaitOutput("second\n"));
    const ToolResult result = run.finish();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(result.status, 128 + SIGKILL);
    EXPECT_EQ(result.errors, "cannot send it its input: Socket operation on non-socket");
    EXPECT_NE(access("/tmp/took_it_for_the_end", F_OK), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    close(kept);
}

TEST(ToolRunTest, AwaitingNoticesThatTheProgramWaitsForFurtherInput) {
    ToolRun run({"/bin/sed", "--quiet", "d"});
    run.feed("line\n");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(run.awaitOutput("line\n"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(run.finish().status, 0);
}

TEST(ToolRunTest, AwaitingGoesOnWhileTheProgramWorks) {
    ToolRun run(shell("read -r line; sleep 3; echo done; cat"));
    run.feed("line\n");
    EXPECT_TRUE(run.awaitOutput("done\n"));
    EXPECT_EQ(run.finish().status, 0);
}

TEST(ToolRunTest, AbandonedRunGetsTheEndOfItsInputAndIsWaitedFor) {
    {
        ToolRun run(shell("cat >/tmp/abandoned; : >/tmp/abandoned_ended"));
        run.feed("half\n");
    }
    EXPECT_EQ(access("/tmp/abandoned_ended", F_OK), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// ---- The lock ----

class XtablesLockTest : public ::testing::Test {
protected:
    XtablesLockTest() : other_(open(kXtablesLock.c_str(), O_RDONLY | O_CREAT, 0600)) {}
    ~XtablesLockTest() override { close(other_); }

    bool otherGetsIt() {
        const bool got = flock(other_, LOCK_EX | LOCK_NB) == 0;
        if (got) {
            (void)flock(other_, LOCK_UN);
        }
        return got;
    }

    int other_;
};

TEST_F(XtablesLockTest, KeepsOthersOutForItsLife) {
    {
        const FW::XtablesLock lock;
        EXPECT_TRUE(lock.held());
        EXPECT_FALSE(otherGetsIt());
    }
    EXPECT_TRUE(otherGetsIt());
}

TEST_F(XtablesLockTest, WaitsForOthers) {
    ASSERT_EQ(flock(other_, LOCK_EX), 0);
    bool held = false;
    std::thread waiting([&held] { held = FW::XtablesLock().held(); });
    // Until it has the file open: only then can it be waiting.
    std::string open;
    while (open.find(kXtablesLock) == open.rfind(kXtablesLock)) {
        open = resultOf("ls -l /proc/" + std::to_string(getpid()) + "/fd").output;
    }
    EXPECT_FALSE(held);
    ASSERT_EQ(flock(other_, LOCK_UN), 0);
    waiting.join();
    EXPECT_TRUE(held);
}

TEST_F(XtablesLockTest, FileThatCannotBeOpenedIsNoLock) {
    close(other_);
    ASSERT_EQ(unlink(kXtablesLock.c_str()), 0);
    ASSERT_EQ(symlink("/nowhere/xtables.lock", kXtablesLock.c_str()), 0);
    errno = 0;
    const FW::XtablesLock lock;
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(lock.held());
    ASSERT_EQ(unlink(kXtablesLock.c_str()), 0);
    other_ = open(kXtablesLock.c_str(), O_RDONLY | O_CREAT, 0600);
}

}  // namespace
