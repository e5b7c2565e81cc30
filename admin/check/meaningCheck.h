/// What a profile's document means, where its shape allows the question.
#pragma once

#include <vector>

#include <json/json.h>

#include "machine/machine.h"
#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// Addresses, ports, services, countries, adapters, chains and tables; rules without effect. A
/// member of a wrong type or with an unknown code is passed over: that is the schema's to say.
std::vector<Finding> checkMeaning(const Json::Value& document, Machine& machine);

}  // namespace tarnfw
