/// Rules that should be in a packet filter against those that are.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tarnfw {

/// One table of a family, as "iptables -S" lists it.
struct RuleListing {
    std::map<std::string, std::string> policies;             ///< by built-in chain: "ACCEPT"
    std::map<std::string, std::vector<std::string>> chains;  ///< "-A INPUT -j X", in order

    bool has(const std::string& chain) const { return chains.count(chain) != 0; }
    const std::vector<std::string>& rulesOf(const std::string& chain) const;
};

RuleListing listingFrom(const std::string& text);

/// One line of a comparison.
struct RuleEdit {
    char mark = ' ';           ///< ' ' in both, '-' wanted and missing, '+' there and not wanted
    std::string line;          ///< "-A INPUT_FIREWALL -i lo -j ACCEPT"
    std::size_t position = 0;  ///< in its chain, from 1: that wanted for '-', that there for '+'
};

/// All lines of both, in order, with as few differences as can be found.
std::vector<RuleEdit> editsBetween(const std::vector<std::string>& wanted,
                                   const std::vector<std::string>& held);

/// The lines of `wanted` that `held` has not got so often, in any order.
std::vector<RuleEdit> missingFrom(const std::vector<std::string>& wanted,
                                  const std::vector<std::string>& held);

bool hasDifferences(const std::vector<RuleEdit>& edits);

}  // namespace tarnfw
