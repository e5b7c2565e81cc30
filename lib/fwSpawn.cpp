#include "fwSpawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <iterator>
#include <system_error>

namespace FW {
namespace {

constexpr int kFirstOwnDescriptor = 3;  // after the three standard ones

// The descriptor of a program's own file, and the path that runs it. When the path is used,
// /proc/self is already the new process.
constexpr int kFileDescriptor = 3;
constexpr char kFileDescriptorPath[] = "/proc/self/fd/3";

void check(int error) {
    if (error != 0) {
        throw std::system_error(error, std::generic_category());
    }
}

// The descriptors of the new process, in the order in which they are set up.
class FileActions {
public:
    FileActions() { check(posix_spawn_file_actions_init(&actions_)); }
    ~FileActions() { (void)posix_spawn_file_actions_destroy(&actions_); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    void openNull(int fd, int mode) {
        check(posix_spawn_file_actions_addopen(&actions_, fd, "/dev/null", mode, 0));
    }
    void duplicate(int from, int to) {
        check(posix_spawn_file_actions_adddup2(&actions_, from, to));
    }
    void closeFrom(int fd) { check(posix_spawn_file_actions_addclosefrom_np(&actions_, fd)); }
    const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
};

// No signal is blocked, and none is ignored or handled.
class PlainSignals {
public:
    PlainSignals() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        check(posix_spawnattr_init(&attributes_));
        // These fail only for unknown flags.
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

std::vector<char*> pointersTo(const std::vector<std::string>& environment) {
    std::vector<char*> pointers;
    for (const char* variable : kFixedEnvironment) {
        pointers.push_back(const_cast<char*>(variable));  // the interface's type; never written to
    }
    for (const std::string& variable : environment) {
        pointers.push_back(const_cast<char*>(variable.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

bool isInherited(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    return flags >= 0 && (flags & FD_CLOEXEC) == 0;
}

Descriptor aboveStandard(int fd) {
    Descriptor duplicate(fcntl(fd, F_DUPFD_CLOEXEC, kFirstOwnDescriptor));
    if (!duplicate) {
        check(errno);
    }
    return duplicate;
}

int startProgram(const Program& program, pid_t& pid) try {
    struct Standard {
        int wanted;
        int fd;
        int nullMode;
    };
    const Standard standard[] = {
        {program.input, STDIN_FILENO, O_RDONLY},
        {program.output, STDOUT_FILENO, O_WRONLY},
        {program.errors, STDERR_FILENO, O_WRONLY},
    };
    FileActions actions;
    Descriptor held[std::size(standard)];
    Descriptor file;
    const char* path = program.path;

    for (std::size_t i = 0; i < std::size(standard); ++i) {
        const auto& [wanted, fd, nullMode] = standard[i];
        if (wanted >= 0) {
            held[i] = aboveStandard(wanted);
            actions.duplicate(held[i].get(), fd);
        } else if (fd == STDIN_FILENO || !isInherited(fd)) {
            actions.openNull(fd, nullMode);
        }
    }
    if (program.file >= 0) {
        file = aboveStandard(program.file);
        actions.duplicate(file.get(), kFileDescriptor);
        actions.closeFrom(kFileDescriptor + 1);
        path = kFileDescriptorPath;
    } else {
        actions.closeFrom(kFirstOwnDescriptor);
    }

    const PlainSignals signals;
    const std::vector<char*> environment = pointersTo(program.environment);
    return posix_spawn(&pid, path, actions.get(), signals.get(),
                       const_cast<char* const*>(program.argv), environment.data());
} catch (const std::system_error& error) {
    return error.code().value();
}

std::optional<int> waitForProgram(pid_t pid) {
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(pid, &status, 0);
    } while (ended < 0 && errno == EINTR);
    if (ended < 0) {
        return std::nullopt;
    }
    return WIFSIGNALED(status) ? kSignalExitBase + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace FW
