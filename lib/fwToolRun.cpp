#include "fwToolRun.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <thread>

namespace FW {
namespace {

constexpr int kFirstOwnDescriptor = 3;  // behind the three standard ones
constexpr int kNotStarted = 127;        // as a shell has it

// Whatever the caller's environment says, which may come from anybody.
constexpr char kPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
constexpr char kLocale[] = "LC_ALL=C";

// A file that nobody else locks: the program's own output.
constexpr char kOwnLockFile[] = "XTABLES_LOCKFILE=/proc/self/fd/1";

constexpr int kOutputPauseMilliseconds = 1;

constexpr char kXtablesLockPath[] = "/run/xtables.lock";
constexpr mode_t kXtablesLockMode = 0600;
constexpr int kXtablesLockSeconds = 30;
constexpr std::chrono::milliseconds kXtablesLockPause{5};

void check(int error) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category());
    }
}

/// The same file behind the standard descriptors. The caller's process may have closed some of
/// those, and in the new process they are replaced.
Descriptor aboveStandard(Descriptor made) {
    if (!made) {
        check(errno);
    }
    if (made.get() >= kFirstOwnDescriptor) {
        return made;
    }
    Descriptor moved(fcntl(made.get(), F_DUPFD_CLOEXEC, kFirstOwnDescriptor));
    if (!moved) {
        check(errno);
    }
    return moved;
}

Descriptor memoryFile(const char* name) {
    return aboveStandard(Descriptor(memfd_create(name, MFD_CLOEXEC)));
}

/// A file in memory that holds `text`, to be read from its beginning.
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

std::string contentOf(const Descriptor& file) {
    std::string content;
    const off_t size = file ? lseek(file.get(), 0, SEEK_END) : 0;
    if (size <= 0) {
        return content;
    }
    content.resize(static_cast<std::size_t>(size));
    std::size_t filled = 0;
    while (filled < content.size()) {
        const ssize_t count = pread(file.get(), &content[filled], content.size() - filled,
                                    static_cast<off_t>(filled));
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

class FileActions {
public:
    FileActions() { check(posix_spawn_file_actions_init(&actions_)); }
    ~FileActions() { (void)posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    void duplicate(const Descriptor& from, int to) {
        check(posix_spawn_file_actions_adddup2(&actions_, from.get(), to));
    }
    void closeFrom(int fd) { check(posix_spawn_file_actions_addclosefrom_np(&actions_, fd)); }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

/// No signal is blocked, and none is ignored or handled.
class PlainSignals {
public:
    PlainSignals() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        check(posix_spawnattr_init(&attributes_));
        // These fail for flags that do not exist only.
        (void)posix_spawnattr_setsigmask(&attributes_, &none);
        (void)posix_spawnattr_setsigdefault(&attributes_, &all);
        (void)posix_spawnattr_setflags(&attributes_,
                                       POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~PlainSignals() { (void)posix_spawnattr_destroy(&attributes_); }
    PlainSignals(const PlainSignals&) = delete;
    PlainSignals& operator=(const PlainSignals&) = delete;

    const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
};

// The interface's type; the texts are never written to.
char* spawnText(const char* text) {
    return const_cast<char*>(text);
}

}  // namespace

Descriptor::~Descriptor() {
    if (fd_ >= 0) {
        (void)close(fd_);
    }
}

XtablesLock::XtablesLock()
    : file_(open(kXtablesLockPath, O_RDONLY | O_CREAT | O_CLOEXEC, kXtablesLockMode)) {
    if (!file_) {
        return;
    }
    // Asking again and again, because waiting could only be ended by a signal, and those belong to
    // the caller's process.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(kXtablesLockSeconds);
    do {
        held_ = flock(file_.get(), LOCK_EX | LOCK_NB) == 0;
        if (held_ || (errno != EWOULDBLOCK && errno != EINTR)) {
            return;
        }
        std::this_thread::sleep_for(kXtablesLockPause);
    } while (std::chrono::steady_clock::now() < end);
    errno = EWOULDBLOCK;
}

XtablesLock::~XtablesLock() {
    if (held_) {
        // Not closing alone: a process that another thread is just starting holds a duplicate.
        (void)flock(file_.get(), LOCK_UN);
    }
}

ToolRun::ToolRun(const std::vector<std::string>& arguments, const std::string& input) {
    try {
        start(arguments, memoryFileOf(input));
    } catch (const std::system_error& error) {
        startError_ = error.code().value();
    }
}

ToolRun::ToolRun(const std::vector<std::string>& arguments) {
    try {
        // No pipe: writing to a program that has ended must not raise a signal in the caller.
        int ends[2] = {-1, -1};
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            check(errno);
        }
        Descriptor first(ends[0]);
        Descriptor second(ends[1]);
        input_ = aboveStandard(std::move(first));
        start(arguments, aboveStandard(std::move(second)));
    } catch (const std::system_error& error) {
        startError_ = error.code().value();
    }
}

ToolRun::~ToolRun() {
    endInput();
    (void)wait();
}

void ToolRun::feed(const std::string& text) {
    if (!input_) {
        return;
    }
    // Room for all of it, so that the caller can feed another program in the meantime. Without the
    // right to that much, sending waits for the program.
    const int room = static_cast<int>(std::min<std::size_t>(2 * text.size(), INT_MAX / 2));
    (void)setsockopt(input_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room));
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t count =
            send(input_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR) {
            return;
        }
        sent += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

bool ToolRun::awaitOutput(const std::string& line) {
    const auto isPrinted = [&] { return contentOf(output_).find(line) != std::string::npos; };
    // Nothing tells that a file has grown, so it is looked at again and again. The other end of the
    // input is closed when the program ends, which ends the pause.
    pollfd input = {input_.get(), 0, 0};
    while (input_ && !isPrinted()) {
        if (poll(&input, 1, kOutputPauseMilliseconds) > 0) {
            return isPrinted();
        }
    }
    return static_cast<bool>(input_);
}

std::size_t ToolRun::outputBufferBytes() {
    struct stat info {};
    const Descriptor file(memfd_create("output", MFD_CLOEXEC));
    // As the C library chooses it; start() reports a failure.
    return fstat(file.get(), &info) == 0 ? std::max<std::size_t>(BUFSIZ, info.st_blksize) : BUFSIZ;
}

void ToolRun::endInput() {
    if (input_) {
        // Not closing alone: a process that another thread is just starting holds a duplicate.
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
    return result;
}

void ToolRun::start(const std::vector<std::string>& arguments, const Descriptor& input) {
    output_ = memoryFile("output");
    errors_ = memoryFile("errors");
    FileActions actions;
    actions.duplicate(input, STDIN_FILENO);
    actions.duplicate(output_, STDOUT_FILENO);
    actions.duplicate(errors_, STDERR_FILENO);
    actions.closeFrom(kFirstOwnDescriptor);

    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(spawnText(argument.c_str()));
    }
    argv.push_back(nullptr);
    char* const environment[] = {spawnText(kPath), spawnText(kLocale), spawnText(kOwnLockFile),
                                 nullptr};
    const PlainSignals signals;
    check(posix_spawn(&pid_, argv[0], actions.get(), signals.get(), argv.data(), environment));
}

std::optional<int> ToolRun::wait() {
    if (pid_ < 0) {
        return std::nullopt;
    }
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(pid_, &status, 0);
    } while (ended < 0 && errno == EINTR);
    pid_ = -1;
    if (ended < 0) {
        return std::nullopt;
    }
    return WIFSIGNALED(status) ? ToolResult::kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace FW
