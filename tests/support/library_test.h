/// The fixture of the library's unit tests: a new fake platform and empty fixed directories.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <syslog.h>

#include <string>
#include <vector>

#include "fake_platform.h"
#include "tarnfirewall/fwTypes.h"

/// Directory and files that the library uses; all of them are private to the sandbox.
inline const std::string kProfileDir = "/usr/tarn/etc/firewall.d/";
inline const std::string kSettingsFile = kProfileDir + "firewall_settings.json";
inline const std::string kLockDir = "/var/lock/firewall/";
inline const std::string kExecLock = "/tmp/firewall_iptables_exec.lock";
inline const std::string kModuleList = "/usr/tarn/etc.defaults/iptables_modules_list";
inline const std::string kServiceRecord = "/tmp/iptables_serv_mod_list";
inline const std::string kGeoipDir = "/usr/share/xt_geoip/";

bool fileExists(const std::string& path);
std::string readFile(const std::string& path);  ///< whole; empty when it cannot be read
void writeFile(const std::string& path, const std::string& content);  ///< makes directories
std::vector<std::string> filesIn(const std::string& directory);       ///< names, sorted

Json::Value parseJson(const std::string& text);   ///< fails the test for invalid JSON
Json::Value storedJson(const std::string& path);  ///< the document in a file

/// Starts every test with an empty profile directory, lock directory and GeoIP directory, without a
/// settings file, and with a new FakePlatform.
class LibraryTest : public ::testing::Test {
protected:
    LibraryTest();

    /// Writes {"name": name, ...} as kProfileDir + stem + ".json": an empty profile.
    void storeEmptyProfile(const std::string& stem, const std::string& name);

    /// Writes `profile` as kProfileDir + stem + ".json".
    void storeProfile(const std::string& stem, const FW::FWPROFILE& profile);

    /// Writes the settings file.
    void storeSettings(bool status, const std::string& profile);

    Json::Value storedSettings() { return storedJson(kSettingsFile); }

    /// Whether exactly this was logged at LOG_ERR by `source` ("fwDB").
    bool loggedError(const std::string& source, const std::string& text) {
        return platform_.hasLogged(LOG_ERR, source, text);
    }

    /// What was logged, in order: "fwDB: The profile home already exist". Brackets mark what
    /// is not at LOG_ERR or has no line number.
    std::vector<std::string> errors() const;

    FakePlatform platform_;
};
