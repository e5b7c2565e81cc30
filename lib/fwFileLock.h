/// The guard of the platform's file locks. Header only, for the library and for platform/host.
#pragma once

#include "tarncore.h"

namespace FW {

/// An exclusive lock of a file, held from construction to destruction.
class FileLock {
public:
    /// What the destructor does when the lock cannot be released; usually it logs.
    using UnlockFailed = void (*)();

    /// Waits up to `seconds`. errno holds why the lock is not held.
    FileLock(const char* path, int seconds, UnlockFailed unlockFailed)
        : unlockFailed_(unlockFailed),
          result_(TLIBCFileLockTimeByFile(path, kExclusive, seconds, &fd_)) {}
    ~FileLock() {
        if (result_ != 0 && fd_ >= 0 && TLIBCFileUnlockByFile(fd_) == 0) {
            unlockFailed_();
        }
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    /// The platform's result: 1 when the lock was obtained, 0 when it was not.
    int result() const { return result_; }
    bool held() const { return result_ == 1; }

    /// Does not release the lock in the destructor.
    void forget() { fd_ = -1; }

private:
    static constexpr int kExclusive = 1;

    UnlockFailed unlockFailed_;
    int fd_ = -1;
    int result_;
};

}  // namespace FW
