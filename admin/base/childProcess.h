/// What every start of a process needs.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>

#include "base/descriptor.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {

/// A pipe. Throws Error, kSystem, when it cannot be made.
struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw Error(ErrorKind::kSystem,
                        std::string("cannot make a pipe: ") + std::strerror(errno));
        }
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }

    Descriptor readEnd;
    Descriptor writeEnd;
};

/// Waits for the end of a child process, whatever signals come; the status that waitpid() gives.
/// Nothing when it is no child of this process.
inline std::optional<int> waitStatusOf(pid_t process) {
    int status = 0;
    while (waitpid(process, &status, 0) < 0) {
        if (errno != EINTR) {
            return std::nullopt;
        }
    }
    return status;
}

/// The same, as the exit status; nothing also when a signal ended it.
inline std::optional<int> exitStatusOf(pid_t process) {
    const std::optional<int> status = waitStatusOf(process);
    return status && WIFEXITED(*status) ? std::optional(WEXITSTATUS(*status)) : std::nullopt;
}

}  // namespace tarnfw
