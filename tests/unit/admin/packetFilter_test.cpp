// When a family is absent; the kernel tests have what is listed.
#include "tarnfwadmin/packetFilter.h"

#include <sys/mount.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kernel_testing.h"

namespace tarnfw {
namespace {

class PacketFilterTest : public KernelTest {
protected:
    /// An empty directory for the programs, in the mounts of this case.
    void SetUp() override {
        KernelTest::SetUp();
        ASSERT_EQ(mount("none", "/usr/sbin", "tmpfs", 0, nullptr), 0);
    }
};

TEST_F(PacketFilterTest, FamilyWithoutAProgramIsAbsent) {
    EXPECT_FALSE(hasProgram("v6"));
    EXPECT_FALSE(MachineKernel().listPresent("v6", "filter"));
}

// Its chains would be forgotten.
TEST_F(PacketFilterTest, FamilyWhoseProgramCannotBeLookedForIsNotAbsent) {
    ASSERT_EQ(symlink("ip6tables", "/usr/sbin/ip6tables"), 0);

    EXPECT_TRUE(hasProgram("v6"));
    expectError(ErrorKind::kSystem, "cannot run /sbin/ip6tables: Too many levels of symbolic links",
                [] { (void)MachineKernel().listPresent("v6", "filter"); });
}

}  // namespace
}  // namespace tarnfw
