/// The running kernel's modules, through libkmod.
#pragma once

#include "moduleLedger.h"

namespace host {

/// The kernel for a ledger. What it opens lives as long as the copies of its functions. Modules are
/// looked up and loaded as by modprobe, including dependencies, aliases, soft dependencies and
/// install commands. It works for a kernel without modules: all are then Unknown, or BuiltIn if
/// sysfs shows them. Throws std::bad_alloc when libkmod cannot be set up.
ModuleKernel runningKernel();

}  // namespace host
