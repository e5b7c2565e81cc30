/// Shared by all commands: exit statuses, common options, questions.
#pragma once

#include <exception>
#include <string>

#include "tarnfwadmin/error.h"

#include "cli/commandLine.h"

namespace tarnfw {

/// Exit statuses of the tool, besides 0.
enum ExitStatus : int {
    kExitFailed = 1,   ///< the reason is on standard error
    kExitUsage = 2,    ///< wrong usage
    kExitInvalid = 3,  ///< an invalid document, profile or rule
    kExitNotRoot = 4,
    kExitUnknown = 5,   ///< what the command names is not known: ErrorKind::kNotFound
    kExitBlocked = 10,  ///< "blocked": blocked or mixed somewhere; "diff": the kernel differs
    kExitNotInForce =
        11,  ///< "status", "blocked", "explain": the kernel does not do what is stored
};

/// The exit status of a command that failed in this way.
ExitStatus exitStatusOf(ErrorKind kind);

/// What may help after an error that has this remedy, in words; empty without one.
std::string remedyText(Remedy remedy);

/// What the tool adds to an error that has this remedy; empty without one.
std::string wordsFor(Remedy remedy);

/// The text of an error with its remedy, in one line.
std::string messageOf(const Error& error);

/// Thrown by endWith(); main() ends the process with the status.
class CommandEnded : public std::exception {
public:
    explicit CommandEnded(ExitStatus status) : status_(status) {}
    ExitStatus status() const { return status_; }
    const char* what() const noexcept override { return "the command has ended"; }

private:
    ExitStatus status_;
};

/// Ends a command that has printed everything, with this exit status.
[[noreturn]] void endWith(ExitStatus status);

/// Adds "--json" to a command that reads: one JSON document instead of text.
void addJsonFlag(Command& command, bool& json);

/// The address family that a command is limited to.
struct FamilyOptions {
    std::string family;  ///< as typed
    bool v4 = false;
    bool v6 = false;

    bool onlyV4() const;
    bool onlyV6() const;
};

/// Adds "--family v4|v6", and the same as "--v4" and "--v6".
void addFamilyOptions(Command& command, FamilyOptions& options);

/// Whether this process has root's rights, which all changes need, and the kernel's packet filter.
bool isRoot();

/// Throws Error, kNoRights, without root's rights. For commands that change something.
void requireRoot();

/// The part of an answer that only root gets.
inline constexpr char kKernelIsRoots[] = "what is in force can be seen by root only";

/// The same for commands that only say what the kernel has.
void requireKernelRights();

/// Whether somebody can be asked: standard input is a terminal, and standard error, where questions
/// go.
bool canAsk();

/// Whether the argument of a command that takes a document or the name of a stored profile is a
/// document: "-" for standard input, a path with a slash, a name that ends in ".json", or any other
/// file that exists.
bool namesAFile(const std::string& argument);

/// Why the argument of a command that changes profiles cannot be the name of an adapter; empty when
/// it can. A check of an option.
std::string adapterNameError(const std::string& argument);

/// Asks a question that takes yes or no, if canAsk(). Otherwise the answer is no.
bool confirmed(const std::string& question);

}  // namespace tarnfw
