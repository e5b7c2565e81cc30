/// The watchdog of a trial: applies a profile's rules, and restores the previous ones unless
/// somebody who can still reach the machine confirms in time.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "process/trialChannel.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {

/// What is tried, and for how long.
struct Trial {
    std::string name;              ///< a stored profile other than the active one
    std::chrono::seconds timeout;  ///< from the moment when its rules are in force
};

// The watchdog's reports: "profile" is the one on trial, "state" one of these, "reason" the
// cause; "secondsLeft" exists during the trial.
inline constexpr char kTrialGoesOn[] = "in force";
inline constexpr char kTrialAdopted[] = "adopted";    // now the active profile
inline constexpr char kTrialReverted[] = "reverted";  // the active profile's rules again
inline constexpr char kTrialFailed[] = "failed";      // neither; see "reason"

// A terminal's requests: "ask" is one of these.
inline constexpr char kAskConfirm[] = "confirm";
inline constexpr char kAskCancel[] = "cancel";
inline constexpr char kAskState[] = "state";

/// Runs a trial to its end, in a process of its own. `terminal` is the connection to the terminal
/// that began it; when that closes, the trial ends. Other terminals connect to `listener`.
/// SIGTERM ends it at once, with the previous rules; SIGINT and SIGHUP, from the terminal, must be
/// blocked.
/// All reports go to `terminal`, the last one also to the terminal that asked for it.
void watchTrial(const Trial& trial, const Channel& terminal, const Channel& listener);

/// Restores the active profile's rules and removes the test profile of `name`.
/// Returns false, logged, on failure.
bool revertTrial(const std::string& name);

/// The profile of an abandoned trial, left by a crash of the machine or the watchdog.
std::optional<std::string> abandonedTrial(const StoreSnapshot& store);

}  // namespace tarnfw
