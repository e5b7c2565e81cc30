/// Other programs, run to their end.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// How a program ended, and what it wrote.
struct ProgramAnswer {
    int status = 0;  ///< exit status
    std::string output;
    std::string errors;  ///< what it wrote to standard error
};

/// Runs a program and waits for it. `words` are its path and its arguments; `input` is read as its
/// standard input, a descriptor. `enter` is called in the new process first; where it returns
/// false, the program does not run. Without `enter` the start is quicker, the more so the more
/// memory this process has. `variable` is added to the program's environment: "NAME=value".
/// Throws Error, kSystem, when it cannot be run or was killed, when what it writes cannot be read,
/// and after `mostSeconds`, which kills it; 0 is without a limit.
ProgramAnswer runProgram(const std::vector<std::string>& words, int input,
                         const std::function<bool()>& enter = {}, int mostSeconds = 0,
                         const std::string& variable = "");

/// An error message in one line, without the advice at its end ("Try `iptables -h' ...").
std::string oneLine(const std::string& errors);

/// ": " and the program's error message in one line, to end a message with; empty without one.
std::string becauseOf(const ProgramAnswer& answer);

}  // namespace tarnfw
