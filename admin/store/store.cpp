#include "tarnfwadmin/store.h"

#include <glob.h>

#include <algorithm>
#include <set>
#include <utility>

#include <json/json.h>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>

#include "tarncore.h"
#include "tarnsdk.h"

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/storeChange.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

constexpr int kLockSeconds = 30;
constexpr mode_t kDirectoryMode = 0755;

// Of a new profile's name: it stands in tables and messages.
constexpr std::size_t kMostNameBytes = 100;

/// The names for a complaint: "default, home".
std::string listed(const std::vector<std::string>& names) {
    return printable(boost::join(names, ", "));
}

/// The names that the documents of profiles carry, sorted.
std::vector<std::string> namesIn(const StoredDocuments& stored, bool ofTestProfiles) {
    std::set<std::string> names;
    for (const auto& [path, document] : stored.documents) {
        if (!document.isObject() || !document["name"].isString()) {
            continue;  // of another kind
        }
        const std::string name = document["name"].asString();
        if (boost::starts_with(name, kTestPrefix) == ofTestProfiles) {
            names.insert(name);
        }
    }
    return {names.begin(), names.end()};
}

}  // namespace

ToolLock::ToolLock(const std::string& name) {
    makeDirectory(kRunDir);
    const std::string path = std::string(kRunDir).append("/").append(name);
    if (TLIBCFileLockTimeByFile(path.c_str(), 1, kLockSeconds, &fd_) != 1) {
        throw Error(ErrorKind::kBusy, "cannot lock " + path + ": another tarnfw is at work");
    }
}

ToolLock::~ToolLock() {
    (void)TLIBCFileUnlockByFile(fd_);
}

StoreLock::StoreLock() : ToolLock("store.lock") {
    mendInterruptedChange();
}

void makeDirectory(const char* path) {
    if (TARNFSMkdirP(path, nullptr, 1, 0, 0, kDirectoryMode) < 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot make the directory ") + path);
    }
}

std::vector<std::string> documentPaths() {
    std::vector<std::string> paths;
    glob_t found{};
    if (glob((std::string(kProfileDir) + "*.json").c_str(), 0, nullptr, &found) == 0) {
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return paths;
}

StoredDocuments storedDocuments() {
    StoredDocuments stored;
    for (const std::string& path : documentPaths()) {
        Json::Value document;
        if (readDocument(path, document)) {
            stored.documents[path] = std::move(document);
        } else {
            stored.unreadable.push_back(path);
        }
    }
    return stored;
}

std::string unreadableText(const std::vector<std::string>& paths) {
    return paths.empty() ? ""
                         : counted(paths.size(), "file") + " cannot be read: " + listed(paths) +
                               " (\"tarnfw check FILE\" tells why)";
}

std::string activeProfile() {
    FW::TARNFW firewall;
    std::string profile;
    if (TLIBCFileExist(kSettingsFile) != 1) {
        // Asking the library would write the defaults, and reading must not change anything.
        Json::Value defaults;
        firewall.initJconfig(defaults);
        profile = defaults["profile"].asString();
    } else if (!firewall.fwProfileConfigGet(profile)) {
        throw Error(ErrorKind::kSystem, "the settings cannot be read");
    }
    return profile;
}

bool firewallEnabled() {
    bool enabled = false;
    if (TLIBCFileExist(kSettingsFile) == 1 && !FW::TARNFW().fwStatus(enabled)) {
        throw Error(ErrorKind::kSystem, "the settings cannot be read");
    }
    return enabled;
}

std::vector<std::string> profileNames() {
    return namesIn(storedDocuments(), /*ofTestProfiles=*/false);
}

std::vector<std::string> testProfileNames() {
    return namesIn(storedDocuments(), /*ofTestProfiles=*/true);
}

std::vector<std::string> requireProfiles(const StoredDocuments& stored) {
    std::vector<std::string> names = namesIn(stored, /*ofTestProfiles=*/false);
    if (names.empty()) {
        throw Error(ErrorKind::kNotFound,
                    "there are no profiles; " + (stored.unreadable.empty()
                                                     ? "\"tarnfw base up\" writes a first one"
                                                     : unreadableText(stored.unreadable)));
    }
    return names;
}

void requireProfile(const std::string& name) {
    const StoredDocuments stored = storedDocuments();
    const std::vector<std::string> names = requireProfiles(stored);
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        const std::string perhaps = unreadableText(stored.unreadable);
        throw Error(ErrorKind::kNotFound, "there is no profile " + inQuotes(name) +
                                              " (there is: " + listed(names) + ")" +
                                              (perhaps.empty() ? "" : "; " + perhaps));
    }
}

void requireNewName(const std::string& name) {
    if (name.empty() || boost::starts_with(name, kTestPrefix)) {
        throw Error(ErrorKind::kInvalid, "a profile cannot be called " + inQuotes(name));
    }
    if (name.size() > kMostNameBytes || printable(name) != name) {
        throw Error(ErrorKind::kInvalid, "a profile's name has at most " +
                                             std::to_string(kMostNameBytes) +
                                             " bytes, and no control characters");
    }
    const std::vector<std::string> names = requireProfiles(storedDocuments());
    if (std::find(names.begin(), names.end(), name) != names.end()) {
        throw Error(ErrorKind::kInvalid, "there is a profile " + inQuotes(name) + " already");
    }
}

FW::FWPROFILE loadProfile(const std::string& name) {
    const std::string wanted = name.empty() ? activeProfile() : name;
    requireProfile(wanted);
    FW::FWPROFILE profile;
    if (!FW::TARNFW_PROFILE().profileGet(wanted, profile)) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(wanted) + " cannot be read");
    }
    return profile;
}

void storeProfile(const FW::FWPROFILE& profile) {
    (void)requireProfiles(storedDocuments());
    StoreChange change;
    const bool stored = FW::TARNFW_PROFILE().profileSet(profile.name, profile);
    change.finish();
    if (!stored) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(profile.name) + " cannot be written");
    }
}

std::vector<std::string> adaptersOf(const FW::FWPROFILE& profile) {
    std::set<std::string> adapters;
    for (const auto& [adapter, rules] : profile.rules) {
        adapters.insert(adapter);
    }
    for (const auto& [adapter, policy] : profile.adapterPolicyMap) {
        adapters.insert(adapter);
    }
    return {adapters.begin(), adapters.end()};
}

}  // namespace tarnfw
