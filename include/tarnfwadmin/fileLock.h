/// Locks of files between programs.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The time that a task may still spend waiting for locks, all together: a task that needs several
/// of them otherwise waits for each in turn. Time between the waits does not count. Hand it on by
/// reference.
class LockTime {
public:
    /// As long as the library waits for one lock.
    static constexpr std::chrono::seconds kDefault{30};

    LockTime() : LockTime(kDefault) {}
    explicit LockTime(std::chrono::milliseconds time) : left_(time) {}

    std::chrono::milliseconds left() const { return left_; }

    /// What is left in whole seconds, rounded up.
    int seconds() const;

    /// Calls `wait`, and subtracts the time that it takes.
    void spend(const std::function<void()>& wait);

private:
    std::chrono::milliseconds left_;
};

/// The exclusive lock of a file, held from construction to destruction or to the end of the
/// process.
class FileLock {
public:
    /// Waits up to `seconds` for the lock; 0: does not wait. A missing file is created. The lock is
    /// then held or not; nothing is thrown.
    FileLock(const std::string& path, int seconds);

    /// The same for what is left of `time`.
    FileLock(const std::string& path, LockTime& time);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool held() const { return held_; }

private:
    int fd_ = -1;
    bool held_ = false;
};

/// Whether another open file has a lock of this file. False for a missing one.
bool isLocked(const std::string& path);

/// The same for an exclusive lock of flock(2), which is one of another sort.
bool isFlocked(const std::string& path);

/// Waits for what is left of `time` until nobody holds a lock of the file, and leaves it free:
/// for a lock that an operation of the library takes, which would wait for each of its locks as
/// long. `isHeld` looks at the lock; isFlocked() takes it, shared, for that moment. A missing file
/// has no lock. Throws Error, kBusy, as throwLocked().
void awaitUnlocked(const std::string& path, LockTime& time,
                   bool (*isHeld)(const std::string& path) = isLocked);

/// Throws Error, kBusy, which names the file and, where it can be found, the process that holds its
/// lock: "/run/tarn/store.lock is locked by process 123 (tarnfw), which is stopped".
[[noreturn]] void throwLocked(const std::string& path);

}  // namespace tarnfw
