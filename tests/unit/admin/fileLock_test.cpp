#include "tarnfwadmin/fileLock.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/process.h"

namespace fs = std::filesystem;

namespace tarnfw {
namespace {

class FileLockTest : public ::testing::Test {
protected:
    void SetUp() override {
        directory_ = fs::temp_directory_path() / "file_lock.XXXXXX";
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        path_ = directory_ + "/lock";
    }
    void TearDown() override { fs::remove_all(directory_); }

    /// Whether another process gets the lock at once.
    bool isFree() const {
        return exitStatusOf(startProcess("a process",
                                         [&] { return FileLock(path_, 0).held() ? 0 : 1; })) == 0;
    }

    /// The message of awaitUnlocked(); empty when nobody held the lock.
    std::string waited(LockTime& time, bool (*isHeld)(const std::string& path) = isLocked) const {
        try {
            awaitUnlocked(path_, time, isHeld);
        } catch (const Error& busy) {
            EXPECT_EQ(busy.kind(), ErrorKind::kBusy);
            return busy.what();
        }
        return "";
    }

    std::string directory_;
    std::string path_;
};

/// A process that has locked a file and waits, until the object ends.
class Holder {
public:
    explicit Holder(const std::function<bool()>& lock) {
        const Pipe ready;
        process_ = startProcess("a process", [&] {
            (void)writeText(ready.writeEnd.get(), lock() ? "1" : "0");
            for (;;) {
                (void)pause();
            }
            return 0;
        });
        char held = '0';
        EXPECT_EQ(read(ready.readEnd.get(), &held, 1), 1);
        EXPECT_EQ(held, '1');
    }
    ~Holder() {
        (void)kill(process_, SIGKILL);
        (void)waitStatusOf(process_);
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    void stop() const {
        (void)kill(process_, SIGSTOP);
        int status = 0;
        EXPECT_EQ(waitpid(process_, &status, WUNTRACED), process_);
    }

    std::string text() const { return "process " + std::to_string(process_) + " (fileLock_test)"; }

private:
    pid_t process_ = -1;
};

/// The lock of the process, as the library locks documents.
bool lockAsProcess(const std::string& path) {
    const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    return fcntl(file, F_SETLK, &range) == 0;
}

TEST_F(FileLockTest, HoldsFromConstructionToDestruction) {
    {
        const FileLock lock(path_, 0);
        EXPECT_TRUE(lock.held());
        EXPECT_FALSE(isFree());
    }
    EXPECT_TRUE(isFree());
}

TEST_F(FileLockTest, IsNotHeldWhereAnotherHasIt) {
    const FileLock lock(path_, 0);
    {
        const FileLock other(path_, 0);
        EXPECT_FALSE(other.held());
    }
    EXPECT_FALSE(isFree());  // the end of the other one gave nothing back
}

TEST_F(FileLockTest, IsNotHeldWithoutADirectory) {
    EXPECT_FALSE(FileLock(directory_ + "/no/lock", 0).held());
}

TEST_F(FileLockTest, WaitsNoLongerThanTheTimeOfTheTaskAllTogether) {
    const Holder holder([&] { return (new FileLock(path_, 0))->held(); });
    LockTime time(std::chrono::milliseconds(300));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(waited(time), "");
    EXPECT_EQ(time.left(), std::chrono::milliseconds::zero());
    EXPECT_NE(waited(time), "");
    EXPECT_FALSE(FileLock(path_, time).held());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(FileLockTest, SeesALockOfFlock) {
    EXPECT_FALSE(isFlocked(path_));
    const Holder holder(
        [&] { return flock(open(path_.c_str(), O_RDWR | O_CREAT, 0600), LOCK_EX) == 0; });
    holder.stop();
    EXPECT_TRUE(isFlocked(path_));
    EXPECT_FALSE(isLocked(path_));
    LockTime time(std::chrono::milliseconds(1));
    EXPECT_EQ(waited(time, isFlocked),
              path_ + " is locked by " + holder.text() + ", which is stopped");
    EXPECT_EQ(waited(time), "");
    const FileLock another(path_ + "2", 0);
    EXPECT_FALSE(isFlocked(path_ + "2"));
}

TEST_F(FileLockTest, DoesNotWaitForALockThatNobodyHolds) {
    LockTime time(std::chrono::milliseconds::zero());
    EXPECT_EQ(waited(time), "");  // nor is there a file
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_TRUE(FileLock(path_, time).held());
    EXPECT_EQ(waited(time), "");
    EXPECT_TRUE(isFree());
}

TEST_F(FileLockTest, NamesTheProcessThatHoldsTheLock) {
    LockTime time(std::chrono::milliseconds::zero());
    {
        const Holder holder([&] { return (new FileLock(path_, 0))->held(); });
        EXPECT_EQ(waited(time), path_ + " is locked by " + holder.text());
        holder.stop();
        EXPECT_EQ(waited(time), path_ + " is locked by " + holder.text() + ", which is stopped");
    }
    const Holder holder([&] { return lockAsProcess(path_); });
    EXPECT_EQ(waited(time), path_ + " is locked by " + holder.text());
}

}  // namespace
}  // namespace tarnfw
