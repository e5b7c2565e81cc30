/// The tests' main: they write to fixed system paths, so they run in script/sandbox or not at all.
///
/// A program has one sandbox and runs each of its cases in a separate process with its own mounts,
/// network and System V objects. After a case all files are restored, and processes that it left
/// running are killed. So cases do not affect each other although they share a sandbox.
/// A single selected case runs in this process, for debugging.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr int kCaseMilliseconds = 120 * 1000;
constexpr int kLeftOut = 77;  // the exit status of a case that lacks what needs.h names

/// The file systems of the sandbox that a case may write to.
const char* const kWritable[] = {"/", "/usr/tarn", "/usr/share/xt_geoip"};

[[noreturn]] void die(const char* what) {
    std::perror(what);
    std::exit(1);
}

/// Type and mode of each file of the writable file systems, by path.
using Files = std::map<fs::path, mode_t>;

Files currentFiles() {
    Files files;
    for (const char* root : kWritable) {
        struct stat info;
        if (stat(root, &info) != 0) {
            die(root);
        }
        files[root] = info.st_mode;
        const dev_t device = info.st_dev;
        for (auto entry = fs::recursive_directory_iterator(root);
             entry != fs::recursive_directory_iterator(); ++entry) {
            if (lstat(entry->path().c_str(), &info) != 0) {
                die(entry->path().c_str());
            }
            if (info.st_dev != device) {  // a different file system
                entry.disable_recursion_pending();
                continue;
            }
            files[entry->path()] = info.st_mode;
        }
    }
    return files;
}

/// Removes what is not in `before`, and restores directories and modes.
void restoreFiles(const Files& before) {
    for (const auto& [path, mode] : currentFiles()) {
        if (before.count(path) == 0) {
            fs::remove_all(path);
        }
    }
    for (const auto& [path, mode] : before) {
        if (S_ISDIR(mode)) {
            (void)mkdir(path.c_str(), mode);  // fails if it still exists
        }
        if (!S_ISLNK(mode) && chmod(path.c_str(), mode & 07777) != 0) {
            die(path.c_str());
        }
    }
}

/// Kills processes that a case left running; this process is their parent by then.
void endLeftovers() {
    while (waitpid(-1, nullptr, WNOHANG) != -1) {
        std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
        for (pid_t child = 0; children >> child;) {
            (void)kill(child, SIGKILL);
        }
    }
}

void bringLoopbackUp() {
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    if (control < 0 || ioctl(control, SIOCSIFFLAGS, &request) != 0) {
        die("lo");
    }
    close(control);
}

struct Outcome {
    std::string output;
    std::string failure;   ///< empty when the process exited with 0 or kLeftOut
    bool leftOut = false;  ///< it exited with kLeftOut
};

/// Runs `work` in a process, whose exit status it gives and whose output is kept.
Outcome runApart(const std::function<int()>& work) {
    std::FILE* const output = std::tmpfile();
    if (output == nullptr) {
        die("tmpfile");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        die("fork");
    }
    if (child == 0) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        (void)dup2(fileno(output), STDOUT_FILENO);
        (void)dup2(fileno(output), STDERR_FILENO);
        std::fclose(output);
        std::exit(work());
    }

    Outcome outcome;
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    struct pollfd end = {handle, POLLIN, 0};
    if (handle < 0 || poll(&end, 1, kCaseMilliseconds) != 1) {
        outcome.failure = "not done after " + std::to_string(kCaseMilliseconds / 1000) + " s";
        (void)kill(child, SIGKILL);
    }
    close(handle);
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        die("waitpid");
    }
    if (outcome.failure.empty() && WIFSIGNALED(status)) {
        outcome.failure = std::string("killed: ") + strsignal(WTERMSIG(status));
    } else if (outcome.failure.empty() && WEXITSTATUS(status) == kLeftOut) {
        outcome.leftOut = true;
    } else if (outcome.failure.empty() && WEXITSTATUS(status) != 0) {
        outcome.failure = "exit status " + std::to_string(WEXITSTATUS(status));
    }
    std::rewind(output);
    for (int c = std::fgetc(output); c != EOF; c = std::fgetc(output)) {
        outcome.output += static_cast<char>(c);
    }
    std::fclose(output);
    return outcome;
}

/// The full names of the cases that the command line has chosen.
std::vector<std::string> chosenCases() {
    std::istringstream listing(runApart([] {
                                   ::testing::GTEST_FLAG(list_tests) = true;
                                   return RUN_ALL_TESTS();
                               }).output);
    // "Suite.", then "  Case" for each; a parameter follows either as a comment.
    std::vector<std::string> names;
    std::string suite;
    for (std::string line; std::getline(listing, line);) {
        line.erase(std::min(line.find("  #"), line.size()));
        if (line.compare(0, 2, "  ") == 0) {
            names.push_back(suite + line.substr(2));
        } else {
            suite = line;
        }
    }
    return names;
}

/// Runs the chosen cases here. A case that does not run, as one that is switched off, has not
/// passed.
int runChosen() {
    const int status = RUN_ALL_TESTS();
    const ::testing::UnitTest& all = *::testing::UnitTest::GetInstance();
    if (all.test_to_run_count() == 0) {
        return 1;
    }
    return status == 0 && all.skipped_test_count() > 0 ? kLeftOut : status;
}

int runCase(const std::string& name) {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0) {
        die("unshare");
    }
    bringLoopbackUp();
    ::testing::GTEST_FLAG(filter) = name;
    return runChosen();
}

int runCases(const std::vector<std::string>& names) {
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    const Files before = currentFiles();
    std::vector<std::string> failed;
    std::size_t leftOut = 0;
    for (const std::string& name : names) {
        const Outcome outcome = runApart([&name] { return runCase(name); });
        endLeftovers();
        restoreFiles(before);
        if (!outcome.failure.empty()) {
            std::cout << outcome.output << "FAILED: " << name << ": " << outcome.failure << "\n\n";
            failed.push_back(name);
        } else if (outcome.leftOut) {
            std::cout << "LEFT OUT: " << name << ", see tests/support/needs.h\n";
            ++leftOut;
        }
    }
    std::cout << names.size() - failed.size() - leftOut << " cases passed, " << failed.size()
              << " failed" << (leftOut > 0 ? ", " + std::to_string(leftOut) + " left out" : "")
              << '\n';
    for (const std::string& name : failed) {
        std::cout << "FAILED: " << name << '\n';
    }
    return failed.empty() && !names.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    if (::testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    // The sandbox's own root has this file; a machine has not.
    if (access("/.tarn-sandbox", F_OK) != 0) {
        std::fprintf(stderr,
                     "These tests write to system paths. Run them through script/sandbox.\n");
        return 1;
    }
    const std::vector<std::string> names = chosenCases();
    return names.size() == 1 ? runChosen() : runCases(names);
}
