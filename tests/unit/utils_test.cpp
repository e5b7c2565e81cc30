#include "tarnfirewall/utils.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/interprocess/exceptions.hpp>

#include "file_lock_testing.h"
#include "library_test.h"
#include "log_lines.h"
#include "needs.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using LockError = boost::interprocess::interprocess_exception;

const std::string kData = "/tmp/store/data.json";
const std::string kTemporary = kData + ".tmp";
const std::string kLock = kLockDir + "data.json.lock";

// Called by rename() before it does its work.
std::function<void()>& beforeRename() {
    static std::function<void()> action;
    return action;
}

// What was flushed and renamed, in order.
std::vector<std::string>& diskCalls() {
    static std::vector<std::string> calls;
    return calls;
}

// What flushing a path fails with, by path.
std::map<std::string, int>& flushErrors() {
    static std::map<std::string, int> errors;
    return errors;
}

Json::Value object(const std::string& key, int number) {
    Json::Value value;
    value[key] = number;
    return value;
}

// A socket is a file that exists and that not even root can open.
void makeUnopenableFile(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)), 0);
    close(fd);
}

class UtilsTest : public LibraryTest {
protected:
    UtilsTest() { fs::create_directories(fs::path(kData).parent_path()); }

    std::vector<std::string> log() const { return logLines(platform_); }
};

}  // namespace

extern "C" int rename(const char* from, const char* to) noexcept {
    if (beforeRename()) {
        beforeRename()();
    }
    diskCalls().push_back(std::string("rename ") + from + " " + to);
    using Function = int (*)(const char*, const char*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "rename"))(from, to);
}

extern "C" int fsync(int fd) {
    const std::string path = fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string();
    diskCalls().push_back("flush " + path);
    const auto error = flushErrors().find(path);
    if (error != flushErrors().end()) {
        errno = error->second;
        return -1;
    }
    using Function = int (*)(int);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "fsync"))(fd);
}

namespace {

// ---- getLockFile ----

struct NameCase {
    const char* name;
    std::string path;
    std::string lock;
};

const NameCase kNames[] = {
    {"LastComponentOfThePath", "/usr/tarn/etc/firewall.d/firewall_settings.json",
     "/var/lock/firewall/firewall_settings.json.lock"},
    {"BareFileName", "17.json", "/var/lock/firewall/17.json.lock"},
    {"AnyExtension", "/etc/some file", "/var/lock/firewall/some file.lock"},
    {"TrailingSlash", "/a/b.json/", "/var/lock/firewall/b.json.lock"},
    {"EmptyPathIsTheCurrentDirectory", "", "/var/lock/firewall/..lock"},
    {"RootIsASlash", "/", "/var/lock/firewall//.lock"},
    {"PathIsCutAt1023Bytes", std::string(1000, '/') + "d/" + std::string(40, 'f'),
     "/var/lock/firewall/" + std::string(21, 'f') + ".lock"},
};

class LockNameTest : public UtilsTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(LockNameTest, NamesAndCreatesTheLockFile) {
    const NameCase& c = GetParam();
    EXPECT_EQ(FW::getLockFile(c.path), c.lock);
    EXPECT_TRUE(fs::is_regular_file(c.lock));
    EXPECT_EQ(readFile(c.lock), "");
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, LockNameTest, ::testing::ValuesIn(kNames),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(UtilsTest, LockDirectoryIsMadeForOwnerAndGroup) {
    const mode_t mask = umask(0);
    (void)FW::getLockFile(kData);
    umask(mask);

    EXPECT_THAT(platform_.journal, ElementsAre("mkdir /var/lock/firewall/"));
    struct stat directory {};
    ASSERT_EQ(stat(kLockDir.c_str(), &directory), 0);
    EXPECT_EQ(directory.st_mode & 07777u, 0770u);
}

TEST_F(UtilsTest, ExistingLockFileIsLeftAsItIs) {
    writeFile(kLock, "content");
    EXPECT_EQ(FW::getLockFile(kData), kLock);
    EXPECT_EQ(readFile(kLock), "content");
}

TEST_F(UtilsTest, LockFilesLieInTmpWhenTheDirectoryCannotBeMade) {
    platform_.mkdirFails = true;
    EXPECT_EQ(FW::getLockFile(kData), "/tmp/data.json.lock");
    EXPECT_TRUE(fileExists("/tmp/data.json.lock"));
    EXPECT_FALSE(fileExists(kLock));
    EXPECT_THAT(log(),
                ElementsAre(std::string("debug utils: Failed to create path: ") + strerror(EROFS)));
}

TEST_F(UtilsTest, LoadAndDumpWorkWithTheLockFileInTmp) {
    platform_.mkdirFails = true;
    Json::Value value;
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_EQ(value, object("a", 1));
    EXPECT_FALSE(fileExists(kLock));
}

TEST_F(UtilsTest, LockFileThatCannotBeMadeIsNotReportedUntilItIsOpened) {
    // The longest file name that a directory takes; with ".lock" it is too long.
    const std::string path = "/tmp/store/" + std::string(255, 'n');
    writeFile(path, "{}");
    Json::Value value;

    const std::string lock = FW::getLockFile(path);

    EXPECT_EQ(lock, kLockDir + std::string(255, 'n') + ".lock");
    EXPECT_FALSE(fileExists(lock));
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_THROW((void)FW::jsonFileLoad(value, path), LockError);
    EXPECT_THROW((void)FW::jsonFileDump(value, path), LockError);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(UtilsTest, FilesNamedAlikeInTwoDirectoriesShareALockFile) {
    EXPECT_EQ(FW::getLockFile("/tmp/a/data.json"), FW::getLockFile("/tmp/b/data.json"));
    EXPECT_NE(FW::getLockFile("/tmp/a/data.json"), FW::getLockFile("/tmp/a/other.json"));
}

// ---- jsonFileLoad ----

TEST_F(UtilsTest, LoadReadsEveryTypeOfValue) {
    writeFile(kData,
              "{\"n\":-7,\"t\":\"a\\u00e9\\n\",\"b\":true,\"x\":null,\"l\":[1,\"2\"],"
              "\"o\":{\"k\":0.5}}\r\n");
    Json::Value value;

    ASSERT_TRUE(FW::jsonFileLoad(value, kData));

    EXPECT_EQ(value["n"].asInt(), -7);
    EXPECT_EQ(value["t"].asString(), "a\xc3\xa9\n");
    EXPECT_TRUE(value["b"].asBool());
    EXPECT_TRUE(value.isMember("x"));
    EXPECT_TRUE(value["x"].isNull());
    EXPECT_EQ(value["l"][1].asString(), "2");
    EXPECT_EQ(value["o"]["k"].asDouble(), 0.5);
    EXPECT_EQ(value.size(), 6u);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(UtilsTest, LoadReplacesWhatTheValueHeld) {
    writeFile(kData, "{\"new\": 1}");
    Json::Value value = object("old", 2);
    ASSERT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_EQ(value, object("new", 1));
}

TEST_F(UtilsTest, CommentsSurviveALoadAndADump) {
    writeFile(kData, "// kept by hand\n{ \"a\": 1 }\n");
    Json::Value value;
    ASSERT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_TRUE(value.hasComment(Json::commentBefore));
    ASSERT_TRUE(FW::jsonFileDump(value, kData));
    EXPECT_NE(readFile(kData).find("// kept by hand\n"), std::string::npos);
}

TEST_F(UtilsTest, LoadOfAMissingFileFailsAndLeavesNoLockFile) {
    Json::Value value = object("old", 2);
    EXPECT_FALSE(FW::jsonFileLoad(value, kData));
    EXPECT_THAT(log(), ElementsAre("err utils: File " + kData + " does not exist"));
    EXPECT_EQ(value, object("old", 2));
    EXPECT_THAT(platform_.journal, IsEmpty());
    EXPECT_FALSE(fileExists(kLock));
    EXPECT_FALSE(fileExists(kLockDir));
}

TEST_F(UtilsTest, LoadOfADanglingLinkIsThatOfAMissingFile) {
    fs::create_symlink("/tmp/store/nowhere", kData);
    Json::Value value;
    EXPECT_FALSE(FW::jsonFileLoad(value, kData));
    EXPECT_THAT(log(), ElementsAre("err utils: File " + kData + " does not exist"));
}

TEST_F(UtilsTest, LoadAndDumpWithALimitDoNotWaitForAPipe) {
    FW::jsonFileLimit(100);
    ASSERT_EQ(mkfifo(kData.c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(kTemporary.c_str(), 0600), 0);
    Json::Value value;
    EXPECT_FALSE(FW::jsonFileLoad(value, kData));
    EXPECT_FALSE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kData,
                                   "err utils: Failed to open json file " + kTemporary));
}

// Both can be opened at once: somebody reads from the pipe.
TEST_F(UtilsTest, DumpWithALimitWritesIntoNoPipe) {
    FW::jsonFileLimit(100);
    writeFile(kData, "{}");
    ASSERT_EQ(mkfifo(kTemporary.c_str(), 0644), 0);
    const int reader = open(kTemporary.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    const bool dumped = FW::jsonFileDump(object("a", 1), kData);
    close(reader);
    ASSERT_FALSE(dumped);
    EXPECT_EQ(readFile(kData), "{}");
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kTemporary));
}

TEST_F(UtilsTest, DumpIntoAPipeLeavesItsModeAlone) {
    writeFile(kData, "{}");
    ASSERT_EQ(mkfifo(kTemporary.c_str(), 0600), 0);
    ASSERT_EQ(chmod(kTemporary.c_str(), 0640), 0);
    const int reader = open(kTemporary.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    close(reader);
    EXPECT_EQ(fs::status(kData).type(), fs::file_type::fifo);
    EXPECT_EQ(static_cast<unsigned>(fs::status(kData).permissions()), 0640u);
}

TEST_F(UtilsTest, LoadWithALimitReadsNeitherADeviceNorMore) {
    FW::jsonFileLimit(100);
    fs::create_symlink("/dev/zero", kData);
    Json::Value value;
    EXPECT_FALSE(FW::jsonFileLoad(value, kData));
    fs::remove(kData);
    writeFile(kData, "{}" + std::string(99, ' '));
    EXPECT_FALSE(FW::jsonFileLoad(value, kData));
    fs::resize_file(kData, 100);
    EXPECT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kData,
                                   "err utils: Failed to open json file " + kData));
}

TEST_F(UtilsTest, LoadOfAFileThatCannotBeOpenedFails) {
    makeUnopenableFile(kData);
    Json::Value value;
    EXPECT_FALSE(FW::jsonFileLoad(value, kData));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kData));
    EXPECT_TRUE(lockIsFree(kLock));
}

struct TextCase {
    const char* name;
    std::string text;
};

const TextCase kNoJson[] = {
    {"Empty", ""},
    {"OnlyBlanks", " \n\t"},
    {"TruncatedInAnObject", "{\"status\": true, \"profi"},
    {"TruncatedBeforeTheBrace", "{\"status\": true"},
    {"TruncatedInAnArray", "[1, 2"},
    {"Word", "status=true"},
    {"MissingColon", "{\"status\" true}"},
    {"BinaryZeros", std::string(16, '\0')},
    // The parser raises for this one, where it returns false for the others.
    {"NestedTooDeeply", std::string(5000, '[') + std::string(5000, ']')},
};

class ParseErrorTest : public UtilsTest, public ::testing::WithParamInterface<TextCase> {};

TEST_P(ParseErrorTest, LoadFailsAndReleasesTheLock) {
    writeFile(kData, GetParam().text);
    const int descriptors = openDescriptors();
    Json::Value value;

    EXPECT_FALSE(FW::jsonFileLoad(value, kData));

    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + kData));
    EXPECT_EQ(readFile(kData), GetParam().text);
    EXPECT_TRUE(lockIsFree(kLock));
    EXPECT_EQ(openDescriptors(), descriptors);
}

INSTANTIATE_TEST_SUITE_P(, ParseErrorTest, ::testing::ValuesIn(kNoJson),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(UtilsTest, LoadRaisesTheLockErrorWhenTheLockFileCannotBeOpened) {
    writeFile(kData, "{\"a\": 1}");
    fs::create_directories(kLock);
    const int descriptors = openDescriptors();
    Json::Value value = object("old", 2);

    EXPECT_THROW((void)FW::jsonFileLoad(value, kData), LockError);

    EXPECT_EQ(value, object("old", 2));
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_EQ(openDescriptors(), descriptors);
}

// ---- jsonFileDump ----

TEST_F(UtilsTest, DumpWritesIndentedText) {
    Json::Value value;
    value["status"] = true;
    value["list"].append("a");
    value["list"].append(2);
    value["none"] = Json::Value();
    value["inner"]["key"] = "text";

    EXPECT_TRUE(FW::jsonFileDump(value, kData));

    EXPECT_EQ(readFile(kData),
              "{\n"
              "   \"inner\" : {\n"
              "      \"key\" : \"text\"\n"
              "   },\n"
              "   \"list\" : [ \"a\", 2 ],\n"
              "   \"none\" : null,\n"
              "   \"status\" : true\n"
              "}\n");
    EXPECT_THAT(filesIn("/tmp/store"), ElementsAre("data.json"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(UtilsTest, DumpReplacesTheFileInsteadOfWritingIntoIt) {
    writeFile(kData, "{\"old\": 1}");
    fs::create_hard_link(kData, "/tmp/store/second name");
    EXPECT_TRUE(FW::jsonFileDump(object("new", 2), kData));
    EXPECT_EQ(storedJson(kData), object("new", 2));
    EXPECT_EQ(readFile("/tmp/store/second name"), "{\"old\": 1}");
}

TEST_F(UtilsTest, DumpTruncatesAStaleTemporaryFile) {
    writeFile(kTemporary, std::string(4096, 'x'));
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_EQ(readFile(kData), "{\n   \"a\" : 1\n}\n");
    EXPECT_FALSE(fileExists(kTemporary));
}

TEST_F(UtilsTest, DumpFlushesTheFileBeforeTheRenameAndTheDirectoryAfterIt) {
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_THAT(diskCalls(), ElementsAre("flush " + kTemporary,
                                         "rename " + kTemporary + " " + kData, "flush /tmp/store"));
}

TEST_F(UtilsTest, DumpWhoseFileCannotBeFlushedLeavesTheOldOne) {
    writeFile(kData, "{\"old\": 1}");
    flushErrors()[kTemporary] = EIO;
    EXPECT_FALSE(FW::jsonFileDump(object("new", 2), kData));
    EXPECT_EQ(readFile(kData), "{\"old\": 1}");
    EXPECT_THAT(filesIn("/tmp/store"), ElementsAre("data.json"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to flush " + kTemporary));
    EXPECT_TRUE(lockIsFree(kLock));
}

TEST_F(UtilsTest, DumpWhoseDirectoryCannotBeFlushedFails) {
    writeFile(kData, "{\"old\": 1}");
    flushErrors()["/tmp/store"] = EIO;
    EXPECT_FALSE(FW::jsonFileDump(object("new", 2), kData));
    EXPECT_EQ(storedJson(kData), object("new", 2));
    EXPECT_THAT(filesIn("/tmp/store"), ElementsAre("data.json"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to flush the directory of " + kData));
    EXPECT_TRUE(lockIsFree(kLock));
}

TEST_F(UtilsTest, DumpSucceedsOnAFileSystemThatCannotFlush) {
    flushErrors() = {{kTemporary, EINVAL}, {"/tmp/store", EINVAL}};
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_EQ(storedJson(kData), object("a", 1));
    EXPECT_THAT(log(), IsEmpty());
}

struct ModeCase {
    const char* name;
    mode_t mask;
    mode_t before;  ///< of the file that is replaced; 0: there is none
    mode_t after;
};

const ModeCase kModes[] = {
    {"NewFileWithoutAMask", 0, 0, 0600},      {"NewFileWithTheUsualMask", 022, 0, 0600},
    {"NewFileWithATightMask", 0777, 0, 0600}, {"ReadableByAGroup", 077, 0640, 0640},
    {"ReadableByAll", 077, 0644, 0644},       {"ReadOnly", 0, 0400, 0400},
};

class DumpModeTest : public UtilsTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(DumpModeTest, IsThatOfTheReplacedFileWhateverTheMask) {
    const ModeCase& c = GetParam();
    constexpr uid_t kUser = 1000;
    constexpr gid_t kGroup = 1001;
    if (c.before != 0) {
        TARN_NEEDS_OTHER_USERS();
        writeFile(kData, "{}");
        ASSERT_EQ(chown(kData.c_str(), kUser, kGroup), 0);
        ASSERT_EQ(chmod(kData.c_str(), c.before), 0);
    }
    writeFile(kTemporary, "left by a killed process");
    ASSERT_EQ(chmod(kTemporary.c_str(), 0666), 0);

    const mode_t mask = umask(c.mask);
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    umask(mask);

    struct stat info {};
    ASSERT_EQ(stat(kData.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777u, c.after);
    EXPECT_EQ(info.st_uid, c.before != 0 ? kUser : geteuid());
    EXPECT_EQ(info.st_gid, c.before != 0 ? kGroup : getegid());
    EXPECT_EQ(storedJson(kData), object("a", 1));
}

INSTANTIATE_TEST_SUITE_P(, DumpModeTest, ::testing::ValuesIn(kModes),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(UtilsTest, DumpKeepsNoDescriptorOpen) {
    const int descriptors = openDescriptors();
    Json::Value value;
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(UtilsTest, DumpFailsWhenTheTemporaryFileCannotBeOpened) {
    writeFile(kData, "{\"old\": 1}");
    fs::create_directories(kTemporary);
    EXPECT_FALSE(FW::jsonFileDump(object("new", 2), kData));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kTemporary));
    EXPECT_EQ(readFile(kData), "{\"old\": 1}");
    EXPECT_TRUE(lockIsFree(kLock));
}

TEST_F(UtilsTest, DumpFailsInAMissingDirectoryWithoutMakingIt) {
    const std::string path = "/tmp/missing/data.json";
    EXPECT_FALSE(FW::jsonFileDump(object("a", 1), path));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + path + ".tmp"));
    EXPECT_FALSE(fileExists("/tmp/missing"));
}

TEST_F(UtilsTest, DumpLeavesTheTemporaryFileWhenItCannotBeRenamed) {
    fs::create_directories(kData);  // a file cannot be renamed over a directory
    EXPECT_FALSE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to rename to " + kData));
    EXPECT_TRUE(fs::is_directory(kData));
    EXPECT_EQ(readFile(kTemporary), "{\n   \"a\" : 1\n}\n");
    EXPECT_TRUE(lockIsFree(kLock));
}

TEST_F(UtilsTest, DumpDoesNotNoticeAFailedWrite) {
    writeFile(kData, "{\"old\": 1}");
    struct rlimit before {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const struct rlimit noByte = {0, before.rlim_max};
    signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &noByte), 0);
    const bool dumped = FW::jsonFileDump(object("new", 2), kData);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    signal(SIGXFSZ, SIG_DFL);

    EXPECT_TRUE(dumped);
    EXPECT_EQ(readFile(kData), "");
    EXPECT_FALSE(fileExists(kTemporary));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(UtilsTest, DumpRaisesTheLockErrorWhenTheLockFileCannotBeOpened) {
    writeFile(kData, "{\"old\": 1}");
    fs::create_directories(kLock);
    const int descriptors = openDescriptors();

    EXPECT_THROW((void)FW::jsonFileDump(object("new", 2), kData), LockError);

    EXPECT_EQ(readFile(kData), "{\"old\": 1}");
    EXPECT_FALSE(fileExists(kTemporary));
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(UtilsTest, CrashBeforeTheRenameLeavesTheOldFileAndAStaleTemporaryOne) {
    writeFile(kData, "{\"old\": 1}");
    OtherProcess victim([](OtherProcess&) {
        beforeRename() = [] { (void)raise(SIGKILL); };
        return FW::jsonFileDump(object("a much longer key than the next one", 2), kData) ? 1 : 2;
    });
    ASSERT_EQ(victim.join(), -SIGKILL);

    EXPECT_EQ(readFile(kData), "{\"old\": 1}");
    EXPECT_EQ(readFile(kTemporary), "{\n   \"a much longer key than the next one\" : 2\n}\n");
    Json::Value value;
    EXPECT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_EQ(value, object("old", 1));
    EXPECT_TRUE(FW::jsonFileDump(object("n", 3), kData));
    EXPECT_EQ(readFile(kData), "{\n   \"n\" : 3\n}\n");
    EXPECT_FALSE(fileExists(kTemporary));
}

// ---- Two processes ----

TEST_F(UtilsTest, LocksAreFreeAfterLoadAndDumpAndTheirFilesStay) {
    Json::Value value;
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));
    EXPECT_TRUE(lockIsFree(kLock));
    EXPECT_TRUE(FW::jsonFileLoad(value, kData));
    EXPECT_TRUE(lockIsFree(kLock));
    EXPECT_THAT(filesIn(kLockDir), ElementsAre("data.json.lock"));
}

TEST_F(UtilsTest, LoadHoldsTheExclusiveLockOfTheWholeFile) {
    ASSERT_EQ(mkfifo(kData.c_str(), 0600), 0);
    OtherProcess reader([](OtherProcess&) {
        Json::Value value;
        return FW::jsonFileLoad(value, kData) && value == object("a", 1) ? 0 : 1;
    });
    // Opening the pipe waits until the reader has opened it too, which it does under the lock.
    const int pipe = open(kData.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(pipe, 0);

    const struct flock held = lockHeldByOthers(kLock);

    EXPECT_EQ(held.l_type, F_WRLCK);
    EXPECT_EQ(held.l_start, 0);
    EXPECT_EQ(held.l_len, 0);
    EXPECT_EQ(write(pipe, "{\"a\":1}", 7), 7);
    close(pipe);
    EXPECT_EQ(reader.join(), 0);
    EXPECT_TRUE(lockIsFree(kLock));
}

// A process that stops in the middle of a dump, before the rename, until it is released.
class StoppedDump : public OtherProcess {
public:
    explicit StoppedDump(const std::string& path)
        : OtherProcess([&path](OtherProcess& self) {
              beforeRename() = [&self] {
                  self.tellReady();
                  self.waitForRelease();
              };
              return FW::jsonFileDump(object("stopped", 1), path) ? 0 : 1;
          }) {}
};

TEST_F(UtilsTest, DumpHoldsTheExclusiveLockOfTheWholeFileThroughTheRename) {
    StoppedDump writer(kData);
    ASSERT_TRUE(writer.waitUntilReady());

    const struct flock held = lockHeldByOthers(kLock);

    EXPECT_EQ(held.l_type, F_WRLCK);
    EXPECT_EQ(held.l_start, 0);
    EXPECT_EQ(held.l_len, 0);
    writer.release();
    EXPECT_EQ(writer.join(), 0);
    EXPECT_TRUE(lockIsFree(kLock));
}

TEST_F(UtilsTest, FilesNamedAlikeInTwoDirectoriesContendForOneLock) {
    const std::string other = "/tmp/other/data.json";
    writeFile(other, "{\"old\": 1}");
    StoppedDump writer(kData);
    ASSERT_TRUE(writer.waitUntilReady());
    {
        JumpingClock clock(kLockWait);
        EXPECT_FALSE(FW::jsonFileDump(object("new", 2), other));
    }
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to get lock timeout"));
    EXPECT_EQ(readFile(other), "{\"old\": 1}");

    writer.release();
    EXPECT_EQ(writer.join(), 0);
    EXPECT_TRUE(FW::jsonFileDump(object("new", 2), other));
    EXPECT_EQ(storedJson(other), object("new", 2));
    EXPECT_EQ(storedJson(kData), object("stopped", 1));
}

TEST_F(UtilsTest, FilesNamedDifferentlyDoNotContend) {
    StoppedDump writer(kData);
    ASSERT_TRUE(writer.waitUntilReady());
    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), "/tmp/store/other.json"));
}

TEST_F(UtilsTest, DumpGivesUpAfter30SecondsAndLeavesTheFileUntouched) {
    writeFile(kData, "{\"old\": 1}");
    const LockHolder holder(kLock);
    const int descriptors = openDescriptors();
    JumpingClock clock(kLockWait);

    EXPECT_FALSE(FW::jsonFileDump(object("new", 2), kData));

    EXPECT_LT(clock.readings(), JumpingClock::kTooMany);
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to get lock timeout"));
    EXPECT_EQ(readFile(kData), "{\"old\": 1}");
    EXPECT_FALSE(fileExists(kTemporary));
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(UtilsTest, LoadGivesUpAfter30Seconds) {
    writeFile(kData, "{\"a\": 1}");
    const LockHolder holder(kLock);
    const int descriptors = openDescriptors();
    JumpingClock clock(kLockWait);
    Json::Value value = object("old", 2);

    EXPECT_FALSE(FW::jsonFileLoad(value, kData));

    EXPECT_LT(clock.readings(), JumpingClock::kTooMany);
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to get lock timeout"));
    EXPECT_EQ(value, object("old", 2));
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(UtilsTest, DumpStillWaitsAMicrosecondBeforeThe30SecondsAreOver) {
    LockHolder holder(kLock);
    JumpingClock clock(kJustInTime);
    clock.onReading = [&holder](int reading) {
        if (reading == 50) {
            holder.letGo();
        }
    };

    EXPECT_TRUE(FW::jsonFileDump(object("a", 1), kData));

    EXPECT_GE(clock.readings(), 50);
    EXPECT_LT(clock.readings(), JumpingClock::kTooMany);
    EXPECT_EQ(storedJson(kData), object("a", 1));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(UtilsTest, LoadWaitsForTheOtherProcessAndReadsWhatItLeft) {
    writeFile(kData, "{\"before\": 1}");
    LockHolder holder(kLock);
    JumpingClock clock(kJustInTime);
    clock.onReading = [&holder](int reading) {
        if (reading == 50) {
            writeFile(kData, "{\"after\": 2}");
            holder.letGo();
        }
    };
    Json::Value value;

    EXPECT_TRUE(FW::jsonFileLoad(value, kData));

    EXPECT_GE(clock.readings(), 50);
    EXPECT_LT(clock.readings(), JumpingClock::kTooMany);
    EXPECT_EQ(value, object("after", 2));
    EXPECT_THAT(log(), IsEmpty());
}

}  // namespace
