/// The commands of "tarnfw profile" that have sources of their own.
#pragma once

#include "cli/commandLine.h"

namespace tarnfw {

void addProfileShowCommand(Command& group);
void addProfileEditCommand(Command& group);

}  // namespace tarnfw
