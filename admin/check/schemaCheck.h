/// Checks documents against their JSON Schema.
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

/// The errors of a document by one of the schemas above. All findings are errors.
std::vector<Finding> checkSchema(const Json::Value& document, const char* schema);

}  // namespace tarnfw
