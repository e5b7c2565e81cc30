/// Whether a profile's document is valid, and what is to be said about it.
#pragma once

#include <cstddef>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// Rules that take effect, but without which the same would happen to every packet.
enum class NeedlessRules {
    kLeftOut,
    kFound,  ///< a warning each; not while the document has errors
};

/// Checks a profile's document (docs/profile-format.md), before it is stored or after it was read.
/// Returns the findings in this order: the shape by docs/profile.schema.json; the meaning of each
/// rule, default policy and adapter, as far as the shape allows; rules that never take effect.
/// Errors are what is invalid on every machine (shape, addresses, ranges, ports) and services that
/// the catalogue lacks. Warnings are what this machine lacks now (adapters, country data) and rules
/// without effect.
/// Reads the service catalogue, the interfaces and the country database; changes nothing. What
/// cannot be read there is a warning; any document can be given.
std::vector<Finding> checkProfile(const Json::Value& document, Machine& machine,
                                  NeedlessRules needless = NeedlessRules::kLeftOut);

/// How many errors checkProfile() finds in a profile; faster, since it leaves out the warnings
/// about rules that never take effect.
std::size_t errorsOf(const FW::FWPROFILE& profile, Machine& machine);

/// The findings of checkProfile() about the rules at `places`, about those that they shadow, and
/// about the adapters that they are for.
std::vector<Finding> ruleFindings(const FW::FWPROFILE& profile,
                                  const std::vector<RulePlace>& places, Machine& machine);

}  // namespace tarnfw
