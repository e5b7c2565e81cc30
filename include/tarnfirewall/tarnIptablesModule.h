/// The netfilter kernel modules that the firewall and other services need.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Inserts and removes kernel modules on behalf of services. Which modules exist comes from the
/// key/value file "/usr/tarn/etc.defaults/iptables_modules_list"; whether a service has loaded its
/// own is kept as "yes" or "no" in "/tmp/iptables_serv_mod_list", which a reboot removes, as it
/// does the modules. The platform counts the users of each module. The C functions for other
/// services are declared in tarnfirewall_c.h.
///
/// Each operation returns true on success and logs a failure. Nothing is rolled back: after a
/// failed second step the effect of the first one stays.
class TARNFW_EXPORT TARN_IPTABLES_MODULES {
public:
    /// Reads the module names under `key` of the list file. They are separated by single blanks, so
    /// two blanks in a row give an empty name. `modules` is replaced, on success only.
    static bool iptablesModListGet(const std::string& key, std::vector<std::string>& modules);

    /// The core, common and IPv6 modules, in that order: "KERNEL_MODULES_CORE",
    /// "KERNEL_MODULES_COMMON" and "IPV6_MODULES". All three keys are required.
    static bool coreCommonModuleLoad(std::vector<std::string>& modules);

    /// The NAT modules: "KERNEL_MODULES_NAT".
    static bool natModuleLoad(std::vector<std::string>& modules);

    /// Inserts `modules` for the service and records "yes". If the record cannot be locked in
    /// 30 s, it is written anyway; if it cannot be written, the result is false.
    static bool moduleInsert(const std::string& servName, const std::vector<std::string>& modules);

    /// Removes `modules` for the service and records "no", likewise.
    static bool moduleRemove(const std::string& servName, const std::vector<std::string>& modules);

    /// Whether the service's record is "yes". A missing record is not a failure.
    static bool isModuleLoad(const std::string& servName);

    /// Inserts the core list, or removes it in reverse order.
    static bool iptablesCoreModLoad(const std::string& servName);
    static bool iptablesCoreModUnload(const std::string& servName);

    /// Inserts the core list and then the NAT list, or removes them in reverse order.
    static bool iptablesNATModLoad(const std::string& servName);
    static bool iptablesNATModUnload(const std::string& servName);
};

}  // namespace FW
