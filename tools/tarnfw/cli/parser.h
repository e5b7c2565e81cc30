/// Parses a command line by its declarations. Of all sources, parser.cpp alone includes the library
/// that does it, which takes longer to compile than most commands.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cli/commandLine.h"

namespace tarnfw {

/// Why a command line is invalid.
struct ParseError {
    const Command* command = nullptr;  ///< the command that the words name
    std::string unknown;               ///< the first word that it does not take; empty: none
    std::string reason;                ///< any other error
};

/// Parses the words after the tool's name, fills the targets and runs the command; or prints the
/// help text or the version where that is asked for. Returns what is wrong with the words, and
/// then nothing has run, or the command has thrown UsageError.
std::optional<ParseError> runCommandLine(const Command& tool,
                                         const std::vector<std::string>& words);

/// The help text of a command. No line of prose is wider than the terminal; elsewhere than on a
/// terminal it has up to 80 columns.
std::string helpText(const Command& command);

}  // namespace tarnfw
