/// tarnfw profile diff: which packets get through with one profile and not with another.
#pragma once

#include "cli/commandLine.h"

namespace tarnfw {

void addProfileDiff(Command& group);

}  // namespace tarnfw
