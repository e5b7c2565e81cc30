#include "tarnfwadmin/scratchKernel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

// Other programs change the packet filter as well, at boot most of all.
constexpr char kLockSeconds[] = "30";

// The legacy variant's lock keeps programs apart that change one filter; nobody else changes that
// of a scratch namespace, and a reload must not wait for what happens there.
constexpr char kLockVariable[] = "XTABLES_LOCKFILE";
constexpr char kLockName[] = "/scratch_kernel.lock";

constexpr int kNotEntered = 126;
constexpr int kNotRun = 127;

/// A pipe, both ends closed with the object.
class Pipe {
public:
    Pipe() {
        if (pipe2(ends_.data(), O_CLOEXEC) != 0) {
            throw Error(ErrorKind::kSystem,
                        std::string("cannot make a pipe: ") + std::strerror(errno));
        }
    }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int readEnd() const { return ends_[0]; }
    int writeEnd() const { return ends_[1]; }
    void closeEnd(std::size_t index) {
        if (ends_[index] >= 0) {
            close(ends_[index]);
            ends_[index] = -1;
        }
    }
    /// Gives the writing end away.
    int releaseWriteEnd() { return std::exchange(ends_[1], -1); }

private:
    std::array<int, 2> ends_{-1, -1};
};

/// A descriptor, closed with the object.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { close(fd_); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }

private:
    int fd_;
};

/// Reads two streams until both have ended.
void readBoth(int first, std::string& firstText, int second, std::string& secondText) {
    std::array<pollfd, 2> streams{pollfd{first, POLLIN, 0}, pollfd{second, POLLIN, 0}};
    const std::array<std::string*, 2> texts{&firstText, &secondText};
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        if (poll(streams.data(), streams.size(), -1) < 0 && errno != EINTR) {
            return;
        }
        for (std::size_t i = 0; i < streams.size(); ++i) {
            if (streams[i].fd < 0 || streams[i].revents == 0) {
                continue;
            }
            std::array<char, 4096> buffer{};
            const ssize_t length = read(streams[i].fd, buffer.data(), buffer.size());
            if (length > 0) {
                texts[i]->append(buffer.data(), static_cast<std::size_t>(length));
            } else if (length == 0 || errno != EINTR) {
                streams[i].fd = -1;
            }
        }
    }
}

int statusOf(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            return kNotRun;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : kNotRun;
}

/// The words of a tool's complaint, in one line and without the advice at its end.
std::string wordsOf(const std::string& errors) {
    std::istringstream lines(errors);
    std::string words;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && !boost::starts_with(line, "Try `")) {
            words.append(words.empty() ? "" : " ").append(line);
        }
    }
    return words.empty() ? "it says nothing" : words;
}

}  // namespace

// ---- PacketFilter -------------------------------------------------------------------------------

ProgramAnswer PacketFilter::run(const std::string& family,
                                const std::vector<std::string>& arguments) const {
    const Descriptor nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return runProgram(programOf(family), arguments, nothing.get());
}

ProgramAnswer PacketFilter::restore(const std::string& family, const std::string& text) const {
    // A file without a name: the tool may stop reading, and nobody has to wait for it to go on.
    const Descriptor input(memfd_create("rules", MFD_CLOEXEC));
    if (write(input.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(input.get(), 0, SEEK_SET) != 0) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot keep the rules: ") + std::strerror(errno));
    }
    return runProgram(programOf(family) + "-restore", {"--noflush"}, input.get());
}

ProgramAnswer PacketFilter::runProgram(const std::string& program,
                                       const std::vector<std::string>& arguments, int input) const {
    std::vector<std::string> words = {program, "-w", kLockSeconds};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);

    Pipe output;
    Pipe errors;
    const pid_t process = fork();
    if (process < 0) {
        throw Error(ErrorKind::kSystem, "cannot start " + program + ": " + std::strerror(errno));
    }
    if (process == 0) {
        if (!enter() || dup2(input, STDIN_FILENO) < 0 ||
            dup2(output.writeEnd(), STDOUT_FILENO) < 0 ||
            dup2(errors.writeEnd(), STDERR_FILENO) < 0) {
            _exit(kNotEntered);
        }
        execv(program.c_str(), argv.data());
        _exit(kNotRun);
    }
    output.closeEnd(1);
    errors.closeEnd(1);
    ProgramAnswer answer;
    readBoth(output.readEnd(), answer.output, errors.readEnd(), answer.errors);
    answer.status = statusOf(process);
    if (answer.status == kNotEntered || answer.status == kNotRun) {
        throw Error(ErrorKind::kSystem, "cannot run " + program);
    }
    return answer;
}

// ---- ScratchKernel ------------------------------------------------------------------------------

ScratchKernel::ScratchKernel() {
    makeDirectory(kRunDir);
    Pipe ready;
    Pipe hold;
    holder_ = fork();
    if (holder_ < 0) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot start a process: ") + std::strerror(errno));
    }
    if (holder_ == 0) {
        // Lives until the pipe is closed, which the end of the tool does as well.
        hold.closeEnd(1);
        char byte = 0;
        if (unshare(CLONE_NEWNET) == 0 && write(ready.writeEnd(), &byte, 1) == 1) {
            while (read(hold.readEnd(), &byte, 1) < 0 && errno == EINTR) {
            }
        }
        _exit(0);
    }
    hold_ = hold.releaseWriteEnd();
    ready.closeEnd(1);
    // By number: the C library's header for it is not one for C++.
    pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, holder_, 0));
    char byte = 0;
    if (pidfd_ < 0 || read(ready.readEnd(), &byte, 1) != 1) {
        end();
        throw Error(ErrorKind::kSystem,
                    "this system does not allow a network namespace to load rules in");
    }
    try {
        setUpBase();
    } catch (...) {
        end();
        throw;
    }
}

ScratchKernel::~ScratchKernel() {
    end();
}

void ScratchKernel::end() const {
    close(hold_);
    // The pipe alone is not enough: processes that were forked since may have it, too.
    (void)kill(holder_, SIGKILL);
    if (pidfd_ >= 0) {
        close(pidfd_);
    }
    (void)statusOf(holder_);
}

bool ScratchKernel::enter() const {
    return setns(pidfd_, CLONE_NEWNET) == 0 &&
           setenv(kLockVariable, (std::string(kRunDir) + kLockName).c_str(), 1) == 0;
}

void ScratchKernel::setUpBase() const {
    for (const BaseFilter& filter : baseFilters()) {
        const auto required = [&](const std::vector<std::string>& arguments) {
            const ProgramAnswer answer = run(filter.key(), arguments);
            if (answer.status != 0) {
                throw Error(ErrorKind::kSystem,
                            "no packet filter in a network namespace: " + wordsOf(answer.errors));
            }
        };
        for (const std::string& chain : wholeBase().chains) {
            required({"-N", chain});
        }
        for (const auto& [chain, target] : wholeBase().jumps) {
            required({"-A", chain, "-j", target});
        }
    }
}

std::string ScratchKernel::load(const TracedLine& line) const {
    std::istringstream text(line.line);
    std::vector<std::string> words;
    for (std::string word; std::getline(text, word, ' ');) {
        if (!word.empty()) {
            words.push_back(word);
        }
    }
    const ProgramAnswer answer = run(line.family, words);
    return answer.status == 0 ? std::string() : wordsOf(answer.errors);
}

}  // namespace tarnfw
