#include "fwXtablesLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <thread>

namespace FW {
namespace {

constexpr mode_t kMode = 0600;
constexpr std::chrono::milliseconds kPause{5};

}  // namespace

XtablesLock::XtablesLock(std::chrono::milliseconds most)
    : file_(open(kXtablesLockPath, O_RDONLY | O_CREAT | O_CLOEXEC, kMode)) {
    if (!file_) {
        return;
    }
    // Polls, because only a signal could end a blocking wait, and signals belong to the caller's
    // process.
    const auto end = std::chrono::steady_clock::now() + most;
    do {
        held_ = flock(file_.get(), LOCK_EX | LOCK_NB) == 0;
        if (held_ || (errno != EWOULDBLOCK && errno != EINTR)) {
            return;
        }
        std::this_thread::sleep_for(kPause);
    } while (std::chrono::steady_clock::now() < end);
    errno = EWOULDBLOCK;
}

XtablesLock::~XtablesLock() {
    if (held_) {
        // Closing is not enough: a process that another thread is starting may have a duplicate.
        (void)flock(file_.get(), LOCK_UN);
    }
}

}  // namespace FW
