/// Child processes: where they start, and where they are waited for.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The exit status of a process that cannot run its program, as a shell has it.
inline constexpr int kProgramNotRun = 127;

/// Starts a process, a copy of this one, that runs `work` and ends with the status that it returns,
/// or with 1 if it throws. No destructor outside `work` runs there. `name` is for the message of
/// the Error, kSystem, that is thrown when there can be no more processes: "the watchdog".
pid_t startProcess(const std::string& name, const std::function<int()>& work);

/// Replaces this process by a program; `words` are its path and its arguments. Returns only when
/// that fails: kProgramNotRun, for `work` to return.
int becomeProgram(std::vector<std::string> words);

/// Waits for the end of a child process, whatever signals come; the status that waitpid() gives.
/// Nothing when it is no child of this process.
std::optional<int> waitStatusOf(pid_t process);

/// The same, as the exit status; nothing also when a signal ended it.
std::optional<int> exitStatusOf(pid_t process);

}  // namespace tarnfw
