/// tarnfw explain --from: the one rule that decides for a sender.
#pragma once

#include "commands/blockedOptions.h"

namespace tarnfw {

/// Prints what decides, adapter by adapter; ends the command with kExitBlocked when something is
/// denied.
void explainSender(const BlockedOptions& options);

}  // namespace tarnfw
