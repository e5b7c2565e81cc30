/// Whether a file may have been written since it was last looked at, for programs that keep a
/// document of the store in memory instead of reading it again. Header only.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <string>

namespace FW {

/// The state of a file at one moment. A value without a lock or an open file.
class FileState {
public:
    /// The state of the file at `path` now; that of a missing file equals no other. Logs nothing.
    static FileState of(const std::string& path) {
        FileState state;
        struct stat status {};
        // The clock that file systems use; read first, so that no write comes in between.
        (void)clock_gettime(CLOCK_REALTIME_COARSE, &state.taken_);
        state.exists_ = stat(path.c_str(), &status) == 0;
        state.regular_ = state.exists_ && S_ISREG(status.st_mode);
        state.device_ = status.st_dev;
        state.inode_ = status.st_ino;
        state.size_ = status.st_size;
        state.changed_ = status.st_ctim;
        return state;
    }

    /// Whether it was a regular file.
    bool isRegular() const { return regular_; }

    /// Whether the file certainly has not changed between this state and the `later` one. Two
    /// writes in one tick of the clock leave the same time, so the answer is false for a file that
    /// was written just before this state was taken.
    bool stillHolds(const FileState& later) const {
        return exists_ && later.exists_ && device_ == later.device_ && inode_ == later.inode_ &&
               size_ == later.size_ && !isBefore(changed_, later.changed_) &&
               !isBefore(later.changed_, changed_) && isTickOver();
    }

private:
    // A time in whole seconds may come from a file system that keeps only seconds, or every second
    // one.
    static constexpr time_t kCoarseTickSeconds = 2;

    static bool isBefore(const timespec& a, const timespec& b) {
        return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
    }

    /// Whether a write after this state was taken leaves another time than `changed_`.
    bool isTickOver() const {
        timespec changed = changed_;
        if (changed.tv_nsec == 0) {
            changed.tv_sec += kCoarseTickSeconds;
        }
        return isBefore(changed, taken_);
    }

    bool exists_ = false;
    bool regular_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t size_ = 0;
    timespec changed_{};
    timespec taken_{};  // when this state was read
};

}  // namespace FW
