/// The profiles and settings on disk, as the commands read and change them. Failures throw
/// CommandFailed; the library's own reason stands on standard error before it.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

inline constexpr char kProfileDir[] = "/usr/tarn/etc/firewall.d/";

/// The settings: the one document of the profile directory that is no profile.
inline constexpr char kSettingsFile[] = "/usr/tarn/etc/firewall.d/firewall_settings.json";

/// What lives until the next start of the machine: locks, and the records of running commands.
inline constexpr char kRunDir[] = "/run/tarn";

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

/// The active profile's name, without making a settings file where there is none.
std::string activeProfile();

/// Whether the settings say that the firewall is enabled, likewise.
bool firewallEnabled();

/// The names of the profiles, sorted, without test profiles; none when the store is empty.
std::vector<std::string> profileNames();

/// Refuses a name that no profile has, naming those that there are.
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
