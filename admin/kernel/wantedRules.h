/// The rules that a translation puts into the firewall's chains, to compare with those of the
/// kernel.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "kernel/kernelRule.h"
#include "tarnfwadmin/savedRules.h"

namespace tarnfw {

/// The lines of a translation by family, "v4" and "v6", in the order in which they run.
using FamilyLines = std::map<std::string, std::vector<std::string>>;

/// The rules of one family for the firewall's two chains, by chain, in order.
using ChainRules = std::map<std::string, std::vector<KernelRule>>;

/// The lines of a command document.
FamilyLines commandLinesOf(const Json::Value& commands);

/// Reads those lines that are for the firewall's chains.
ChainRules chainRulesFrom(const std::vector<std::string>& lines);

/// The same for each family.
std::map<std::string, ChainRules> familyRulesFrom(const FamilyLines& lines);

/// Whether the firewall's chains have these rules, and nothing else, as far as both are read.
bool hasRules(const RuleListing& listing, const ChainRules& wanted);

/// The same for each family that the kernel's rules have.
bool hasRules(const SavedRules& rules, const std::map<std::string, ChainRules>& wanted);

}  // namespace tarnfw
