#include "tarnfwadmin/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

// The members of the settings.
constexpr char kStatusKey[] = "status";
constexpr char kProfileKey[] = "profile";

struct ApplyModeRow {
    ApplyMode mode;
    const char* name;
};

constexpr ApplyModeRow kApplyModes[] = {
    {ApplyMode::kLines, FW::FW_APPLY_LINES},
    {ApplyMode::kBatch, FW::FW_APPLY_BATCH},
};

// Of a new profile's name, which is printed in tables and messages. newNameError() names it.
constexpr std::size_t kMostNameBytes = 100;

/// What a path is that is not a regular file.
std::string kindOf(mode_t mode) {
    switch (mode & static_cast<mode_t>(S_IFMT)) {
        case S_IFDIR:
            return "a directory";
        case S_IFIFO:
            return "a named pipe";
        case S_IFSOCK:
            return "a socket";
        case S_IFCHR:
        case S_IFBLK:
            return "a device";
        default:
            return "no regular file";
    }
}

/// Why a file is not opened: "is a link to a device". Empty when it is.
std::string whyUnusable(const std::string& path) {
    struct stat entry {};
    struct stat file {};
    const bool isLink = lstat(path.c_str(), &entry) == 0 && S_ISLNK(entry.st_mode);
    if (stat(path.c_str(), &file) != 0) {
        return isLink ? "is a link that leads nowhere" : "";
    }
    if (!S_ISREG(file.st_mode)) {
        return (isLink ? "is a link to " : "is ") + kindOf(file.st_mode);
    }
    return file.st_size > static_cast<off_t>(kMostDocumentBytes) ? "is larger than 64 MiB" : "";
}

bool isTestProfile(const std::string& name) {
    return boost::starts_with(name, kTestPrefix);
}

}  // namespace

// ---- Reading ------------------------------------------------------------------------------------

void StoreSnapshot::refresh() {
    std::map<std::string, File> known = std::exchange(files_, {});
    for (const std::string& path : filesIn(kProfileDir, ".json")) {  // as the library reads them
        const FW::FileState state = FW::FileState::of(path);
        const std::string unusable = whyUnusable(path);
        const auto found = known.find(path);
        if (found != known.end() && found->second.state.stillHolds(state)) {
            files_[path] = std::move(found->second);
        } else {
            files_[path].state = state;
        }
        files_[path].unusable = unusable;
    }
    paths_.reset();
    profiles_.clear();
}

const StoreSnapshot::File& StoreSnapshot::fileAt(const std::string& path) const {
    File& file = files_.at(path);
    if (!file.loaded) {
        file.loaded = true;
        if (!file.unusable.empty()) {
            return file;
        }
        try {
            file.text = readDocument(path, kMostDocumentBytes);
            file.read = true;
            file.whole = parseAsStored(file.text, file.content);
        } catch (const Error& error) {
            file.denied = error.kind() == ErrorKind::kNoRights;  // unreadable() names it
        }
    }
    return file;
}

const std::map<std::string, std::string>& StoreSnapshot::paths() const {
    if (!paths_) {
        paths_.emplace();
        for (const auto& [path, unread] : files_) {
            const File& file = fileAt(path);
            if (file.whole && file.content.isObject() && file.content["name"].isString()) {
                paths_->emplace(file.content["name"].asString(), path);  // the first one counts
            }
        }
    }
    return *paths_;
}

const char* applyModeName(ApplyMode mode) {
    const auto* const row =
        std::find_if(std::begin(kApplyModes), std::end(kApplyModes),
                     [mode](const ApplyModeRow& known) { return known.mode == mode; });
    return row->name;  // every mode has a row
}

std::optional<ApplyMode> applyModeFrom(const std::string& name) {
    for (const ApplyModeRow& row : kApplyModes) {
        if (name == row.name) {
            return row.mode;
        }
    }
    return std::nullopt;
}

std::vector<std::string> applyModeNames() {
    std::vector<std::string> names;
    for (const ApplyModeRow& row : kApplyModes) {
        names.emplace_back(row.name);
    }
    return names;
}

// ---- Settings -----------------------------------------------------------------------------------

bool StoreSnapshot::hasSettings() const {
    return files_.count(kSettingsFile) != 0 && std::filesystem::exists(kSettingsFile);
}

Json::Value StoreSnapshot::settings() const {
    if (!hasSettings()) {
        Json::Value defaults;
        FW::TARNFW().initJconfig(defaults);
        return defaults;
    }
    const File& file = fileAt(kSettingsFile);
    if (!file.whole) {
        throw Error(
            file.denied ? ErrorKind::kNoRights : ErrorKind::kSystem,
            std::string("the settings cannot be read") + (file.denied ? ": only root may" : ""));
    }
    if (!file.content.isObject()) {
        throw Error(ErrorKind::kSystem,
                    std::string("the settings are no JSON object: ") + kSettingsFile);
    }
    return file.content;
}

bool StoreSnapshot::firewallEnabled() const {
    const Json::Value document = settings();
    if (!document[kStatusKey].isConvertibleTo(Json::booleanValue)) {
        throw Error(
            ErrorKind::kSystem,
            std::string("\"status\" of the settings is neither true nor false: ") + kSettingsFile);
    }
    return document.isMember(kStatusKey) && document[kStatusKey].asBool();
}

std::string StoreSnapshot::activeProfile() const {
    const Json::Value document = settings();
    if (!document.isMember(kProfileKey)) {
        throw Error(ErrorKind::kSystem,
                    std::string("the settings name no profile: ") + kSettingsFile);
    }
    if (!document[kProfileKey].isConvertibleTo(Json::stringValue)) {
        throw Error(ErrorKind::kSystem,
                    std::string("\"profile\" of the settings is no name: ") + kSettingsFile);
    }
    return document[kProfileKey].asString();
}

ApplyMode StoreSnapshot::applyMode() const {
    return chosenApplyMode().value_or(ApplyMode::kLines);
}

std::optional<ApplyMode> StoreSnapshot::chosenApplyMode() const {
    const Json::Value document = settings();
    const Json::Value& mode = document[FW::FW_APPLY_KEY];
    return mode.isString() ? applyModeFrom(mode.asString()) : std::nullopt;
}

bool StoreSnapshot::appliesChanges() const {
    try {
        return settings()[kApplyChangesKey] == true;
    } catch (const Error&) {
        return false;
    }
}

// ---- Files --------------------------------------------------------------------------------------

std::vector<std::string> StoreSnapshot::documentPaths() const {
    std::vector<std::string> paths;
    for (const auto& [path, unread] : files_) {
        paths.push_back(path);
    }
    return paths;
}

std::vector<std::string> StoreSnapshot::unreadable() const {
    std::vector<std::string> paths;
    for (const auto& [path, unread] : files_) {
        if (!fileAt(path).whole) {
            paths.push_back(path);
        }
    }
    return paths;
}

std::string StoreSnapshot::unreadableText() const {
    std::vector<std::string> paths = unreadable();
    for (std::string& path : paths) {
        path += fileAt(path).denied ? " (only root may)" : "";
    }
    return paths.empty() ? "" : counted(paths.size(), "file") + " cannot be read: " + listed(paths);
}

std::map<std::string, std::string> StoreSnapshot::unusable() const {
    std::map<std::string, std::string> reasons;
    for (const auto& [path, file] : files_) {
        if (!file.unusable.empty()) {
            reasons[path] = file.unusable;
        }
    }
    return reasons;
}

std::map<std::string, std::string> StoreSnapshot::texts() const {
    std::map<std::string, std::string> texts;
    for (const auto& [path, unread] : files_) {
        const File& file = fileAt(path);
        if (!file.unusable.empty()) {
            continue;
        }
        if (file.read) {
            texts[path] = file.text;
        } else if (isThere(path)) {                                // it may have gone meanwhile
            texts[path] = readDocument(path, kMostDocumentBytes);  // throws the reason
        }
    }
    return texts;
}

bool StoreSnapshot::isWhole(const std::string& path) const {
    return files_.count(path) != 0 && fileAt(path).whole;
}

// ---- Profiles -----------------------------------------------------------------------------------

std::vector<std::string> StoreSnapshot::profileNames() const {
    std::vector<std::string> names;
    for (const auto& [name, path] : paths()) {
        if (!isTestProfile(name)) {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<std::string> StoreSnapshot::testProfileNames() const {
    std::vector<std::string> names;
    for (const auto& [name, path] : paths()) {
        if (isTestProfile(name)) {
            names.push_back(name);
        }
    }
    return names;
}

std::string newNameError(const std::string& name) {
    const bool valid = !name.empty() && name.size() <= kMostNameBytes && printable(name) == name &&
                       name.front() != '.' && name.find('/') == std::string::npos;
    return valid ? ""
                 : inQuotes(name) +
                       " is not a name for a profile: that has 1 to 100 bytes, no control "
                       "characters and no \"/\", and does not begin with \".\"";
}

std::vector<std::string> StoreSnapshot::requireProfiles() const {
    std::vector<std::string> names = profileNames();
    if (names.empty()) {
        const std::string unread = unreadableText();
        if (unread.empty()) {
            throw Error(ErrorKind::kNotFound, "there are no profiles", {}, Remedy::kSetUpBase);
        }
        throw Error(ErrorKind::kNotFound, "there are no profiles; " + unread, {},
                    Remedy::kCheckFiles);
    }
    return names;
}

void StoreSnapshot::requireProfile(const std::string& name) const {
    const std::vector<std::string> names = requireProfiles();
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        const std::string unread = unreadableText();
        throw Error(ErrorKind::kNotFound,
                    "there is no profile " + inQuotes(name) + didYouMean(nearest(name, names)) +
                        " (profiles: " + listed(names) + ")" +
                        (unread.empty() ? "" : "; " + unread),
                    {}, unread.empty() ? Remedy::kNone : Remedy::kCheckFiles);
    }
}

void StoreSnapshot::requireNewName(const std::string& name) const {
    const std::string wrong = newNameError(name);
    if (!wrong.empty()) {
        throw Error(ErrorKind::kUnusable, wrong);
    }
    if (profileNames().empty() && unreadable().empty()) {
        // The library's generator of file names needs a profile to compare with.
        throw Error(ErrorKind::kUnusable, "no profile can be created before the first one", {},
                    Remedy::kSetUpBase);
    }
    (void)requireProfiles();
    if (hasProfile(name)) {
        throw Error(ErrorKind::kUnusable, "profile " + inQuotes(name) + " already exists");
    }
}

const std::string& StoreSnapshot::pathOf(const std::string& name) const {
    const auto found = paths().find(name);
    if (found == paths().end()) {
        requireProfile(name);
        throw Error(ErrorKind::kNotFound, "there is no profile " + inQuotes(name));
    }
    return found->second;
}

const std::string& StoreSnapshot::textOf(const std::string& name) const {
    return fileAt(pathOf(name)).text;
}

const Json::Value& StoreSnapshot::documentOf(const std::string& name) const {
    return fileAt(pathOf(name)).content;
}

const FW::FWPROFILE& StoreSnapshot::profile(const std::string& name) const {
    const std::string wanted = name.empty() ? activeProfile() : name;
    const auto known = profiles_.find(wanted);
    if (known != profiles_.end()) {
        return known->second;
    }
    const Json::Value& document = documentOf(wanted);
    FW::FWPROFILE profile;
    try {
        FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
    } catch (const Json::Exception&) {
        throw Error(
            ErrorKind::kSystem,
            "profile " + inQuotes(wanted) + " cannot be read: it has a value of a wrong type",
            {pathOf(wanted), "", std::nullopt}, Remedy::kCheckFiles);
    }
    return profiles_[wanted] = std::move(profile);
}

std::map<std::string, FW::FWPROFILE> StoreSnapshot::profiles() const {
    std::map<std::string, FW::FWPROFILE> all;
    for (const auto& [name, path] : paths()) {
        all[name] = profile(name);
    }
    return all;
}

std::vector<Finding> StoreSnapshot::findings() const {
    Findings found;
    try {
        if (hasSettings() && !hasProfile(activeProfile())) {
            found.error("", "the settings name the profile " + inQuotes(activeProfile()) +
                                ", which does not exist: no reload works");
        }
    } catch (const std::exception& error) {
        found.error("", error.what());
    }
    for (const std::string& path : unreadable()) {
        found.warning("", printable(path) + " cannot be read" +
                              (path == kSettingsFile ? "" : ": it may be a profile"));
    }
    for (const auto& [path, unread] : files_) {
        const File& file = fileAt(path);
        if (!file.whole || !file.content.isObject() || !file.content["name"].isString()) {
            continue;
        }
        const std::string name = file.content["name"].asString();
        if (pathOf(name) != path) {
            found.warning("", printable(path) + " has the name of " + printable(pathOf(name)) +
                                  ", " + inQuotes(name) + ", and is not used");
        }
    }
    for (const std::string& path : filesIn(kProfileDir, ".json.tmp")) {
        found.warning(
            "", printable(path) + " is what an interrupted operation has left; it can be removed");
    }
    for (const std::string& name : testProfileNames()) {
        found.warning("", "the test profile " + inQuotes(name) +
                              " belongs to a trial that is running or was interrupted, see "
                              "\"tarnfw status\"; \"tarnfw try --cancel\" ends it and removes "
                              "the profile");
    }
    return found.take();
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

// ---- The whole configuration --------------------------------------------------------------------

Json::Value StoreSnapshot::configuration() const {
    if (hasSettings() && !isWhole(kSettingsFile)) {
        throw Error(ErrorKind::kSystem,
                    std::string(kSettingsFile) + " cannot be read: repair it, or move it away");
    }
    Json::Value document(Json::objectValue);
    document[kConfigProfiles] = Json::Value(Json::objectValue);
    for (const auto& [name, path] : paths()) {
        document[kConfigProfiles][std::filesystem::path(path).filename().string()] =
            fileAt(path).content;
    }
    document[kConfigSettings] = settings();
    document["config_version"] = 1;
    try {
        (void)std::as_const(document)[kConfigSettings][kProfileKey].asString();
    } catch (const Json::Exception&) {  // the active profile's name is not a text
        throw Error(ErrorKind::kSystem, "the profiles and settings cannot be read");
    }
    return document;
}

bool StoreSnapshot::configurationIs(const Json::Value& document) const {
    const Json::Value current = configuration();
    if (current[kConfigProfiles] != document[kConfigProfiles]) {
        return false;
    }
    const Json::Value& wanted = document[kConfigSettings];
    const std::vector<std::string> members = wanted.getMemberNames();
    return std::all_of(members.begin(), members.end(), [&](const std::string& member) {
        return current[kConfigSettings][member] == wanted[member];
    });
}

FW::FWPROFILE together(const std::vector<FW::FWPROFILE>& profiles) {
    FW::FWPROFILE all;
    for (const FW::FWPROFILE& profile : profiles) {
        for (const auto& [adapter, rules] : profile.rules) {
            std::vector<FW::FWRULE>& list = all.rules[adapter];
            list.insert(list.end(), rules.begin(), rules.end());
        }
        all.adapterPolicyMap.insert(profile.adapterPolicyMap.begin(),
                                    profile.adapterPolicyMap.end());
    }
    return all;
}

}  // namespace tarnfw
