/// The commands of "tarnfw profile" that have sources of their own.
#pragma once

#include "cli/cliFwd.h"

namespace tarnfw {

void addProfileShowCommand(CLI::App& group);
void addProfileEditCommand(CLI::App& group);

}  // namespace tarnfw
