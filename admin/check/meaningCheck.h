/// Checks what a profile's document means, as far as its shape is valid.
#pragma once

#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/machine.h"

namespace tarnfw {

/// Checks addresses, ports, services, countries, adapters, chains and tables, and warns about rules
/// without effect. Skips members with a wrong type or an unknown code: checkSchema() reports them.
std::vector<Finding> checkMeaning(const Json::Value& document, Machine& machine);

}  // namespace tarnfw
