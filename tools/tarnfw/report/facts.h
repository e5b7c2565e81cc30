/// The facts of "tarnfw report" as one JSON document; docs/tarnfw-json.md describes it.
#pragma once

#include <string>

#include <json/json.h>

#include "tarnfwadmin/meaning.h"

namespace tarnfw {

/// The profile itself: "profile", "tables", "rules", "policies", "findings".
Json::Value reportFacts(const Meaning& meaning);

/// For "changes": what is opened and closed from `before`, called `name`, to `after`. Both have the
/// same environment.
Json::Value changeFacts(const std::string& name, const Meaning& before, const Meaning& after);

}  // namespace tarnfw
