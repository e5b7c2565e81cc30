#include "process/trial.h"

#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <map>
#include <new>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/tarnFW.h"

#include "process/trialRecord.h"
#include "process/trialWatch.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/control.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/inForce.h"
#include "tarnfwadmin/place.h"
#include "tarnfwadmin/savedRules.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using std::chrono::seconds;

constexpr seconds kAttemptLock{1};  // for each lock that an attempt to go back needs
constexpr seconds kAdoptLock{20};   // for the locks of a confirmed trial; somebody waits

constexpr seconds kStarvedPause{1};  // between two attempts without memory

/// Who goes on when a watchdog ends before the trial is over.
enum class Successor {
    kNobody,
    kTerminals,  ///< a watchdog that the terminal starts, if that is still there
};

// Why a trial ends at its beginning.
constexpr char kNotApplied[] = "its rules cannot be applied";
constexpr char kIncomplete[] = "the kernel did not get all of its rules";

// What is in force after a trial whose profile was not kept.
constexpr char kNowPrevious[] = "the previous rules are in force again";
constexpr char kNowActive[] = "the active profile's rules are in force";
constexpr char kNowDisabled[] = "the firewall is disabled";

std::string testProfileOf(const std::string& name) {
    return kTestPrefix + name;
}

bool isDisabled() {
    try {
        return !StoreSnapshot().firewallEnabled();
    } catch (const std::exception&) {
        return false;  // settings that cannot be read do not end a trial
    }
}

/// The table or chain of a rule that the firewall does not empty, in words; empty without one.
std::string foreignTarget(const FW::FWRULE& rule) {
    if (rule.table != "filter") {
        return "the table " + inQuotes(rule.table);
    }
    for (const std::string& chain : rule.chainList) {
        if (std::count(FW::FW_FIREWALL_CHAINS.begin(), FW::FW_FIREWALL_CHAINS.end(), chain) == 0) {
            return "the chain " + inQuotes(chain);
        }
    }
    return "";
}

// ---- The beginning ------------------------------------------------------------------------------

/// The same chains without rules.
SavedRules emptied(const SavedRules& rules) {
    std::map<std::string, FamilyRules> families = rules.families();
    for (auto& [unused, own] : families) {
        for (auto& [chain, lines] : own.chains) {
            lines.clear();
        }
    }
    return SavedRules(std::move(families));
}

/// The rules of `rules`, the policies of `policies`.
SavedRules withPolicies(const SavedRules& rules, const SavedRules& policies) {
    std::map<std::string, FamilyRules> families = rules.families();
    for (auto& [family, own] : families) {
        const auto found = policies.families().find(family);
        if (found != policies.families().end()) {
            own.policies = found->second.policies;
        }
    }
    return SavedRules(std::move(families));
}

/// Makes the kernel have `wanted` where it has `now`.
void change(const SavedRules& now, const SavedRules& wanted) {
    if (!(now == wanted)) {
        wanted.putBack();
    }
}

/// What the trial goes back to. A rule that a killed reload has left in FIREWALL_RELOADING would
/// keep the session alive of somebody whom the tried rules lock out: the chain is emptied.
SavedRules startingPoint() {
    const SavedRules now = SavedRules::inKernel();
    for (const auto& [family, rules] : now.families()) {
        if (BaseFilter(family, rules).isClosed()) {
            throw Error(ErrorKind::kUnusable,
                        "a reload was interrupted: the machine is closed to new connections; "
                        "\"tarnfw reload\" opens it");
        }
    }
    SavedRules before = now.withoutReloading();
    change(now, before);
    return before;
}

/// The documents of the profile on trial and of its copy: what is adopted must still be these.
struct TrialDocuments {
    Json::Value profile;
    Json::Value copy;
};

TrialDocuments createTestProfile(StoreSession& session, const FW::FWPROFILE& candidate) {
    const std::string& name = candidate.name;
    if (!session.change([&] { return FW::TARNFW_PROFILE().CreateTestProfile(name, candidate); })) {
        throw Error(ErrorKind::kSystem, "its test profile cannot be stored");
    }
    const StoreSnapshot& store = session.snapshot();
    return {store.documentOf(name), store.documentOf(testProfileOf(name))};
}

/// Whether these are the rules of a profile without the line for established connections. False as
/// well when the interfaces cannot be listed: the library then translates as if there were none.
bool hasRulesOf(const FW::FWPROFILE& profile, const SavedRules& rules) {
    FW::TARNFW library;
    std::set<std::string> interfaces;
    if (!library.fwAdapterEnum(interfaces)) {
        return false;
    }
    Json::Value commands;
    if (library.fwRulesToBatchRules(/*acceptEstablished=*/false, profile.rules,
                                    profile.adapterPolicyMap, commands, "") &&
        hasTranslation(rules, commands)) {
        return true;
    }
    // Apply mode "lines" has more lines for a tunnel of IPv6, and the kernel may take them.
    commands = Json::Value();
    return library.fwRulesToIptablesRules(/*acceptEstablished=*/false, profile.rules,
                                          profile.adapterPolicyMap, commands) &&
           hasTranslation(rules, commands);
}

/// Puts the rules in force. Returns why they are not, or nothing. Throws Error while the kernel
/// still has the rules of before.
std::string begin(TrialRecord& record, TrialDocuments& documents) {
    // The store's lock first, as in all commands.
    StoreSession session(StoreSession::Access::kChange);
    const FileLock lock(kReloadLock, session.lockTime());
    if (!lock.held()) {
        throwLocked(kReloadLock);
    }
    awaitXtablesLock(session.lockTime());
    if (!session.snapshot().firewallEnabled()) {
        throw Error(ErrorKind::kUnusable, "the firewall was disabled meanwhile");
    }
    record.active = session.snapshot().activeProfile();
    record.watchdog = getpid();
    const FW::FWPROFILE candidate = session.snapshot().profile(record.profile);
    requireRestorable(candidate);
    record.before = startingPoint();
    documents = createTestProfile(session, candidate);
    storeTrialRecord(record);
    try {
        if (!FW::TARNFW().TestApplyingProfile(record.profile)) {
            return kNotApplied;
        }
        const SavedRules now = SavedRules::inKernel();
        // In apply mode "lines" the library does not look whether its commands succeed.
        if (!hasRulesOf(candidate, now)) {
            return kIncomplete;
        }
        record.tried = withPolicies(now.withoutReloading(), record.before);
        change(now, *record.tried);
        storeTrialRecord(record);
        return "";
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "%s", reasonOf(error).c_str());
        return kNotApplied;
    }
}

// ---- The end ------------------------------------------------------------------------------------

/// The trial is over: what cannot be removed is only logged.
void removeTracesOfAdopted(StoreSession& session, const std::string& name) {
    try {
        removeTraces(session, name);
    } catch (const Error& error) {
        syslog(LOG_ERR, "The trial of %s: %s", name.c_str(), error.what());
    }
}

/// Makes the tried profile the active one. Throws Error, with the reason, where the settings may
/// have changed but the kernel has not.
void adopt(TrialRecord& record, const TrialDocuments& documents) {
    StoreSession session(StoreSession::Access::kChange, LockTime(kAdoptLock));
    const StoreSnapshot& store = session.snapshot();
    if (!store.firewallEnabled()) {
        throw Error(ErrorKind::kUnusable, "the firewall was disabled during the trial");
    }
    const auto isUnchanged = [&](const std::string& name, const Json::Value& document) {
        return store.hasProfile(name) && store.documentOf(name) == document;
    };
    if (!isUnchanged(record.profile, documents.profile) ||
        !isUnchanged(testProfileOf(record.profile), documents.copy)) {
        throw Error(ErrorKind::kUnusable, "the profile was changed or deleted during the trial");
    }
    {
        const FileLock lock(kReloadLock, session.lockTime());
        if (!lock.held()) {
            throwLocked(kReloadLock);
        }
        awaitXtablesLock(session.lockTime());
        if (record.isChanged(SavedRules::inKernel())) {
            throw Error(ErrorKind::kUnusable,
                        "its rules are no longer in force: another program has changed them");
        }
    }
    record.adopting = true;
    storeTrialRecord(record);
    if (!session.changeMany([&] {
            return FW::TARNFW_PROFILE().AdoptTestProfile(record.profile) &&
                   FW::TARNFW().fwProfileConfigSet(record.profile, /*reload=*/false);
        })) {
        throw Error(ErrorKind::kSystem, "it cannot be stored as the active profile");
    }
    (void)Control(session).apply();
    removeTracesOfAdopted(session, record.profile);
}

/// After rules that could not be applied: the library has disabled the firewall.
void enableAgain() {
    LockTime time(kAttemptLock);
    awaitUnlocked(kReloadLock, time);
    awaitXtablesLock(time);
    if (FW::TARNFW().fwEnable()) {
        return;
    }
    // The rules of before are put back whether or not they can be made from the profile.
    Json::Value settings;
    settings["status"] = true;
    if (!FW::TARNFW().configSet(settings)) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
}

/// Puts rules into the kernel and looks whether they are there.
void putBackSeen(const SavedRules& rules) {
    change(SavedRules::inKernel(), rules);
    if (!(SavedRules::inKernel() == rules)) {
        throw Error(ErrorKind::kSystem, "the kernel does not have the rules that were put back");
    }
}

std::string applyActive() {
    LockTime time(kAttemptLock);
    awaitUnlocked(kReloadLock, time);  // or the library waits for it
    awaitXtablesLock(time);
    StoreSession session(StoreSession::Access::kRead);
    return Control(session).apply() ? kNowActive : kNowDisabled;
}

/// The rules of before the trial. Policies that another program has set during the trial stay.
SavedRules goalOf(const TrialRecord& record, const SavedRules& now) {
    return record.tried ? withPolicies(record.before, now) : record.before;
}

void putBackBefore(const TrialRecord& record) {
    LockTime time(kAttemptLock);
    const FileLock lock(kReloadLock, time);
    if (!lock.held()) {
        throwLocked(kReloadLock);
    }
    awaitXtablesLock(time);
    putBackSeen(goalOf(record, SavedRules::inKernel()));
}

/// One attempt to go back. Returns what is in force then. Throws Error, after which the next
/// attempt may succeed.
std::string restoreRules(const std::optional<TrialRecord>& record) {
    bool isChanged = false;
    {
        LockTime time(kAttemptLock);
        const FileLock lock(kReloadLock, time);
        if (!lock.held()) {
            throwLocked(kReloadLock);
        }
        awaitXtablesLock(time);
        const SavedRules now = SavedRules::inKernel();
        if (isDisabled()) {
            putBackSeen(emptied(now));
            return kNowDisabled;
        }
        isChanged = !record || record->isChanged(now);
        if (!isChanged) {
            try {
                putBackSeen(goalOf(*record, now));
                return kNowPrevious;
            } catch (const Error& error) {
                syslog(LOG_ERR, "The trial of %s: %s", record->profile.c_str(), error.what());
            }
        }
    }
    // Another program has reloaded: the active profile is what it wanted. Or the rules of before
    // cannot be put back as they were.
    try {
        return applyActive();
    } catch (const Error& error) {
        if (!record || !isChanged || error.kind() == ErrorKind::kBusy) {
            throw;
        }
    }
    putBackBefore(*record);
    return kNowPrevious;
}

/// Makes the previous profile the active one again, if the trial has changed that.
void restoreSettings(const TrialRecord& record) {
    if (!record.adopting) {
        return;
    }
    StoreSession session(StoreSession::Access::kChange, LockTime(kAttemptLock));
    if (session.snapshot().activeProfile() != record.profile) {
        return;
    }
    if (!session.change(
            [&] { return FW::TARNFW().fwProfileConfigSet(record.active, /*reload=*/false); })) {
        throw Error(ErrorKind::kSystem, "the settings still name " + inQuotes(record.profile) +
                                            " as the active profile");
    }
}

/// Whether the kernel gives this process more memory.
bool hasMemory() {
    constexpr std::size_t kBytes = 1U << 20U;
    void* const block =
        mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        return false;
    }
    (void)munmap(block, kBytes);
    return true;
}

/// Repeats a step until it succeeds; returns what it returns. Throws std::bad_alloc, for another
/// watchdog to go on, when this process gets no more memory.
template <typename Step>
std::string persist(TrialWatch& watch, Successor successor, Step step) {
    for (;;) {
        try {
            std::string obstacle;
            try {
                return step();
            } catch (const std::exception& error) {
                obstacle = reasonOf(error);
            }
            watch.pause(obstacle);
        } catch (const std::bad_alloc&) {
            std::this_thread::sleep_for(kStarvedPause);
        }
        if (successor == Successor::kTerminals && watch.hasTerminal() && !hasMemory()) {
            throw std::bad_alloc();
        }
    }
}

/// Repeats a step that a lock has kept from succeeding. Returns what is wrong otherwise, for the
/// end of a text.
template <typename Step>
std::string complaintOf(TrialWatch& watch, Successor successor, Step step) {
    return persist(watch, successor, [&]() -> std::string {
        try {
            step();
        } catch (const Error& error) {
            if (error.kind() == ErrorKind::kBusy) {
                throw;
            }
            return std::string(", but ") + error.what();
        }
        return "";
    });
}

/// Goes back, however long that takes.
void goBack(TrialWatch& watch, Successor successor, const std::optional<TrialRecord>& record,
            const std::string& reason) {
    watch.end(reason);
    std::string now = persist(watch, successor, [&] { return restoreRules(record); });
    if (record) {
        now += complaintOf(watch, successor, [&] { restoreSettings(*record); });
    }
    now += complaintOf(watch, successor, [&] {
        StoreSession session(StoreSession::Access::kChange, LockTime(kAttemptLock));
        removeTraces(session, watch.profile());
    });
    stopListening();
    Json::Value end = trialReport(watch.profile(), kTrialReverted, reason);
    end["now"] = now;
    watch.conclude(end);
}

/// The end of a trial that was to be kept.
void concludeAdopted(TrialWatch& watch) {
    stopListening();
    watch.conclude(trialReport(watch.profile(), kTrialAdopted, ""));
}

/// A trial that has changed nothing in the kernel.
void concludeNotBegun(TrialWatch& watch, const std::string& reason) {
    watch.end(reason);
    (void)complaintOf(watch, Successor::kTerminals, [&] {
        StoreSession session(StoreSession::Access::kChange, LockTime(kAttemptLock));
        removeTraces(session, watch.profile());
    });
    stopListening();
    watch.conclude(trialReport(watch.profile(), kTrialNotBegun, reason));
}

/// Finishes what a watchdog began that was killed after the confirmation. False when the profile
/// had not become the active one, or cannot be applied.
bool finishAdoption(const TrialRecord& record) {
    try {
        StoreSession session(StoreSession::Access::kChange, LockTime(kAdoptLock));
        if (!record.adopting || session.snapshot().activeProfile() != record.profile ||
            !Control(session).apply()) {
            return false;
        }
        removeTracesOfAdopted(session, record.profile);
        return true;
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "The trial of %s: %s", record.profile.c_str(), reasonOf(error).c_str());
        return false;
    }
}

}  // namespace

void removeTraces(StoreSession& session, const std::string& name) {
    removeTrialRecord();
    const std::string test = testProfileOf(name);
    if (session.snapshot().hasProfile(test) && !session.deleteProfile(test)) {
        throw Error(ErrorKind::kSystem, "its test profile cannot be removed");
    }
}

// ---- The watchdog -------------------------------------------------------------------------------

void requireRestorable(const FW::FWPROFILE& profile) {
    for (const auto& [adapter, rules] : profile.rules) {
        for (std::size_t i = 0; i < rules.size(); ++i) {
            const std::string target = rules[i].enable ? foreignTarget(rules[i]) : "";
            if (!target.empty()) {
                throw Error(ErrorKind::kUnusable,
                            placeText({adapter, i + 1}) + " is for " + target +
                                ", where it would stay in force afterwards; profile " +
                                inQuotes(profile.name) + " cannot be tried",
                            {"", "", RulePlace{adapter, i + 1}});
            }
        }
    }
}

void watchTrial(const Trial& trial, const Channel& terminal, const Channel& listener) {
    TrialWatch watch(trial.name, terminal, listener);
    TrialRecord record;
    record.profile = trial.name;
    TrialDocuments documents;
    std::string failure;
    try {
        failure = begin(record, documents);
    } catch (const std::exception& error) {
        concludeNotBegun(watch, reasonOf(error));
        return;
    }
    if (!failure.empty()) {
        watch.end(failure);
        (void)persist(watch, Successor::kTerminals, [] {
            if (isDisabled()) {
                enableAgain();
            }
            return "";
        });
        goBack(watch, Successor::kTerminals, record, failure);
        return;
    }
    const TrialOutcome outcome = watch.outcome(trial.timeout);
    if (!outcome.adopt) {
        goBack(watch, Successor::kTerminals, record, outcome.reason);
        return;
    }
    watch.end("");
    try {
        adopt(record, documents);
    } catch (const std::exception& error) {
        goBack(watch, Successor::kTerminals, record, reasonOf(error));
        return;
    }
    concludeAdopted(watch);
}

void watchAbandonedTrial(const std::string& name, const std::string& reason,
                         const Channel& terminal, const Channel& listener) {
    TrialWatch watch(name, terminal, listener);
    watch.end(reason);
    std::optional<TrialRecord> record = readTrialRecord();
    if (record && record->profile != name) {
        record.reset();
    }
    if (record && finishAdoption(*record)) {
        concludeAdopted(watch);
        return;
    }
    goBack(watch, Successor::kNobody, record, reason);
}

}  // namespace tarnfw
