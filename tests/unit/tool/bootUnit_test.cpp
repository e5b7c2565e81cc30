// Which units run "tarnfw boot" when the machine starts.
#include "commands/bootUnit.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

const char kOwn[] = "[Service]\nExecStart=/usr/sbin/tarnfw boot\n";
const char kWanted[] = "/etc/systemd/system/sysinit.target.wants/tarnfw.service";
const char kPackaged[] = "/lib/systemd/system/tarnfw.service";

class BootUnitTest : public testing::Test {
protected:
    void SetUp() override {
        std::string name = fs::temp_directory_path() / "boot_unit.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        root_ = name;
        fs::create_directories(root_ + "/run/systemd/system");
    }
    void TearDown() override { fs::remove_all(root_); }

    void write(const std::string& path, const std::string& text) const {
        fs::create_directories(fs::path(root_ + path).parent_path());
        std::ofstream(root_ + path) << text;
    }

    void link(const std::string& path, const std::string& target) const {
        fs::create_directories(fs::path(root_ + path).parent_path());
        fs::create_symlink(target, root_ + path);
    }

    std::string missing() const { return notAfterRestart(bootUnit(root_)); }

    std::string root_;
};

TEST_F(BootUnitTest, WithoutSystemdNothingIsKnown) {
    write(kPackaged, kOwn);
    link(kWanted, root_ + kPackaged);
    fs::remove(root_ + "/run/systemd/system");
    EXPECT_EQ(bootUnit(root_).enabled, std::nullopt);
    EXPECT_EQ(missing(), "");
}

TEST_F(BootUnitTest, EnabledUnitIsNamed) {
    write(kPackaged, kOwn);
    link(kWanted, root_ + kPackaged);
    EXPECT_EQ(bootUnit(root_).enabled, true);
    EXPECT_EQ(bootUnit(root_).name, "tarnfw.service");
    EXPECT_EQ(missing(), "");
}

TEST_F(BootUnitTest, InstalledUnitIsNotEnabled) {
    write(kPackaged, kOwn);
    EXPECT_EQ(bootUnit(root_).enabled, false);
    EXPECT_EQ(missing(), "tarnfw.service is not enabled; \"systemctl enable tarnfw\" enables it");
}

TEST_F(BootUnitTest, WithoutAnyUnitNothingRunsIt) {
    write("/etc/systemd/system/multi-user.target.wants/other.service",
          "[Service]\nExecStart=/bin/true\n");
    EXPECT_EQ(missing(), "no enabled unit of systemd runs \"tarnfw boot\"");
}

TEST_F(BootUnitTest, AnotherUnitMayRunIt) {
    write("/etc/systemd/system/site.service",
          "[Unit]\nAfter=a.service\n[Service]\nExecStartPre=-/bin/x\n"
          "ExecStart=/bin/sh -c 'tarnfw boot; true'\n");
    link("/etc/systemd/system/multi-user.target.requires/site.service", "../site.service");
    EXPECT_EQ(bootUnit(root_).enabled, true);
    EXPECT_EQ(bootUnit(root_).name, "site.service");
}

TEST_F(BootUnitTest, MaskedUnitDoesNotRun) {
    write(kPackaged, kOwn);
    link(kWanted, root_ + kPackaged);
    link("/etc/systemd/system/tarnfw.service", "/dev/null");
    EXPECT_EQ(bootUnit(root_).enabled, false);
    EXPECT_EQ(missing(), "no enabled unit of systemd runs \"tarnfw boot\"");
}

TEST_F(BootUnitTest, DropInMayClearAndSetWhatRuns) {
    write(kPackaged, kOwn);
    link(kWanted, root_ + kPackaged);
    write("/usr/lib/systemd/system/tarnfw.service.d/20-off.conf", "[Service]\nExecStart=");
    EXPECT_EQ(bootUnit(root_).enabled, false);
    EXPECT_EQ(missing(), "no enabled unit of systemd runs \"tarnfw boot\"");
    write("/etc/systemd/system/tarnfw.service.d/30-on.conf",
          "[Service]\nExecStart=/usr/sbin/tarnfw boot\n");
    EXPECT_EQ(bootUnit(root_).enabled, true);
    link("/etc/systemd/system/tarnfw.service.d/20-off.conf", "/dev/null");
    fs::remove(root_ + "/etc/systemd/system/tarnfw.service.d/30-on.conf");
    EXPECT_EQ(bootUnit(root_).enabled, true);
}

TEST_F(BootUnitTest, RescueIsNoStart) {
    write(kPackaged, kOwn);
    link("/etc/systemd/system/rescue.target.wants/tarnfw.service", root_ + kPackaged);
    EXPECT_EQ(bootUnit(root_).enabled, false);
    EXPECT_EQ(missing(), "tarnfw.service is not enabled; \"systemctl enable tarnfw\" enables it");
}

TEST_F(BootUnitTest, LinkToNowhereAndAMentionDoNotRun) {
    link(kWanted, root_ + kPackaged);
    write("/etc/systemd/system/sysinit.target.wants/notes.service",
          "[Unit]\nDescription=runs before tarnfw boot\n");
    EXPECT_EQ(bootUnit(root_).enabled, false);
}

}  // namespace
}  // namespace tarnfw
