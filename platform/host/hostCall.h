/// What the platform's functions have in common: how a failure is reported, how an exception is
/// kept inside, and a guard for descriptors.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "hostLog.h"
#include "tarncore.h"

namespace host {

/// Puts a failure into the error state and into errno. Returns -1, for a caller that fails with it.
inline int fail(int code, const char* source, int line) {
    TLIBCErrSetEx(code, source, line);
    errno = code == kErrorBadParameter ? EINVAL : code;
    return -1;
}

/// Runs `work` for a function with C linkage. An exception ends here: it is logged, it becomes the
/// error state, and the result is `onException`.
template <typename Result, typename Work>
Result guarded(const char* source, int line, Result onException, Work work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        logLine(LOG_ERR, source, line, "Out of memory");
        (void)fail(ENOMEM, source, line);
    } catch (const std::exception& exception) {
        logLine(LOG_ERR, source, line, "Unexpected failure: %s", exception.what());
        (void)fail(EIO, source, line);
    }
    return onException;
}

/// Owns a file descriptor.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    /// Leaves errno alone, so that a failure found before can still be reported.
    ~Descriptor() {
        if (fd_ >= 0) {
            const int error = errno;
            (void)close(fd_);
            errno = error;
        }
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

}  // namespace host

// Macros, because the line must be the caller's.
#define HOST_FAIL(code) ::host::fail((code), kSource, __LINE__)
#define HOST_GUARDED(onException, ...) \
    ::host::guarded(kSource, __LINE__, (onException), __VA_ARGS__)
