#include "hostIptables.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "logged.h"
#include "syslog_capture.h"
#include "tarncore.h"

namespace {

using host::OwnLockFile;
using host::underXtablesLock;
using std::chrono::hours;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr char kProgram[] = "/sbin/iptables";
constexpr int kLockTaken = 4;  // the status of a program that finds it taken

class XtablesLockRunTest : public ::testing::Test {
protected:
    XtablesLockRunTest()
        : other_(open(FW::kXtablesLockPath, O_RDONLY | O_CREAT | O_CLOEXEC, 0600)) {
        clearCapturedLog();
    }
    ~XtablesLockRunTest() override { close(other_); }

    bool isFree() const {
        const bool got = flock(other_, LOCK_EX | LOCK_NB) == 0;
        if (got) {
            (void)flock(other_, LOCK_UN);
        }
        return got;
    }
    void take() const { ASSERT_EQ(flock(other_, LOCK_EX), 0); }
    void release() const { ASSERT_EQ(flock(other_, LOCK_UN), 0); }

    // Runs a program that ends with these statuses, one a time; records how it was run.
    int run(std::vector<int> statuses, milliseconds most = hours(1)) {
        return underXtablesLock(
            kProgram,
            [&, this](OwnLockFile own) {
                runs_.push_back(own);
                wasFree_.push_back(isFree());
                const int status = statuses.front();
                statuses.erase(statuses.begin());
                return status;
            },
            most);
    }

    int other_;
    std::vector<OwnLockFile> runs_;
    std::vector<bool> wasFree_;
};

TEST_F(XtablesLockRunTest, TheProgramRunsWhileTheLockIsHeldAndNeedsItNot) {
    EXPECT_EQ(run({2}), 2);
    EXPECT_THAT(runs_, ElementsAre(OwnLockFile::kYes));
    EXPECT_THAT(wasFree_, ElementsAre(false));
    EXPECT_TRUE(isFree());
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(XtablesLockRunTest, AProgramThatDoesNotStartIsNotRunAgain) {
    EXPECT_EQ(run({-1}), -1);
    EXPECT_EQ(runs_.size(), 1u);
}

TEST_F(XtablesLockRunTest, AnOldProgramIsRunAgainUntilItHasTheLockItself) {
    EXPECT_EQ(run({kLockTaken, kLockTaken, 0}), 0);
    EXPECT_THAT(runs_, ElementsAre(OwnLockFile::kYes, OwnLockFile::kNo, OwnLockFile::kNo));
    EXPECT_THAT(wasFree_, ElementsAre(false, true, true));
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(XtablesLockRunTest, AnOldProgramThatNeverGetsTheLockFails) {
    EXPECT_EQ(run({kLockTaken, kLockTaken}, milliseconds(1)), -1);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("another program holds /run/xtables.lock")));
}

TEST_F(XtablesLockRunTest, NothingRunsWhileAnotherProgramHoldsTheLock) {
    take();
    EXPECT_EQ(run({0}, milliseconds(20)), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_THAT(runs_, IsEmpty());
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("Cannot run /sbin/iptables: another program holds "
                                      "/run/xtables.lock; waited 20 ms")));
}

TEST_F(XtablesLockRunTest, AfterAWaitInVainTheNextOnesAreShortUntilOneSucceeds) {
    take();
    EXPECT_EQ(run({0}, milliseconds(150)), -1);
    EXPECT_EQ(run({0}, hours(1)), -1);
    release();
    EXPECT_EQ(run({0}, hours(1)), 0);
    take();
    EXPECT_EQ(run({0}, milliseconds(150)), -1);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("waited 150 ms"), HasSubstr("waited 100 ms"),
                                             HasSubstr("waited 150 ms")));
}

TEST_F(XtablesLockRunTest, ALockFileThatCannotBeOpenedIsNamed) {
    close(other_);
    ASSERT_EQ(unlink(FW::kXtablesLockPath), 0);
    ASSERT_EQ(symlink("/nowhere/xtables.lock", FW::kXtablesLockPath), 0);
    EXPECT_EQ(run({0}), -1);
    EXPECT_THAT(logged(LOG_ERR),
                ElementsAre(HasSubstr("Cannot run /sbin/iptables: cannot lock /run/xtables.lock: "
                                      "No such file or directory")));
}

TEST_F(XtablesLockRunTest, OtherProgramsTakeNoLock) {
    EXPECT_FALSE(host::takesXtablesLock("/bin/true"));
    EXPECT_FALSE(host::takesXtablesLock("/sbin/no-such-program"));
}

// ---- A machine without IPv6 ----

int execute(const char* path) {
    const char* const argv[] = {path, "-F", "INPUT_FIREWALL", nullptr};
    return TLIBCExecv(path, argv, 1);
}

// Empties /sbin. Each case is a process of its own, so nothing of this is left for the next one.
void hidePrograms() {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    const std::string directory = std::filesystem::canonical("/sbin");
    ASSERT_EQ(mount("none", directory.c_str(), "tmpfs", 0, nullptr), 0);
}

TEST(AbsentFamilyTest, Ip6tablesThatIsNotThereSucceedsAndIptablesDoesNot) {
    ASSERT_NO_FATAL_FAILURE(hidePrograms());
    clearCapturedLog();
    EXPECT_EQ(execute("/sbin/ip6tables"), 0);
    EXPECT_THAT(logged(LOG_ERR), IsEmpty());
    EXPECT_EQ(execute("/sbin/iptables"), -1);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Cannot run /sbin/iptables: ")));
}

/// Makes an ip6tables that fails with these words.
void answer(const std::string& words) {
    std::ofstream("/sbin/ip6tables") << "#!/bin/sh\necho '" << words << "' >&2\nexit 3\n";
    ASSERT_EQ(chmod("/sbin/ip6tables", 0755), 0);
}

TEST(AbsentFamilyTest, AKernelWithoutTheFamilyIsNamedOnce) {
    ASSERT_NO_FATAL_FAILURE(hidePrograms());
    clearCapturedLog();
    testing::internal::CaptureStderr();
    answer("ip6tables: host/network 10.0.0.1 not found");
    EXPECT_EQ(execute("/sbin/ip6tables"), 3);
    EXPECT_EQ(execute("/sbin/ip6tables"), 3);
    answer("ip6tables: can not initialize ip6tables table filter: Address family not supported");
    EXPECT_EQ(execute("/sbin/ip6tables"), 3);
    EXPECT_EQ(execute("/sbin/ip6tables"), 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ip6tables: host/network 10.0.0.1 not found\n"
              "ip6tables: host/network 10.0.0.1 not found\n"
              "ip6tables: can not initialize ip6tables table filter: Address family not "
              "supported\n");
    EXPECT_THAT(logged(LOG_WARNING), testing::SizeIs(3));
}

TEST(ErrorsOfIp6tablesTest, DoNotEndAProcessWhoseReaderIsGone) {
    ASSERT_NO_FATAL_FAILURE(hidePrograms());
    answer("ip6tables: host/network 10.0.0.1 not found");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const int own = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    const int status = execute("/sbin/ip6tables");
    dup2(own, STDERR_FILENO);
    EXPECT_EQ(status, 3);
    sigset_t waiting;
    sigpending(&waiting);
    EXPECT_EQ(sigismember(&waiting, SIGPIPE), 0);
}

TEST(ErrorsOfIp6tablesTest, DoNotReachAFileOfTheCallerThatHasTheirNumber) {
    ASSERT_NO_FATAL_FAILURE(hidePrograms());
    answer("ip6tables: host/network 10.0.0.1 not found");
    const int own = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int file = open("/sbin/file", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(dup3(file, STDERR_FILENO, O_CLOEXEC), 0);
    const int status = execute("/sbin/ip6tables");
    dup2(own, STDERR_FILENO);
    EXPECT_EQ(status, 3);
    EXPECT_EQ(lseek(file, 0, SEEK_END), 0);
}

TEST(AbsentFamilyTest, Ip6tablesThatCannotBeRunIsAFailure) {
    ASSERT_NO_FATAL_FAILURE(hidePrograms());
    const int file = open("/sbin/ip6tables", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    close(file);
    clearCapturedLog();
    EXPECT_EQ(execute("/sbin/ip6tables"), -1);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Cannot run /sbin/ip6tables: ")));
}

}  // namespace
