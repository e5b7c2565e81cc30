/// File locks as tests need them: a second process that holds one, and a clock that jumps, so that
/// waiting for a lock can be tested without waiting.
///
/// Include it in one source of a program only: it replaces the C library's gettimeofday().
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

/// Code that runs in a forked process, in step with the test: it says when it is ready and waits
/// until it is released. It ends with the code's return, and at the latest with this object.
class OtherProcess {
public:
    /// `code` gets this object, for tellReady() and waitForRelease(); its result is the exit code.
    explicit OtherProcess(const std::function<int(OtherProcess&)>& code) {
        if (pipe2(ready_, O_CLOEXEC) != 0 || pipe2(release_, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        pid_ = fork();
        if (pid_ < 0) {
            throw std::runtime_error("fork");
        }
        if (pid_ == 0) {
            close(ready_[0]);
            close(release_[1]);
            int result = kThrew;
            try {
                result = code(*this);
            } catch (...) {
                // The exit code shows it.
            }
            _exit(result);
        }
        // The reading end stays open here as well: releasing a process that has ended is harmless.
        close(ready_[1]);
    }
    ~OtherProcess() {
        release();
        (void)join();
        close(ready_[0]);
        close(release_[0]);
        close(release_[1]);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

    static constexpr int kThrew = 99;

    // ---- For the test ----

    /// Waits for tellReady(). False: the process ended without it.
    bool waitUntilReady() const {
        char byte = 0;
        return read(ready_[0], &byte, 1) == 1;
    }

    void release() {
        if (!released_) {
            released_ = true;
            if (write(release_[1], "x", 1) != 1) {
                throw std::runtime_error("write");
            }
        }
    }

    /// Waits for the end. Returns the exit code, or minus the number of the signal that ended it.
    int join() {
        if (pid_ > 0) {
            int status = 0;
            if (waitpid(pid_, &status, 0) != pid_) {
                throw std::runtime_error("waitpid");
            }
            pid_ = 0;
            result_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
        }
        return result_;
    }

    // ---- For the process ----

    void tellReady() const {
        if (write(ready_[1], "x", 1) != 1) {
            throw std::runtime_error("write");
        }
    }
    void waitForRelease() const {
        char byte = 0;
        (void)!read(release_[0], &byte, 1);
    }

private:
    int ready_[2] = {-1, -1};
    int release_[2] = {-1, -1};
    pid_t pid_ = 0;
    bool released_ = false;
    int result_ = 0;
};

/// The exclusive lock on a whole file, as fcntl() takes it.
inline struct flock wholeFileLock() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// Another process that holds the lock on `path` until release() or its end.
class LockHolder : public OtherProcess {
public:
    explicit LockHolder(const std::string& path)
        : OtherProcess([&path](OtherProcess& self) {
              std::filesystem::create_directories(std::filesystem::path(path).parent_path());
              const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
              struct flock lock = wholeFileLock();
              if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0) {
                  return 1;
              }
              self.tellReady();
              self.waitForRelease();
              return 0;
          }) {
        if (!waitUntilReady()) {
            throw std::runtime_error("cannot lock " + path);
        }
    }

    /// Returns when the lock is free.
    void letGo() {
        release();
        (void)join();
    }
};

/// The lock that another process holds on `path`, as F_GETLK returns it; F_UNLCK: none.
inline struct flock lockHeldByOthers(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = wholeFileLock();
    const bool told = fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0;
    if (fd >= 0) {
        close(fd);
    }
    if (!told) {
        throw std::runtime_error("cannot ask for the lock on " + path);
    }
    return lock;
}

/// Whether nobody, this process included, holds the lock on `path`.
inline bool lockIsFree(const std::string& path) {
    OtherProcess probe(
        [&path](OtherProcess&) { return lockHeldByOthers(path).l_type == F_UNLCK ? 0 : 1; });
    return probe.join() == 0;
}

/// The descriptors that are open in this process.
inline int openDescriptors() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

/// During its life, gettimeofday() answers from it: the first reading is the start, every later one
/// is `later` microseconds after it. So it shortens the first wait for a lock.
class JumpingClock {
public:
    explicit JumpingClock(std::int64_t later) : later_(later) { current() = this; }
    ~JumpingClock() { current() = nullptr; }
    JumpingClock(const JumpingClock&) = delete;
    JumpingClock& operator=(const JumpingClock&) = delete;

    static JumpingClock*& current() {
        static JumpingClock* clock = nullptr;
        return clock;
    }

    /// Called with the number of each reading, from 1, before it is answered.
    std::function<void(int)> onReading;

    int readings() const { return readings_; }

    /// Whoever reads the clock this often waits for too late a moment; it jumps by an hour then.
    static constexpr int kTooMany = 2000;

    void answer(struct timeval* time) {
        ++readings_;
        if (onReading) {
            onReading(readings_);
        }
        const std::int64_t start = 1'700'000'000'250'000;
        const std::int64_t stop = readings_ < kTooMany ? 0 : 3'600'000'000;
        const std::int64_t now = readings_ == 1 ? start : start + later_ + stop;
        time->tv_sec = static_cast<time_t>(now / 1'000'000);
        time->tv_usec = static_cast<suseconds_t>(now % 1'000'000);
    }

private:
    std::int64_t later_;
    int readings_ = 0;
};

/// The bounded wait for a lock, in the microseconds of JumpingClock.
inline constexpr std::int64_t kLockWait = 30'000'000;
inline constexpr std::int64_t kJustInTime = kLockWait - 1;

extern "C" int gettimeofday(struct timeval* __restrict time, void* __restrict zone) noexcept {
    if (JumpingClock::current() != nullptr) {
        JumpingClock::current()->answer(time);
        return 0;
    }
    using Function = int (*)(struct timeval*, void*);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "gettimeofday"))(time, zone);
}
