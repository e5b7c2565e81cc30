/// The facts of "tarnfw report" as one JSON document; docs/tarnfw-json.md describes it.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/meaning.h"

namespace tarnfw {

/// The profile itself: "profile", "absent", "tables", "rules", "policies", "findings". `checked` is
/// what a check of the profile found, for those of its rules; `absent` its adapters that have no
/// interface now.
Json::Value reportFacts(const Meaning& meaning, const std::vector<Finding>& checked = {},
                        const std::vector<std::string>& absent = {});

/// For "changes": what is opened and closed from `before`, called `name`, to `after`. Both have the
/// same environment.
Json::Value changeFacts(const std::string& name, const Meaning& before, const Meaning& after);

}  // namespace tarnfw
