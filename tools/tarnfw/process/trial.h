/// The watchdog of a trial: puts a profile's rules in force, and takes them back unless somebody
/// who still reaches the machine confirms them in time.
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

// What the watchdog reports: "profile" is the one that is tried, "state" one of these, "reason"
// tells why; "secondsLeft" is there while the trial goes on.
inline constexpr char kTrialGoesOn[] = "in force";
inline constexpr char kTrialAdopted[] = "adopted";    // now the active profile
inline constexpr char kTrialReverted[] = "reverted";  // the active profile's rules again
inline constexpr char kTrialFailed[] = "failed";      // neither; "reason" tells how far it came

// What a terminal asks for: "ask" is one of these.
inline constexpr char kAskConfirm[] = "confirm";
inline constexpr char kAskCancel[] = "cancel";
inline constexpr char kAskState[] = "state";

/// Runs a trial to its end; for a process of its own. `terminal` is the connection to the terminal
/// that began it, whose end is the end of the trial; other terminals come through `listener`.
/// SIGTERM goes back at once; SIGINT and SIGHUP, which are the terminal's, must be blocked.
/// All reports go to `terminal`, the last one also to the terminal that asked for it.
void watchTrial(const Trial& trial, const Channel& terminal, const Channel& listener);

/// Puts the active profile's rules in force again and takes the test profile of `name` away.
/// Returns whether that came out; the library logs why not.
bool revertTrial(const std::string& name);

/// The name of the profile whose trial was left behind, by a machine or watchdog that died.
std::optional<std::string> abandonedTrial(const StoreSnapshot& store);

}  // namespace tarnfw
