/// Documents against their JSON Schema.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// The text of docs/export.schema.json.
extern const char kExportSchema[];

/// The text of docs/profile.schema.json.
extern const char kProfileSchema[];

/// What is wrong with a document by a schema of this tool; all of it errors.
std::vector<Finding> checkSchema(const Json::Value& document, const char* schema);

}  // namespace tarnfw
