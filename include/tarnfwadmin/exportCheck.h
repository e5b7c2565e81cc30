/// Whether a document can replace the whole configuration.
#pragma once

#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/finding.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// Findings about an exported configuration.
struct ExportFindings {
    std::vector<Finding> document;  ///< shape, file names, settings: with errors, never to import
    std::vector<Finding> profiles;  ///< of checkProfile(), each with Finding::profile
};

/// Checks an exported configuration (docs/export.schema.json): its shape; keys that cannot be file
/// names; profile names that occur twice; an active profile that is not there; each profile. Reads
/// what checkProfile() reads; changes nothing.
ExportFindings checkExport(const Json::Value& document, Machine& machine);

}  // namespace tarnfw
