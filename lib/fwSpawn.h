/// Running programs without a shell, and the guard of a descriptor. Compiled into the library and
/// into platform/host, and using neither.
///
/// A program gets nothing of the calling process but its rights, its directory and the descriptors
/// named here: it has a fixed environment, no other descriptor, no blocked signal and every
/// signal's default action.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace FW {

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

/// A duplicate after the standard descriptors, in whose place a process that has closed its own
/// would else use it. Throws std::system_error.
Descriptor aboveStandard(int fd);

/// The status of a program that signal n killed is this + n, as a shell has it.
inline constexpr int kSignalExitBase = 128;

/// The variables of every program.
inline constexpr const char* kFixedEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                                                    "LC_ALL=C"};

/// What to run.
struct Program {
    const char* path = nullptr;
    const char* const* argv = nullptr;     ///< argv[0] included, ends with NULL
    std::vector<std::string> environment;  ///< "KEY=value", after the fixed variables
    int input = -1;                        ///< becomes the standard input; -1: /dev/null
    int output = -1;                       ///< becomes the standard output; -1: the caller's
    int errors = -1;                       ///< becomes the standard error; -1: the caller's
    /// -1, or an open descriptor of the file to run, whatever `path` names by now. The program
    /// finds it as descriptor 3, because the interpreter of a script has to open it once more.
    int file = -1;
};

/// Starts a program. 0 with its process in `pid`, or the errno code of why it could not be started.
int startProgram(const Program& program, pid_t& pid);

/// Waits for a program. The result is its exit status, kSignalExitBase + n when signal n killed it,
/// and nothing when the status is lost: a process that ignores SIGCHLD, or that waits for any child
/// in another thread, never learns how its children ended.
std::optional<int> waitForProgram(pid_t pid);

}  // namespace FW
