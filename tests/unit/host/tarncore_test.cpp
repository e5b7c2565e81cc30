#include "tarncore.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host_testing.h"
#include "needs.h"
#include "syslog_capture.h"

namespace fs = std::filesystem;

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Le;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

namespace {

constexpr int kBadParameter = 0x0D00;
constexpr uid_t kOtherUser = 1000;
constexpr gid_t kOtherGroup = 1001;

// Runs a program with the arguments after its name.
int execute(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv;
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    return TLIBCExecv(argv[0], argv.data(), 1);
}

int executeScript(const std::string& script) {
    return execute({"/bin/sh", "-c", script});
}

class CoreTest : public DirectoryTest {
protected:
    CoreTest() {
        clearCapturedLog();
        TLIBCErrSetEx(0, "", 0);
        errno = 0;
    }
};

}  // namespace

// ---- String lists ----

namespace {

struct ListDeleter {
    void operator()(PTLIBCSZLIST list) const { TLIBCSzListFree(list); }
};
using List = std::unique_ptr<TLIBCSZLIST, ListDeleter>;

class SzListTest : public CoreTest {
protected:
    // A list of the texts, pushed in order onto a list of this first capacity.
    static List listOf(int capacity, const std::vector<std::string>& texts) {
        PTLIBCSZLIST list = TLIBCSzListAlloc(capacity, 0);
        for (const std::string& text : texts) {
            EXPECT_GE(TLIBCSzListPush(&list, text.c_str()), 0);
        }
        return List(list);
    }
};

}  // namespace

TEST_F(SzListTest, NewListIsEmptyWithRoomAsAsked) {
    const List list(TLIBCSzListAlloc(1024, 0));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->nItem, 0);
    EXPECT_EQ(list->capacity, 1024);
    EXPECT_EQ(TLIBCSzListGet(list.get(), 0), nullptr);
}

TEST_F(SzListTest, NegativeCapacityIsRefused) {
    EXPECT_EQ(TLIBCSzListAlloc(-1, 0), nullptr);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    EXPECT_STREQ(TLIBCErrorGetFile(), "tarncore");
    EXPECT_GT(TLIBCErrorGetLine(), 0);
}

TEST_F(SzListTest, PushesKeepTheirOrderBeyondTheFirstCapacity) {
    for (const int capacity : {0, 1, 3}) {
        std::vector<std::string> texts;
        for (int i = 0; i < 1000; ++i) {
            texts.push_back("text " + std::to_string(i));
        }
        const List list = listOf(capacity, texts);
        ASSERT_EQ(list->nItem, 1000);
        EXPECT_GE(list->capacity, list->nItem);
        for (int i = 0; i < list->nItem; ++i) {
            EXPECT_EQ(TLIBCSzListGet(list.get(), i), texts[static_cast<std::size_t>(i)]);
        }
    }
}

TEST_F(SzListTest, PushCopiesItsText) {
    PTLIBCSZLIST list = TLIBCSzListAlloc(1, 0);
    const List owner(list);
    char text[] = "xt_geoip.ko";
    ASSERT_GE(TLIBCSzListPush(&list, text), 0);
    text[0] = '!';
    EXPECT_STREQ(TLIBCSzListGet(list, 0), "xt_geoip.ko");
}

TEST_F(SzListTest, AnItemOfTheListCanBePushedOntoIt) {
    PTLIBCSZLIST list = listOf(1, {"first"}).release();
    ASSERT_GE(TLIBCSzListPush(&list, TLIBCSzListGet(list, 0)), 0);
    const List owner(list);
    EXPECT_STREQ(TLIBCSzListGet(list, 1), "first");
}

TEST_F(SzListTest, GetOutsideTheListIsNull) {
    const List list = listOf(8, {"a", "b"});
    EXPECT_EQ(TLIBCSzListGet(list.get(), -1), nullptr);
    EXPECT_EQ(TLIBCSzListGet(list.get(), 2), nullptr);
    EXPECT_EQ(TLIBCSzListGet(nullptr, 0), nullptr);
}

TEST_F(SzListTest, RefusedPushLeavesTheList) {
    PTLIBCSZLIST list = listOf(1, {"a"}).release();
    const List owner(list);
    EXPECT_LT(TLIBCSzListPush(&list, nullptr), 0);
    EXPECT_EQ(list, owner.get());
    EXPECT_EQ(list->nItem, 1);
    PTLIBCSZLIST none = nullptr;
    EXPECT_LT(TLIBCSzListPush(&none, "a"), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_LT(TLIBCSzListPush(nullptr, "a"), 0);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
}

TEST_F(SzListTest, NullIsFreed) {
    TLIBCSzListFree(nullptr);
}

// ---- Programs ----

namespace {

// Opens a file that programs must not find open: without close-on-exec, at several numbers.
class Leaks {
public:
    explicit Leaks(const std::string& path) {
        const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
        fds_ = {fd, dup(fd), dup2(fd, 100), dup2(fd, 1000)};
        EXPECT_THAT(fds_, Each(::testing::Gt(2)));
    }
    ~Leaks() {
        for (const int fd : fds_) {
            close(fd);
        }
    }
    Leaks(const Leaks&) = delete;
    Leaks& operator=(const Leaks&) = delete;

private:
    std::vector<int> fds_;
};

class ExecTest : public CoreTest {};

}  // namespace

TEST_F(ExecTest, ReturnsTheExitStatus) {
    EXPECT_EQ(executeScript("exit 0"), 0);
    EXPECT_EQ(executeScript("exit 3"), 3);
    EXPECT_EQ(executeScript("exit 255"), 255);
}

TEST_F(ExecTest, KilledProgramReturns128PlusTheSignal) {
    EXPECT_EQ(executeScript("kill -KILL $$"), 128 + SIGKILL);
    EXPECT_EQ(executeScript("kill -TERM $$"), 128 + SIGTERM);
}

TEST_F(ExecTest, NonZeroStatusIsLoggedWithTheCommandLine) {
    executeScript("exit 3");
    EXPECT_EQ(countLogged(LOG_WARNING, "\"/bin/sh -c exit 3\" ended with status 3"), 1);
    EXPECT_EQ(capturedLog().size(), 1U);
}

TEST_F(ExecTest, SuccessIsNotLogged) {
    executeScript("exit 0");
    EXPECT_TRUE(capturedLog().empty());
}

TEST_F(ExecTest, LineBreaksInArgumentsMakeNoLogLines) {
    execute({"/bin/sh", "-c", "exit 1", "a\nb\x1b[2J"});
    EXPECT_EQ(countLogged(LOG_WARNING, "\"/bin/sh -c exit 1 a?b?[2J\""), 1);
}

TEST_F(ExecTest, MissingProgramIsMinusOne) {
    EXPECT_EQ(execute({path("missing")}), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(TLIBCErrGet(), ENOENT);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot run " + path("missing") + ": No such file"), 1);
}

TEST_F(ExecTest, FileThatIsNotExecutableIsMinusOne) {
    writeFile(path("plain"), "#!/bin/sh\nexit 0\n", 0644);
    EXPECT_EQ(execute({path("plain")}), -1);
    EXPECT_EQ(errno, EACCES);
}

TEST_F(ExecTest, ScriptWithoutInterpreterLineGetsNoShell) {
    writeFile(path("script"), "touch " + path("ran") + "\n", 0755);
    EXPECT_EQ(execute({path("script")}), -1);
    EXPECT_EQ(errno, ENOEXEC);
    EXPECT_FALSE(fs::exists(path("ran")));
}

TEST_F(ExecTest, NameWithoutSlashIsNotSearchedFor) {
    EXPECT_EQ(execute({"true"}), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ExecTest, MissingArgumentsAreRefused) {
    const char* const none[] = {nullptr};
    EXPECT_EQ(TLIBCExecv("/bin/true", none, 1), -1);
    EXPECT_EQ(TLIBCExecv("/bin/true", nullptr, 1), -1);
    const char* const argv[] = {"true", nullptr};
    EXPECT_EQ(TLIBCExecv(nullptr, argv, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
}

TEST_F(ExecTest, ShellCharactersArePassedAsTheyAre) {
    const std::string name = "a b;$(id)|`id`&*?\"'\\ >x <y #z \t\n!";
    EXPECT_EQ(execute({"/usr/bin/touch", path(name)}), 0);
    EXPECT_TRUE(fs::exists(path(name)));
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 1);
}

TEST_F(ExecTest, EmptyArgumentStaysOne) {
    EXPECT_EQ(execute({"/bin/sh", "-c", "exit $#", "sh", "", ""}), 2);
}

TEST_F(ExecTest, ProgramNameIsTheFirstArgumentNotThePath) {
    const char* const argv[] = {"other", "-c", "[ \"$0\" = other ]", nullptr};
    EXPECT_EQ(TLIBCExecv("/bin/sh", argv, 1), 0);
}

TEST_F(ExecTest, EnvironmentIsFixed) {
    setenv("LD_PRELOAD_TEST", "1", 1);
    setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_EQ(execute({"/bin/cp", "/proc/self/environ", path("environ")}), 0);
    EXPECT_EQ(readFile(path("environ")),
              std::string("PATH=/usr/sbin:/usr/bin:/sbin:/bin\0LC_ALL=C\0", 44));
}

TEST_F(ExecTest, NoDescriptorLeaksIntoTheProgram) {
    const Leaks leaks(path("leak"));
    // In a subshell, whose output is none of the shell's own descriptors.
    EXPECT_EQ(executeScript("(ls /proc/$$/fd > " + path("fds") + "); :"), 0);
    EXPECT_EQ(readFile(path("fds")), "0\n1\n2\n");
}

TEST_F(ExecTest, StandardInputIsEmpty) {
    writeFile(path("input"), "input");
    EXPECT_EQ(runChild([&] {
                  dup2(open(path("input").c_str(), O_RDONLY), STDIN_FILENO);
                  return executeScript("(readlink /proc/$$/fd/0 > " + path("stdin") + "); :");
              }),
              0);
    EXPECT_EQ(readFile(path("stdin")), "/dev/null\n");
}

TEST_F(ExecTest, OutputAndErrorsAreTheCallers) {
    EXPECT_EQ(runChild([&] {
                  const int out = open(path("out").c_str(), O_WRONLY | O_CREAT, 0600);
                  const int err = open(path("err").c_str(), O_WRONLY | O_CREAT, 0600);
                  dup2(out, STDOUT_FILENO);
                  dup2(err, STDERR_FILENO);
                  return executeScript("echo output; echo errors >&2");
              }),
              0);
    EXPECT_EQ(readFile(path("out")), "output\n");
    EXPECT_EQ(readFile(path("err")), "errors\n");
}

TEST_F(ExecTest, ClosedStandardDescriptorsAreNullForTheProgram) {
    EXPECT_EQ(runChild([&] {
                  close(STDIN_FILENO);
                  close(STDOUT_FILENO);
                  close(STDERR_FILENO);
                  return executeScript("(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 > " +
                                       path("fds") + "); :");
              }),
              0);
    EXPECT_EQ(readFile(path("fds")), "/dev/null\n/dev/null\n/dev/null\n");
}

TEST_F(ExecTest, SignalsAreNeitherBlockedNorIgnored) {
    EXPECT_EQ(runChild([&] {
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_BLOCK, &all, nullptr);
                  for (const int ignored : {SIGPIPE, SIGINT, SIGTERM, SIGUSR1}) {
                      signal(ignored, SIG_IGN);
                  }
                  return execute({"/bin/cp", "/proc/self/status", path("status")});
              }),
              0);
    const std::string status = readFile(path("status"));
    EXPECT_THAT(status, HasSubstr("SigBlk:\t0000000000000000"));
    // Two signals (32 and 33) are the C library's own, which it lets no program set.
    EXPECT_THAT(status, ::testing::ContainsRegex("SigIgn:\t0000000[01][08]0000000\n"));
}

TEST_F(ExecTest, LostStatusCountsAsSuccessAndIsLogged) {
    EXPECT_EQ(runChild([&] {
                  signal(SIGCHLD, SIG_IGN);
                  const bool ran = executeScript("exit 3") == 0;
                  const bool logged =
                      countLogged(LOG_WARNING,
                                  "The exit status of \"/bin/sh -c exit 3\" is lost") == 1;
                  const bool missing = execute({path("missing")}) == -1;
                  return ran && logged && missing ? 0 : 1;
              }),
              0);
}

namespace {

std::atomic<int> alarms = 0;
char fifoPath[PATH_MAX];

// Lets the program end at the third signal; without a reader yet, at the next one.
void onAlarm(int) {
    const int error = errno;
    if (++alarms >= 3) {
        const int fd = open(fifoPath, O_WRONLY | O_NONBLOCK);
        if (fd >= 0) {
            close(fd);
        }
    }
    errno = error;
}

}  // namespace

TEST_F(ExecTest, WaitingSurvivesSignals) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    ASSERT_LT(path("fifo").size(), sizeof fifoPath);
    strcpy(fifoPath, path("fifo").c_str());
    EXPECT_EQ(runChild([&] {
                  struct sigaction action = {};
                  action.sa_handler = onAlarm;  // without SA_RESTART: system calls are interrupted
                  sigaction(SIGALRM, &action, nullptr);
                  const itimerval often = {{0, 2000}, {0, 2000}};
                  setitimer(ITIMER_REAL, &often, nullptr);
                  const int status = executeScript("read line < " + path("fifo") + "; exit 7");
                  return status == 7 && alarms >= 3 ? 0 : 1;
              }),
              0);
}

namespace {

class PopenTest : public CoreTest {};

}  // namespace

TEST_F(PopenTest, GivesTheOutputAndTheStatus) {
    FILE* const stream = TLIBCPopen("/bin/sh", "r", "-c", "echo one; echo two; exit 5", NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), "one\ntwo\n");
    EXPECT_EQ(TLIBCPclose(stream), 5);
    EXPECT_EQ(
        countLogged(LOG_WARNING, "\"/bin/sh -c echo one; echo two; exit 5\" ended with status 5"),
        1);
}

TEST_F(PopenTest, KilledProgramReturns128PlusTheSignal) {
    FILE* const stream = TLIBCPopen("/bin/sh", "r", "-c", "kill -KILL $$", NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(TLIBCPclose(stream), 128 + SIGKILL);
}

TEST_F(PopenTest, ArgumentsFollowTheProgramsPath) {
    FILE* const stream = TLIBCPopen("/bin/cat", "r", "/proc/self/cmdline", NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), std::string("/bin/cat\0/proc/self/cmdline\0", 28));
    EXPECT_EQ(TLIBCPclose(stream), 0);
}

TEST_F(PopenTest, ShellCharactersArePassedAsTheyAre) {
    const std::string text = "$HOME;`id`|$(id)&*?\"'\\ >x\n";
    FILE* const stream = TLIBCPopen("/usr/bin/printf", "r", "%s", text.c_str(), NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), text);
    EXPECT_EQ(TLIBCPclose(stream), 0);
}

TEST_F(PopenTest, EnvironmentIsFixed) {
    setenv("SECRET", "1", 1);
    FILE* const stream = TLIBCPopen("/usr/bin/env", "r", NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C\n");
    EXPECT_EQ(TLIBCPclose(stream), 0);
}

TEST_F(PopenTest, NoDescriptorLeaksNotEvenOfOtherStreams) {
    const Leaks leaks(path("leak"));
    FILE* const other = TLIBCPopen("/bin/true", "r", NULL);
    ASSERT_NE(other, nullptr);
    FILE* const stream = TLIBCPopen("/bin/ls", "r", "/proc/self/fd", NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(readAll(stream), "0\n1\n2\n3\n");  // the last one is the listed directory
    EXPECT_EQ(TLIBCPclose(stream), 0);
    EXPECT_EQ(TLIBCPclose(other), 0);
}

TEST_F(PopenTest, StandardInputIsEmpty) {
    writeFile(path("input"), "input");
    EXPECT_EQ(runChild([&] {
                  dup2(open(path("input").c_str(), O_RDONLY), STDIN_FILENO);
                  FILE* const stream = TLIBCPopen("/bin/readlink", "r", "/proc/self/fd/0", NULL);
                  const bool empty = stream != nullptr && readAll(stream) == "/dev/null\n";
                  return empty && TLIBCPclose(stream) == 0 ? 0 : 1;
              }),
              0);
}

TEST_F(PopenTest, WorksWithoutStandardDescriptors) {
    EXPECT_EQ(runChild([&] {
                  close(STDIN_FILENO);
                  close(STDOUT_FILENO);
                  close(STDERR_FILENO);
                  FILE* const stream = TLIBCPopen(
                      "/bin/sh", "r", "-c", "readlink /proc/$$/fd/0 /proc/$$/fd/2; exit 4", NULL);
                  if (stream == nullptr || readAll(stream) != "/dev/null\n/dev/null\n") {
                      return 1;
                  }
                  return TLIBCPclose(stream);
              }),
              4);
}

TEST_F(PopenTest, SeveralStreamsAtOnceKeepTheirPrograms) {
    FILE* const first = TLIBCPopen("/bin/sh", "r", "-c", "echo first; exit 1", NULL);
    FILE* const second = TLIBCPopen("/bin/sh", "r", "-c", "echo second; exit 2", NULL);
    FILE* const third = TLIBCPopen("/bin/sh", "r", "-c", "echo third; exit 3", NULL);
    ASSERT_TRUE(first != nullptr && second != nullptr && third != nullptr);
    EXPECT_EQ(readAll(second), "second\n");
    EXPECT_EQ(readAll(third), "third\n");
    EXPECT_EQ(readAll(first), "first\n");
    EXPECT_EQ(TLIBCPclose(second), 2);
    EXPECT_EQ(TLIBCPclose(third), 3);
    EXPECT_EQ(TLIBCPclose(first), 1);
}

TEST_F(PopenTest, ThreadsKeepTheirPrograms) {
    std::atomic<int> right = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&right, thread] {
            for (int round = 0; round < 10; ++round) {
                const int status = 1 + thread * 10 + round;
                const std::string script =
                    "echo " + std::to_string(status) + "; exit " + std::to_string(status);
                FILE* const stream = TLIBCPopen("/bin/sh", "r", "-c", script.c_str(), NULL);
                if (stream != nullptr && readAll(stream) == std::to_string(status) + "\n" &&
                    TLIBCPclose(stream) == status) {
                    ++right;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 80);
}

TEST_F(PopenTest, ClosingEarlyEndsAProgramThatStillWrites) {
    FILE* const stream = TLIBCPopen("/usr/bin/yes", "r", NULL);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(fgetc(stream), 'y');
    EXPECT_EQ(TLIBCPclose(stream), 128 + SIGPIPE);
}

TEST_F(PopenTest, MissingProgramIsNull) {
    EXPECT_EQ(TLIBCPopen(path("missing").c_str(), "r", "argument", NULL), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(TLIBCErrGet(), ENOENT);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot run " + path("missing")), 1);
}

TEST_F(PopenTest, OtherModesAreRefused) {
    EXPECT_EQ(TLIBCPopen("/bin/true", "w", NULL), nullptr);
    EXPECT_EQ(TLIBCPopen("/bin/true", "", NULL), nullptr);
    EXPECT_EQ(TLIBCPopen("/bin/true", "re", NULL), nullptr);
    EXPECT_EQ(TLIBCPopen(nullptr, "r", NULL), nullptr);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
}

TEST_F(PopenTest, UnknownStreamIsRefusedAndLeftOpen) {
    FILE* const stream = fopen("/dev/null", "r");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(TLIBCPclose(stream), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_GE(fcntl(fileno(stream), F_GETFD), 0);
    fclose(stream);
    EXPECT_EQ(TLIBCPclose(nullptr), -1);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
}

// ---- Files ----

namespace {

class FileExistTest : public CoreTest {};

}  // namespace

TEST_F(FileExistTest, AnyTypeExists) {
    writeFile(path("file"), "");
    fs::create_directory(path("directory"));
    fs::create_symlink(path("nowhere"), path("link"));
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    for (const char* name : {"file", "directory", "link", "fifo"}) {
        EXPECT_EQ(TLIBCFileExist(path(name).c_str()), 1) << name;
    }
    EXPECT_EQ(TLIBCFileExist(path("missing").c_str()), 0);
    EXPECT_EQ(TLIBCFileExist(path("file/below").c_str()), 0);
    EXPECT_EQ(TLIBCFileExist(nullptr), 0);
}

namespace {

class KeyValueTest : public CoreTest {
protected:
    const std::string file_ = path("settings.conf");

    int set(const std::string& key, const std::string& value) const {
        return TLIBCFileSetKeyValue(file_.c_str(), key.c_str(), value.c_str(), 0);
    }

    // The value of a key; "(absent)" or "(error)" when there is none.
    std::string get(const std::string& key) const {
        char value[4096];
        const int result = TLIBCFileGetKeyValue(file_.c_str(), key.c_str(), value, sizeof value, 0);
        if (result < 0) {
            return "(error)";
        }
        return result == 0 ? "(absent)" : value;
    }

    // The names in the directory of the file.
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(directory_)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

struct ValueCase {
    const char* name;
    const char* line;
    const char* value;  // of the key "key"
};

class KeyValueLineTest : public KeyValueTest, public ::testing::WithParamInterface<ValueCase> {};

const ValueCase kLines[] = {
    {"Quoted", "key=\"value\"", "value"},
    {"Bare", "key=value", "value"},
    {"EmptyQuoted", "key=\"\"", ""},
    {"EmptyBare", "key=", ""},
    {"BlanksInQuotes", "key=\" a  b \"", " a  b "},
    {"BlanksInBareValue", "key=a.ko b.ko  c.ko", "a.ko b.ko  c.ko"},
    {"BlanksAroundEverything", " \tkey \t=\t value \t", "value"},
    {"BlanksAroundQuotes", "key = \"value\" ", "value"},
    {"HashInQuotes", "key=\"a # b\"", "a # b"},
    {"HashInBareWord", "key=a#b", "a#b"},
    {"HashAsBareValue", "key=#b", "#b"},
    {"CommentBehindBareValue", "key=value # why", "value"},
    {"CommentAsBareValue", "key= # why", ""},
    {"CommentBehindQuotes", "key=\"value\" # why", "value"},
    {"EqualsInValue", "key=a=b", "a=b"},
    {"EscapedQuote", "key=\"a\\\"b\"", "a\"b"},
    {"EscapedBackslash", "key=\"a\\\\b\"", "a\\b"},
    {"EscapedDollarAndBackquote", "key=\"\\$a \\`b\\`\"", "$a `b`"},
    {"OtherBackslashesStay", "key=\"C:\\new\"", "C:\\new"},
    {"BackslashInBareValue", "key=a\\\\b", "a\\\\b"},
    {"OpenQuote", "key=\"value", "\"value"},
    {"EscapedClosingQuote", "key=\"value\\\"", "\"value\\\""},
    {"TextBehindQuotes", "key=\"a\"b", "\"a\"b"},
    {"LineEndOfOtherSystems", "key=value\r", "value"},
    {"QuotedLineEndOfOtherSystems", "key=\"value\"\r", "value"},
    {"LastOfTwo", "key=first\nkey=\"second\"", "second"},
    {"NotThePrefix", "keys=a\nkey=b\nxkey=c", "b"},
    {"CommentedOut", "key=a\n#key=b\n  # key=c", "a"},
    {"AmongOtherThings", "# comment\n\nnonsense\n=nothing\nkey=value\n\n", "value"},
};

}  // namespace

TEST_P(KeyValueLineTest, ReadsAs) {
    const ValueCase& c = GetParam();
    writeFile(file_, std::string(c.line) + "\n");
    EXPECT_EQ(get("key"), c.value);
    writeFile(file_, c.line);  // without the last line break
    EXPECT_EQ(get("key"), c.value);
}

INSTANTIATE_TEST_SUITE_P(Lines, KeyValueLineTest, ::testing::ValuesIn(kLines),
                         [](const auto& line) { return std::string(line.param.name); });

TEST_F(KeyValueTest, AbsentKeyIsZeroAndReadsAsEmpty) {
    writeFile(file_, "other=\"x\"\n");
    char value[8] = "before";
    EXPECT_EQ(TLIBCFileGetKeyValue(file_.c_str(), "key", value, sizeof value, 0), 0);
    EXPECT_STREQ(value, "");
}

TEST_F(KeyValueTest, FoundKeyIsAboveZeroEvenWhenEmpty) {
    writeFile(file_, "key=\"\"\n");
    char value[8] = "before";
    EXPECT_GT(TLIBCFileGetKeyValue(file_.c_str(), "key", value, sizeof value, 0), 0);
    EXPECT_STREQ(value, "");
}

TEST_F(KeyValueTest, MissingFileIsAnError) {
    char value[8] = "before";
    EXPECT_LT(TLIBCFileGetKeyValue(file_.c_str(), "key", value, sizeof value, 0), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(TLIBCErrGet(), ENOENT);
    EXPECT_STREQ(value, "");
}

TEST_F(KeyValueTest, ValueFitsWithItsEndOrIsAnError) {
    writeFile(file_, "key=\"1234567\"\n");
    char value[8];
    EXPECT_GT(TLIBCFileGetKeyValue(file_.c_str(), "key", value, 8, 0), 0);
    EXPECT_STREQ(value, "1234567");
    EXPECT_LT(TLIBCFileGetKeyValue(file_.c_str(), "key", value, 7, 0), 0);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_STREQ(value, "");
    EXPECT_EQ(countLogged(LOG_ERR, "The value of key in " + file_ + " is longer than 6 bytes"), 1);
}

TEST_F(KeyValueTest, BadArgumentsOfReadingAreRefused) {
    writeFile(file_, "key=\"x\"\n");
    char value[8];
    EXPECT_LT(TLIBCFileGetKeyValue(nullptr, "key", value, sizeof value, 0), 0);
    EXPECT_LT(TLIBCFileGetKeyValue(file_.c_str(), nullptr, value, sizeof value, 0), 0);
    EXPECT_LT(TLIBCFileGetKeyValue(file_.c_str(), "key", nullptr, 8, 0), 0);
    EXPECT_LT(TLIBCFileGetKeyValue(file_.c_str(), "key", value, 0, 0), 0);
    EXPECT_LT(TLIBCFileGetKeyValue(file_.c_str(), "", value, sizeof value, 0), 0);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
}

TEST_F(KeyValueTest, SetMakesTheFile) {
    const Umask mask(077);
    EXPECT_GE(set("firewall", "yes"), 0);
    EXPECT_EQ(readFile(file_), "firewall=\"yes\"\n");
    EXPECT_EQ(modeOf(file_), S_IFREG | 0644U);
    EXPECT_THAT(names(), ElementsAre("settings.conf"));
}

TEST_F(KeyValueTest, SetKeepsCommentsOrderAndSpelling) {
    writeFile(file_, "# head\n\nfirst = 1 # one\n  # between\nkey=old # gone\nnonsense\nlast='3'");
    EXPECT_GE(set("key", "new"), 0);
    EXPECT_EQ(readFile(file_),
              "# head\n\nfirst = 1 # one\n  # between\nkey=\"new\"\nnonsense\nlast='3'\n");
    EXPECT_GE(set("more", ""), 0);
    EXPECT_EQ(readFile(file_),
              "# head\n\nfirst = 1 # one\n  # between\nkey=\"new\"\nnonsense\nlast='3'\n"
              "more=\"\"\n");
}

TEST_F(KeyValueTest, SetChangesTheLineThatCounts) {
    writeFile(file_, "key=1\nkey=2\nother=3\n");
    EXPECT_GE(set("key", "new"), 0);
    EXPECT_EQ(readFile(file_), "key=1\nkey=\"new\"\nother=3\n");
    EXPECT_EQ(get("key"), "new");
}

TEST_F(KeyValueTest, SetKeepsModeAndGroup) {
    TARN_NEEDS_OTHER_USERS();
    writeFile(file_, "key=1\n", 0640);
    ASSERT_EQ(chown(file_.c_str(), 0, kOtherGroup), 0);
    EXPECT_GE(set("key", "2"), 0);
    EXPECT_EQ(modeOf(file_), S_IFREG | 0640U);
    struct stat info;
    ASSERT_EQ(stat(file_.c_str(), &info), 0);
    EXPECT_EQ(info.st_gid, kOtherGroup);
}

TEST_F(KeyValueTest, SetReplacesTheFileRatherThanItsContent) {
    writeFile(file_, "key=1\n");
    std::ifstream before(file_);
    EXPECT_GE(set("key", "2"), 0);
    std::string line;
    std::getline(before, line);
    EXPECT_EQ(line, "key=1");  // who has it open still reads the whole old file
    EXPECT_EQ(get("key"), "2");
}

TEST_F(KeyValueTest, KeysThatNoLineCanHoldAreRefused) {
    writeFile(file_, "key=1\n");
    for (const char* key : {"", "a=b", "a\nb", "#a", " a", "a ", "\ta", "a\r"}) {
        EXPECT_LT(set(key, "x"), 0) << key;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    }
    EXPECT_LT(TLIBCFileSetKeyValue(file_.c_str(), nullptr, "x", 0), 0);
    EXPECT_LT(TLIBCFileSetKeyValue(nullptr, "key", "x", 0), 0);
    EXPECT_LT(TLIBCFileSetKeyValue(file_.c_str(), "key", nullptr, 0), 0);
    EXPECT_EQ(readFile(file_), "key=1\n");
}

TEST_F(KeyValueTest, OddServiceNamesAreKeys) {
    for (const char* key :
         {"vpn server", "a#b", "p\xc3\xa4p", "a\"b", "$(id)", "a\\b", "a;b", "-"}) {
        EXPECT_GE(set(key, key), 0) << key;
    }
    for (const char* key :
         {"vpn server", "a#b", "p\xc3\xa4p", "a\"b", "$(id)", "a\\b", "a;b", "-"}) {
        EXPECT_EQ(get(key), key);
    }
}

TEST_F(KeyValueTest, ValueWithALineBreakIsRefused) {
    EXPECT_LT(set("key", "a\nother=\"injected\""), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists(file_));
}

TEST_F(KeyValueTest, RandomValuesRoundTrip) {
    std::mt19937 random(20240229);
    const std::string alphabet = "ab01 \t\r\"\"\\\\#=$`'!;&|*?<>(){}[]~%\x01\x7f\xc3\xa4";
    std::uniform_int_distribution<std::size_t> length(0, 24);
    std::uniform_int_distribution<std::size_t> letter(0, alphabet.size() - 1);
    for (int round = 0; round < 1500; ++round) {
        std::string value;
        for (std::size_t i = length(random); i > 0; --i) {
            value += alphabet[letter(random)];
        }
        const std::string key = "key" + std::to_string(round % 7);
        ASSERT_GE(set(key, value), 0) << value;
        ASSERT_EQ(get(key), value) << readFile(file_);
        ASSERT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), key.c_str(), value.c_str(), 0), 1);
    }
}

TEST_F(KeyValueTest, ShellsReadTheSameValues) {
    const std::string values[] = {"",           "plain",      " a  b ", "say \"hi\"", "back\\slash",
                                  "$HOME $$",   "`id` $(id)", "a#b #c", "it's",       "\\\"",
                                  "ends in \\", "!x *?"};
    for (const std::string& value : values) {
        ASSERT_GE(set("key", value), 0);
        FILE* const stream =
            TLIBCPopen("/bin/sh", "r", "-c", ". \"$0\"; printf %s \"$key\"", file_.c_str(), NULL);
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(readAll(stream), value);
        EXPECT_EQ(TLIBCPclose(stream), 0);
    }
}

TEST_F(KeyValueTest, LinkIsNeitherBelievedNorWrittenThrough) {
    writeFile(path("target"), "key=\"planted\"\n");
    fs::create_symlink(path("target"), file_);
    EXPECT_EQ(get("key"), "(error)");
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(countLogged(LOG_ERR, "Refused " + file_ + ": it is a symbolic link"), 1);
    EXPECT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), "key", "planted", 0), 0);

    EXPECT_GE(set("firewall", "yes"), 0);
    EXPECT_EQ(readFile(path("target")), "key=\"planted\"\n");
    EXPECT_EQ(modeOf(file_), S_IFREG | 0644U);
    EXPECT_EQ(readFile(file_), "firewall=\"yes\"\n");
}

TEST_F(KeyValueTest, LinkThatLeadsNowhereIsReplaced) {
    fs::create_symlink(path("target"), file_);
    EXPECT_GE(set("firewall", "yes"), 0);
    EXPECT_FALSE(fs::exists(path("target")));
    EXPECT_EQ(get("firewall"), "yes");
}

TEST_F(KeyValueTest, FileOfAnotherUserIsNotBelieved) {
    TARN_NEEDS_OTHER_USERS();
    writeFile(file_, "firewall=\"yes\"\n", 0666);
    ASSERT_EQ(chown(file_.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_EQ(get("firewall"), "(error)");
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(countLogged(LOG_ERR, "Refused " + file_ + ": it belongs to user 1000"), 1);

    EXPECT_GE(set("ssh", "yes"), 0);
    struct stat info;
    ASSERT_EQ(stat(file_.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0U);
    EXPECT_EQ(info.st_mode, S_IFREG | 0644U);
    EXPECT_EQ(readFile(file_), "ssh=\"yes\"\n");
}

TEST_F(KeyValueTest, OtherUsersBelieveTheirOwnFilesAndRoots) {
    TARN_NEEDS_OTHER_USERS();
    ASSERT_EQ(chmod(directory_.c_str(), 0755), 0);
    writeFile(file_, "key=root\n");
    writeFile(path("own"), "key=own\n");
    ASSERT_EQ(chown(path("own").c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_EQ(runChild([&] {
                  if (setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) {
                      return 1;
                  }
                  const bool root = TLIBCFileCheckKeyValue(file_.c_str(), "key", "root", 0) == 1;
                  const bool own =
                      TLIBCFileCheckKeyValue(path("own").c_str(), "key", "own", 0) == 1;
                  return root && own ? 0 : 1;
              }),
              0);
}

TEST_F(KeyValueTest, PlantedFifoNeitherBlocksNorIsBelieved) {
    ASSERT_EQ(mkfifo(file_.c_str(), 0666), 0);
    EXPECT_EQ(get("key"), "(error)");
    EXPECT_EQ(countLogged(LOG_ERR, "Refused " + file_ + ": it is no regular file"), 1);
    EXPECT_GE(set("key", "x"), 0);
    EXPECT_EQ(modeOf(file_), S_IFREG | 0644U);
}

TEST_F(KeyValueTest, FileThatOthersMayWriteIsNotBelieved) {
    for (const mode_t mode : {0664U, 0646U}) {
        writeFile(file_, "firewall=\"yes\"\n", mode);
        clearCapturedLog();
        EXPECT_EQ(get("firewall"), "(error)");
        EXPECT_EQ(errno, EPERM);
        EXPECT_EQ(countLogged(LOG_ERR, "Refused " + file_ + ": group or others may write it"), 1);
    }
}

TEST_F(KeyValueTest, DirectoryIsNotBelievedAndIsSetAsideByAWrite) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(file_);
    writeFile(file_ + "/trap", "");
    ASSERT_EQ(chown(file_.c_str(), kOtherUser, kOtherUser), 0);
    EXPECT_EQ(get("key"), "(error)");
    EXPECT_EQ(errno, EINVAL);

    EXPECT_GE(set("key", "x"), 0);
    EXPECT_EQ(readFile(file_), "key=\"x\"\n");
    EXPECT_EQ(countLogged(LOG_ERR, "Refused " + file_ + ": it is a directory; set aside as "), 1);
    EXPECT_THAT(names(),
                UnorderedElementsAre("settings.conf", StartsWith("settings.conf.refused-")));
}

TEST_F(KeyValueTest, FailedWriteLeavesNothingBehind) {
    fs::create_directory(file_);
    ASSERT_EQ(mount("busy", file_.c_str(), "tmpfs", 0, nullptr), 0);  // cannot be moved
    EXPECT_LT(set("key", "x"), 0);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(TLIBCErrGet(), EBUSY);
    EXPECT_THAT(names(), ElementsAre("settings.conf"));
    ASSERT_EQ(umount(file_.c_str()), 0);
    EXPECT_EQ(TLIBCFileSetKeyValue(path("no/file").c_str(), "key", "x", 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(KeyValueTest, ConcurrentWritersLoseNothing) {
    constexpr int kWriters = 6;
    constexpr int kKeys = 20;
    writeFile(file_, "# kept\nstable=\"yes\"\n");
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.push_back(startChild([&] {
            for (int i = 0; i < kKeys; ++i) {
                const std::string key = "w" + std::to_string(writer) + "_" + std::to_string(i);
                // Meanwhile readers, who take no lock, only ever see whole files.
                if (set(key, key) < 0 ||
                    TLIBCFileCheckKeyValue(file_.c_str(), "stable", "yes", 0) != 1) {
                    return 1;
                }
            }
            return 0;
        }));
    }
    for (const pid_t writer : writers) {
        EXPECT_EQ(exitStatusOf(writer), 0);
    }
    for (int writer = 0; writer < kWriters; ++writer) {
        for (int i = 0; i < kKeys; ++i) {
            const std::string key = "w" + std::to_string(writer) + "_" + std::to_string(i);
            EXPECT_EQ(get(key), key);
        }
    }
    EXPECT_EQ(readFile(file_).rfind("# kept\nstable=\"yes\"\n", 0), 0U);
    EXPECT_THAT(names(), ElementsAre("settings.conf"));
}

TEST_F(KeyValueTest, CheckComparesExactly) {
    writeFile(file_, "key=\"yes\"\n");
    EXPECT_NE(TLIBCFileCheckKeyValue(file_.c_str(), "key", "yes", 0), 0);
    EXPECT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), "key", "YES", 0), 0);
    EXPECT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), "key", "yes ", 0), 0);
    EXPECT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), "key", "ye", 0), 0);
    EXPECT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), "absent", "", 0), 0);
    // An error must not be taken for a match, which any result but zero is.
    EXPECT_EQ(TLIBCFileCheckKeyValue(path("missing").c_str(), "key", "yes", 0), 0);
    EXPECT_EQ(TLIBCFileCheckKeyValue(file_.c_str(), "key", nullptr, 0), 0);
}

TEST_F(KeyValueTest, SupportIsYesInTheModelFile) {
    writeFile("/etc.defaults/tarninfo.conf",
              "support_wireless=\"yes\"\nsupport_a=\"no\"\nsupport_b=\"yes!\"\n");
    EXPECT_NE(TLIBCSupportGet("support_wireless"), 0);
    EXPECT_EQ(TLIBCSupportGet("support_a"), 0);
    EXPECT_EQ(TLIBCSupportGet("support_b"), 0);
    EXPECT_EQ(TLIBCSupportGet("support_c"), 0);
    EXPECT_EQ(TLIBCSupportGet(nullptr), 0);
    fs::remove("/etc.defaults/tarninfo.conf");
    EXPECT_EQ(TLIBCSupportGet("support_wireless"), 0);
}

// ---- File locks ----

namespace {

// The pauses that the library made, in milliseconds; each of the next `interruptions` ends early,
// as with a signal.
std::mutex pausesMutex;
std::vector<long> pauses;
int interruptions = 0;

int recordPause(const timespec* wanted, timespec* left) {
    {
        const std::lock_guard<std::mutex> lock(pausesMutex);
        pauses.push_back(wanted->tv_sec * 1000 + wanted->tv_nsec / 1000000);
        if (interruptions > 0) {
            --interruptions;
            if (left != nullptr) {
                *left = *wanted;
            }
            errno = EINTR;
            return -1;
        }
    }
    return static_cast<int>(syscall(SYS_nanosleep, wanted, left));
}

}  // namespace

namespace {

// Called once when the library, holding a lock, is about to look whether the file is still there.
std::function<void()> beforeStatus;

}  // namespace

// In place of the C library's, for the platform library as well.
extern "C" __attribute__((visibility("default"))) int lstat(const char* path, struct stat* info) {
    if (const auto action = std::exchange(beforeStatus, nullptr)) {
        action();
    }
    return fstatat(AT_FDCWD, path, info, AT_SYMLINK_NOFOLLOW);
}

// Whether no lock can be taken, as on a file system that has none.
namespace {
bool refuseLocks = false;
}

extern "C" __attribute__((visibility("default"))) int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (refuseLocks && command == F_OFD_SETLK) {
        errno = ENOLCK;
        return -1;
    }
    static const auto real = reinterpret_cast<int (*)(int, int, ...)>(dlsym(RTLD_NEXT, "fcntl"));
    return real(fd, command, argument);
}

extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* wanted,
                                                                timespec* left) {
    return recordPause(wanted, left);
}

namespace {

class FileLockTest : public CoreTest {
protected:
    FileLockTest() {
        const std::lock_guard<std::mutex> lock(pausesMutex);
        pauses.clear();
        interruptions = 0;
    }

    const std::string file_ = path("file.lock");

    // Tries to lock the file; the descriptor, or -1.
    int lock(int seconds = 0) const {
        int fd = -1;
        const int result = TLIBCFileLockTimeByFile(file_.c_str(), 1, seconds, &fd);
        EXPECT_TRUE(result == 0 || result == 1) << result;
        EXPECT_EQ(result == 1, fd >= 0);
        return fd;
    }
};

}  // namespace

TEST_F(FileLockTest, LockMakesItsFileForItsOwnerAlone) {
    const Umask mask(0);
    const int fd = lock();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(modeOf(file_), S_IFREG | 0600U);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_TRUE(fs::exists(file_));
}

TEST_F(FileLockTest, ExistingFileIsLockedAsItIs) {
    writeFile(file_, "content", 0644);
    const int fd = lock();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(readFile(file_), "content");
    EXPECT_EQ(modeOf(file_), S_IFREG | 0644U);
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
}

TEST_F(FileLockTest, ExcludesAnotherProcess) {
    const int fd = lock();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(runChild([&] { return lock() == -1 ? 0 : 1; }), 0);
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
    EXPECT_EQ(runChild([&] { return lock() >= 0 ? 0 : 1; }), 0);
}

TEST_F(FileLockTest, ExcludesAnotherThread) {
    const int fd = lock();
    ASSERT_GE(fd, 0);
    std::thread([&] { EXPECT_EQ(lock(), -1); }).join();
    EXPECT_EQ(lock(), -1);  // and the same one
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
}

TEST_F(FileLockTest, ThreadsTakeTurns) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 50;
    int count = 0;  // only the lock keeps its reader and its writer together
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const int fd = lock(60);
                ASSERT_GE(fd, 0);
                const int seen = count;
                std::this_thread::yield();
                count = seen + 1;
                EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(count, kThreads * kRounds);
}

TEST_F(FileLockTest, NotObtainedLeavesTheDescriptorAndReportsIt) {
    const int held = lock();
    ASSERT_GE(held, 0);
    int fd = -77;
    EXPECT_EQ(TLIBCFileLockTimeByFile(file_.c_str(), 1, 0, &fd), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(fd, -77);
    EXPECT_EQ(TLIBCErrGet(), EAGAIN);
    EXPECT_STREQ(TLIBCErrorGetFile(), "tarncore");
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, NoTimeMeansOneAttempt) {
    const int held = lock();
    for (const int seconds : {0, -5}) {
        EXPECT_EQ(lock(seconds), -1);
    }
    EXPECT_TRUE(pauses.empty());
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, WaitsAtMostTheSecondsInGrowingPauses) {
    const int held = lock();
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(lock(1), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_GE(pauses.size(), 3U);
    EXPECT_EQ(pauses[0], 1);
    EXPECT_EQ(pauses[1], 2);
    EXPECT_EQ(pauses[2], 4);
    EXPECT_THAT(pauses, Each(Le(50)));
    // 1 + 2 + 4 + 8 + 16 + 32 ms, 50 ms each from then on, and the rest at the end.
    EXPECT_LE(pauses.size(), 6U + 1000 / 50 + 1);
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, WaitingSurvivesSignals) {
    const int held = lock();
    interruptions = 5;
    EXPECT_EQ(lock(1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(interruptions, 0);
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, WaiterGetsTheLockWhenItIsReleased) {
    const int held = lock();
    const Signal triedInVain;
    const pid_t waiter = startChild([&] {
        const bool excluded = lock() == -1;
        triedInVain.give();
        return excluded && lock(60) >= 0 ? 0 : 1;
    });
    triedInVain.await();
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
    EXPECT_EQ(exitStatusOf(waiter), 0);
}

TEST_F(FileLockTest, EndOfTheHolderReleasesTheLock) {
    const Signal locked;
    const pid_t holder = startChild([&] {
        (void)lock();
        locked.give();
        pause();
        return 0;
    });
    locked.await();
    EXPECT_EQ(lock(), -1);
    kill(holder, SIGKILL);
    EXPECT_EQ(exitStatusOf(holder), -1);
    const int fd = lock();
    EXPECT_GE(fd, 0);
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
}

TEST_F(FileLockTest, UnlockingCountsForForkedProcessesToo) {
    const int held = lock();
    const pid_t heir = startChild([] {
        pause();
        return 0;
    });
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
    const int fd = lock();  // although the forked process has the old descriptor
    EXPECT_GE(fd, 0);
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
    kill(heir, SIGKILL);
    EXPECT_EQ(exitStatusOf(heir), -1);
}

TEST_F(FileLockTest, ProgramsDoNotInheritTheLock) {
    const int held = lock();
    EXPECT_EQ(executeScript("! ls -l /proc/$$/fd | grep -q file.lock"), 0);
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, ClosingAnotherDescriptorOfTheFileKeepsTheLock) {
    const int held = lock();
    close(open(file_.c_str(), O_RDWR));
    EXPECT_EQ(lock(), -1);
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, RemovedFileIsMadeAnewForAWaiter) {
    const int held = lock();
    const Signal triedInVain;
    const pid_t waiter = startChild([&] {
        triedInVain.give();
        const int fd = lock(60);
        struct stat locked;
        struct stat named;
        return fd >= 0 && fstat(fd, &locked) == 0 && stat(file_.c_str(), &named) == 0 &&
                       locked.st_ino == named.st_ino
                   ? 0
                   : 1;
    });
    triedInVain.await();
    fs::remove(file_);
    EXPECT_EQ(exitStatusOf(waiter), 0);
    EXPECT_NE(TLIBCFileUnlockByFile(held), 0);
}

TEST_F(FileLockTest, FileRemovedWhileItIsLockedCountsForNothing) {
    beforeStatus = [this] { unlink(file_.c_str()); };
    const int fd = lock(60);
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(beforeStatus);
    EXPECT_EQ(lock(), -1);  // the lock is one that others see
    EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
}

TEST_F(FileLockTest, FileReplacedWhileItIsLockedCountsForNothing) {
    int other = -1;
    beforeStatus = [&] {
        unlink(file_.c_str());
        other = lock();
    };
    EXPECT_EQ(lock(), -1);
    EXPECT_GE(other, 0);
    EXPECT_NE(TLIBCFileUnlockByFile(other), 0);
}

TEST_F(FileLockTest, LinkIsRefused) {
    writeFile(path("target"), "content");
    fs::create_symlink(path("target"), file_);
    EXPECT_EQ(lock(5), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(TLIBCErrGet(), ELOOP);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot open lock file " + file_), 1);
    EXPECT_TRUE(pauses.empty());  // nothing to wait for
    EXPECT_EQ(readFile(path("target")), "content");
}

TEST_F(FileLockTest, LinkThatLeadsNowhereMakesNoFile) {
    fs::create_symlink(path("target"), file_);
    EXPECT_EQ(lock(), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(fs::exists(path("target")));
}

namespace {

// A lock path in a directory where anybody may put something.
class PlantedLockTest : public FileLockTest {
protected:
    PlantedLockTest() { EXPECT_EQ(chmod(directory_.c_str(), 01777), 0); }

    void giveAway() const { ASSERT_EQ(lchown(file_.c_str(), kOtherUser, kOtherUser), 0); }

    // That root gets a lock of its own at once, and what stood there is kept and logged once.
    void expectSetAside(const std::string& why) const {
        const int fd = lock();
        ASSERT_GE(fd, 0);
        EXPECT_EQ(modeOf(file_), S_IFREG | 0600U);
        struct stat info = {};
        EXPECT_EQ(fstat(fd, &info), 0);
        EXPECT_EQ(info.st_uid, 0U);
        EXPECT_EQ(lock(), -1);  // the lock is one that others see
        EXPECT_NE(TLIBCFileUnlockByFile(fd), 0);
        EXPECT_EQ(countLogged(LOG_ERR, "Refused " + file_ + ": " + why + "; set aside as " + file_ +
                                           ".refused-"),
                  1);
        EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 2);
    }

    // The result of an attempt of another user, or its errno as a negative number.
    int lockAsOther() const {
        return runChild([&] {
            if (setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) {
                return -1;
            }
            return lock() >= 0 ? 0 : errno;
        });
    }
};

}  // namespace

TEST_F(PlantedLockTest, DirectoryIsSetAside) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(file_);
    giveAway();
    expectSetAside("it is no regular file");
}

TEST_F(PlantedLockTest, FifoIsSetAside) {
    TARN_NEEDS_OTHER_USERS();
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    giveAway();
    expectSetAside("it is no regular file");
}

TEST_F(PlantedLockTest, LinkOfAnotherUserIsSetAside) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_symlink(path("nowhere"), file_);
    giveAway();
    expectSetAside("it belongs to user 1000");
    EXPECT_FALSE(fs::exists(path("nowhere")));
}

TEST_F(PlantedLockTest, FileOfAnotherUserIsSetAsideThoughItIsLocked) {
    TARN_NEEDS_OTHER_USERS();
    const Signal locked;
    const Signal done;
    writeFile(file_, "");
    giveAway();
    const pid_t holder = startChild([&] {
        if (setresuid(kOtherUser, kOtherUser, kOtherUser) != 0 || lock() < 0) {
            return 1;
        }
        locked.give();
        done.await();
        return 0;
    });
    locked.await();
    expectSetAside("it belongs to user 1000");
    done.give();
    EXPECT_EQ(exitStatusOf(holder), 0);
}

TEST_F(PlantedLockTest, WhatCannotBeMovedIsAFailure) {
    fs::create_directory(file_);
    ASSERT_EQ(mount("busy", file_.c_str(), "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(lock(5), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(countLogged(LOG_ERR, "; not set aside: "), 1);
    EXPECT_TRUE(pauses.empty());
    ASSERT_EQ(umount(file_.c_str()), 0);
}

TEST_F(PlantedLockTest, OtherUsersAreRefusedWhatIsNoFile) {
    TARN_NEEDS_OTHER_USERS();
    fs::create_directory(file_);
    EXPECT_EQ(lockAsOther(), EISDIR);
    fs::remove(file_);
    ASSERT_EQ(mkfifo(file_.c_str(), 0666), 0);
    ASSERT_EQ(chmod(file_.c_str(), 0666), 0);
    EXPECT_EQ(lockAsOther(), EINVAL);
    EXPECT_EQ(std::distance(fs::directory_iterator(directory_), {}), 1);
}

TEST_F(FileLockTest, FileSystemThatDoesNotLockIsAFailure) {
    refuseLocks = true;
    EXPECT_EQ(lock(5), -1);
    refuseLocks = false;
    EXPECT_EQ(errno, ENOLCK);
    EXPECT_EQ(countLogged(LOG_ERR, "Cannot lock " + file_ + ": "), 1);
    EXPECT_TRUE(pauses.empty());
}

TEST_F(FileLockTest, MissingDirectoryFailsAtOnce) {
    int fd = -1;
    EXPECT_EQ(TLIBCFileLockTimeByFile(path("no/lock").c_str(), 1, 5, &fd), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(pauses.empty());
}

TEST_F(FileLockTest, BadArgumentsAreRefused) {
    int fd = -1;
    EXPECT_EQ(TLIBCFileLockTimeByFile(nullptr, 1, 0, &fd), 0);
    EXPECT_EQ(TLIBCFileLockTimeByFile(file_.c_str(), 1, 0, nullptr), 0);
    EXPECT_EQ(TLIBCFileLockTimeByFile(file_.c_str(), 0, 0, &fd), 0);  // only exclusive locks
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(TLIBCErrGet(), kBadParameter);
    EXPECT_EQ(fd, -1);
    EXPECT_FALSE(fs::exists(file_));
}

TEST_F(FileLockTest, UnlockingNoDescriptorFails) {
    EXPECT_EQ(TLIBCFileUnlockByFile(-1), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(TLIBCErrGet(), EBADF);
}

// ---- Error state ----

TEST(ErrorStateTest, KeepsCodeFileAndLine) {
    TLIBCErrSetEx(0x0D00, "tarnfirewall_c", 42);
    EXPECT_EQ(TLIBCErrGet(), 0x0D00);
    EXPECT_STREQ(TLIBCErrorGetFile(), "tarnfirewall_c");
    EXPECT_EQ(TLIBCErrorGetLine(), 42);
}

TEST(ErrorStateTest, FileIsCopied) {
    char file[] = "source";
    TLIBCErrSetEx(1, file, 1);
    file[0] = '!';
    EXPECT_STREQ(TLIBCErrorGetFile(), "source");
    TLIBCErrSetEx(2, TLIBCErrorGetFile(), 2);
    EXPECT_STREQ(TLIBCErrorGetFile(), "source");
}

TEST(ErrorStateTest, FileIsNeverNull) {
    TLIBCErrSetEx(1, nullptr, 1);
    EXPECT_STREQ(TLIBCErrorGetFile(), "");
}

TEST(ErrorStateTest, LongFileKeepsItsEnd) {
    const std::string file = std::string(5000, 'd') + "/source.cpp";
    TLIBCErrSetEx(1, file.c_str(), 1);
    const std::string kept = TLIBCErrorGetFile();
    EXPECT_GE(kept.size(), 200U);
    EXPECT_EQ(file.substr(file.size() - kept.size()), kept);
}

TEST(ErrorStateTest, EachThreadHasItsOwn) {
    TLIBCErrSetEx(1, "main", 10);
    std::thread([] {
        EXPECT_EQ(TLIBCErrGet(), 0);
        EXPECT_STREQ(TLIBCErrorGetFile(), "");
        EXPECT_EQ(TLIBCErrorGetLine(), 0);
        TLIBCErrSetEx(2, "other", 20);
        EXPECT_EQ(TLIBCErrGet(), 2);
    }).join();
    EXPECT_EQ(TLIBCErrGet(), 1);
    EXPECT_STREQ(TLIBCErrorGetFile(), "main");
    EXPECT_EQ(TLIBCErrorGetLine(), 10);
}
