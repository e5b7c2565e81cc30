#include "process/detachedRun.h"

#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <optional>
#include <sstream>

#include <boost/algorithm/string/predicate.hpp>

#include "process/heldLog.h"
#include "process/signalsWait.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/process.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr int kSucceeded = 0;
constexpr int kFailed = 1;
constexpr int kThrew = 2;

std::string contentOf(const Descriptor& text) {
    std::string content;
    (void)lseek(text.get(), 0, SEEK_SET);
    (void)readAll(text.get(), content);
    return content;
}

/// What the new process does; its exit status.
int runInChild(const std::function<bool()>& work, const Descriptor& errors,
               const Descriptor& reason) {
    (void)setsid();
    (void)dup2(errors.get(), STDERR_FILENO);
    // The process number distinguishes these log lines from those of other programs.
    printLogAtOnce(/*withNumber=*/true);
    try {
        const bool succeeded = work();
        std::cout << std::flush;
        return succeeded ? kSucceeded : kFailed;
    } catch (const std::exception& error) {
        (void)writeText(reason.get(), reasonOf(error));
        return kThrew;
    }
}

/// Waits for the programs that a killed process has left, which are of its group and have come to
/// this process: they may still change the kernel.
void awaitPrograms(pid_t process) {
    while (waitpid(-process, nullptr, 0) > 0 || errno == EINTR) {
    }
}

/// What the process wrote, for the person who called it; lines of the log only `withLog`.
std::string messagesOf(const std::string& errors, pid_t process, bool withLog) {
    const std::string start = "tarnfw[" + std::to_string(process) + "]: ";
    std::string messages;
    std::istringstream lines(errors);
    for (std::string line; std::getline(lines, line);) {
        if (!boost::starts_with(line, start)) {
            messages += printable(line) + "\n";
        } else if (withLog) {
            messages += "tarnfw: " + printable(line.substr(start.size())) + "\n";
        }
    }
    return messages;
}

}  // namespace

DetachedRun runDetached(const std::function<bool()>& work, const std::function<void()>& meanwhile) {
    // Files of both processes: the new one writes them, this one reads them afterwards.
    const Descriptor errors = memoryFile("errors");
    const Descriptor reason = memoryFile("reason");
    std::cout << std::flush;  // or both would print it
    const SignalsWait wait;
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t process =
        startProcess("a process", [&] { return runInChild(work, errors, reason); });
    std::exception_ptr thrown;
    try {
        if (meanwhile) {
            meanwhile();
        }
    } catch (...) {
        thrown = std::current_exception();
    }
    const std::optional<int> status = exitStatusOf(process);
    if (!status) {
        awaitPrograms(process);
    }
    (void)prctl(PR_SET_CHILD_SUBREAPER, 0);
    if (thrown) {
        std::rethrow_exception(thrown);
    }
    DetachedRun run;
    run.succeeded = status == kSucceeded;
    run.messages = messagesOf(contentOf(errors), process, !run.succeeded);
    if (status == kThrew) {
        run.failure = contentOf(reason);
    } else if (!status) {
        run.failure = "the process that applied the change was killed; see \"tarnfw status\"";
    }
    return run;
}

}  // namespace tarnfw
