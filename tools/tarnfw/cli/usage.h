/// Wrong usage: what was wrong, and what the person may have meant.
#pragma once

#include <string>
#include <vector>

#include "cli/parser.h"

namespace tarnfw {

/// Two or three lines about the command line `words` that was refused: what was wrong with it, the
/// right command where one is near, and how to find out more.
std::string wrongUsage(const Command& tool, const Refusal& refusal,
                       const std::vector<std::string>& words);

}  // namespace tarnfw
