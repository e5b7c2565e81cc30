/// Messages about wrong usage, with suggestions.
#pragma once

#include <string>
#include <vector>

#include "cli/parser.h"

namespace tarnfw {

/// Two or three lines about the invalid command line `words`: the error, the
/// nearest command, and where to find more.
std::string wrongUsage(const Command& tool, const ParseError& error,
                       const std::vector<std::string>& words);

}  // namespace tarnfw
