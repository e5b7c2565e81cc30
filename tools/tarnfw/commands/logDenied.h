/// Logging what default policies deny: a last rule of an adapter, which denies everything as the
/// default policy would, and logs it. A default policy itself cannot log.
#pragma once

#include <cstddef>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

/// Whether the rule is one that "log-denied on" adds. A rule of the same name for less than
/// everything is somebody's own.
bool isLogOfDenied(const FW::FWRULE& rule);

/// The position, from 1, for a new last rule: before the log of the denied, which matches all.
std::size_t lastPositionForNew(const std::vector<FW::FWRULE>& rules);

/// Where the log of the denied is, from 1. More than one place only if somebody put it there.
std::vector<std::size_t> positionsOfLogOfDenied(const std::vector<FW::FWRULE>& rules);

/// Removes the log of the denied. True when there was one. For a default policy that no longer
/// denies: else the rule would deny in its place.
bool removeLogOfDenied(std::vector<FW::FWRULE>& rules);

}  // namespace tarnfw
