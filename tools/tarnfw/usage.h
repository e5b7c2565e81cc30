/// Wrong usage: what was wrong, and what the person may have meant.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace tarnfw {

/// The word of `known` that is most like `word`; empty when none is like it.
std::string nearest(const std::string& word, const std::vector<std::string>& known);

/// Two or three lines about a command line that `app` refused: what was wrong with it, the right
/// command where one is near, and the usage of the command that it was meant for.
std::string wrongUsage(const CLI::App& app, const CLI::ParseError& error);

}  // namespace tarnfw
