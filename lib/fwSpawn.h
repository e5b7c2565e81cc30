/// Runs programs without a shell; owns descriptors. Compiled into both the library and
/// platform/host, and depends on neither.
///
/// A program inherits only the calling process's rights, its directory and the descriptors named
/// here: it has a fixed environment, no other descriptors, no blocked signals and the default
/// action for every signal.
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
    /// Preserves errno, so that an earlier failure can still be reported.
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

/// A duplicate with a number above the standard descriptors. In a process that has closed these,
/// `fd` could be one of them. Throws std::system_error.
Descriptor aboveStandard(int fd);

/// Whether a program would inherit the standard descriptor `fd`. A daemon may have closed its own;
/// then the first files that it opens may have these numbers, and must not receive messages.
bool isInherited(int fd);

/// The status of a program that signal n killed is this + n, as in a shell.
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
    /// -1, or an open descriptor of the file to run, whatever `path` names now. The program
    /// gets it as descriptor 3, because the interpreter of a script has to open it again.
    int file = -1;
};

/// Starts a program. 0 with its process in `pid`, or the errno code of the failure.
int startProgram(const Program& program, pid_t& pid);

/// Waits for a program. The result is its exit status, kSignalExitBase + n when signal n killed it,
/// or nothing when the status is lost: a process that ignores SIGCHLD, or that waits for any child
/// in another thread, does not get the status of its children.
std::optional<int> waitForProgram(pid_t pid);

}  // namespace FW
