/// The running trial as other commands see it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include <json/json.h>

#include "process/trialChannel.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

/// The running or abandoned trial.
struct TrialState {
    enum class Phase { kGoesOn, kEnding, kNotAnswering, kAbandoned };

    std::string profile;  ///< empty where it is not known
    Phase phase = Phase::kAbandoned;
    std::int64_t secondsLeft = 0;  ///< of kGoesOn
    std::string obstacle;          ///< of kEnding: why that has failed so far, or empty
    pid_t watchdog = -1;           ///< of kNotAnswering; -1 where it is not known
    bool leftover = false;         ///< of kAbandoned: only its test profile is left
};

/// Asks the watchdog, for at most 3 seconds. Nothing when there is no trial.
std::optional<TrialState> trialState(const StoreSnapshot& store);

/// "of "home", 12 s left".
std::string trialText(const TrialState& trial);

/// The profile of an abandoned trial, left by a crash of the machine or the watchdog: that of its
/// record, or of a test profile.
std::optional<std::string> abandonedTrial(const StoreSnapshot& store);

/// Throws Error, kBusy, while a trial is running: for commands that would end it unseen, or that
/// its end would undo. An abandoned trial is none.
void requireNoTrial();

/// The same for a command that changes a profile: only while a trial of that one is running.
void requireNoTrialOf(const std::string& profile);

/// After the active profile was applied: removes what an abandoned trial has left. Throws Error,
/// kBusy, without the store's lock; the caller must not have it.
void forgetAbandonedTrial(LockTime& time);

/// Removes the test profiles of which nothing else is left: neither a watchdog nor a record, as
/// after a power failure during a trial. A note of the session, which must have the store's lock,
/// names each.
void removeLeftoverTestProfiles(StoreSession& session);

/// After the firewall was disabled: ends the trial at once. Its profile; nothing when there is
/// none, or when the watchdog does not answer. The caller must not have the store's lock.
std::optional<std::string> endTrialOfDisabled();

/// Sends a request to the trial and returns the last report, or after 35 seconds the last one so
/// far. Throws Error: kBusy when the watchdog does not answer, kNotFound when the trial has just
/// ended.
Json::Value askTrial(const Channel& trial, const char* what);

}  // namespace tarnfw
