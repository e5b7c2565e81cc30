/// Wrong usage: what was wrong, and what the person may have meant.
#pragma once

#include <string>
#include <vector>

#include "cli/cliFwd.h"

namespace tarnfw {

/// Two or three lines about the command line `words` that `app` refused: what was wrong with it,
/// the right command where one is near, and how to find out more.
std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error,
                       const std::vector<std::string>& words);

}  // namespace tarnfw
