/// The whole configuration, profiles and settings, as one document.
#pragma once

#include <string>

#include <json/json.h>

namespace tarnfw {

inline constexpr char kConfigProfiles[] = "config_profiles";
inline constexpr char kConfigSettings[] = "config_firewall_settings";

/// What the store holds, as an export has it. Without a settings file, with the defaults and
/// without making one; "config_profiles" is empty while there is no profile. Throws Error
/// when it cannot be read.
Json::Value currentConfiguration();

/// Whether the store holds what a document says: these profiles and no others, and its settings.
bool configurationIs(const Json::Value& document);

/// A document as text, indented, in UTF-8.
std::string documentText(const Json::Value& document);

}  // namespace tarnfw
