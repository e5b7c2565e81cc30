#include "tarnfirewall/tarnfirewall_c.h"

#include <cxxabi.h>

#include <algorithm>
#include <exception>
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

void logException(const char* what) {
    FW_LOG_ERR("Unexpected failure: %s", what);
}

/// Runs `work` for a function with C linkage: its callers cannot catch an exception. One is logged
/// with `log`, and the result is `onException`.
template <typename Result, typename Work>
Result guarded(Result onException, Work work, void (*log)(const char*) = logException) {
    try {
        return work();
    } catch (const abi::__forced_unwind&) {
        throw;  // the thread is being cancelled, which must go on
    } catch (const std::exception& exception) {
        log(exception.what());
    } catch (...) {
        log("an exception of an unknown type");
    }
    return onException;
}

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

/// Reserves services, then reloads if wanted; their status.
int reserve(const char* servNames, bool allow, bool reload) {
    const FW::FW_POLICY policy = allow ? FW::FW_POLICY_ALLOW : FW::FW_POLICY_DENY;
    for (const std::string& name : serviceNames(servNames)) {
        if (!FW::TARNFW_PROFILE().profileAddServToReserve(kReservedAdapter, name, policy, false)) {
            FW_LOG_ERR("Failed to assign serv [%s]", name.c_str());
            return kFailure;
        }
    }
    if (reload && !FW::TARNFW().fwReload(true)) {
        FW_LOG_ERR("Failed to reload firewall");
        return kFailure;
    }
    return kSuccess;
}

/// 1 when a service is allowed on an adapter, 0 when it is blocked, -1 on failure.
int isAllowed(const char* adapter, const char* servName) {
    std::map<std::string, FW::FW_POLICY> verdicts;
    if (!FW::TARNFW().fwServIsBlocked(servName, adapter, verdicts)) {
        FW_LOG_ERR("Failed to check %s is block or not", servName);
        return kFailure;
    }
    const bool open = std::all_of(verdicts.begin(), verdicts.end(),
                                  [](const auto& entry) { return isOpen(entry.second); });
    return open ? 1 : 0;
}

namespace modules {

// The module functions log under the name of their subsystem.
constexpr char kSource[] = "tarnIptablesModule";

void logException(const char* what) {
    FW_LOG_ERR("Unexpected failure: %s", what);
}

/// Runs a module operation for a service: 1 on success, 0 on failure, -1 without a service.
int runFor(const char* servName, bool (*operation)(const std::string&)) {
    if (servName == nullptr) {
        FW_LOG_ERR("servName is NULL");
        return -1;
    }
    return guarded(
        0, [&] { return operation(servName) ? 1 : 0; }, logException);
}

}  // namespace modules

}  // namespace

extern "C" {

int TARNFwRuleHup(void) {
    return guarded(kFailure, [] {
        FW::TARNFW firewall;
        return statusOf(firewall.fwUpdate() && firewall.fwReload(true));
    });
}

void TARNFwReset(void) {
    (void)guarded(false, [] { return FW::TARNFW().fwReset(); });
}

int TLIBFwServRemoveRec(const char* servName) {
    return guarded(kFailure,
                   [&] { return statusOf(FW::TARNFW_PROFILE().profileRemoveServ(servName)); });
}

int TLIBFwChangeAdatper(const char* oldAdapter, const char* newAdapter, int reload) {
    return guarded(kFailure, [&] {
        return statusOf(
            FW::TARNFW_PROFILE().profileChangeAdapter(oldAdapter, newAdapter, isReload(reload)));
    });
}

int TLIBFwRuleReserveServInsert(const char* servNames, int allow, int reload) {
    if (servNames == nullptr || *servNames == '\0') {
        TLIBCErrSetEx(kErrorBadParameter, kSource, __LINE__);
        return kFailure;
    }
    return guarded(kFailure, [&] { return reserve(servNames, allow != 0, isReload(reload)); });
}

int TARNFwPortsCheckAllowByAdapter(const char* adapter, const char* servName) {
    if (servName == nullptr) {
        TLIBCErrSetEx(kErrorBadParameter, kSource, __LINE__);
        FW_LOG_ERR("Bad parameters[0x%04X %s:%d]", static_cast<unsigned>(TLIBCErrGet()),
                   TLIBCErrorGetFile(), TLIBCErrorGetLine());
        return kFailure;
    }
    return guarded(kFailure,
                   [&] { return isAllowed(adapter != nullptr ? adapter : "", servName); });
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
