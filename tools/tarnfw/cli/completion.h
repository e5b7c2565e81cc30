/// Completion of command lines, for shells when somebody presses Tab.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/commandLine.h"

namespace tarnfw {

/// The names that depend on the machine. Each list is read at most once, and only if it is
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
    std::vector<std::string> words;  ///< each replaces the last word
    bool files = false;              ///< a file name is possible, too
};

/// `line` has the words after the tool's name; the last one is being typed, and may be
/// empty. There are no candidates after words that no command takes.
Completion complete(const Command& tool, const std::vector<std::string>& line,
                    const CompletionNames& names);

}  // namespace tarnfw
