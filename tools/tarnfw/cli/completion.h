/// What can come next on a command line: for the shells, which ask when somebody presses Tab.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/commandLine.h"

namespace tarnfw {

/// The names that depend on the machine. Each is asked for at most once, and only when it is
/// needed.
struct CompletionNames {
    using Source = std::function<std::vector<std::string>()>;
    Source profiles;
    Source adapters;
    Source services;
    Source countries;
    Source topics;  ///< of "help", besides the commands
};

struct Completion {
    std::vector<std::string> words;  ///< each is the whole word that the last one can become
    bool files = false;              ///< a file's name can stand there as well
};

/// `line` is what stands behind the tool's name; its last word is the one being typed, and may be
/// empty. Nothing fits behind words that no command takes.
Completion complete(const Command& tool, const std::vector<std::string>& line,
                    const CompletionNames& names);

}  // namespace tarnfw
