/// Which service uses which kernel module, and what follows for the kernel.
///
/// Each module has a set of services, so a service that inserts twice counts once and one removal
/// takes it out. A module leaves the kernel when its set has become empty, and only if it came in
/// through here: what was present before, or is built in, is never removed.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace host {

enum class ModuleState {
    Unknown,  ///< this kernel has no such module
    BuiltIn,
    Absent,  ///< it has one, not loaded
    Present,
};

/// The kernel, as the bookkeeping needs it. Names are without ".ko", with "_" for "-".
struct ModuleKernel {
    std::function<ModuleState(const std::string& name)> state;
    std::function<int(const std::string& name)> insert;  ///< 0 or a positive errno
    std::function<int(const std::string& name)> remove;  ///< 0 or a positive errno
};

struct ModuleUse {
    bool inserted = false;           ///< it came into the kernel through here
    std::set<std::string> services;  ///< empty: it was in use when its last service let go of it
};

/// By module name.
using ModuleLedger = std::map<std::string, ModuleUse>;

/// "nf-log-syslog.ko" as the kernel calls it: "nf_log_syslog". Empty for an empty name.
std::string moduleName(const std::string& fileName);

/// Makes the listed modules ("xt_mac.ko") present for a service, in list order. 0, or the errno of
/// the first module that exists and will not load; those before it stay, and the ledger has them.
/// Modules that the kernel does not have are logged together, at LOG_WARNING.
int insertModules(const ModuleKernel& kernel, const std::string& service,
                  const std::vector<std::string>& fileNames, ModuleLedger& ledger);

/// Takes the listed modules back for a service, in list order. 0, or the errno of the first that
/// could not leave; the others are done all the same. One that is in use stays, which is logged at
/// LOG_NOTICE and no failure; it leaves with the next service that takes it back.
int removeModules(const ModuleKernel& kernel, const std::string& service,
                  const std::vector<std::string>& fileNames, ModuleLedger& ledger);

/// The ledger as a file holds it:
///     {"xt_mac": {"inserted": true, "services": ["firewall"]}}
/// Nothing comes of a text that is no such document.
std::string ledgerText(const ModuleLedger& ledger);
std::optional<ModuleLedger> parseLedger(const std::string& text);

}  // namespace host
