#include "tarnfirewall/fwHook.h"

#include "tarnsdk.h"

#include "fwLog.h"

namespace FW {
namespace {

constexpr char kSource[] = "fwHook";

constexpr char kCategory[] = "net";
constexpr char kEnableHook[] = "net/firewall_enable";
constexpr char kDisableHook[] = "net/firewall_disable";
constexpr char kResultKey[] = "RESULT";

// The platform's codes for running a hook before and after an operation.
constexpr int kActionPre = 4;
constexpr int kActionPost = 5;

/// A hook context, closed on every path. The platform requires closing it even if opening it
/// failed, so the guard holds whatever the call returned, even null.
class HookContext {
public:
    explicit HookContext(const std::string& name)
        : opened_(TLIBPluginSDKInit(kCategory, name.c_str(), &handle_) >= 0) {}
    ~HookContext() { (void)TLIBPluginExit(handle_); }
    HookContext(const HookContext&) = delete;
    HookContext& operator=(const HookContext&) = delete;

    bool opened() const { return opened_; }
    void* handle() const { return handle_; }

private:
    void* handle_ = nullptr;
    bool opened_;
};

}  // namespace

bool TarnFwHook::RunFwHook(const std::string& name, HookAction action, bool result) {
    const HookContext context(name);
    if (!context.opened()) {
        FW_LOG_ERR("Failed to init hook plugin");
        return false;
    }
    const char* const value = result ? "0" : "-1";
    if (TLIBPluginSetArg(context.handle(), kResultKey, value) < 0) {
        // Runs the hook even if the result cannot be passed to it.
        FW_LOG_ERR("Failed to set %s = %s", kResultKey, value);
    }
    if (TLIBPluginAction(action == PreHook ? kActionPre : kActionPost, context.handle()) < 0) {
        FW_LOG_ERR("Failed to run hook: %s", name.c_str());
        return false;
    }
    return true;
}

bool TarnFwHook::RunFwEnablePreHook() {
    return RunFwHook(kEnableHook, PreHook, true);
}

bool TarnFwHook::RunFwEnablePostHook(bool result) {
    return RunFwHook(kEnableHook, PostHook, result);
}

bool TarnFwHook::RunFwDisablePreHook() {
    return RunFwHook(kDisableHook, PreHook, true);
}

bool TarnFwHook::RunFwDisablePostHook(bool result) {
    return RunFwHook(kDisableHook, PostHook, result);
}

}  // namespace FW
