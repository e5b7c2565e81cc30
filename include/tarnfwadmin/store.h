/// The profiles and settings on disk, as the commands read and change them. Failures throw
/// Error; the library's own reason stands on standard error before it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

inline constexpr char kProfileDir[] = "/usr/tarn/etc/firewall.d/";

/// The settings: the one document of the profile directory that is no profile.
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

/// What lives until the next start of the machine: locks, and the records of running commands.
inline constexpr char kRunDir[] = "/run/tarn";

/// What the library holds while it reloads. A trial's rules must not go in between those of a
/// reload: the library leaves that to its caller.
inline constexpr char kReloadLock[] = "/tmp/firewall_iptables_exec.lock";

/// The prefix of the names of test profiles, which a trial makes and takes away.
inline constexpr char kTestPrefix[] = ".test_";

/// A lock between calls of this tool, held from construction to destruction.
class ToolLock {
public:
    /// Waits up to 30 s for the lock file `name` of the run directory.
    explicit ToolLock(const std::string& name);
    ~ToolLock();
    ToolLock(const ToolLock&) = delete;
    ToolLock& operator=(const ToolLock&) = delete;

private:
    int fd_ = -1;
};

/// What a command holds that reads profiles in order to change them. The library locks single
/// files; without this, of two commands at the same time one would undo the other. What a killed
/// command has left half written is put right first (mendInterruptedChange()).
class StoreLock : public ToolLock {
public:
    StoreLock();
};

/// Makes a directory and those above it.
void makeDirectory(const char* path);

/// The paths of the store's documents, those that the library looks at, sorted.
std::vector<std::string> documentPaths();

/// What the store's documents hold, by their paths. Without the library, which would log each
/// unreadable one with every look at it, and which only root can let read.
struct StoredDocuments {
    std::map<std::string, Json::Value> documents;
    std::vector<std::string> unreadable;  ///< paths
};
StoredDocuments storedDocuments();

/// "1 file cannot be read: ...", and what tells why; empty when all can.
std::string unreadableText(const std::vector<std::string>& paths);

/// The active profile's name, without making a settings file where there is none.
std::string activeProfile();

/// Whether the settings say that the firewall is enabled, likewise.
bool firewallEnabled();

/// The names of the profiles, sorted; none when the store is empty.
std::vector<std::string> profileNames();

/// The names of the test profiles, likewise.
std::vector<std::string> testProfileNames();

/// The names of the profiles among documents; refuses a store without any.
std::vector<std::string> requireProfiles(const StoredDocuments& stored);

/// Refuses a name that no profile has, naming those that there are, and files that perhaps hold it.
void requireProfile(const std::string& name);

/// Refuses a name that a profile has, or that cannot be a new profile's. Also refuses while the
/// store holds no profile at all: the library cannot make the first one.
void requireNewName(const std::string& name);

/// Reads the profile `name`, or the active one when that is empty.
FW::FWPROFILE loadProfile(const std::string& name);

/// Stores a profile under the name that it carries.
void storeProfile(const FW::FWPROFILE& profile);

/// Every adapter that the profile has rules or a default policy for, sorted.
std::vector<std::string> adaptersOf(const FW::FWPROFILE& profile);

}  // namespace tarnfw
