#include "tarnsdk.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "host_testing.h"
#include "logged.h"
#include "needs.h"
#include "syslog_capture.h"
#include "tarncore.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr int kBadParameter = 0x0D00;
constexpr uid_t kOtherUser = 1000;
constexpr gid_t kOtherGroup = 1001;

}  // namespace

// ---- Directories ----

namespace {

class MkdirTest : public DirectoryTest {
protected:
    MkdirTest() { TLIBCErrSetEx(0, "", 0); }

    static int make(const std::string& path, mode_t mode = 0770, int uid = 0, int gid = 0) {
        return TARNFSMkdirP(path.c_str(), nullptr, 1, uid, gid, mode);
    }

    static struct stat statusOf(const std::string& path) {
        struct stat info = {};
        EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
        return info;
    }
};

}  // namespace

TEST_F(MkdirTest, MakesMissingParents) {
    EXPECT_GE(make(path("a/b/c")), 0);
    EXPECT_TRUE(fs::is_directory(path("a/b/c")));
}

TEST_F(MkdirTest, ModeIsSetWhateverTheUmask) {
    for (const mode_t mask : {077U, 0U, 0777U}) {
        const Umask scope(mask);
        const std::string top = path("mask" + std::to_string(mask));
        EXPECT_GE(make(top + "/below", 0770), 0);
        EXPECT_EQ(modeOf(top), S_IFDIR | 0770U);
        EXPECT_EQ(modeOf(top + "/below"), S_IFDIR | 0770U);
    }
}

TEST_F(MkdirTest, SpecialModeBitsAreSetToo) {
    EXPECT_GE(make(path("sticky"), 01777), 0);
    EXPECT_EQ(modeOf(path("sticky")), S_IFDIR | 01777U);
    EXPECT_GE(make(path("group"), 02770), 0);
    EXPECT_EQ(modeOf(path("group")), S_IFDIR | 02770U);
}

TEST_F(MkdirTest, OwnerAndGroupAreSetOnAllThatIsMade) {
    TARN_NEEDS_OTHER_USERS();
    EXPECT_GE(make(path("a/b"), 0750, kOtherUser, kOtherGroup), 0);
    for (const char* name : {"a", "a/b"}) {
        EXPECT_EQ(statusOf(path(name)).st_uid, kOtherUser);
        EXPECT_EQ(statusOf(path(name)).st_gid, kOtherGroup);
    }
    EXPECT_EQ(statusOf(directory_).st_uid, 0U);
}

TEST_F(MkdirTest, ExistingDirectoriesStayAsTheyAre) {
    fs::create_directories(path("a/b"));
    ASSERT_EQ(chmod(path("a").c_str(), 0711), 0);
    ASSERT_EQ(chmod(path("a/b").c_str(), 0701), 0);
    EXPECT_GE(make(path("a/b"), 0770, kOtherUser, kOtherGroup), 0);
    EXPECT_EQ(modeOf(path("a")), S_IFDIR | 0711U);
    EXPECT_EQ(modeOf(path("a/b")), S_IFDIR | 0701U);
    EXPECT_EQ(statusOf(path("a/b")).st_uid, 0U);
    EXPECT_GE(make("/"), 0);
}

TEST_F(MkdirTest, SlashesAndDotsMeanWhatTheyMeanElsewhere) {
    EXPECT_GE(make(path("/a//./b/../c/")), 0);
    EXPECT_TRUE(fs::is_directory(path("a/b")));
    EXPECT_TRUE(fs::is_directory(path("a/c")));
}

TEST_F(MkdirTest, RelativePathStartsAtTheWorkingDirectory) {
    EXPECT_EQ(runChild([&] { return chdir(directory_.c_str()) == 0 && make("a/b") >= 0 ? 0 : 1; }),
              0);
    EXPECT_TRUE(fs::is_directory(path("a/b")));
}

TEST_F(MkdirTest, LinksToDirectoriesAreFollowed) {
    fs::create_directory(path("real"));
    fs::create_directory_symlink("real", path("link"));
    EXPECT_GE(make(path("link/below")), 0);
    EXPECT_TRUE(fs::is_directory(path("real/below")));
    EXPECT_GE(make(path("link")), 0);
}

TEST_F(MkdirTest, FileInTheWayIsAFailure) {
    writeFile(path("file"), "content");
    EXPECT_LT(make(path("file")), 0);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(TLIBCErrGet(), ENOTDIR);
    EXPECT_STREQ(TLIBCErrorGetFile(), "tarnsdk");
    EXPECT_LT(make(path("file/below")), 0);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(readFile(path("file")), "content");
}

TEST_F(MkdirTest, LinkThatLeadsNowhereIsAFailure) {
    fs::create_symlink("nowhere", path("link"));
    EXPECT_LT(make(path("link")), 0);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(fs::exists(path("nowhere")));
}

TEST_F(MkdirTest, BadArgumentsAreRefused) {
    EXPECT_LT(TARNFSMkdirP(nullptr, nullptr, 1, 0, 0, 0770), 0);
    EXPECT_LT(TARNFSMkdirP(path("a").c_str(), "/tmp", 1, 0, 0, 0770), 0);
    EXPECT_LT(make(path("a"), 0770, -1, 0), 0);
    EXPECT_LT(make(path("a"), 0770, 0, -1), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    EXPECT_FALSE(fs::exists(path("a")));
    EXPECT_LT(make(""), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(MkdirTest, OrdinaryCallersKeepWhatTheyMake) {
    TARN_NEEDS_OTHER_USERS();
    ASSERT_EQ(chmod(directory_.c_str(), 0777), 0);
    EXPECT_EQ(runChild([&] {
                  if (setresgid(kOtherGroup, kOtherGroup, kOtherGroup) != 0 ||
                      setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) {
                      return 1;
                  }
                  return make(path("a/b"), 0750) >= 0 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(statusOf(path("a/b")).st_uid, kOtherUser);
    EXPECT_EQ(modeOf(path("a/b")), S_IFDIR | 0750U);
}

TEST_F(MkdirTest, WithoutPermissionItFails) {
    TARN_NEEDS_OTHER_USERS();
    ASSERT_EQ(chmod(directory_.c_str(), 0755), 0);
    EXPECT_EQ(runChild([&] {
                  if (setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) {
                      return 1;
                  }
                  return make(path("a")) < 0 && errno == EACCES ? 0 : 2;
              }),
              0);
    EXPECT_FALSE(fs::exists(path("a")));
}

// ---- Directories that others may have put there first ----

namespace {

class PlantedDirectoryTest : public MkdirTest {
protected:
    PlantedDirectoryTest() {
        EXPECT_EQ(chmod(directory_.c_str(), 01777), 0);  // as /var/lock is
        clearCapturedLog();
    }

    static void giveAway(const std::string& path) {
        ASSERT_EQ(lchown(path.c_str(), kOtherUser, kOtherUser), 0) << path;
    }

    // What was set aside from `name`, or nothing.
    std::vector<std::string> refused(const std::string& name) const {
        std::vector<std::string> paths;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            const std::string found = entry.path().filename();
            if (found.find(name + ".refused-") == 0) {
                paths.push_back(entry.path());
            }
        }
        return paths;
    }

    // The one thing that was set aside from `name`; empty when there is not one.
    std::string keptFrom(const std::string& name) const {
        const auto paths = refused(name);
        return paths.size() == 1 ? paths.front() : "";
    }

    // That `name` was made anew for root, and what stood there is kept and logged once.
    void expectMadeAnew(const std::string& name, const std::string& why) const {
        EXPECT_EQ(modeOf(path(name)), S_IFDIR | 0770U);
        EXPECT_EQ(statusOf(path(name)).st_uid, 0U);
        const auto aside = refused(name);
        ASSERT_EQ(aside.size(), 1U);
        EXPECT_THAT(logged(LOG_ERR),
                    ElementsAre(HasSubstr("Refused " + path(name) + ": " + why + "; set aside as " +
                                          fs::path(aside.front()).filename().string())));
    }
};

}  // namespace

TEST_F(PlantedDirectoryTest, DirectoryOfAnotherUserIsSetAside) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(path("a"));
    writeFile(path("a/trap"), "");
    giveAway(path("a"));
    EXPECT_EQ(make(path("a")), 0);
    expectMadeAnew("a", "it belongs to user 1000");
    EXPECT_TRUE(fs::is_empty(path("a")));
    EXPECT_TRUE(fs::exists(keptFrom("a") + "/trap"));
}

TEST_F(PlantedDirectoryTest, DirectoryThatOthersMayWriteIsSetAside) {
    TARN_NEEDS_OTHER_USERS();
    for (const mode_t mode : {0777U, 0702U, 0770U}) {
        fs::remove_all(path("a"));
        for (const std::string& aside : refused("a")) {
            fs::remove_all(aside);
        }
        fs::create_directory(path("a"));
        ASSERT_EQ(chown(path("a").c_str(), 0, kOtherGroup), 0);
        ASSERT_EQ(chmod(path("a").c_str(), mode), 0);
        clearCapturedLog();
        EXPECT_EQ(make(path("a")), 0);
        expectMadeAnew("a", "group or others may write it");
    }
}

TEST_F(PlantedDirectoryTest, DirectoriesOfRootAndOfTheUserAskedForStay) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(path("sticky"));
    ASSERT_EQ(chmod(path("sticky").c_str(), 01777), 0);
    EXPECT_EQ(make(path("sticky")), 0);
    EXPECT_EQ(modeOf(path("sticky")), S_IFDIR | 01777U);

    EXPECT_EQ(make(path("user/below"), 0770, kOtherUser, kOtherGroup), 0);
    writeFile(path("user/below/kept"), "");
    EXPECT_EQ(make(path("user/below"), 0770, kOtherUser, kOtherGroup), 0);
    EXPECT_TRUE(fs::exists(path("user/below/kept")));

    fs::create_directory(path("root"));
    ASSERT_EQ(chmod(path("root").c_str(), 0775), 0);  // its group is root
    EXPECT_EQ(make(path("root")), 0);
    EXPECT_EQ(modeOf(path("root")), S_IFDIR | 0775U);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(PlantedDirectoryTest, FileOfAnotherUserIsSetAside) {
    TARN_NEEDS_OTHER_USERS();
    writeFile(path("a"), "content");
    giveAway(path("a"));
    EXPECT_EQ(make(path("a")), 0);
    expectMadeAnew("a", "it belongs to user 1000");
    EXPECT_EQ(readFile(keptFrom("a")), "content");
}

TEST_F(PlantedDirectoryTest, LinkOfAnotherUserIsSetAsideWhereverItLeads) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(path("real"));
    fs::create_directory_symlink("real", path("a"));
    giveAway(path("a"));
    EXPECT_EQ(make(path("a")), 0);
    expectMadeAnew("a", "it belongs to user 1000");
    EXPECT_TRUE(fs::is_symlink(keptFrom("a")));

    fs::create_symlink("nowhere", path("b"));
    giveAway(path("b"));
    clearCapturedLog();
    EXPECT_EQ(make(path("b")), 0);
    expectMadeAnew("b", "it belongs to user 1000");
}

TEST_F(PlantedDirectoryTest, LinkOfRootToADirectoryOfAnotherUserIsRefused) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(path("real"));
    giveAway(path("real"));
    fs::create_directory_symlink("real", path("link"));
    EXPECT_LT(make(path("link")), 0);
    EXPECT_EQ(errno, EPERM);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Refused directory " + path("link") +
                                                       ": it belongs to user 1000")));
    EXPECT_TRUE(fs::is_symlink(path("link")));
    EXPECT_TRUE(fs::is_directory(path("real")));
}

TEST_F(PlantedDirectoryTest, OnTheWayItIsRefusedAndStays) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(path("owned"));
    giveAway(path("owned"));
    fs::create_directory(path("open"));
    ASSERT_EQ(chmod(path("open").c_str(), 0777), 0);
    fs::create_directory(path("real"));
    fs::create_directory_symlink("real", path("link"));
    giveAway(path("link"));
    for (const std::string name : {"owned", "open", "link"}) {
        clearCapturedLog();
        EXPECT_LT(make(path(name + "/below")), 0);
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(TLIBCErrGet(), EPERM);
        EXPECT_THAT(logged(LOG_ERR),
                    ElementsAre(HasSubstr("Refused directory " + path(name) + ": ")));
        EXPECT_FALSE(fs::exists(path(name + "/below")));
        EXPECT_THAT(refused(name), IsEmpty());
    }
}

TEST_F(PlantedDirectoryTest, WhatCannotBeMovedIsAFailure) {
    fs::create_directory(path("a"));
    ASSERT_EQ(mount("planted", path("a").c_str(), "tmpfs", 0, "mode=0777"), 0);
    EXPECT_LT(make(path("a")), 0);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("; not set aside: ")));
    ASSERT_EQ(umount(path("a").c_str()), 0);
}

TEST_F(PlantedDirectoryTest, OrdinaryCallersUseWhatTheyMayUse) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(path("a"));
    ASSERT_EQ(chmod(path("a").c_str(), 0777), 0);
    EXPECT_EQ(runChild([&] {
                  if (setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) {
                      return 1;
                  }
                  return make(path("a")) == 0 && make(path("a/b")) == 0 ? 0 : 2;
              }),
              0);
    EXPECT_EQ(statusOf(path("a/b")).st_uid, kOtherUser);
    EXPECT_THAT(refused("a"), IsEmpty());
}

// ---- Hooks ----

namespace {

const std::string kHookRoot = "/usr/tarn/libexec/hooks";
const std::string kHookDirectory = kHookRoot + "/net/firewall_enable";
const std::string kPlanted = "/usr/tarn/libexec/planted";  // what is put in a hook's place

constexpr int kBefore = 4;
constexpr int kAfter = 5;

// Called once when the library, done with its checks, is about to start a program.
std::function<void()> beforeSpawn;

}  // namespace

// In place of the C library's, for the platform library as well.
extern "C" __attribute__((visibility("default"))) int posix_spawn(
    pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
    const posix_spawnattr_t* attributes, char* const argv[], char* const environment[]) {
    if (const auto action = std::exchange(beforeSpawn, nullptr)) {
        action();
    }
    static const auto real =
        reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
    return real(pid, path, actions, attributes, argv, environment);
}

namespace {

bool refuseListing = false;  // whether no directory can be read

}  // namespace

extern "C" __attribute__((visibility("default"))) dirent* readdir(DIR* stream) {
    if (refuseListing) {
        errno = EIO;
        return nullptr;
    }
    static const auto real = reinterpret_cast<decltype(&readdir)>(dlsym(RTLD_NEXT, "readdir"));
    return real(stream);
}

namespace {

// Every hook writes its name into a file, so that the order can be told.
class HookTest : public DirectoryTest {
protected:
    HookTest() {
        clearCapturedLog();
        TLIBCErrSetEx(0, "", 0);
        fs::remove_all(kHookRoot);
        fs::create_directories(kHookDirectory);
    }
    ~HookTest() override {
        TLIBPluginExit(handle_);
        fs::remove_all(kHookRoot);
    }

    // A hook that notes its name and argument, and then runs `script`.
    void install(const std::string& name, const std::string& script = "", mode_t mode = 0755) {
        writeFile(kHookDirectory + '/' + name,
                  "#!/bin/sh\necho \"" + name + " $*\" >> " + path("ran") + '\n' + script + '\n',
                  mode);
    }

    int run(int action = kBefore, const std::string& name = "net/firewall_enable") {
        TLIBPluginExit(handle_);
        handle_ = nullptr;
        if (TLIBPluginSDKInit("net", name.c_str(), &handle_) < 0) {
            ADD_FAILURE() << name;
            return -1;
        }
        if (!result_.empty()) {
            EXPECT_GE(TLIBPluginSetArg(handle_, "RESULT", result_.c_str()), 0);
        }
        return TLIBPluginAction(action, handle_);
    }

    std::string ran() const { return readFile(path("ran")); }

    void* handle_ = nullptr;
    std::string result_ = "0";
};

}  // namespace

TEST_F(HookTest, RunInNameOrder) {
    for (const char* name : {"b", "10-x", "9-x", "B", "a", "a.sh", "\xc3\xa4", "a-"}) {
        install(name);
    }
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "10-x pre\n9-x pre\nB pre\na pre\na- pre\na.sh pre\nb pre\n\xc3\xa4 pre\n");
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(HookTest, ArgumentTellsBeforeFromAfter) {
    install("hook");
    EXPECT_GE(run(kBefore), 0);
    EXPECT_GE(run(kAfter), 0);
    EXPECT_EQ(ran(), "hook pre\nhook post\n");
}

TEST_F(HookTest, OtherActionsAreRefused) {
    install("hook");
    for (const int action : {0, 3, 6, -1}) {
        EXPECT_LT(run(action), 0);
        EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    }
    EXPECT_EQ(ran(), "");
}

TEST_F(HookTest, EnvironmentIsTheFixedOneAndTheArguments) {
    setenv("LD_LIBRARY_PATH", "/tmp", 1);
    install("hook", "cat /proc/$$/environ > " + path("environ"));
    result_ = "-1";
    EXPECT_GE(run(), 0);
    EXPECT_EQ(readFile(path("environ")),
              std::string("PATH=/usr/sbin:/usr/bin:/sbin:/bin\0LC_ALL=C\0RESULT=-1\0", 54));
}

TEST_F(HookTest, ArgumentsAreKeptByNameAndTheLastValueCounts) {
    install("hook", "echo \"$RESULT|$A_1|$_b\" > " + path("out"));
    ASSERT_GE(TLIBPluginSDKInit("net", "net/firewall_enable", &handle_), 0);
    EXPECT_GE(TLIBPluginSetArg(handle_, "RESULT", "0"), 0);
    EXPECT_GE(TLIBPluginSetArg(handle_, "RESULT", "a b;$(id)"), 0);
    EXPECT_GE(TLIBPluginSetArg(handle_, "A_1", ""), 0);
    EXPECT_GE(TLIBPluginSetArg(handle_, "_b", "x=y"), 0);
    EXPECT_GE(TLIBPluginAction(kBefore, handle_), 0);
    EXPECT_EQ(readFile(path("out")), "a b;$(id)||x=y\n");
}

TEST_F(HookTest, ArgumentsThatAreNoVariablesAreRefused) {
    ASSERT_GE(TLIBPluginSDKInit("net", "net/firewall_enable", &handle_), 0);
    for (const char* key : {"", "A=B", "A B", "1A", "A-B", "\xc3\xa4", "PATH", "LC_ALL"}) {
        EXPECT_LT(TLIBPluginSetArg(handle_, key, "x"), 0) << key;
        EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    }
    EXPECT_GE(TLIBPluginSetArg(handle_, "PAT", "x"), 0);
    EXPECT_LT(TLIBPluginSetArg(handle_, nullptr, "x"), 0);
    EXPECT_LT(TLIBPluginSetArg(handle_, "RESULT", nullptr), 0);
    EXPECT_LT(TLIBPluginSetArg(nullptr, "RESULT", "0"), 0);
}

TEST_F(HookTest, HooksGetNoDescriptorsButTheirOwnFile) {
    const int leak = open(path("leak").c_str(), O_RDWR | O_CREAT, 0600);
    const int high = dup2(leak, 500);
    fs::copy_file("/bin/ls", kHookDirectory + "/ls");
    ASSERT_EQ(symlink("/proc/self/fd", path("pre").c_str()), 0);
    EXPECT_EQ(runChild([&] {
                  const int out = open(path("out").c_str(), O_WRONLY | O_CREAT, 0600);
                  dup2(out, STDOUT_FILENO);
                  // "ls pre" lists its own descriptors.
                  return chdir(directory_.c_str()) == 0 && run() >= 0 ? 0 : 1;
              }),
              0);
    close(leak);
    close(high);
    EXPECT_EQ(readFile(path("out")), "0\n1\n2\n3\n4\n");  // 4 is the listed directory
}

TEST_F(HookTest, StandardInputIsEmpty) {
    install("hook", "(readlink /proc/$$/fd/0 > " + path("stdin") + "); :");
    EXPECT_EQ(runChild([&] {
                  dup2(open(kHookDirectory.c_str(), O_RDONLY), STDIN_FILENO);
                  return run() >= 0 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(readFile(path("stdin")), "/dev/null\n");
}

TEST_F(HookTest, BinariesRunAsScriptsDo) {
    fs::copy_file("/usr/bin/touch", kHookDirectory + "/binary");
    EXPECT_EQ(runChild([&] {
                  // "touch pre"
                  return chdir(directory_.c_str()) == 0 && run() >= 0 ? 0 : 1;
              }),
              0);
    EXPECT_TRUE(fs::exists(path("pre")));
}

TEST_F(HookTest, OnlyExecutableFilesWithPlainNamesAreHooks) {
    install("hook");
    install("README", "", 0644);
    install(".hidden");
    install("hook~");
    fs::create_directories(kHookDirectory + "/below");
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "hook pre\n");
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(HookTest, FilesOfOthersAreRefused) {
    TARN_NEEDS_OTHER_USERS();
    install("a");
    install("b");
    install("c");
    ASSERT_EQ(chown((kHookDirectory + "/b").c_str(), kOtherUser, 0), 0);
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "a pre\nc pre\n");
    EXPECT_EQ(
        countLogged(LOG_ERR, "Refused hook " + kHookDirectory + "/b: it belongs to user 1000"), 1);
}

TEST_F(HookTest, FilesThatOthersMayWriteAreRefused) {
    install("group", "", 0775);
    install("others", "", 0757);
    install("trusted", "", 0700);
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "trusted pre\n");
    EXPECT_EQ(countLogged(LOG_ERR, "Refused hook " + kHookDirectory +
                                       "/group: group or others may write it (mode 0775)"),
              1);
    EXPECT_EQ(countLogged(LOG_ERR, "Refused hook " + kHookDirectory +
                                       "/others: group or others may write it (mode 0757)"),
              1);
}

TEST_F(HookTest, LinksAndOtherFilesAreRefused) {
    writeFile(path("elsewhere"), "#!/bin/sh\ntouch " + path("ran") + "\n", 0755);
    fs::create_symlink(path("elsewhere"), kHookDirectory + "/link");
    ASSERT_EQ(mkfifo((kHookDirectory + "/fifo").c_str(), 0755), 0);
    EXPECT_GE(run(), 0);
    EXPECT_FALSE(fs::exists(path("ran")));
    EXPECT_EQ(countLogged(LOG_ERR, kHookDirectory + "/link: it is no regular file"), 1);
    EXPECT_EQ(countLogged(LOG_ERR, kHookDirectory + "/fifo: it is no regular file"), 1);
}

TEST_F(HookTest, DirectoriesOfOthersAreRefused) {
    TARN_NEEDS_OTHER_USERS();
    install("hook");
    for (const std::string& directory : {kHookDirectory, kHookRoot + "/net", kHookRoot}) {
        ASSERT_EQ(chown(directory.c_str(), kOtherUser, 0), 0);
        clearCapturedLog();
        EXPECT_GE(run(), 0);
        EXPECT_EQ(countLogged(LOG_ERR, "Refused hook " + directory + ": it belongs to user 1000"),
                  1);
        ASSERT_EQ(chown(directory.c_str(), 0, 0), 0);
    }
    EXPECT_EQ(ran(), "");
}

TEST_F(HookTest, DirectoriesThatOthersMayWriteAreRefused) {
    install("hook");
    for (const std::string& directory : {kHookDirectory, kHookRoot + "/net", kHookRoot}) {
        for (const mode_t mode : {0775U, 0757U, 01777U}) {
            ASSERT_EQ(chmod(directory.c_str(), mode), 0);
            clearCapturedLog();
            EXPECT_GE(run(), 0);
            EXPECT_EQ(countLogged(LOG_ERR,
                                  "Refused hook " + directory + ": group or others may write it"),
                      1);
        }
        ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
    }
    EXPECT_EQ(ran(), "");
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "hook pre\n");
}

TEST_F(HookTest, LinkedDirectoriesAreRefused) {
    install("hook");
    fs::rename(kHookDirectory, kHookRoot + "/net/other");
    fs::create_directory_symlink("other", kHookDirectory);
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "");
    EXPECT_EQ(countLogged(LOG_ERR, "Refused hook " + kHookDirectory + ": it is a link or no dir"),
              1);
}

TEST_F(HookTest, DirectoryThatCannotBeListedFailsTheAction) {
    install("hook");
    refuseListing = true;
    EXPECT_LT(run(), 0);
    refuseListing = false;
    EXPECT_EQ(TLIBCErrGet(), EIO);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot list the hooks: "), 1);
    EXPECT_EQ(ran(), "");
}

TEST_F(HookTest, HookThatCannotBeOpenedFailsTheAction) {
    const std::string name(300, 'x');  // longer than any file's
    EXPECT_LT(run(kBefore, name), 0);
    EXPECT_EQ(TLIBCErrGet(), ENAMETOOLONG);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot open hook " + kHookRoot + "/" + name + ": "), 1);
}

TEST_F(HookTest, LostStatusCountsAsSuccessAndIsLogged) {
    install("hook");
    EXPECT_EQ(runChild([&] {
                  signal(SIGCHLD, SIG_IGN);
                  const bool good = run() >= 0;
                  const std::string line =
                      "The exit status of hook \"" + kHookDirectory + "/hook pre\" is lost";
                  return good && countLogged(LOG_WARNING, line) == 1 ? 0 : 1;
              }),
              0);
    EXPECT_EQ(ran(), "hook pre\n");
}

TEST_F(HookTest, FailingHookFailsTheActionAndTheOthersStillRun) {
    install("a");
    install("b", "exit 3");
    install("c");
    EXPECT_LT(run(kAfter), 0);
    EXPECT_EQ(ran(), "a post\nb post\nc post\n");
    EXPECT_EQ(countLogged(LOG_ERR, "Hook \"" + kHookDirectory + "/b post\" ended with status 3"),
              1);
    EXPECT_STREQ(TLIBCErrorGetFile(), "tarnsdk");
}

TEST_F(HookTest, KilledHookFailsTheAction) {
    install("a", "kill -KILL $$");
    install("b");
    EXPECT_LT(run(), 0);
    EXPECT_EQ(ran(), "a pre\nb pre\n");
    EXPECT_EQ(countLogged(LOG_ERR, "/a pre\" ended with status 137"), 1);
}

TEST_F(HookTest, HookThatCannotRunFailsTheAction) {
    writeFile(kHookDirectory + "/a", "#!/no/interpreter\n", 0755);
    writeFile(kHookDirectory + "/b", "touch " + path("by-a-shell") + "\n", 0755);
    install("c");
    EXPECT_LT(run(), 0);
    EXPECT_EQ(ran(), "c pre\n");
    EXPECT_FALSE(fs::exists(path("by-a-shell")));
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot run hook " + kHookDirectory + "/a: No such file"), 1);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot run hook " + kHookDirectory + "/b: Exec format"), 1);
}

TEST_F(HookTest, TheCheckedFileRunsWhateverBearsItsNameByThen) {
    writeFile(kPlanted, "#!/bin/sh\necho planted >> " + path("ran") + "\n", 0755);
    install("hook");
    beforeSpawn = [] { fs::rename(kPlanted, kHookDirectory + "/hook"); };
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "hook pre\n");
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "hook pre\nplanted\n");  // the exchange did take place
}

TEST_F(HookTest, TheCheckedDirectoryIsUsedWhateverBearsItsNameByThen) {
    writeFile(kPlanted + "/b", "#!/bin/sh\necho planted >> " + path("ran") + "\n", 0755);
    install("a");
    install("b");
    beforeSpawn = [] {
        fs::rename(kHookDirectory, kHookRoot + "/original");
        fs::rename(kPlanted, kHookDirectory);
    };
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "a pre\nb pre\n");
    EXPECT_GE(run(), 0);
    EXPECT_EQ(ran(), "a pre\nb pre\nplanted\n");  // the exchange did take place
}

TEST_F(HookTest, NoDirectoryMeansNoHooks) {
    EXPECT_GE(run(kBefore, "net/firewall_disable"), 0);
    EXPECT_GE(run(kBefore, "other/name"), 0);
    fs::remove_all(kHookRoot);
    EXPECT_GE(run(), 0);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(HookTest, EmptyDirectoryMeansNoHooks) {
    EXPECT_GE(run(), 0);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(HookTest, NamesThatLeaveTheHookDirectoryAreRefused) {
    for (const char* name :
         {"", "/net/x", "..", "net/../..", "../x", "net/..", "net//x", "net/x/", ".", "net/./x"}) {
        void* handle = &handle_;
        EXPECT_LT(TLIBPluginSDKInit("net", name, &handle), 0) << name;
        EXPECT_EQ(handle, &handle_) << name;
        EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    }
    EXPECT_LT(TLIBPluginSDKInit("net", nullptr, &handle_), 0);
    EXPECT_LT(TLIBPluginSDKInit(nullptr, "net/x", &handle_), 0);
    EXPECT_LT(TLIBPluginSDKInit("", "net/x", &handle_), 0);
    EXPECT_LT(TLIBPluginSDKInit("net", "net/x", nullptr), 0);
    EXPECT_EQ(handle_, nullptr);
}

TEST_F(HookTest, ActionWithoutContextIsRefused) {
    EXPECT_LT(TLIBPluginAction(kBefore, nullptr), 0);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
}

TEST_F(HookTest, NoContextCanBeClosed) {
    EXPECT_GE(TLIBPluginExit(nullptr), 0);
}
