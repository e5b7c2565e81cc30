#include "hostIptables.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

#include "hostCall.h"

namespace host {
namespace {

constexpr char kSource[] = "hostIptables";

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kIp6tables[] = "/sbin/ip6tables";
constexpr const char* kPrograms[] = {"/sbin/iptables", kIp6tables};

// The exit status when another program has the lock.
constexpr int kResourceProblem = 4;

constexpr milliseconds kFirstPause{10};
constexpr milliseconds kLongestPause{500};

// For the calls after one that waited in vain.
constexpr milliseconds kShortWait{100};
constexpr std::chrono::seconds kShortWaits{30};

// Until when calls wait for a moment only.
std::atomic<Clock::duration>& shortUntil() {
    static std::atomic<Clock::duration> until{Clock::duration::zero()};
    return until;
}

milliseconds waitOf(milliseconds most) {
    return Clock::now().time_since_epoch() < shortUntil().load() ? std::min(most, kShortWait)
                                                                 : most;
}

int failedFor(const char* path, milliseconds wait, int error) {
    if (error == EWOULDBLOCK) {
        HOST_LOG_ERR("Cannot run %s: another program holds %s; waited %d ms", path,
                     FW::kXtablesLockPath, static_cast<int>(wait.count()));
        shortUntil() = (Clock::now() + kShortWaits).time_since_epoch();
    } else {
        HOST_LOG_ERR("Cannot run %s: cannot lock %s: %s", path, FW::kXtablesLockPath,
                     strerror(error));
    }
    return HOST_FAIL(error);
}

}  // namespace

bool takesXtablesLock(const char* path) {
    if (std::none_of(std::begin(kPrograms), std::end(kPrograms),
                     [&](const char* program) { return strcmp(path, program) == 0; })) {
        return false;
    }
    // Both variants are one program under many names: "xtables-nft-multi".
    const std::unique_ptr<char, decltype(&free)> file(realpath(path, nullptr), &free);
    return file != nullptr && std::string_view(file.get()).find("nft") == std::string_view::npos;
}

bool isIp6tables(const char* path) {
    return strcmp(path, kIp6tables) == 0;
}

bool saysAbsentAgain(const std::string& complaint) {
    static std::atomic<bool> said{false};
    const auto has = [&](const char* words) { return complaint.find(words) != std::string::npos; };
    return has("not supported") && (has("initialize") || has("TABLE_ADD failed")) &&
           said.exchange(true);
}

bool isAbsentFamily(const char* path) {
    return isIp6tables(path) && access(path, F_OK) != 0 && errno == ENOENT;
}

int underXtablesLock(const char* path, const std::function<int(OwnLockFile)>& attempt,
                     milliseconds most) {
    const milliseconds wait = waitOf(most);
    const Clock::time_point end = Clock::now() + wait;
    int status = 0;
    {
        const FW::XtablesLock lock(wait);
        if (!lock.held()) {
            return failedFor(path, wait, errno);
        }
        status = attempt(OwnLockFile::kYes);
    }
    milliseconds pause = kFirstPause;
    while (status == kResourceProblem) {
        if (Clock::now() >= end) {
            return failedFor(path, wait, EWOULDBLOCK);
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, kLongestPause);
        status = attempt(OwnLockFile::kNo);
    }
    if (status != -1) {
        shortUntil() = Clock::duration::zero();
    }
    return status;
}

}  // namespace host
