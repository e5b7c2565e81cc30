#include "tarnfirewall/tarnIptablesModule.h"

#include <errno.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarncore.h"
#include "tarnkm.h"

#include "tarnfirewall/utils.h"

#include "fwFileLock.h"
#include "fwLog.h"

namespace FW {
namespace {

constexpr char kSource[] = "tarnIptablesModule";

constexpr char kModuleListFile[] = "/usr/tarn/etc.defaults/iptables_modules_list";
constexpr char kCoreKey[] = "KERNEL_MODULES_CORE";
constexpr char kCommonKey[] = "KERNEL_MODULES_COMMON";
constexpr char kIpv6Key[] = "IPV6_MODULES";
constexpr char kNatKey[] = "KERNEL_MODULES_NAT";
constexpr std::size_t kModuleListBytes = 4096;

// In /tmp on purpose: a reboot removes it, as it does the modules.
constexpr char kServiceRecordFile[] = "/tmp/iptables_serv_mod_list";
constexpr char kLoaded[] = "yes";
constexpr char kNotLoaded[] = "no";
constexpr std::size_t kServiceRecordBytes = 1024;

constexpr int kLockSeconds = 30;

constexpr int kModuleListCapacity = 1024;

/// Where a platform failure occurred, as the messages quote it.
struct PlatformError {
    unsigned code = static_cast<unsigned>(TLIBCErrGet());
    const char* file = TLIBCErrorGetFile();
    int line = TLIBCErrorGetLine();
};

/// The lock of the service record file. The update goes on without it.
class ServiceRecordLock {
public:
    ServiceRecordLock()
        : path_(getLockFile(kServiceRecordFile)), lock_(path_.c_str(), kLockSeconds, [] {
              // The text is part of the behaviour, including its trailing blank.
              FW_LOG_ERR("Failed to unlock mail config lock. ");
          }) {
        if (!lock_.held()) {
            FW_LOG_ERR("Failed to get lock [%s] error[%s]", path_.c_str(), std::strerror(errno));
            FW_LOG_ERR("Failed to get lock %s but still continue", path_.c_str());
            lock_.forget();
        }
    }

private:
    std::string path_;
    FileLock lock_;
};

/// A platform list of texts; a push may reallocate it.
class TextList {
public:
    TextList() : list_(TLIBCSzListAlloc(kModuleListCapacity, 0)) {}
    ~TextList() {
        if (list_ != nullptr) {
            TLIBCSzListFree(list_);
        }
    }
    TextList(const TextList&) = delete;
    TextList& operator=(const TextList&) = delete;

    bool allocated() const { return list_ != nullptr; }
    bool push(const std::string& text) { return TLIBCSzListPush(&list_, text.c_str()) >= 0; }
    PTLIBCSZLIST get() const { return list_; }

private:
    PTLIBCSZLIST list_;
};

/// Reads one key of the module list file.
bool moduleListValueGet(const std::string& key, std::string& value) {
    char buffer[kModuleListBytes] = {};
    if (TLIBCFileGetKeyValue(kModuleListFile, key.c_str(), buffer, sizeof(buffer), 0) <= 0) {
        FW_LOG_ERR("Failed to get key %s from %s", key.c_str(), kModuleListFile);
        return false;
    }
    value = buffer;
    return true;
}

/// The names of a value: split at every blank, so two in a row give an empty name.
void splitNames(const std::string& value, std::vector<std::string>& names) {
    boost::split(names, value, boost::is_any_of(" "));
}

/// Writes a service's record; the caller holds the lock.
bool serviceRecordSet(const std::string& servName, const char* value) {
    if (TLIBCFileSetKeyValue(kServiceRecordFile, servName.c_str(), value, 0) < 0) {
        const PlatformError error;
        // File and service are swapped; the text is part of the behaviour.
        FW_LOG_ERR("failed to set key %s to file %s[0x%04X %s:%d]", kServiceRecordFile,
                   servName.c_str(), error.code, error.file, error.line);
        return false;
    }
    return true;
}

/// How inserting and removing differ.
struct ModuleAction {
    int (*run)(const char* servName, PTLIBCSZLIST modules);
    const char* runName;
    const char* recorded;
};

constexpr ModuleAction kInsert = {TLIBIptablesModInsert, "TLIBIptablesModInsert", kLoaded};
constexpr ModuleAction kRemove = {TLIBIptablesModRemove, "TLIBIptablesModRemove", kNotLoaded};

bool runModuleAction(const ModuleAction& action, const std::string& servName,
                     const std::vector<std::string>& modules) {
    std::optional<ServiceRecordLock> lock;  // locked after the modules, and released last
    TextList list;
    if (!list.allocated()) {
        const PlatformError error;
        FW_LOG_ERR("Failed to allocate list[0x%04X %s:%d]", error.code, error.file, error.line);
        return false;
    }
    for (const std::string& module : modules) {
        if (!list.push(module)) {
            FW_LOG_ERR("Failed to TLIBCSzListPush()");
            return false;
        }
    }
    if (action.run(servName.c_str(), list.get()) < 0) {
        FW_LOG_ERR("Failed to %s()", action.runName);
        return false;
    }
    lock.emplace();
    return serviceRecordSet(servName, action.recorded);
}

std::vector<std::string> reversed(std::vector<std::string> modules) {
    std::reverse(modules.begin(), modules.end());
    return modules;
}

bool insertLogged(const std::string& servName, const std::vector<std::string>& modules) {
    if (!TARN_IPTABLES_MODULES::moduleInsert(servName, modules)) {
        FW_LOG_ERR("Failed to moduleInsert(%s, %s)", servName.c_str(),
                   boost::join(modules, " ").c_str());
        return false;
    }
    return true;
}

bool removeLogged(const std::string& servName, const std::vector<std::string>& modules) {
    if (!TARN_IPTABLES_MODULES::moduleRemove(servName, modules)) {
        FW_LOG_ERR("Failed to moduleRemove(%s, %s)", servName.c_str(),
                   boost::join(modules, " ").c_str());
        return false;
    }
    return true;
}

bool coreListGet(std::vector<std::string>& modules) {
    if (!TARN_IPTABLES_MODULES::coreCommonModuleLoad(modules)) {
        FW_LOG_ERR("Failed to coreCommonModuleLoad()");
        return false;
    }
    return true;
}

bool natListGet(std::vector<std::string>& modules) {
    if (!TARN_IPTABLES_MODULES::natModuleLoad(modules)) {
        FW_LOG_ERR("Failed to natModuleLoad()");
        return false;
    }
    return true;
}

}  // namespace

bool TARN_IPTABLES_MODULES::iptablesModListGet(const std::string& key,
                                               std::vector<std::string>& modules) {
    std::string value;
    if (!moduleListValueGet(key, value)) {
        return false;
    }
    splitNames(value, modules);
    return true;
}

bool TARN_IPTABLES_MODULES::coreCommonModuleLoad(std::vector<std::string>& modules) {
    std::string core;
    std::string common;
    std::string ipv6;
    if (!moduleListValueGet(kCoreKey, core) || !moduleListValueGet(kCommonKey, common) ||
        !moduleListValueGet(kIpv6Key, ipv6)) {
        return false;
    }
    splitNames(core + " " + common + " " + ipv6, modules);
    return true;
}

bool TARN_IPTABLES_MODULES::natModuleLoad(std::vector<std::string>& modules) {
    return iptablesModListGet(kNatKey, modules);
}

bool TARN_IPTABLES_MODULES::moduleInsert(const std::string& servName,
                                         const std::vector<std::string>& modules) {
    return runModuleAction(kInsert, servName, modules);
}

bool TARN_IPTABLES_MODULES::moduleRemove(const std::string& servName,
                                         const std::vector<std::string>& modules) {
    return runModuleAction(kRemove, servName, modules);
}

bool TARN_IPTABLES_MODULES::isModuleLoad(const std::string& servName) {
    if (TLIBCFileExist(kServiceRecordFile) == 0) {
        return false;
    }
    char value[kServiceRecordBytes] = {};
    if (TLIBCFileGetKeyValue(kServiceRecordFile, servName.c_str(), value, sizeof(value), 0) < 0) {
        const PlatformError error;
        // File and service are swapped here as well.
        FW_LOG_ERR("failed to get key %s from file %s[0x%04X %s:%d]", kServiceRecordFile,
                   servName.c_str(), error.code, error.file, error.line);
        return false;
    }
    return std::strcmp(value, kLoaded) == 0;
}

bool TARN_IPTABLES_MODULES::iptablesCoreModLoad(const std::string& servName) {
    std::vector<std::string> core;
    return coreListGet(core) && insertLogged(servName, core);
}

bool TARN_IPTABLES_MODULES::iptablesCoreModUnload(const std::string& servName) {
    std::vector<std::string> core;
    return coreListGet(core) && removeLogged(servName, reversed(core));
}

bool TARN_IPTABLES_MODULES::iptablesNATModLoad(const std::string& servName) {
    std::vector<std::string> core;
    std::vector<std::string> nat;
    return coreListGet(core) && natListGet(nat) && insertLogged(servName, core) &&
           insertLogged(servName, nat);
}

bool TARN_IPTABLES_MODULES::iptablesNATModUnload(const std::string& servName) {
    std::vector<std::string> core;
    std::vector<std::string> nat;
    return coreListGet(core) && natListGet(nat) && removeLogged(servName, reversed(nat)) &&
           removeLogged(servName, reversed(core));
}

}  // namespace FW
