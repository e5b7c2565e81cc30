/// What the watchdog of a trial hears and says.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "process/trialChannel.h"
#include "tarnfwadmin/descriptor.h"

namespace tarnfw {

// The watchdog's reports: "profile" is the one on trial, "state" one of these, "reason" why it was
// not kept. "secondsLeft" exists during the trial, "obstacle" while the trial is ending: why that
// has failed so far, or empty. "now" is what is in force after it was not kept.
inline constexpr char kTrialGoesOn[] = "in force";
inline constexpr char kTrialEnding[] = "ending";
inline constexpr char kTrialAdopted[] = "adopted";     // now the active profile
inline constexpr char kTrialReverted[] = "reverted";   // see "now"
inline constexpr char kTrialNotBegun[] = "not begun";  // the kernel was not changed

// A terminal's requests: "ask" is one of these. The answer to the first two is kTrialEnding, and
// the last report when the trial is over.
inline constexpr char kAskConfirm[] = "confirm";
inline constexpr char kAskCancel[] = "cancel";
inline constexpr char kAskState[] = "state";

/// What the log says between the name of a trial that cannot end yet and the reason.
inline constexpr char kTrialTryingAgain[] = " is not over yet, trying again: ";

/// A report without the members that only some states have.
Json::Value trialReport(const std::string& profile, const char* state, const std::string& reason);

/// What a trial comes to.
struct TrialOutcome {
    bool adopt = false;
    std::string reason;  ///< why not
};

/// The terminal that began a trial, and others that ask.
class TrialWatch {
public:
    /// The channels must outlive the object.
    TrialWatch(std::string profile, const Channel& terminal, const Channel& listener);

    const std::string& profile() const { return profile_; }

    /// Says that the rules are in force, and waits for a confirmation, a cancellation, the time
    /// limit, a signal, or a firewall that is disabled.
    TrialOutcome outcome(std::chrono::seconds timeout);

    /// From now on the trial is ending; signals and a lost terminal change nothing any more.
    void end(const std::string& reason);

    /// Says why the trial cannot end yet, when that has changed: to the terminal, to those who wait
    /// for the end, and to the log. Then waits for a second, answering others.
    void pause(const std::string& obstacle);

    /// Whether the terminal that began the trial is still there: it starts another watchdog when
    /// this one ends without a last report.
    bool hasTerminal() const { return terminal_.isConnected(); }

    /// Sends the last report to all who wait for it.
    void conclude(const Json::Value& report) const;

private:
    /// What there is to read.
    struct Ready {
        bool terminal = false;
        bool listener = false;
        bool signal = false;
    };

    Ready wait(std::chrono::steady_clock::duration time) const;
    std::optional<TrialOutcome> hearTerminal() const;
    std::optional<TrialOutcome> hearOther();
    Json::Value state() const;

    std::string profile_;
    const Channel& terminal_;
    const Channel& listener_;
    Descriptor signals_;
    bool isTerminalLost_ = false;
    std::chrono::steady_clock::time_point limit_;
    bool isEnding_ = false;
    std::string reason_;
    std::string obstacle_;
    std::vector<Channel> askers_;
};

}  // namespace tarnfw
