/// Whether two rules are the same.
#pragma once

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Whether two rules match the same, in the same words or others, and do the same: the order of a
/// list does not count, nor how a mask or an address is spelled. Neither do names and labels, and
/// whether a rule is switched on. A reserved rule is not the same as another one.
bool isSameRule(const FW::FWRULE& one, const FW::FWRULE& other);

}  // namespace tarnfw
