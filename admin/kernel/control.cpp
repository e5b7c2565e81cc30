#include "tarnfwadmin/control.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

std::string applyingText(const StoreSession& session) {
    return "Applying the rules of " + inQuotes(session.snapshot().activeProfile());
}

/// What is in force after rules could not be applied: "the firewall is off now".
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

}  // namespace

bool runHere(const std::string& /*what*/, const std::function<bool()>& work) {
    return work();
}

Control::Control(StoreSession& session, Runner run) : session_(session), run_(std::move(run)) {}

void Control::requireBase() {
    if (!baseSeen_) {
        tarnfw::requireBase();
        baseSeen_ = true;
    }
}

void Control::enable(Machine& machine, const std::function<void(const FW::FWPROFILE&)>& confirm) {
    requireBase();
    session_.requireReload();
    const FW::FWPROFILE& profile = session_.snapshot().profile("");
    requireValidProfile(profile, machine);
    if (confirm) {
        confirm(profile);
    }
    const bool wasEnabled = session_.snapshot().firewallEnabled();
    const std::string what = applyingText(session_);
    bool applied = false;
    try {
        applied =
            session_.change([&] { return run_(what, [] { return FW::TARNFW().fwEnable(); }); });
    } catch (const Error& failure) {
        enableFailed(failure, wasEnabled);
    } catch (const std::exception& failure) {
        enableFailed(Error(ErrorKind::kSystem, reasonOf(failure)), wasEnabled);
    }
    if (!applied) {
        enableFailed(Error(ErrorKind::kRefused, "the rules could not be applied"), wasEnabled);
    }
}

/// Disables a firewall again that was disabled.
void Control::enableFailed(const Error& reason, bool wasEnabled) {
    if (!wasEnabled && session_.snapshot().firewallEnabled()) {
        disable();
    }
    throw Error(
        reason.kind(),
        reason.what() + (wasEnabled ? ": " + stateNow(session_) : "; the firewall stays off"),
        reason.place(), reason.remedy());
}

void Control::disable() {
    if (!session_.change([this] {
            return run_("Switching the firewall off", [] { return FW::TARNFW().fwDisable(); });
        })) {
        throw Error(ErrorKind::kSystem, "the firewall's settings cannot be written");
    }
}

bool Control::apply() {
    if (!session_.snapshot().firewallEnabled()) {
        return false;
    }
    requireBase();
    session_.requireReload();
    if (!run_(applyingText(session_), [] { return FW::TARNFW().fwReload(true); })) {
        throw Error(ErrorKind::kRefused,
                    "the active profile was not applied: " + stateNow(session_));
    }
    return true;
}

}  // namespace tarnfw
