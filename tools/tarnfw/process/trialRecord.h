/// The record of a running trial, for whoever ends it when the watchdog cannot.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "tarnfwadmin/savedRules.h"

namespace tarnfw {

/// What a trial has changed, and what it goes back to.
struct TrialRecord {
    std::string profile;    ///< the one on trial
    std::string active;     ///< the active one when the trial began
    pid_t watchdog = -1;    ///< its process
    bool adopting = false;  ///< confirmed: the settings may name `profile` already

    SavedRules before;                ///< what was in force
    std::optional<SavedRules> tried;  ///< what the trial has put in force; none before that

    /// Whether the kernel has other rules now than the trial has put in force.
    bool isChanged(const SavedRules& now) const;
};

/// Writes the record to "/run/tarn/trial.json". Throws Error, kSystem.
void storeTrialRecord(const TrialRecord& record);

/// The record; nothing when there is none, or when it cannot be read.
std::optional<TrialRecord> readTrialRecord();

/// Removes it.
void removeTrialRecord();

}  // namespace tarnfw
