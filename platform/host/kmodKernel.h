/// The running kernel's modules, through libkmod.
#pragma once

#include "moduleLedger.h"

namespace host {

/// A kernel to keep a ledger of. What it opens lives as long as the copies of its functions do.
/// Modules are looked up and loaded as modprobe does it, dependencies, aliases, soft dependencies
/// and install commands included. A kernel without any modules will do: then all are Unknown, or
/// BuiltIn where sysfs shows them. Throws std::bad_alloc when libkmod cannot be set up.
ModuleKernel runningKernel();

}  // namespace host
