/// Running programs without a shell, for TLIBCExecv, TLIBCPopen and the hooks.
///
/// A program gets nothing of the calling process but its rights, its directory, its standard output
/// and its standard error: it reads from /dev/null, has a fixed environment, no other descriptor,
/// no blocked signal and every signal's default action.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace host {

/// What to run.
struct Program {
    const char* path = nullptr;
    const char* const* argv = nullptr;     ///< argv[0] included, ends with NULL
    std::vector<std::string> environment;  ///< "KEY=value", behind the fixed variables
    int output = -1;                       ///< becomes the standard output; -1: the caller's
    /// -1, or an open descriptor of the file to run, whatever `path` names by now. The program
    /// finds it as descriptor 3, because the interpreter of a script has to open it once more.
    int file = -1;
};

/// The variables of every program; nothing else of the environment is handed on.
extern const char* const kFixedEnvironment[2];

/// Starts a program. 0 with its process in `pid`, or the errno code of why it could not be started.
int startProgram(const Program& program, pid_t& pid);

/// Waits for a program. The result is its exit status, 128 + n when signal n killed it, and nothing
/// when the status is lost: a process that ignores SIGCHLD, or that waits for any child in another
/// thread, never learns how its children ended.
std::optional<int> waitForProgram(pid_t pid);

/// The arguments joined by blanks, for the log. Control characters become "?".
std::string commandLine(const char* const* argv);

}  // namespace host
