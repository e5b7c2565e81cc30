/// What every command shares: how it ends, what it takes, and what it asks.
#pragma once

#include <stdexcept>
#include <string>

#include "tarnfwadmin/error.h"

#include "cli/cliFwd.h"

namespace tarnfw {

/// Exit statuses of the tool, besides 0.
enum ExitStatus : int {
    kExitFailed = 1,     ///< what and why is on standard error
    kExitUsage = 2,      ///< wrong usage
    kExitUnchecked = 3,  ///< a document that does not check
    kExitNotRoot = 4,
    kExitBlocked = 10,  ///< "blocked": blocked or mixed somewhere; "diff": not as it should be
};

/// Wrong usage that parsing does not see. The text says what was wrong.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The exit status of a command that failed in this way.
ExitStatus exitStatusOf(ErrorKind kind);

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
