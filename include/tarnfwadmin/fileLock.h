/// Locks of files between programs.
#pragma once

#include <string>

namespace tarnfw {

/// The exclusive lock of a file, held from construction to destruction or to the end of the
/// process.
class FileLock {
public:
    /// Waits up to `seconds` for the lock; 0: does not wait. A missing file is created. The lock is
    /// then held or not; nothing is thrown.
    FileLock(const std::string& path, int seconds);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool held() const { return held_; }

private:
    int fd_ = -1;
    bool held_;
};

}  // namespace tarnfw
