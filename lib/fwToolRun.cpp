#include "fwToolRun.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <fstream>
#include <system_error>
#include <utility>

namespace FW {
namespace {

constexpr int kNotStarted = 127;  // as in a shell

// A file that nobody else locks: the program's own output.
constexpr char kOwnLockFile[] = "XTABLES_LOCKFILE=/proc/self/fd/1";

constexpr int kOutputPauseMilliseconds = 1;
constexpr std::chrono::minutes kOutputLimit{5};

// A program that waits for input at so many looks in a row has done all that it was sent.
constexpr std::chrono::milliseconds kLookPause{500};
constexpr int kIdleLooks = 2;

void check(int error) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category());
    }
}

/// A file in memory; none, with errno, when there can be none.
Descriptor openMemoryFile(const char* name) {
    return Descriptor(memfd_create(name, MFD_CLOEXEC));
}

/// The same above the standard descriptors; throws when there can be none.
Descriptor memoryFile(const char* name) {
    const Descriptor file = openMemoryFile(name);
    check(file ? 0 : errno);
    return aboveStandard(file.get());
}

/// A file in memory with `text`, positioned at its beginning.
Descriptor memoryFileOf(const std::string& text) {
    Descriptor file = memoryFile("input");
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = pwrite(file.get(), text.data() + written, text.size() - written,
                                     static_cast<off_t>(written));
        if (count < 0 && errno != EINTR) {
            check(errno);
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return file;
}

/// What a file holds from byte `from` on. The size is asked for without seeking: the program that
/// still writes to the file has the same position in it.
std::string contentOf(const Descriptor& file, std::size_t from = 0) {
    struct stat info {};
    std::string content;
    if (!file || fstat(file.get(), &info) != 0 || info.st_size <= static_cast<off_t>(from)) {
        return content;
    }
    content.resize(static_cast<std::size_t>(info.st_size) - from);
    std::size_t filled = 0;
    while (filled < content.size()) {
        const ssize_t count = pread(file.get(), &content[filled], content.size() - filled,
                                    static_cast<off_t>(from + filled));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    content.resize(filled);
    return content;
}

}  // namespace

ToolRun::ToolRun(const std::vector<std::string>& arguments, const std::string& input) {
    try {
        start(arguments, memoryFileOf(input).get());
    } catch (const std::system_error& error) {
        startError_ = error.code().value();
    }
}

ToolRun::ToolRun(const std::vector<std::string>& arguments) {
    try {
        // Not a pipe: writing to a program that has ended must not raise a signal in the caller.
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            check(errno);
        }
        const Descriptor own(ends[0]);
        const Descriptor other(ends[1]);
        input_ = aboveStandard(own.get());
        start(arguments, other.get());
    } catch (const std::system_error& error) {
        startError_ = error.code().value();
    }
}

ToolRun::~ToolRun() {
    endInput();
    (void)wait();
}

bool ToolRun::isMissing() const {
    return startError_ == ENOENT;
}

void ToolRun::feed(const std::string& text) {
    if (!input_) {
        return;
    }
    // Room for all of it, so that the caller can feed another program in the meantime. Without
    // permission for that much, sending waits for the program.
    const int room = static_cast<int>(std::min<std::size_t>(2 * text.size(), INT_MAX / 2));
    (void)setsockopt(input_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room));
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t count =
            send(input_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            feedError_ = errno;
            if (feedError_ != EPIPE && feedError_ != ECONNRESET) {  // it has not ended
                kill();
            }
            endInput();
            return;
        }
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

bool ToolRun::awaitOutput(const std::string& line) {
    using Clock = std::chrono::steady_clock;
    std::string printed;
    const auto isPrinted = [&] {
        const std::size_t old = printed.size();
        printed += contentOf(output_, old);
        return printed.find(line, old - std::min(old, line.size())) != std::string::npos;
    };
    // No event reports that a file has grown, so this polls. The other end of the input is closed
    // when the program ends, which ends the pause.
    pollfd input = {input_.get(), 0, 0};
    const Clock::time_point end = Clock::now() + kOutputLimit;
    Clock::time_point nextLook = Clock::now() + kLookPause;
    int idle = 0;
    while (input_ && !isPrinted()) {
        const int ended = poll(&input, 1, kOutputPauseMilliseconds);
        if (ended > 0 || (ended < 0 && errno != EINTR) || Clock::now() > end) {
            return isPrinted();
        }
        // A program that could not write the line reads on, and would wait for ever.
        if (Clock::now() > nextLook) {
            idle = waitsForInput() ? idle + 1 : 0;
            if (idle == kIdleLooks) {
                return isPrinted();
            }
            nextLook = Clock::now() + kLookPause;
        }
    }
    return static_cast<bool>(input_);
}

std::size_t ToolRun::outputBufferBytes() {
    struct stat info {};
    const Descriptor file = openMemoryFile("output");
    // As the C library chooses it; start() reports a failure.
    return fstat(file.get(), &info) == 0
               ? std::max<std::size_t>(BUFSIZ, static_cast<std::size_t>(info.st_blksize))
               : BUFSIZ;
}

void ToolRun::endInput() {
    if (input_) {
        // Closing is not enough: a process that another thread is starting may have a duplicate.
        (void)shutdown(input_.get(), SHUT_WR);
        input_ = Descriptor();
    }
}

ToolResult ToolRun::finish() {
    endInput();
    ToolResult result;
    if (startError_ != 0) {
        result.status = kNotStarted;
        result.errors = std::generic_category().message(startError_);
        return result;
    }
    result.status = wait();
    result.output = contentOf(output_);
    result.errors = contentOf(errors_);
    if (wasKilled_) {
        result.status = kSignalExitBase + SIGKILL;  // also where the status is lost
        result.errors += "cannot send it its input: " + std::generic_category().message(feedError_);
    }
    return result;
}

void ToolRun::start(const std::vector<std::string>& arguments, int input) {
    output_ = memoryFile("output");
    errors_ = memoryFile("errors");
    std::vector<const char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    Program program;
    program.path = argv[0];
    program.argv = argv.data();
    program.environment = {kOwnLockFile};
    program.input = input;
    program.output = output_.get();
    program.errors = errors_.get();
    check(startProgram(program, pid_));
}

/// Kills the program, unless it is another one's by now: a process that ignores SIGCHLD does not
/// keep the numbers of its children.
void ToolRun::kill() {
    siginfo_t info{};
    if (pid_ > 0 &&
        waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
        (void)::kill(pid_, SIGKILL);
    }
    wasKilled_ = true;
}

/// Whether the program has read all of its input and waits for more. False where the kernel does
/// not say what it waits for.
bool ToolRun::waitsForInput() const {
    int unread = 0;
    if (!input_ || ioctl(input_.get(), SIOCOUTQ, &unread) != 0 || unread != 0) {
        return false;
    }
    // "0 0x0 ...": the number of the system call and its first argument, the descriptor.
    std::ifstream file("/proc/" + std::to_string(pid_) + "/syscall");
    std::string call;
    std::string descriptor;
    return file >> call >> descriptor && call == std::to_string(SYS_read) && descriptor == "0x0";
}

std::optional<int> ToolRun::wait() {
    const pid_t pid = std::exchange(pid_, -1);
    return pid < 0 ? std::nullopt : waitForProgram(pid);
}

}  // namespace FW
