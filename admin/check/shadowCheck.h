/// Rules that never take effect, because an earlier one matches all that they do.
#pragma once

#include <vector>

#include <json/json.h>

#include "machine/machine.h"
#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// A warning for each rule in use that an earlier one of its list, or one of "global", shadows
/// entirely. Only what is certain: a rule for which `findings` has an error neither shadows nor is
/// looked at, and rules that shadow another one together are not found.
std::vector<Finding> checkShadows(const Json::Value& document, const std::vector<Finding>& findings,
                                  Machine& machine);

}  // namespace tarnfw
