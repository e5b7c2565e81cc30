/// Firewall control: the profiles as callers see them.
#include "tarnfirewall/tarnFW.h"

#include "fwServiceRules.h"
#include "fwSettings.h"
#include "tarnFWInternal.h"

namespace FW {
namespace {

constexpr const char* kSource = kFirewallSource;

/// Moves the entry of one adapter to another, replacing the other's. Returns whether there was one.
/// If both names are the same, the entry is removed.
template <typename Value>
bool moveEntry(std::map<std::string, Value>& entries, const std::string& oldAdapter,
               const std::string& newAdapter) {
    const auto found = entries.find(oldAdapter);
    if (found == entries.end()) {
        return false;
    }
    entries[newAdapter] = Value(found->second);
    entries.erase(oldAdapter);
    return true;
}

}  // namespace

bool profileGetLogged(const std::string& name, FWPROFILE& profile) {
    if (!TARNFW_PROFILE().profileGet(name, profile)) {
        FW_LOG_ERR("Failed to profileGet(%s)", name.c_str());
        return false;
    }
    return true;
}

bool TARNFW_PROFILE::profileEnum(std::map<std::string, FWPROFILE>& profiles) {
    return db_.profileEnum(profiles);
}

bool TARNFW_PROFILE::profileEnum(std::vector<std::string>& names) {
    return db_.profileEnum(names);
}

bool TARNFW_PROFILE::profileGet(const std::string& name, FWPROFILE& out) {
    return db_.profileGet(name, out);
}

bool TARNFW_PROFILE::profileSet(const std::string& name, const FWPROFILE& profile) {
    return db_.profileSet(name, profile);
}

bool TARNFW_PROFILE::profileExist(const std::string& name) {
    return db_.profileExist(name);
}

bool TARNFW_PROFILE::profileCreate(const std::string& name) {
    return db_.profileCreate(name);
}

bool TARNFW_PROFILE::profileRename(const std::string& oldName, const std::string& newName) {
    return db_.profileRename(oldName, newName);
}

bool TARNFW_PROFILE::profileDelete(const std::string& name) {
    Json::Value config;
    if (!settingsGet(config)) {
        FW_LOG_ERR("Falied to config.configGet()");
        return false;
    }
    const Json::Value& settings = config;
    if (settings[kProfileKey].asString() == name) {
        FW_LOG_ERR("The profile %s is used now so cannot remove", name.c_str());
        return false;
    }
    return db_.profileDelete(name);
}

// ---- Services in all profiles ----

bool TARNFW_PROFILE::profileAddServToReserve(const std::string& adapter,
                                             const std::string& servName, FW_POLICY policy,
                                             bool reload) {
    TARNFW firewall;
    std::map<std::string, FWPROFILE> profiles;
    if (!profileEnum(profiles)) {
        FW_LOG_ERR("Failed to profileEnum()");
        return false;
    }
    for (auto& [name, profile] : profiles) {
        reserveService(profile.rules, adapter, servName, policy);
        if (!profileSet(name, profile)) {
            FW_LOG_ERR("Failed to set profile");
            return false;
        }
    }
    if (reload && !firewall.fwReload(true)) {
        FW_LOG_ERR("Failed to firewall reload");
        return false;
    }
    return true;
}

bool TARNFW_PROFILE::profileRemoveServ(const std::string& servName) {
    std::map<std::string, FWPROFILE> profiles;
    if (!profileEnum(profiles)) {
        FW_LOG_ERR("Failed to profileEnum()");
        return false;
    }
    for (auto& [name, profile] : profiles) {
        removeService(profile.rules, servName);
        if (!profileSet(profile.name, profile)) {
            FW_LOG_ERR("Failed to profile set [%s]", profile.name.c_str());
            return false;
        }
    }
    return true;
}

bool TARNFW_PROFILE::profileChangeAdapter(const std::string& oldAdapter,
                                          const std::string& newAdapter, bool reload) {
    TARNFW firewall;
    std::map<std::string, FWPROFILE> profiles;
    if (!profileEnum(profiles)) {
        FW_LOG_ERR("Failed to profileEnum()");
        return false;
    }
    std::string active;
    if (!firewall.fwProfileConfigGet(active)) {
        FW_LOG_ERR("Failed to fwProfileConfigGet()");
        return false;
    }
    bool activeTouched = false;
    for (auto& [name, profile] : profiles) {
        // The policy alone shows that the active profile changed: every stored adapter has one.
        if (moveEntry(profile.adapterPolicyMap, oldAdapter, newAdapter) && profile.name == active) {
            activeTouched = true;
        }
        (void)moveEntry(profile.rules, oldAdapter, newAdapter);
        if (!profileSet(profile.name, profile)) {
            FW_LOG_ERR("Failed to profile set [%s]", profile.name.c_str());
            return false;
        }
    }
    if (activeTouched && reload && !firewall.fwReload(true)) {
        FW_LOG_ERR("Failed to reload firewall");
        return false;
    }
    return true;
}

// ---- Test profiles ----

bool TARNFW_PROFILE::CreateTestProfile(std::string name, const FWPROFILE& profile) {
    FWPROFILE copy = profile;
    const std::string testName = testProfileName(name);
    if (profileExist(testName) && !profileDelete(testName)) {
        FW_LOG_ERR("failed to profileDelete()");
        return false;
    }
    if (!profileCreate(testName)) {
        FW_LOG_ERR("failed to profileCreate()");
        return false;
    }
    copy.name = testName;
    if (!profileSet(testName, copy)) {
        FW_LOG_ERR("failed to profileSet()");
        return false;
    }
    return true;
}

bool TARNFW_PROFILE::RemoveTestProfile(std::string name) {
    if (!profileDelete(testProfileName(name))) {
        FW_LOG_ERR("failed to profileDelete()");
        return false;
    }
    return true;
}

bool TARNFW_PROFILE::AdoptTestProfile(std::string name) {
    const std::string testName = testProfileName(name);
    if (!profileExist(testName)) {
        FW_LOG_ERR("profile does not exist");
        return false;
    }
    FWPROFILE profile;
    if (!profileGet(testName, profile)) {
        FW_LOG_ERR("failed to profileGet()");
        return false;
    }
    profile.name = name;
    if (!profileSet(name, profile)) {
        FW_LOG_ERR("failed to profileSet()");
        return false;
    }
    return true;
}

}  // namespace FW
