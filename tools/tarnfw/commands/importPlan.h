/// The changes of an import.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

namespace tarnfw {

/// The change of one profile.
struct ProfileChange {
    std::string name;
    std::string file;    ///< its name in the store: the new one, or that of a removed profile
    std::string change;  ///< "added", "changed", "removed", "unchanged"
};

/// A setting that gets another value; as texts, "-" for none.
struct SettingChange {
    std::string setting;
    std::string now;
    std::string imported;
};

struct ImportPlan {
    std::vector<ProfileChange> profiles;  ///< of all profiles, sorted by name
    std::vector<SettingChange> settings;  ///< only those that change
    bool changesNothing = true;
};

/// Compares what the store holds with a document whose shape has been checked.
ImportPlan importPlan(const Json::Value& current, const Json::Value& document);

/// Prints it as tables.
void printPlan(const ImportPlan& plan);

/// The document of "--json": "changes", "profiles", "settings".
Json::Value jsonOf(const ImportPlan& plan);

}  // namespace tarnfw
