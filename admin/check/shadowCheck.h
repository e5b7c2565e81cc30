/// Finds rules that could be removed: because of earlier rules, or of those after them.
#pragma once

#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/profileCheck.h"

namespace tarnfw {

/// A warning for each enabled rule that never takes effect because earlier rules decide about all
/// of its packets, with these rules; and, if wanted, for each without which the same would happen
/// to every packet, with the rules and default policies that do it then. Left out are rules that
/// have an error in `findings`, and then all that are needless; rules with lines in chains of
/// others; and of the needless ones those that the library maintains, and those that allow what
/// nothing decides. Also a warning for each rule that the packet filter would not take, or that is
/// too complex, where `findings` has none. Where the platform does not answer, nothing is found.
std::vector<Finding> checkShadows(const Json::Value& document, const std::vector<Finding>& findings,
                                  NeedlessRules needless, Machine& machine);

}  // namespace tarnfw
