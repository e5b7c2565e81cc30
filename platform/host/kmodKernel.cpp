#include "kmodKernel.h"

#include <libkmod.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "hostLog.h"

namespace host {

namespace {

constexpr char kSource[] = "tarnkm";

struct ContextRelease {
    void operator()(kmod_ctx* context) const { kmod_unref(context); }
};
using Context = std::unique_ptr<kmod_ctx, ContextRelease>;

struct ModuleRelease {
    void operator()(kmod_module* module) const { kmod_module_unref(module); }
};
using Module = std::unique_ptr<kmod_module, ModuleRelease>;

// libkmod reports every missing index file as an error; a kernel without modules has none.
void logDetail(void* /*data*/, int /*priority*/, const char* /*file*/, int /*line*/,
               const char* function, const char* format, std::va_list args) {
    char message[512];
    if (std::vsnprintf(message, sizeof message, format, args) > 0) {
        HOST_LOG_DEBUG("%s: %s", function, message);
    }
}

// The module of a name; the first one if an alias names several; null without one.
Module lookUp(kmod_ctx* context, const std::string& name) {
    kmod_list* found = nullptr;
    Module module;
    if (kmod_module_new_from_lookup(context, name.c_str(), &found) >= 0 && found != nullptr) {
        module.reset(kmod_module_get_module(found));
    }
    kmod_module_unref_list(found);
    return module;
}

// The state of a module that no index lists, from sysfs.
ModuleState stateInSysfs(kmod_ctx* context, const std::string& name) {
    kmod_module* named = nullptr;
    if (kmod_module_new_from_name(context, name.c_str(), &named) < 0) {
        return ModuleState::Unknown;
    }
    const Module module(named);
    switch (kmod_module_get_initstate(module.get())) {
        case KMOD_MODULE_LIVE:
        case KMOD_MODULE_GOING:
            return ModuleState::Present;
        case KMOD_MODULE_BUILTIN:
        case KMOD_MODULE_COMING:  // also for a directory without a state: a built-in one
            return ModuleState::BuiltIn;
        default:
            return ModuleState::Unknown;
    }
}

ModuleState stateOf(kmod_ctx* context, const std::string& name) {
    const Module module = lookUp(context, name);
    if (module == nullptr) {
        return stateInSysfs(context, name);
    }
    switch (kmod_module_get_initstate(module.get())) {
        case KMOD_MODULE_BUILTIN:
            return ModuleState::BuiltIn;
        case KMOD_MODULE_LIVE:
        case KMOD_MODULE_COMING:
            return ModuleState::Present;
        default:
            break;
    }
    // An alias may lead to a module that is not installed.
    const bool loadable = kmod_module_get_path(module.get()) != nullptr ||
                          kmod_module_get_install_commands(module.get()) != nullptr;
    return loadable ? ModuleState::Absent : ModuleState::Unknown;
}

int insert(kmod_ctx* context, const std::string& name) {
    const Module module = lookUp(context, name);
    if (module == nullptr) {
        return ENOENT;
    }
    const int result = kmod_module_probe_insert_module(
        module.get(), KMOD_PROBE_APPLY_BLACKLIST_ALIAS_ONLY, nullptr, nullptr, nullptr, nullptr);
    if (result > 0) {
        return EPERM;  // a blacklisted alias
    }
    return -result;
}

int remove(kmod_ctx* context, const std::string& name) {
    const Module module = lookUp(context, name);
    return module == nullptr ? ENOENT : -kmod_module_remove_module(module.get(), 0);
}

}  // namespace

ModuleKernel runningKernel() {
    Context owned(kmod_new(nullptr, nullptr));
    if (owned == nullptr) {
        throw std::bad_alloc();
    }
    const std::shared_ptr<kmod_ctx> context = std::move(owned);
    kmod_set_log_fn(context.get(), logDetail, nullptr);
    (void)kmod_load_resources(context.get());  // only makes lookups faster
    return {
        [context](const std::string& name) { return stateOf(context.get(), name); },
        [context](const std::string& name) { return insert(context.get(), name); },
        [context](const std::string& name) { return remove(context.get(), name); },
    };
}

}  // namespace host
