/// Records which service uses which kernel module, and loads and removes modules accordingly.
///
/// Each module has a set of services, so a service that inserts twice counts once, and one removal
/// is enough. A module is removed from the kernel when its set becomes empty, but only if it was
/// inserted through here: one that was present before, or is built in, is never removed.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace host {

enum class ModuleState {
    Unknown,  ///< the kernel has no such module
    BuiltIn,
    Absent,  ///< exists, not loaded
    Present,
};

/// What the ledger needs of the kernel. Names are without ".ko", with "_" for "-".
struct ModuleKernel {
    std::function<ModuleState(const std::string& name)> state;
    std::function<int(const std::string& name)> insert;  ///< 0 or a positive errno
    std::function<int(const std::string& name)> remove;  ///< 0 or a positive errno
};

struct ModuleUse {
    bool inserted = false;           ///< it was inserted through here
    std::set<std::string> services;  ///< empty: still in use when its last service released it
};

/// By module name.
using ModuleLedger = std::map<std::string, ModuleUse>;

/// "nf-log-syslog.ko" as the kernel calls it: "nf_log_syslog". Empty for an empty name.
std::string moduleName(const std::string& fileName);

/// Makes the listed modules ("xt_mac.ko") present for a service, in list order. 0, or the errno of
/// the first module that exists but cannot be loaded; those before it stay, and are in the ledger.
/// Modules that the kernel does not have are logged together, at LOG_WARNING.
int insertModules(const ModuleKernel& kernel, const std::string& service,
                  const std::vector<std::string>& fileNames, ModuleLedger& ledger);

/// Releases the listed modules for a service, in list order. 0, or the errno of the first that
/// could not be removed; the others are still processed. One that is in use stays, which is logged
/// at LOG_NOTICE and not a failure; it is removed when the next service releases it.
int removeModules(const ModuleKernel& kernel, const std::string& service,
                  const std::vector<std::string>& fileNames, ModuleLedger& ledger);

/// The ledger as stored in a file:
///     {"xt_mac": {"inserted": true, "services": ["firewall"]}}
/// Nothing for a text that is not such a document.
std::string ledgerText(const ModuleLedger& ledger);
std::optional<ModuleLedger> parseLedger(const std::string& text);

}  // namespace host
