/// What is wrong with a document that is to replace the whole configuration.
#pragma once

#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// Findings about an exported configuration.
struct ExportFindings {
    std::vector<Finding> document;  ///< its shape, file names, settings: never to be imported so
    std::vector<Finding> profiles;  ///< as checkProfile() has them, with the profile's place before
};

ExportFindings checkExport(const Json::Value& document);

}  // namespace tarnfw
