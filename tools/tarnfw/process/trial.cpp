#include "process/trial.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLockSeconds = 30;

Json::Value report(const std::string& name, const char* state, const std::string& reason) {
    Json::Value message;
    message["profile"] = name;
    message["state"] = state;
    message["reason"] = reason;
    return message;
}

/// What a trial comes to, and whom to inform besides the terminal that began it.
struct TrialOutcome {
    bool adopt = false;
    std::string reason;  ///< why not
    Channel asker;
};

/// Waits for a confirmation, a cancellation or the time limit.
class TrialWait {
public:
    TrialWait(const Trial& trial, const Channel& terminal, const Channel& listener)
        : trial_(trial), terminal_(terminal), listener_(listener), signals_(terminationSignals()) {}

    TrialOutcome outcome() const {
        for (;;) {
            std::array<pollfd, 3> events = {pollfd{terminal_.fd(), POLLIN, 0},
                                            pollfd{listener_.fd(), POLLIN, 0},
                                            pollfd{signals_.get(), POLLIN, 0}};
            const auto left = timeLeft();
            if (left <= Clock::duration::zero()) {
                return {false, "nobody confirmed in time", {}};
            }
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            (void)poll(events.data(), events.size(), static_cast<int>(wait));
            if (events[2].revents != 0) {
                return {false, "the watchdog was ended by a signal", {}};
            }
            std::optional<TrialOutcome> heard;
            if (events[0].revents != 0) {
                heard = hearTerminal();
            } else if (events[1].revents != 0) {
                heard = hearOther();
            }
            if (heard) {
                return std::move(*heard);
            }
        }
    }

private:
    static Descriptor terminationSignals() {
        sigset_t set;
        (void)sigemptyset(&set);
        (void)sigaddset(&set, SIGTERM);
        return Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
    }

    Clock::duration timeLeft() const { return begin_ + trial_.timeout - Clock::now(); }

    std::optional<TrialOutcome> hearTerminal() const {
        const std::optional<Json::Value> message = terminal_.receive();
        if (!message) {
            return TrialOutcome{false, "the terminal was lost", {}};
        }
        return answer(*message, {});
    }

    std::optional<TrialOutcome> hearOther() const {
        Channel caller = acceptTerminal(listener_);
        const std::optional<Json::Value> message = caller.receive();
        return message ? answer(*message, std::move(caller)) : std::nullopt;
    }

    std::optional<TrialOutcome> answer(const Json::Value& message, Channel asker) const {
        const std::string ask = message.get("ask", "").asString();
        if (ask == kAskConfirm) {
            return TrialOutcome{true, "", std::move(asker)};
        }
        if (ask == kAskCancel) {
            return TrialOutcome{false, "cancelled", std::move(asker)};
        }
        Json::Value state = report(trial_.name, kTrialGoesOn, "");
        state["secondsLeft"] =
            static_cast<Json::Int64>(std::chrono::ceil<std::chrono::seconds>(timeLeft()).count());
        asker.send(state);
        return std::nullopt;
    }

    const Trial& trial_;
    const Channel& terminal_;
    const Channel& listener_;
    Descriptor signals_;
    Clock::time_point begin_ = Clock::now();
};

/// Whether a step succeeds. If it throws, it has failed and the trial continues from there: only
/// the watchdog can restore the rules.
template <typename Step>
bool succeeded(Step step) {
    try {
        return step();
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "%s", error.what());
        return false;
    }
}

/// Stores the copy of the candidate that is tried.
bool createTestProfile(const std::string& name) {
    StoreSession session(StoreSession::Access::kChange);
    const FW::FWPROFILE candidate = session.snapshot().profile(name);
    return session.change([&] { return FW::TARNFW_PROFILE().CreateTestProfile(name, candidate); });
}

/// Puts the candidate's rules in force.
bool apply(const std::string& name) {
    const FileLock lock(kReloadLock, kLockSeconds);
    return lock.held() && succeeded([&] {
               return createTestProfile(name) && FW::TARNFW().TestApplyingProfile(name);
           });
}

/// Makes the tried profile the active one; if that fails, the previous one is active again.
bool adopt(const std::string& name) {
    StoreSession session(StoreSession::Access::kChange);
    const std::string before = session.snapshot().activeProfile();
    FW::TARNFW_PROFILE store;
    if (!session.changeMany([&] {
            return store.AdoptTestProfile(name) &&
                   FW::TARNFW().fwProfileConfigSet(name, /*reload=*/false);
        })) {
        return false;
    }
    if (!FW::TARNFW().fwReload(true)) {
        (void)FW::TARNFW().fwProfileConfigSet(before, /*reload=*/false);  // logs for itself
        return false;
    }
    (void)store.RemoveTestProfile(name);  // logs for itself; it is only a copy
    return true;
}

Json::Value goBack(const std::string& name, const std::string& reason) {
    return succeeded([&] { return revertTrial(name); })
               ? report(name, kTrialReverted, reason)
               : report(name, kTrialFailed,
                        reason + ", and the active profile could not be restored");
}

/// If rules cannot be applied, the library disables the firewall; a trial must enable it again.
Json::Value takeBackFailedTrial(const std::string& name) {
    const bool on =
        succeeded([] { return StoreSnapshot().firewallEnabled() || FW::TARNFW().fwEnable(); });
    return on ? goBack(name, "its rules cannot be applied")
              : report(name, kTrialFailed, "its rules cannot be applied, and the firewall is off");
}

Json::Value conclude(const std::string& name, const TrialOutcome& outcome) {
    if (!outcome.adopt) {
        return goBack(name, outcome.reason);
    }
    return succeeded([&] { return adopt(name); }) ? report(name, kTrialAdopted, "")
                                                  : goBack(name, "it cannot be adopted");
}

}  // namespace

void watchTrial(const Trial& trial, const Channel& terminal, const Channel& listener) {
    if (!apply(trial.name)) {
        terminal.send(takeBackFailedTrial(trial.name));
        stopListening();
        return;
    }
    terminal.send(report(trial.name, kTrialGoesOn, ""));
    const TrialOutcome outcome = TrialWait(trial, terminal, listener).outcome();
    const Json::Value end = conclude(trial.name, outcome);
    stopListening();
    terminal.send(end);
    if (outcome.asker) {
        outcome.asker.send(end);
    }
}

bool revertTrial(const std::string& name) {
    const bool reverted = FW::TARNFW().fwReload(true);
    (void)FW::TARNFW_PROFILE().RemoveTestProfile(name);  // logs for itself; it is only a copy
    return reverted;
}

std::optional<std::string> abandonedTrial(const StoreSnapshot& store) {
    const std::vector<std::string> names = store.testProfileNames();
    if (names.empty()) {
        return std::nullopt;
    }
    return names.front().substr(std::strlen(kTestPrefix));
}

}  // namespace tarnfw
