// The C interface: its codes for a lock that another program holds, and for missing rights.
#include "tarnfwadmin/tarnfwadmin_c.h"

#include <dlfcn.h>
#include <sched.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_testing.h"
#include "tarncore.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/storeSession.h"

namespace {

// How long the library would have waited for locks, in order.
std::vector<int> waits;

}  // namespace

/// The platform's function without the waiting, for this program and the libraries that it loads.
__attribute__((visibility("default"))) int TLIBCFileLockTimeByFile(const char* path, int mode,
                                                                   int seconds, int* fd) {
    waits.push_back(seconds);
    const auto real =
        reinterpret_cast<decltype(&TLIBCFileLockTimeByFile)>(dlsym(RTLD_NEXT, __func__));
    return real(path, mode, 0, fd);
}

namespace tarnfw {
namespace {

struct Operation {
    const char* name;
    int (*run)(char* reason, size_t size);
};

// Those that change something.
const Operation kChanges[] = {
    {"add_rule",
     [](char* reason, size_t size) {
         return tarnfwadmin_add_rule("home", "global", "deny tcp 80", reason, size);
     }},
    {"enable", tarnfwadmin_enable},
    {"disable", tarnfwadmin_disable},
    {"reload", tarnfwadmin_reload},
};

class CInterfaceTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        home_ = contentOf(kHomeFile);
        settings_ = contentOf(kSettingsFile);
        waits.clear();
    }

    /// Expects each of kChanges to fail like this and to change nothing.
    void expectAll(int code, const std::string& text) const {
        for (const Operation& operation : kChanges) {
            char reason[200] = "untouched";
            EXPECT_EQ(operation.run(reason, sizeof reason), code) << operation.name;
            EXPECT_EQ(reason, text) << operation.name;
        }
        EXPECT_EQ(contentOf(kHomeFile), home_);
        EXPECT_EQ(contentOf(kSettingsFile), settings_);
    }

    /// Expects those that only read to work.
    static void expectReading() {
        char reason[200];
        EXPECT_EQ(tarnfwadmin_check_rule("deny tcp 80", reason, sizeof reason), TARNFWADMIN_OK);
        int allowed = 7;
        EXPECT_EQ(
            tarnfwadmin_decide("10.0.0.5", "tcp/22", "global", &allowed, reason, sizeof reason),
            TARNFWADMIN_OK);
        EXPECT_EQ(allowed, 1);
        EXPECT_STREQ(reason, "the firewall is disabled");
        int blocked = 7;
        EXPECT_EQ(tarnfwadmin_blocked("ssh", "global", &blocked, reason, sizeof reason),
                  TARNFWADMIN_OK)
            << reason;
        EXPECT_EQ(blocked, 0);
    }

private:
    std::string home_;
    std::string settings_;
};

TEST_F(CInterfaceTest, BusyWhileAnotherHoldsTheStore) {
    makeDirectory(kRunDir);
    const FileLock other(std::string(kRunDir) + "/store.lock", 0);
    ASSERT_TRUE(other.held());
    waits.clear();
    expectAll(TARNFWADMIN_BUSY, "/run/tarn/store.lock is locked by another process");
    EXPECT_THAT(waits, testing::ElementsAre(30, 30, 30, 30));
    expectReading();
}

TEST_F(CInterfaceTest, NoRightsForAnOrdinaryUser) {
    // A user who has no name here; where ids cannot be changed, a new user namespace has only him.
    constexpr uid_t kNobody = 65534;
    ASSERT_TRUE(setresuid(kNobody, kNobody, kNobody) == 0 || unshare(CLONE_NEWUSER) == 0);
    expectAll(TARNFWADMIN_NO_RIGHTS, "this needs root's rights");
    EXPECT_THAT(waits, testing::IsEmpty()) << "not a matter of waiting";
    expectReading();
}

// With root's rights and the lock free, the same calls get further.
TEST_F(CInterfaceTest, NeitherForRootAlone) {
    char reason[200];
    EXPECT_EQ(kChanges[0].run(reason, sizeof reason), TARNFWADMIN_OK) << reason;
    EXPECT_STREQ(reason, "rule 3 of global: deny tcp 80 from anywhere");
    EXPECT_EQ(tarnfwadmin_reload(reason, sizeof reason), TARNFWADMIN_OK) << reason;
}

}  // namespace
}  // namespace tarnfw
