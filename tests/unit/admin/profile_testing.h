/// Profiles from rules in words, for the tests of what a profile does.
#pragma once

#include <string>
#include <vector>

#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {

/// The rule that these words are, on a machine with a few services, and data of two countries.
inline FW::FWRULE ruleOf(const std::string& words) {
    return ruleFrom({words}, {}, {{{"ssh", 1}, {"nfs", 3}, {"smb", 3}}, {"DE"}, {"DE", "FR"}});
}

/// An adapter's rules and default policy.
struct RuleList {
    const char* adapter;
    FW::FW_POLICY policy;
    std::vector<std::string> rules;
};

inline FW::FWPROFILE profileOf(const std::vector<RuleList>& lists) {
    FW::FWPROFILE profile;
    for (const RuleList& list : lists) {
        profile.adapterPolicyMap[list.adapter] = list.policy;
        for (const std::string& words : list.rules) {
            profile.rules[list.adapter].push_back(ruleOf(words));
        }
    }
    return profile;
}

}  // namespace tarnfw
