/// Writes the library's files for benchmarks, only in the sandbox.
#pragma once

#include <string>
#include <vector>

inline const std::string kProfileDir = "/usr/tarn/etc/firewall.d/";
inline const std::string kSettingsFile = kProfileDir + "firewall_settings.json";
inline const std::string kGeoipDir = "/usr/share/xt_geoip/";

/// Exits outside the sandbox, because the paths are the system's.
void requireSandbox();

void writeFile(const std::string& path, const std::string& content);  ///< makes directories

/// Waits, some milliseconds, until new files get a later time than all files written so far. The
/// store assumes that a file written just now may change without a new time.
void letFilesAge();

/// Replaces the files of the profile directory: settings, and profiles of `rules` rules each.
/// The active one is "p0". Returns the texts of all files.
std::vector<std::string> storeProfiles(int profiles, int rules);

/// Writes the IPv4 ranges of a country.
void storeCountry(const std::string& country, int ranges);
