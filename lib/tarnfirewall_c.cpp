#include "tarnfirewall/tarnfirewall_c.h"

#include <string>

#include "tarnfirewall/tarnIptablesModule.h"

#include "fwLog.h"

namespace {

// The module functions log under the name of the subsystem that they stand for.
constexpr char kSource[] = "tarnIptablesModule";

constexpr int kModuleSuccess = 1;
constexpr int kModuleFailure = 0;
constexpr int kModuleNoService = -1;

/// Runs a module operation for a service, with the status convention of the module functions.
int runForService(bool (*operation)(const std::string&), const char* servName) {
    if (servName == nullptr) {
        FW_LOG_ERR("servName is NULL");
        return kModuleNoService;
    }
    return operation(servName) ? kModuleSuccess : kModuleFailure;
}

}  // namespace

extern "C" {

int TARNIptablesCodeModeLoad(const char* servName) {
    return runForService(FW::TARN_IPTABLES_MODULES::iptablesCoreModLoad, servName);
}

int TARNIptablesCoreModUnload(const char* servName) {
    return runForService(FW::TARN_IPTABLES_MODULES::iptablesCoreModUnload, servName);
}

int TARNIptablesNATModLoad(const char* servName) {
    return runForService(FW::TARN_IPTABLES_MODULES::iptablesNATModLoad, servName);
}

int TARNIptablesNATModUnload(const char* servName) {
    return runForService(FW::TARN_IPTABLES_MODULES::iptablesNATModUnload, servName);
}

}  // extern "C"
