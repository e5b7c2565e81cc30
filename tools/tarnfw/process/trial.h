/// The watchdog of a trial: applies a profile's rules, and restores the previous ones unless
/// somebody who can still reach the machine confirms in time.
#pragma once

#include <chrono>
#include <string>

#include "tarnfirewall/fwTypes.h"

#include "process/trialChannel.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

/// What is tried, and for how long.
struct Trial {
    std::string name;              ///< a stored profile other than the active one
    std::chrono::seconds timeout;  ///< from the moment when its rules are in force
};

/// Throws Error, kUnusable, for a profile with a rule that stays in the kernel when the firewall's
/// chains are emptied: one for another table, or for another chain than theirs.
void requireRestorable(const FW::FWPROFILE& profile);

/// Runs a trial to its end, in a process of its own. `terminal` is the connection to the terminal
/// that began it; when that closes, the trial ends. Other terminals connect to `listener`.
/// SIGTERM ends it at once, with the previous rules; SIGINT and SIGHUP, from the terminal, must be
/// blocked.
///
/// Tries to go back until the previous rules are seen in the kernel. The record and the test
/// profile, by which an abandoned trial is found, are removed last. All reports go to `terminal`,
/// those of the end also to the terminals that asked for it.
///
/// Throws std::bad_alloc in a process that gets no more memory: the terminal then ends the trial
/// with another one. Where that terminal is gone, the watchdog goes on trying.
void watchTrial(const Trial& trial, const Channel& terminal, const Channel& listener);

/// Ends an abandoned trial in the same way, but has nobody after it. `reason` is for the report.
void watchAbandonedTrial(const std::string& name, const std::string& reason,
                         const Channel& terminal, const Channel& listener);

/// Removes what a trial has left in files. The test profile goes last. Throws Error, kSystem.
void removeTraces(StoreSession& session, const std::string& name);

}  // namespace tarnfw
