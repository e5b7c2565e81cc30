#include "tarnfwadmin/fileLock.h"

#include <stdlib.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

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

    std::string directory_;
    std::string path_;
};

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

}  // namespace
}  // namespace tarnfw
