#include "tarnfirewall/tarnfirewall_c.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "tarncore.h"

#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/tarnIptablesModule.h"

#include "fwLog.h"

namespace {

constexpr char kSource[] = "tarnfirewall_c";

constexpr int kSuccess = 0;
constexpr int kFailure = -1;
constexpr int kErrorBadParameter = 0x0D00;

// The adapter of reserved services: they are for every interface.
constexpr const char* kReservedAdapter = FW::FW_ADAPTER_GLOBAL;

int statusOf(bool result) {
    return result ? kSuccess : kFailure;
}

/// Only 1 asks for a reload; callers rely on other values meaning no.
bool isReload(int flag) {
    return flag == 1;
}

std::vector<std::string> serviceNames(const char* names) {
    std::vector<std::string> list;
    boost::split(list, names, boost::is_any_of(","));
    list.erase(std::remove(list.begin(), list.end(), std::string()), list.end());
    return list;
}

bool isOpen(FW::FW_POLICY verdict) {
    return verdict == FW::FW_POLICY_ALLOW || verdict == FW::FW_POLICY_NONE;
}

namespace modules {

// The module functions log under the name of their subsystem.
constexpr char kSource[] = "tarnIptablesModule";

/// Runs a module operation for a service: 1 on success, 0 on failure, -1 without a service.
int runFor(const char* servName, bool (*operation)(const std::string&)) {
    if (servName == nullptr) {
        FW_LOG_ERR("servName is NULL");
        return -1;
    }
    return operation(servName) ? 1 : 0;
}

}  // namespace modules

}  // namespace

extern "C" {

int TARNFwRuleHup(void) {
    FW::TARNFW firewall;
    return statusOf(firewall.fwUpdate() && firewall.fwReload(true));
}

void TARNFwReset(void) {
    (void)FW::TARNFW().fwReset();
}

int TLIBFwServRemoveRec(const char* servName) {
    return statusOf(FW::TARNFW_PROFILE().profileRemoveServ(servName));
}

int TLIBFwChangeAdatper(const char* oldAdapter, const char* newAdapter, int reload) {
    return statusOf(
        FW::TARNFW_PROFILE().profileChangeAdapter(oldAdapter, newAdapter, isReload(reload)));
}

int TLIBFwRuleReserveServInsert(const char* servNames, int allow, int reload) {
    if (servNames == nullptr || *servNames == '\0') {
        TLIBCErrSetEx(kErrorBadParameter, kSource, __LINE__);
        return kFailure;
    }
    const FW::FW_POLICY policy = allow != 0 ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
    for (const std::string& name : serviceNames(servNames)) {
        if (!FW::TARNFW_PROFILE().profileAddServToReserve(kReservedAdapter, name, policy, false)) {
            FW_LOG_ERR("Failed to assign serv [%s]", name.c_str());
            return kFailure;
        }
    }
    if (isReload(reload) && !FW::TARNFW().fwReload(true)) {
        FW_LOG_ERR("Failed to reload firewall");
        return kFailure;
    }
    return kSuccess;
}

int TARNFwPortsCheckAllowByAdapter(const char* adapter, const char* servName) {
    if (servName == nullptr) {
        TLIBCErrSetEx(kErrorBadParameter, kSource, __LINE__);
        FW_LOG_ERR("Bad parameters[0x%04X %s:%d]", static_cast<unsigned>(TLIBCErrGet()),
                   TLIBCErrorGetFile(), TLIBCErrorGetLine());
        return kFailure;
    }
    std::map<std::string, FW::FW_POLICY> verdicts;
    if (!FW::TARNFW().fwServIsBlocked(servName, adapter != nullptr ? adapter : "", verdicts)) {
        FW_LOG_ERR("Failed to check %s is block or not", servName);
        return kFailure;
    }
    const bool open = std::all_of(verdicts.begin(), verdicts.end(),
                                  [](const auto& entry) { return isOpen(entry.second); });
    return open ? 1 : 0;
}

int TARNIptablesCodeModeLoad(const char* servName) {
    return modules::runFor(servName, FW::TARN_IPTABLES_MODULES::iptablesCoreModLoad);
}

int TARNIptablesCoreModUnload(const char* servName) {
    return modules::runFor(servName, FW::TARN_IPTABLES_MODULES::iptablesCoreModUnload);
}

int TARNIptablesNATModLoad(const char* servName) {
    return modules::runFor(servName, FW::TARN_IPTABLES_MODULES::iptablesNATModLoad);
}

int TARNIptablesNATModUnload(const char* servName) {
    return modules::runFor(servName, FW::TARN_IPTABLES_MODULES::iptablesNATModUnload);
}

}  // extern "C"
