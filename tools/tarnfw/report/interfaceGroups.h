/// The interfaces of a profile, in groups of those that its rules treat alike.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"

namespace tarnfw {

/// Interfaces that no rule tells apart.
struct InterfaceGroup {
    std::vector<std::string> examples;  ///< one for each name, or beginning of names, in use
    std::vector<std::string> adapters;  ///< the profile's names for them, sorted
    bool isOther = false;               ///< those that no rule and no adapter names are among them
    std::vector<bool> members;          ///< by rule: whether they are among its interfaces
};

/// Of these rules, which are those of the profile. Sorted by their adapters; the group with all
/// other interfaces is the last. "lo" is in none.
std::vector<InterfaceGroup> interfaceGroupsOf(const Meaning& meaning,
                                              const std::vector<FW::FWRESOLVEDRULE>& rules);

}  // namespace tarnfw
