#include "tarnfwadmin/control.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/tarnIptablesModule.h"

#include "kernel/reloadGuard.h"
#include "kernel/wantedRules.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/bootRules.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/inForce.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/scratchKernel.h"
#include "tarnfwadmin/text.h"
#include "tarnfwadmin/translation.h"

namespace tarnfw {
namespace {

constexpr char kModulesOwner[] = "firewall";
constexpr std::size_t kMostNamed = 3;  // further rules in a message about refused lines

std::string applyingText(const StoreSession& session) {
    return "Applying the rules of " + inQuotes(session.snapshot().activeProfile());
}

// ---- Before a reload ----

/// Throws Error when the interfaces cannot be listed: the library then translates as if there were
/// none, and the machine would be open.
void requireInterfaces() {
    std::set<std::string> names;
    if (!FW::TARNFW().fwAdapterEnum(names)) {
        throw Error(ErrorKind::kSystem, "the network interfaces cannot be listed");
    }
}

/// Throws Error when the library cannot translate the profile.
void requireTranslation(const FW::FWPROFILE& profile, ApplyMode mode,
                        FW::TARNFW_IPTABLES_RULES& translation, Json::Value& commands) {
    if (mode == ApplyMode::kBatch ? translation.fwRulesToBatchRules(
                                        true, profile.rules, profile.adapterPolicyMap, commands, "")
                                  : translation.fwRulesToIptablesRules(
                                        true, profile.rules, profile.adapterPolicyMap, commands)) {
        return;
    }
    if (translation.serviceCatalogue() == nullptr) {
        throw Error(ErrorKind::kInvalid, "the service catalogue cannot be read, so profile " +
                                             inQuotes(profile.name) + " cannot be translated");
    }
    (void)tracedLines(profile, mode);  // throws, with the rule
    throw Error(ErrorKind::kInvalid, "profile " + inQuotes(profile.name) + " cannot be translated");
}

/// The rule or policy that a line comes from.
std::string ownerOf(const TracedLine& line) {
    if (line.place.adapter.empty()) {
        return "a line of every profile";
    }
    return line.place.position > 0 ? placeText(line.place)
                                   : "the default policy of " + line.place.adapter;
}

/// Throws Error for lines that this kernel refuses.
void requireTaken(const FW::FWPROFILE& profile, const std::vector<RefusedLine>& refused) {
    if (refused.empty()) {
        return;
    }
    const TracedLine& first = refused.front().line;
    std::string text = ownerOf(first) + ": this kernel refuses " + inQuotes(first.line) + ": " +
                       refused.front().reason + "; profile " + inQuotes(profile.name) + " has " +
                       counted(refused.size(), "line") + " that it refuses";
    std::vector<std::string> others;
    for (const RefusedLine& other : refused) {
        const std::string owner = ownerOf(other.line);
        if (owner != ownerOf(first) &&
            std::find(others.begin(), others.end(), owner) == others.end()) {
            others.push_back(owner);
        }
    }
    for (std::size_t i = 0; i < std::min(others.size(), kMostNamed); ++i) {
        text += (i == 0 ? ", also of " : ", ") + others[i];
    }
    text += others.size() > kMostNamed ? ", ..." : "";
    throw Error(
        ErrorKind::kRefused, text,
        {"", "", first.place.position > 0 ? std::optional<RulePlace>(first.place) : std::nullopt});
}

/// Loads the modules of the firewall. Returns whether they were not loaded before and now are.
bool loadMissingModules() {
    using FW::TARN_IPTABLES_MODULES;
    return !TARN_IPTABLES_MODULES::isModuleLoad(kModulesOwner) &&
           TARN_IPTABLES_MODULES::iptablesCoreModLoad(kModulesOwner) &&
           TARN_IPTABLES_MODULES::moduleInsert(kModulesOwner, FW::FW_FIREWALL_MODULES);
}

void unloadModules() {
    using FW::TARN_IPTABLES_MODULES;
    const std::vector<std::string> modules(FW::FW_FIREWALL_MODULES.rbegin(),
                                           FW::FW_FIREWALL_MODULES.rend());
    (void)TARN_IPTABLES_MODULES::moduleRemove(kModulesOwner, modules);  // they log for themselves
    (void)TARN_IPTABLES_MODULES::iptablesCoreModUnload(kModulesOwner);
}

/// Throws Error for a profile that this kernel does not take. A match may need a module that only
/// the firewall's own loading provides.
void requireKernelTakes(const FW::FWPROFILE& profile, FW::TARNFW_IPTABLES_RULES& translation) {
    std::vector<RefusedLine> refused = refusedLines(profile, translation);
    if (!refused.empty() && loadMissingModules()) {
        refused = refusedLines(profile, translation);
        if (!refused.empty()) {
            unloadModules();
        }
    }
    requireTaken(profile, refused);
}

/// Throws Error for lines that this kernel refuses, where that can be found out.
void requireNoRefusedLine(const FW::FWPROFILE& profile) {
    try {
        FW::TARNFW_IPTABLES_RULES translation;
        requireKernelTakes(profile, translation);
    } catch (const Error& failure) {
        if (failure.kind() == ErrorKind::kRefused) {
            throw;
        }
    }
}

// ---- After a reload ----

/// The rules that a reload is to put into the kernel, which are read while it does that.
using WantedRules = std::shared_future<std::map<std::string, ChainRules>>;

WantedRules wantedRules(FamilyLines lines) {
    return std::async(std::launch::async,
                      [own = std::move(lines)] { return familyRulesFrom(own); });
}

/// Throws Error when the rules are not those of the active profile: the library does not see that
/// the interfaces cannot be listed, nor that one of its commands was killed.
void requireInForce(const SavedRules& rules, const WantedRules& wanted) {
    requireInterfaces();
    // The profile or the interfaces may have changed since the translation.
    if (!(wanted.valid() && hasRules(rules, wanted.get())) &&
        !hasActiveProfile(rules, StoreSnapshot())) {
        throw Error(ErrorKind::kSystem, "the kernel did not get all rules of the profile");
    }
}

/// Stores the rules for the next boot. When that fails the reload has succeeded all the same; old
/// rules are then not to be taken for the last good ones, where that can be helped. Returns a
/// warning, or nothing.
std::string keepAsLastGood(const SavedRules& rules) {
    forgetBootFailure();
    std::string reason;
    try {
        storeLastGood(rules);
        return "";
    } catch (const Error& error) {
        reason = error.what();
    }
    std::string next = "it has none";
    try {
        forgetLastGood();
    } catch (const Error&) {
        next = "it may load older ones";
    }
    const std::string warning =
        "the rules could not be stored for the next boot, so " + next + ": " + reason;
    syslog(LOG_WARNING, "%s", warning.c_str());
    return warning;
}

bool storeStatus(bool enabled) {
    Json::Value settings;
    settings["status"] = enabled;
    return FW::TARNFW().configSet(settings);
}

/// Empties the firewall's chains and disables it; in the process that the runner makes.
bool disableLocked() {
    const FileLock lock(kReloadLock, kReloadLockSeconds);
    if (!lock.held()) {
        throw Error(ErrorKind::kBusy, std::string("cannot lock ") + kReloadLock +
                                          ": a reload is running or stopped; nothing was changed");
    }
    const ReloadGuard guard(ReloadGuard::Lock::kHeld);
    const bool stored = FW::TARNFW().fwDisable();
    SavedRules left = guard.finish();
    if (left.hasRules()) {
        // The library does not look whether its commands succeed.
        std::map<std::string, FamilyRules> families = left.withoutPolicies().families();
        for (auto& [unused, own] : families) {
            for (auto& [chain, rules] : own.chains) {
                rules.clear();
            }
        }
        SavedRules(families).putBack();
        left = SavedRules::inKernel();
    }
    if (left.hasRules()) {
        throw Error(ErrorKind::kSystem,
                    "the firewall's chains are not empty: its rules are still in force");
    }
    forgetLastGood();
    forgetBootFailure();
    return stored;
}

/// What is in force after a reload that has changed nothing.
std::string unchangedText(const ReloadGuard& guard) {
    try {
        return guard.before().hasRules() ? "the kernel still has the old rules"
                                         : "no rules are in force; the machine is open";
    } catch (const Error&) {
        return "nothing was changed";  // a family cannot be listed, as the failure says
    }
}

/// False as well when a family cannot be listed: that of the other is to be put back.
bool isSeenAsBefore(const ReloadGuard& guard) {
    try {
        return guard.isAsBefore();
    } catch (const Error&) {
        return false;
    }
}

}  // namespace

bool runHere(const std::string& /*what*/, const std::function<bool()>& work) {
    return work();
}

Control::Control(StoreSession& session, Runner run) : session_(session), run_(std::move(run)) {}

void Control::requireBase() {
    if (!baseSeen_) {
        awaitXtablesLock(session_.lockTime());
        tarnfw::requireBase();
        baseSeen_ = true;
    }
}

/// Throws Error, kBusy, when somebody keeps a lock that the operation needs.
void Control::awaitLocks() {
    session_.awaitReloadLock();
    awaitXtablesLock(session_.lockTime());
}

void Control::requireApplicable() {
    const StoreSnapshot& store = session_.snapshot();
    const FW::FWPROFILE& profile = store.profile("");
    requireInterfaces();
    FW::TARNFW_IPTABLES_RULES translation;
    commands_ = Json::Value();
    requireTranslation(profile, store.applyMode(), translation, commands_);
    if (store.applyMode() != ApplyMode::kLines) {
        return;  // a batch changes nothing when a line is refused
    }
    try {
        requireKernelTakes(profile, translation);
    } catch (const Error& failure) {
        if (failure.kind() != ErrorKind::kSystem) {
            throw;
        }
        session_.note("the rules are not tried beforehand: " + std::string(failure.what()));
    }
}

std::string Control::kernelRefusal(const FW::FWPROFILE& profile) {
    try {
        requireNoRefusedLine(profile);
    } catch (const Error& failure) {
        return failure.what();
    }
    return "";
}

/// The work of a reload: the operation of the library, and the look at what it has done. It may run
/// in a process of its own, so `warning` is a file.
bool Control::reload(const Operation& operation, ReloadGuard& guard,
                     const Descriptor& warning) const {
    WantedRules wanted;
    if (!operation([&](const FW::FWPENDINGBATCH& batch) {
            wanted = wantedRules(commandLinesOf(batch.commands));
            return guard.review(batch.saved);
        })) {
        return false;
    }
    if (!wanted.valid() && commands_.isObject()) {
        wanted = wantedRules(commandLinesOf(commands_));
    }
    const SavedRules rules = guard.finish();
    requireInForce(rules, wanted);
    (void)writeText(warning.get(), keepAsLastGood(rules));
    return true;
}

/// Runs an operation of the library that applies the active profile. Throws Error, with the rules
/// and settings as before, when it fails.
void Control::runGuarded(const std::string& failed, const Operation& operation, bool reviewed) {
    const bool wasEnabled = session_.snapshot().firewallEnabled();
    ReloadGuard guard(ReloadGuard::Lock::kTake,
                      reviewed ? ReloadGuard::Change::kBatch : ReloadGuard::Change::kAny);
    const Descriptor warning = memoryFile("warning");
    std::optional<Error> failure;
    try {
        if (!run_(applyingText(session_), [&] { return reload(operation, guard, warning); })) {
            failure.emplace(ErrorKind::kRefused, failed);
        }
    } catch (const Error& error) {
        failure.emplace(error.kind(), error.what() + ("; " + failed), error.place(),
                        error.remedy());
    } catch (const std::exception& error) {
        failure.emplace(ErrorKind::kSystem, reasonOf(error) + "; " + failed);
    }
    if (!failure) {
        std::string text;
        if (lseek(warning.get(), 0, SEEK_SET) == 0 && readAll(warning.get(), text) &&
            !text.empty()) {
            session_.note(text);
        }
        return;
    }
    if (guard.needsMore()) {
        session_.applyAnew();
        runGuarded(failed, operation, /*reviewed=*/false);
        return;
    }
    session_.refresh();
    const std::string now = goBack(guard, wasEnabled);
    if (session_.snapshot().applyMode() == ApplyMode::kBatch) {
        try {
            // They say why, where the library has no more than a line of the log. The lock of
            // iptables may be what the reload has waited for.
            for (const BaseFilter& filter : baseFilters(PacketFilter::Others::kIgnored)) {
                filter.requireWhole();
            }
            if (failure->kind() == ErrorKind::kRefused) {
                requireApplicable();
                requireNoRefusedLine(session_.snapshot().profile(""));
            }
        } catch (const Error& error) {
            failure.emplace(error.kind(), error.what() + ("; " + failed), error.place(),
                            error.remedy());
        }
    }
    throw Error(failure->kind(), failure->what() + ("; " + now), failure->place(),
                failure->remedy());
}

/// Puts back what was in force before, and returns what is in force now.
std::string Control::goBack(ReloadGuard& guard, bool wasEnabled) {
    const bool isEnabled = session_.snapshot().firewallEnabled();
    guard.insist();
    try {
        if (isEnabled == wasEnabled && isSeenAsBefore(guard)) {
            guard.mend(wasEnabled);
            return wasEnabled ? unchangedText(guard) : "the firewall stays off";
        }
        (void)run_("Restoring the rules that were in force", [&] {
            if (isEnabled && !wasEnabled) {
                // It would wait for the lock of iptables once more. Looked at below.
                (void)(guard.lockIsKept() ? storeStatus(false) : FW::TARNFW().fwDisable());
            }
            if (isSeenAsBefore(guard)) {
                guard.mend(wasEnabled);
            } else {
                guard.putBack();
            }
            if (wasEnabled && !isEnabled) {
                (void)storeStatus(true);  // looked at below
            }
            return true;
        });
    } catch (const std::exception& failure) {
        return std::string("restoring the old rules failed, too: ") + reasonOf(failure);
    }
    session_.refresh();
    if (session_.snapshot().firewallEnabled() != wasEnabled) {
        return wasEnabled ? "the old rules are in force again, but the settings say disabled"
                          : "no rules are in force, but the settings say enabled";
    }
    return wasEnabled ? "the old rules are in force again" : "the firewall stays off";
}

void Control::enable(Machine& machine, const std::function<void(const FW::FWPROFILE&)>& confirm) {
    requireBase();
    awaitLocks();
    const FW::FWPROFILE& profile = session_.snapshot().profile("");
    requireValidProfile(profile, machine);
    requireApplicable();
    if (confirm) {
        confirm(profile);
    }
    (void)session_.change([&] {
        runGuarded(
            "the rules could not be applied",
            [](const FW::FW_BATCH_REVIEW& /*review*/) { return FW::TARNFW().fwEnable(); },
            /*reviewed=*/false);
        return true;
    });
}

void Control::disable() {
    awaitLocks();
    const auto switchOff = [this] {
        try {
            return run_("Switching the firewall off", disableLocked);
        } catch (const Error& error) {
            if (error.kind() != ErrorKind::kSystem) {
                throw;
            }
        }
        // The process was killed, and some of the rules may be left: this one ends what it began.
        return disableLocked();
    };
    if (!session_.change(switchOff)) {
        throw Error(ErrorKind::kSystem, "the firewall's settings cannot be written");
    }
}

bool Control::apply() {
    if (!session_.snapshot().firewallEnabled()) {
        return false;
    }
    const std::string failed = "the active profile was not applied";
    const bool batch = session_.snapshot().applyMode() == ApplyMode::kBatch;
    if (!batch) {
        requireBase();
    }
    awaitLocks();
    try {
        if (batch) {
            // The library changes nothing when it cannot read or translate the profile, and the
            // guard's review looks for the base filter.
            requireInterfaces();
        } else {
            requireApplicable();
        }
    } catch (const Error& failure) {
        throw Error(failure.kind(), failure.what() + ("; " + failed) + "; nothing was changed",
                    failure.place(), failure.remedy());
    }
    runGuarded(
        failed,
        [](const FW::FW_BATCH_REVIEW& review) {
            return FW::TARNFW().fwReloadReviewed(true, review);
        },
        batch);
    return true;
}

void tidyBase(bool enabled) {
    ReloadGuard().mend(enabled);
}

}  // namespace tarnfw
