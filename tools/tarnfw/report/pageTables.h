/// The tables of the report's page: who may reach what.
#pragma once

#include <string>

#include <json/json.h>

#include "report/pageRules.h"

namespace tarnfw {

/// A part for each adapter, with its tables.
std::string allTables(const Json::Value& facts, const RuleLinks& links);

}  // namespace tarnfw
