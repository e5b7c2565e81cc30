// What sandbox_main promises: no case sees what another has left.
#include <gtest/gtest.h>
#include <net/if.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

const std::string kFiles[] = {
    "/left", "/tmp/left", "/run/left/deep/file", "/usr/tarn/left", "/usr/share/xt_geoip/left",
};

mode_t modeOf(const std::string& path) {
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

std::string hostName() {
    char name[64] = {};
    EXPECT_EQ(gethostname(name, sizeof name - 1), 0);
    return name;
}

// A process that no longer is this one's child.
void leaveProcess(const std::string& name) {
    const pid_t between = fork();
    if (between == 0) {
        if (fork() == 0) {
            execlp("bash", name.c_str(), "-c", "read -r -t 60 <> <(:)", nullptr);
        }
        _exit(0);
    }
    ASSERT_EQ(waitpid(between, nullptr, 0), between);
}

bool processRuns(const std::string& name) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "cmdline");
        std::string line;
        if (std::getline(file, line, '\0') && line == name) {
            return true;
        }
    }
    return false;
}

/// Each of several cases looks for what the others leave, then leaves it.
class LeavingsTest : public ::testing::TestWithParam<int> {};

TEST_P(LeavingsTest, FilesAreGone) {
    for (const std::string& path : kFiles) {
        EXPECT_FALSE(fs::exists(path)) << path;
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "left";
        EXPECT_TRUE(fs::exists(path)) << path;
    }
}

TEST_P(LeavingsTest, DirectoriesAndModesAreAsBefore) {
    EXPECT_TRUE(fs::is_directory("/etc.defaults"));
    EXPECT_EQ(modeOf("/etc.defaults"), 0755U);
    EXPECT_EQ(modeOf("/tmp"), 01777U);
    EXPECT_EQ(modeOf("/usr/tarn"), 0755U);
    fs::remove_all("/etc.defaults");
    EXPECT_EQ(chmod("/tmp", 0700), 0);
    EXPECT_EQ(chmod("/usr/tarn", 0500), 0);
}

TEST_P(LeavingsTest, MountsAreGone) {
    EXPECT_EQ(modeOf("/home"), 0755U);
    EXPECT_EQ(mount("left", "/home", "tmpfs", 0, "mode=0711"), 0);
    EXPECT_EQ(modeOf("/home"), 0711U);
}

TEST_P(LeavingsTest, LinksAreGoneAndLoopbackIsThere) {
    EXPECT_NE(if_nametoindex("lo"), 0U);
    EXPECT_EQ(if_nametoindex("left"), 0U);
    EXPECT_EQ(std::system("PATH=$PATH:/sbin:/usr/sbin ip link add left type bridge"), 0);
    EXPECT_NE(if_nametoindex("left"), 0U);
}

TEST_P(LeavingsTest, TheHostNameIsAsBefore) {
    EXPECT_NE(hostName(), "left");
    EXPECT_EQ(sethostname("left", 4), 0);
}

TEST_P(LeavingsTest, ProcessesAreGone) {
    EXPECT_FALSE(processRuns("left-running"));
    leaveProcess("left-running");
}

INSTANTIATE_TEST_SUITE_P(, LeavingsTest, ::testing::Values(1, 2));

}  // namespace
