/// What is wrong with a profile's document, in words for the person who wrote it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// Checks a profile's document, before it is stored or after it was read: first against
/// docs/profile.schema.json, then for what it means, as far as its shape allows. Errors are what no
/// machine could make sense of: shape, addresses, ranges, ports, services that the catalogue does
/// not have. Warnings are what depends on this machine as it is now (adapters, country data), and
/// rules without effect. Reads the catalogue, the interfaces and the country database; changes
/// nothing.
std::vector<Finding> checkProfile(const Json::Value& document);

/// How many errors a check of the profile finds.
std::size_t errorsOf(const FW::FWPROFILE& profile);

}  // namespace tarnfw
