/// A snapshot of the profiles and settings in the store.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwFileState.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/finding.h"

namespace TARNFW_EXPORT_ALL tarnfw {

inline constexpr char kProfileDir[] = "/usr/tarn/etc/firewall.d/";

/// The settings: the only document of the profile directory that is not a profile.
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

/// The largest document that is read, in bytes. One of 10,000 rules has some 5 MB.
inline constexpr std::size_t kMostDocumentBytes = 64 * 1024 * 1024;

/// The prefix of the names of test profiles, which a trial creates and removes.
inline constexpr char kTestPrefix[] = ".test_";

/// The settings' member for StoreSnapshot::appliesChanges(). The library ignores it.
inline constexpr char kApplyChangesKey[] = "applyChanges";

// The members of an exported configuration.
inline constexpr char kConfigProfiles[] = "config_profiles";
inline constexpr char kConfigSettings[] = "config_firewall_settings";

/// How a reload puts lines into the kernel, and so which lines it makes.
enum class ApplyMode { kLines, kBatch };

/// The name of a mode, as in the settings: "lines", "batch".
const char* applyModeName(ApplyMode mode);

/// The mode of that name; nothing for any other text.
std::optional<ApplyMode> applyModeFrom(const std::string& name);

/// Why a profile that a person makes cannot have this name; empty when it can. Stored profiles may
/// have any name: other programs give them, and every command takes them. A name with a slash would
/// be taken for a file, and test profiles, which lists leave out, begin with a dot.
std::string newNameError(const std::string& name);

/// The names of all modes.
std::vector<std::string> applyModeNames();

/// The profiles and settings in "/usr/tarn/etc/firewall.d/", each "*.json" file read and parsed
/// once, when it is first asked for: the settings alone for a question about them. Reading takes no
/// lock and needs no more than permission to read: documents are replaced as a whole, so each is
/// one version of itself. Missing settings are read as the defaults, and not written.
///
/// A profile has the name inside its file; of two files with one name, the one that sorts first
/// counts. Test profiles are only in the list of testProfileNames().
///
/// Operations about one profile throw Error: kNotFound for a name that no profile has, kSystem for
/// a document that is no profile. Those about the settings throw Error, kSystem, when these cannot
/// be read, and what jsoncpp throws for a member of a type that does not convert.
class StoreSnapshot {
public:
    /// Lists the files. Throws Error, kSystem, when the directory is there and cannot be read.
    StoreSnapshot() { refresh(); }

    /// Lists them again. Those that have changed since, by inode, size and time of change, are read
    /// again when they are asked for.
    void refresh();

    // ---- Settings ----

    /// Whether there is a settings file, readable or not.
    bool hasSettings() const;

    /// Their document, that of a first start without a file. Throws Error, kSystem, for one that
    /// cannot be read or is no JSON object.
    Json::Value settings() const;

    /// Whether the settings say that the firewall is enabled.
    bool firewallEnabled() const;

    /// The active profile's name; there need not be such a profile.
    std::string activeProfile() const;

    /// The apply mode; "lines" where the settings name none that exists.
    ApplyMode applyMode() const;

    /// The apply mode that the settings name; nothing where they name none that exists.
    std::optional<ApplyMode> chosenApplyMode() const;

    /// Whether changes of the active profile are to be applied at once: the member "applyChanges"
    /// is true. False for settings that cannot be read.
    bool appliesChanges() const;

    // ---- Files ----

    /// Whether there is a "*.json" file.
    bool empty() const { return files_.empty(); }

    /// The paths of all files, sorted.
    std::vector<std::string> documentPaths() const;

    /// The paths of the files that cannot be read or are not JSON, sorted.
    std::vector<std::string> unreadable() const;

    /// "2 files cannot be read: ..."; empty if all can be read.
    std::string unreadableText() const;

    /// The files among these that are never opened: what is no regular file, nor a link to one, and
    /// what is larger than 64 MiB. Their paths, with the reason: "is a named pipe". In a
    /// StoreSession the library does not open them either.
    std::map<std::string, std::string> unusable() const;

    // ---- Profiles ----

    /// The names of the profiles, sorted; none when the store is empty.
    std::vector<std::string> profileNames() const;

    /// The names of the test profiles, likewise.
    std::vector<std::string> testProfileNames() const;

    bool hasProfile(const std::string& name) const { return paths().count(name) != 0; }

    /// The same as profileNames(); throws Error, kNotFound, when there are none.
    std::vector<std::string> requireProfiles() const;

    /// Throws Error for a name that no profile has; the message has the existing names and the
    /// files that may have it.
    void requireProfile(const std::string& name) const;

    /// Throws Error, kUnusable, for a name that a profile has or that cannot be a new profile's;
    /// and kNotFound while the store holds no profile: the library cannot make the first one.
    void requireNewName(const std::string& name) const;

    /// The path, the text and the document of the file that holds profile `name`.
    const std::string& pathOf(const std::string& name) const;
    const std::string& textOf(const std::string& name) const;
    const Json::Value& documentOf(const std::string& name) const;

    /// Profile `name`, or the active one when that is empty. Valid until refresh().
    const FW::FWPROFILE& profile(const std::string& name) const;

    /// All profiles, test profiles among them, by name.
    std::map<std::string, FW::FWPROFILE> profiles() const;

    /// What is wrong among the documents, such as an interrupted operation of the library leaves
    /// it: settings that name no profile; two files with one profile's name; documents that cannot
    /// be read or were not finished; test profiles.
    std::vector<Finding> findings() const;

    // ---- The whole configuration ----

    /// The result of TARNFW_JSON_DB::exportConfig(): the profiles' documents by the names of their
    /// files, the settings, the version. "config_profiles" is empty while there is no profile.
    Json::Value configuration() const;

    /// Whether the store agrees with an exported document: it has exactly these profiles, and
    /// these settings; settings that only the store has are ignored.
    bool configurationIs(const Json::Value& document) const;

    // ---- For StoreTransaction ----

    /// The texts of the regular files that can be read, by path.
    std::map<std::string, std::string> texts() const;

    /// Whether the file is a complete JSON document.
    bool isWhole(const std::string& path) const;

private:
    struct File {
        FW::FileState state;   ///< when the document was read
        std::string unusable;  ///< why the file is not opened; empty: it is
        bool loaded = false;   ///< the rest says what was found
        bool read = false;     ///< `text` is its content
        bool denied = false;   ///< this process may not read it
        bool whole = false;    ///< `content` is its document
        std::string text;
        Json::Value content;
    };

    /// The file, read.
    const File& fileAt(const std::string& path) const;

    /// The paths of the profiles' files, by name.
    const std::map<std::string, std::string>& paths() const;

    mutable std::map<std::string, File> files_;  // by path
    mutable std::optional<std::map<std::string, std::string>> paths_;
    mutable std::map<std::string, FW::FWPROFILE> profiles_;  // those asked for
};

/// Every adapter that the profile has rules or a default policy for, sorted.
std::vector<std::string> adaptersOf(const FW::FWPROFILE& profile);

/// A profile without a name that has the rules of all, one list after another, and their default
/// policies; of an adapter with several the first one.
FW::FWPROFILE together(const std::vector<FW::FWPROFILE>& profiles);

}  // namespace tarnfw
