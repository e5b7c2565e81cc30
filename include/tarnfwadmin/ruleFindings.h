/// What the check of a profile says about single rules.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// The findings about the rule at `position`, from 1, of an adapter's list, and about rules that it
/// shadows; rules are named as a person counts them: "rule 3 of eth0".
std::vector<Finding> ruleFindings(const FW::FWPROFILE& profile, const std::string& adapter,
                                  std::size_t position);

}  // namespace tarnfw
