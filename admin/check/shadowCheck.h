/// Finds rules that never take effect because an earlier rule matches everything that they match.
#pragma once

#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/machine.h"

namespace tarnfw {

/// A warning for each enabled rule that is shadowed entirely by one earlier rule of its list or by
/// one rule of "global". Reports only what is certain: skips rules that have an error in
/// `findings`, and does not find a rule that is shadowed by several others together.
std::vector<Finding> checkShadows(const Json::Value& document, const std::vector<Finding>& findings,
                                  Machine& machine);

}  // namespace tarnfw
