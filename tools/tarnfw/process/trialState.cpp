#include "process/trialState.h"

#include <chrono>
#include <cstring>
#include <vector>

#include "process/trial.h"
#include "process/trialRecord.h"
#include "process/trialWatch.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/storeSession.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Limits for the watchdog: for the first answer, and for the end of the trial.
constexpr seconds kAnswerTime{3};
constexpr seconds kEndTime{35};

void send(const Channel& trial, const char* what) {
    Json::Value message;
    message["ask"] = what;
    trial.send(message);
}

TrialState notAnswering() {
    TrialState state;
    state.phase = TrialState::Phase::kNotAnswering;
    if (const std::optional<TrialRecord> record = readTrialRecord()) {
        state.profile = record->profile;
        state.watchdog = record->watchdog;
    }
    return state;
}

TrialState stateOf(const Json::Value& report) {
    TrialState state;
    state.profile = report.get("profile", "").asString();
    state.phase = report.get("state", "").asString() == kTrialGoesOn ? TrialState::Phase::kGoesOn
                                                                     : TrialState::Phase::kEnding;
    state.secondsLeft = report.get("secondsLeft", 0).asInt64();
    state.obstacle = report.get("obstacle", "").asString();
    return state;
}

/// The state of a trial that has a watchdog.
std::optional<TrialState> watchedTrial() {
    try {
        const std::optional<Channel> trial = callTrial();
        if (!trial) {
            return std::nullopt;
        }
        send(*trial, kAskState);
        if (!trial->awaits(kAnswerTime)) {
            return notAnswering();
        }
        const std::optional<Json::Value> report = trial->receive();
        return report ? std::optional(stateOf(*report)) : std::nullopt;  // it has just ended
    } catch (const Error& error) {
        if (error.kind() != ErrorKind::kBusy) {
            throw;
        }
        return notAnswering();
    }
}

std::string notAnsweringText(pid_t watchdog) {
    const std::string number = std::to_string(watchdog);
    return watchdog < 0 ? "its watchdog does not answer"
                        : "its watchdog, process " + number + ", does not answer; \"kill -CONT " +
                              number + "\" wakes it if it is stopped";
}

[[noreturn]] void throwRunning(const TrialState& trial) {
    std::string text = "a trial ";
    text += trial.profile.empty() ? "" : "of " + inQuotes(trial.profile) + " ";
    text += "is running; ";
    text += trial.phase == TrialState::Phase::kNotAnswering
                ? notAnsweringText(trial.watchdog)
                : "\"tarnfw try --confirm\" keeps its rules, \"tarnfw try --cancel\" restores the "
                  "previous ones";
    throw Error(ErrorKind::kBusy, text);
}

}  // namespace

std::optional<std::string> abandonedTrial(const StoreSnapshot& store) {
    if (const std::optional<TrialRecord> record = readTrialRecord()) {
        return record->profile;  // an import removes the test profile
    }
    const std::vector<std::string> names = store.testProfileNames();
    if (names.empty()) {
        return std::nullopt;
    }
    return names.front().substr(std::strlen(kTestPrefix));
}

std::optional<TrialState> trialState(const StoreSnapshot& store) {
    if (std::optional<TrialState> watched = watchedTrial()) {
        return watched;
    }
    if (const std::optional<std::string> name = abandonedTrial(store)) {
        TrialState state;
        state.profile = *name;
        state.leftover = !readTrialRecord();
        return state;
    }
    return std::nullopt;
}

std::string trialText(const TrialState& trial) {
    const std::string name = trial.profile.empty() ? "" : "of " + inQuotes(trial.profile) + ", ";
    switch (trial.phase) {
        case TrialState::Phase::kGoesOn:
            return name + std::to_string(trial.secondsLeft) + " s left";
        case TrialState::Phase::kEnding:
            return name + (trial.obstacle.empty()
                               ? "ending"
                               : "not over yet, trying again: " + trial.obstacle);
        case TrialState::Phase::kNotAnswering:
            return name + notAnsweringText(trial.watchdog);
        case TrialState::Phase::kAbandoned:
            break;
    }
    return name + (trial.leftover
                       ? "interrupted: its test profile " + inQuotes(kTestPrefix + trial.profile) +
                             " is left; \"tarnfw try --cancel\" or the next change removes it"
                       : "abandoned; \"tarnfw try --cancel\" ends it");
}

void requireNoTrial() {
    if (const std::optional<TrialState> trial = watchedTrial()) {
        throwRunning(*trial);
    }
}

void requireNoTrialOf(const std::string& profile) {
    const std::optional<TrialState> trial = watchedTrial();
    if (trial && (trial->profile == profile || trial->profile.empty())) {
        throwRunning(*trial);
    }
}

void forgetAbandonedTrial(LockTime& time) {
    const std::optional<TrialRecord> record = readTrialRecord();
    if (!record) {
        return;
    }
    StoreSession session(StoreSession::Access::kChange, time);
    if (!watchedTrial()) {  // a new one listens before it takes the store's lock
        removeTraces(session, record->profile);
    }
}

void removeLeftoverTestProfiles(StoreSession& session) {
    const std::vector<std::string> names = session.snapshot().testProfileNames();
    try {
        // A trial listens before it takes the store's lock, and writes its record under that.
        if (names.empty() || readTrialRecord() || watchedTrial()) {
            return;
        }
        for (const std::string& name : names) {
            session.note(
                (session.deleteProfile(name)
                     ? "the test profile " + inQuotes(name) + " of an interrupted trial was removed"
                     : "the test profile " + inQuotes(name) + " cannot be removed"));
        }
    } catch (const Error& error) {
        session.note(error.what());
    }
}

std::optional<std::string> endTrialOfDisabled() {
    try {
        if (const std::optional<Channel> trial = callTrial()) {
            return askTrial(*trial, kAskCancel).get("profile", "").asString();
        }
    } catch (const Error&) {
        // the watchdog sees by itself that the firewall is disabled
    }
    return std::nullopt;
}

Json::Value askTrial(const Channel& trial, const char* what) {
    send(trial, what);
    if (!trial.awaits(kAnswerTime)) {
        throwRunning(notAnswering());
    }
    Json::Value last;
    const Clock::time_point limit = Clock::now() + kEndTime;
    do {
        std::optional<Json::Value> report = trial.receive();
        if (!report) {
            throw Error(ErrorKind::kNotFound,
                        "the trial does not answer any more; see \"tarnfw status\"");
        }
        last = std::move(*report);
    } while (last.get("state", "").asString() == kTrialEnding &&
             trial.awaits(std::chrono::ceil<milliseconds>(limit - Clock::now())));
    return last;
}

}  // namespace tarnfw
