/// The hooks that announce enabling and disabling to the rest of the system.
#pragma once

#include <string>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Runs the platform's hooks "net/firewall_enable" and "net/firewall_disable", before and after the
/// operation. A hook gets "RESULT": "0" before an operation and after a successful one, "-1"
/// after a failed one. Each operation returns whether the hook ran; failures are logged.
class TARNFW_EXPORT TarnFwHook {
public:
    enum HookAction { PreHook = 0, PostHook = 1 };

    /// Runs one hook, even if the result cannot be passed to it.
    bool RunFwHook(const std::string& name, HookAction action, bool result);

    bool RunFwEnablePreHook();
    bool RunFwEnablePostHook(bool result);
    bool RunFwDisablePreHook();
    bool RunFwDisablePostHook(bool result);
};

}  // namespace FW
