#include "process/detachedRun.h"

#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "process/signalsWait.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

constexpr int kSucceeded = 0;
constexpr int kFailed = 1;
constexpr int kThrew = 2;

/// A text without a name that both processes have.
class SharedText {
public:
    explicit SharedText(const char* name) : fd_(memfd_create(name, MFD_CLOEXEC)) {
        if (fd_ < 0) {
            throw Error(ErrorKind::kSystem, "there is no memory for the messages of a reload");
        }
    }
    ~SharedText() { (void)close(fd_); }
    SharedText(const SharedText&) = delete;
    SharedText& operator=(const SharedText&) = delete;

    int fd() const { return fd_; }

    void write(const std::string& text) const {
        for (std::size_t written = 0; written < text.size();) {
            const ssize_t bytes = ::write(fd_, text.data() + written, text.size() - written);
            if (bytes <= 0) {
                return;
            }
            written += static_cast<std::size_t>(bytes);
        }
    }

    std::string read() const {
        std::string text;
        char part[4096];
        for (;;) {
            const ssize_t bytes = pread(fd_, part, sizeof part, static_cast<off_t>(text.size()));
            if (bytes <= 0) {
                return text;
            }
            text.append(part, static_cast<std::size_t>(bytes));
        }
    }

private:
    int fd_;
};

/// The new process. It never returns into what the old one was doing.
[[noreturn]] void runInChild(const std::function<bool()>& work, const SharedText& errors,
                             const SharedText& reason) {
    (void)setsid();
    (void)dup2(errors.fd(), STDERR_FILENO);
    // The number tells the lines of the log from those of other programs.
    openlog("tarnfw", LOG_PERROR | LOG_PID, LOG_USER);
    int status = kThrew;
    try {
        status = work() ? kSucceeded : kFailed;
        std::cout << std::flush;
    } catch (const std::exception& error) {
        reason.write(reasonOf(error));
    }
    _exit(status);
}

/// The exit status; -1 when it was killed.
int statusOf(pid_t process) {
    int status = 0;
    pid_t ended = -1;
    do {
        ended = waitpid(process, &status, 0);
    } while (ended < 0 && errno == EINTR);
    return ended == process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// What the process wrote, for the person who called it; lines of the log only `withLog`.
std::string messagesOf(const std::string& errors, pid_t process, bool withLog) {
    const std::string start = "tarnfw[" + std::to_string(process) + "]: ";
    std::string messages;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);) {
        if (!boost::starts_with(line, start)) {
            messages += line + "\n";
        } else if (withLog) {
            messages += "tarnfw: " + line.substr(start.size()) + "\n";
        }
    }
    return messages;
}

}  // namespace

DetachedRun runDetached(const std::function<bool()>& work) {
    const SharedText errors("errors");
    const SharedText reason("reason");
    std::cout << std::flush;  // or both would print it
    const SignalsWait wait;
    const pid_t process = fork();
    if (process < 0) {
        throw Error(ErrorKind::kSystem, "cannot start a process");
    }
    if (process == 0) {
        runInChild(work, errors, reason);
    }
    const int status = statusOf(process);
    DetachedRun run;
    run.succeeded = status == kSucceeded;
    run.messages = messagesOf(errors.read(), process, !run.succeeded);
    if (status == kThrew) {
        run.failure = reason.read();
    } else if (status < 0) {
        run.failure =
            "a process was killed in the middle of its work; \"tarnfw status\" tells how far it "
            "came";
    }
    return run;
}

}  // namespace tarnfw
