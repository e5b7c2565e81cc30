/// The library's files, as benchmarks lay them out. Only in the sandbox.
#pragma once

#include <string>
#include <vector>

inline const std::string kProfileDir = "/usr/tarn/etc/firewall.d/";
inline const std::string kSettingsFile = kProfileDir + "firewall_settings.json";
inline const std::string kGeoipDir = "/usr/share/xt_geoip/";

/// Exits when this is not the sandbox: the paths are the system's.
void requireSandbox();

void writeFile(const std::string& path, const std::string& content);  ///< makes directories

/// Waits until what is written from here on has a later time than all that was written before: for
/// a file of just now, the store takes it that it may change unseen. Milliseconds.
void letFilesAge();

/// Makes the only files of the profile directory: settings, and profiles of `rules` rules each.
/// The active one is "p0". Returns the texts of all files.
std::vector<std::string> storeProfiles(int profiles, int rules);

/// Writes the IPv4 ranges of a country.
void storeCountry(const std::string& country, int ranges);
