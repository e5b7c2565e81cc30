#include "tarnfwadmin/control.h"

#include <algorithm>
#include <vector>

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/ruleChange.h"

namespace tarnfw {

void enableFirewall(StoreSession& session) {
    requireBase();
    Machine machine;
    requireValidProfile(session.snapshot().profile(""), machine);
    const bool wasEnabled = session.snapshot().firewallEnabled();
    if (session.change([] { return FW::TARNFW().fwEnable(); })) {
        return;
    }
    if (!wasEnabled && session.snapshot().firewallEnabled()) {
        disableFirewall(session);
    }
    throw Error(ErrorKind::kRefused,
                "the firewall was not enabled: the rules could not be applied; " +
                    (wasEnabled ? stateNow(session) : std::string("it stays off")));
}

void disableFirewall(StoreSession& session) {
    if (!session.change([] { return FW::TARNFW().fwDisable(); })) {
        throw Error(ErrorKind::kSystem, "the firewall's settings cannot be written");
    }
}

bool applyActiveProfile(StoreSession& session) {
    if (!session.snapshot().firewallEnabled()) {
        return false;
    }
    requireBase();
    if (!FW::TARNFW().fwReload(true)) {
        throw Error(ErrorKind::kRefused,
                    "the active profile was not applied: " + stateNow(session));
    }
    return true;
}

std::string stateNow(StoreSession& session) {
    session.refresh();  // a reload that failed may have disabled the firewall
    if (!session.snapshot().firewallEnabled()) {
        return "the firewall is off now";
    }
    const std::vector<BaseFilter> filters = baseFilters();
    const bool empty = std::all_of(filters.begin(), filters.end(), [](const BaseFilter& filter) {
        return filter.loadedRules() == 0;
    });
    return empty ? "no rules are in force; the machine is open"
                 : "the kernel still has the old rules";
}

}  // namespace tarnfw
