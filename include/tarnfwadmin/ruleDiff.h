/// Comparison of two lists of rules, as lines: those that should be in a packet filter with those
/// that are, or those of a profile before and after a change.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// One line of a comparison.
struct RuleEdit {
    char mark = ' ';           ///< ' ' in both, '-' wanted and missing, '+' there and not wanted
    std::string line;          ///< "-A INPUT_FIREWALL -i lo -j ACCEPT"
    std::size_t position = 0;  ///< in its chain, from 1: that wanted for '-', that there for '+'
};

/// All lines of both, in order, with as few differences as possible. Of long lists that differ in
/// thousands of lines, all of these lines are differences.
std::vector<RuleEdit> editsBetween(const std::vector<std::string>& wanted,
                                   const std::vector<std::string>& held);

/// The lines of `wanted` that `held` does not have as often, in any order.
std::vector<RuleEdit> missingFrom(const std::vector<std::string>& wanted,
                                  const std::vector<std::string>& held);

bool hasDifferences(const std::vector<RuleEdit>& edits);

}  // namespace tarnfw
