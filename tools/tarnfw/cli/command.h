/// What every command shares: how it ends, what it takes, and what it asks.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

#include "cliFwd.h"

namespace tarnfw {

/// Exit statuses of the tool, besides 0.
enum ExitStatus : int {
    kExitFailed = 1,     ///< what and why is on standard error
    kExitUsage = 2,      ///< wrong usage
    kExitUnchecked = 3,  ///< a document that does not check
    kExitNotRoot = 4,
    kExitBlocked = 10,  ///< "blocked": blocked or mixed somewhere; "diff": not as it should be
};

/// Ends a command. The text says what failed and why, for the person at the terminal.
class CommandFailed : public std::runtime_error {
public:
    explicit CommandFailed(const std::string& text, ExitStatus status = kExitFailed)
        : std::runtime_error(text), status_(status) {}
    ExitStatus status() const { return status_; }

private:
    ExitStatus status_;
};

/// Why something failed, for the person at the terminal.
std::string reasonOf(const std::exception& error);

/// Ends a command that has said all it had to say with an exit status of its own.
[[noreturn]] void endWith(ExitStatus status);

/// Adds "--json" to a command that reads: one JSON document instead of text.
void addJsonFlag(CLI::App& command, bool& json);

/// Refuses to go on without root's rights. For reading commands, too: reading a profile takes its
/// lock, and lock files must be root's.
void requireRoot();

/// Asks a question that takes yes or no on the terminal. Without one, the answer is no.
bool confirmed(const std::string& question);

}  // namespace tarnfw
