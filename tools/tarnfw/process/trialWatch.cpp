#include "process/trialWatch.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "tarnfwadmin/store.h"

namespace tarnfw {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kPause{1};  // between two attempts to end a trial
constexpr seconds kLook{1};   // between two looks at the settings

Descriptor terminationSignals() {
    sigset_t set;
    (void)sigemptyset(&set);
    (void)sigaddset(&set, SIGTERM);
    return Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
}

bool isDisabled() {
    try {
        return !StoreSnapshot().firewallEnabled();
    } catch (const std::exception&) {
        return false;  // settings that cannot be read do not end a trial
    }
}

/// What a request decides; nothing when it only asks for the state.
std::optional<TrialOutcome> decision(const Json::Value& request) {
    const std::string ask = request.get("ask", "").asString();
    if (ask == kAskConfirm) {
        return TrialOutcome{true, ""};
    }
    if (ask == kAskCancel) {
        return TrialOutcome{false, "cancelled"};
    }
    return std::nullopt;
}

}  // namespace

Json::Value trialReport(const std::string& profile, const char* state, const std::string& reason) {
    Json::Value report;
    report["profile"] = profile;
    report["state"] = state;
    report["reason"] = reason;
    return report;
}

TrialWatch::TrialWatch(std::string profile, const Channel& terminal, const Channel& listener)
    : profile_(std::move(profile)),
      terminal_(terminal),
      listener_(listener),
      signals_(terminationSignals()) {}

TrialOutcome TrialWatch::outcome(seconds timeout) {
    limit_ = Clock::now() + timeout;
    terminal_.send(trialReport(profile_, kTrialGoesOn, ""));
    for (;;) {
        const Clock::duration left = limit_ - Clock::now();
        if (left <= Clock::duration::zero()) {
            return {false, "nobody confirmed in time"};
        }
        const Ready ready = wait(std::min<Clock::duration>(left, kLook));
        if (ready.signal) {
            return {false, "the watchdog was ended by a signal"};
        }
        std::optional<TrialOutcome> heard;
        if (ready.terminal) {
            heard = hearTerminal();
        } else if (ready.listener) {
            heard = hearOther();
        }
        if (heard) {
            return *heard;
        }
        if (isDisabled()) {
            return {false, "the firewall was disabled during the trial"};
        }
    }
}

void TrialWatch::end(const std::string& reason) {
    isEnding_ = true;
    reason_ = reason;
}

void TrialWatch::pause(const std::string& obstacle) {
    if (obstacle != obstacle_) {
        obstacle_ = obstacle;
        syslog(LOG_ERR, "The trial of %s%s%s", profile_.c_str(), kTrialTryingAgain,
               obstacle.c_str());
        terminal_.send(state());
        for (const Channel& asker : askers_) {
            asker.send(state());
        }
    }
    const Clock::time_point next = Clock::now() + kPause;
    for (Clock::duration left = kPause; left > Clock::duration::zero();
         left = next - Clock::now()) {
        const Ready ready = wait(left);
        if (ready.listener) {
            (void)hearOther();
        }
        if (ready.terminal) {
            isTerminalLost_ = !terminal_.receive();
        }
    }
}

void TrialWatch::conclude(const Json::Value& report) const {
    terminal_.send(report);
    for (const Channel& asker : askers_) {
        asker.send(report);
    }
}

TrialWatch::Ready TrialWatch::wait(Clock::duration time) const {
    // poll() leaves out what has a negative number.
    std::array<pollfd, 3> events = {pollfd{isTerminalLost_ ? -1 : terminal_.fd(), POLLIN, 0},
                                    pollfd{listener_.fd(), POLLIN, 0},
                                    pollfd{isEnding_ ? -1 : signals_.get(), POLLIN, 0}};
    const auto left = std::max(std::chrono::ceil<milliseconds>(time), milliseconds::zero());
    (void)poll(events.data(), events.size(), static_cast<int>(left.count()));
    return {events[0].revents != 0, events[1].revents != 0, events[2].revents != 0};
}

std::optional<TrialOutcome> TrialWatch::hearTerminal() const {
    const std::optional<Json::Value> request = terminal_.receive();
    return request ? decision(*request) : TrialOutcome{false, "the terminal was lost"};
}

std::optional<TrialOutcome> TrialWatch::hearOther() {
    Channel caller = acceptTerminal(listener_);
    const std::optional<Json::Value> request = caller.receive();
    // One who has left was told that nobody answers, and does not expect that it counts later.
    if (!request || !caller.isConnected()) {
        return std::nullopt;
    }
    std::optional<TrialOutcome> decided = decision(*request);
    if (decided && !isEnding_) {
        end(decided->reason);
    }
    caller.send(state());
    if (decided) {
        askers_.push_back(std::move(caller));
    }
    return decided;
}

Json::Value TrialWatch::state() const {
    Json::Value state = trialReport(profile_, isEnding_ ? kTrialEnding : kTrialGoesOn, reason_);
    if (isEnding_) {
        state["obstacle"] = obstacle_;
    } else {
        const auto left = std::chrono::ceil<seconds>(limit_ - Clock::now());
        state["secondsLeft"] = static_cast<Json::Int64>(left.count());
    }
    return state;
}

}  // namespace tarnfw
