/// The settings file: whether the firewall is enabled, which profile is active, the apply mode.
/// Used by firewall control, under whose name it logs, and by the store.
#pragma once

#include <json/json.h>

namespace FW {

inline constexpr char kStatusKey[] = "status";
inline constexpr char kProfileKey[] = "profile";

/// Sets the members of a new settings file and leaves others unchanged.
void settingsDefaults(Json::Value& config);

/// Reads the settings. Without a file these are the defaults, which it then tries to write.
/// Returns false, logged, when the file cannot be read.
bool settingsGet(Json::Value& config);

/// Merges members into the settings. Returns false, logged, when they cannot be read or written.
bool settingsSet(const Json::Value& members);

/// As settingsGet(), but writes nothing: null without a file.
bool settingsPeek(Json::Value& config);

/// Reads "status". Raises Json::Exception if it does not convert.
bool isEnabled(const Json::Value& config);

/// Whether the apply mode is "batch".
bool choosesBatch(const Json::Value& config);

/// The same for the file, for an operation that must not depend on it: neither waits for its lock
/// nor logs. False if the file cannot be read.
bool settingsChooseBatch();

}  // namespace FW
