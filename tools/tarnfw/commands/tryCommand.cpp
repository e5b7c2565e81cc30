/// tarnfw try: puts a profile's rules in force for a while, and keeps them if somebody confirms.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "tarnfirewall/tarnFW.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "process/trial.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/process.h"

namespace tarnfw {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultSeconds = 60;
constexpr int kMaxSeconds = 86400;
constexpr int kTick = 1000;  // ms between two lines of the countdown

struct TryOptions {
    std::string profile;
    int seconds = kDefaultSeconds;
    bool confirm = false;
    bool cancel = false;
};

// ---- Conditions of a trial ----

void requireTriable(const std::string& name) {
    Context context(StoreSession::Access::kChange);
    const StoreSnapshot& store = context.store();
    store.requireProfile(name);
    if (!store.firewallEnabled()) {
        throw Error(ErrorKind::kUnusable,
                    "the firewall is disabled, so a trial has no rules to restore; \"tarnfw "
                    "enable\" switches it on");
    }
    if (name == store.activeProfile()) {
        throw Error(ErrorKind::kUnusable, "profile " + inQuotes(name) +
                                              " is the active one, which a trial restores; try a "
                                              "copy of it (\"tarnfw profile copy\")");
    }
    context.control().requireBase();
    // Whether there is room for the test profile.
    StoreTransaction(context.session(), StoreTransaction::Extent::kOneDocument).finish();
}

// ---- The watchdog's process ----

/// Blocks the signals that end a command. Both processes of a trial
/// read them from a descriptor.
sigset_t blockEndingSignals() {
    sigset_t set;
    (void)sigemptyset(&set);
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        (void)sigaddset(&set, number);
    }
    (void)sigprocmask(SIG_BLOCK, &set, nullptr);
    return set;
}

/// Detaches from the terminal, so that its end does not end this process.
void leaveTerminal() {
    (void)setsid();
    (void)prctl(PR_SET_NAME, "tarnfw-watchdog");  // so that "killall tarnfw" does not find it
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    (void)dup2(nothing, STDIN_FILENO);
    (void)dup2(nothing, STDOUT_FILENO);
    (void)signal(SIGPIPE, SIG_IGN);  // nobody may read the pipe for the library's log
}

/// Starts the watchdog; returns the connection to it.
Channel startWatchdog(const Trial& trial, pid_t& process) {
    const Channel listener = listenForTerminals();
    std::pair<Channel, Channel> ends = connectedChannels();
    try {
        process = startProcess("the watchdog", [&] {
            ends.first = Channel();
            leaveTerminal();
            try {
                watchTrial(trial, ends.second, listener);
                return 0;
            } catch (const std::exception& error) {
                syslog(LOG_ERR, "%s", error.what());
                return 1;  // the terminal restores the rules, as after a killed watchdog
            }
        });
    } catch (const Error&) {
        stopListening();
        throw;
    }
    return std::move(ends.first);
}

// ---- The terminal's side ----

/// Waits for the person, the watchdog or a signal, and shows the time left.
class Countdown {
public:
    Countdown(const Trial& trial, const Channel& watchdog, const sigset_t& signals)
        : trial_(trial),
          watchdog_(watchdog),
          signals_(signalfd(-1, &signals, SFD_CLOEXEC)),
          onTerminal_(isatty(STDIN_FILENO) == 1) {
        // Enter counts only when it is pressed after the rules are in force.
        (void)tcflush(STDIN_FILENO, TCIFLUSH);
    }

    /// The watchdog's last report; nothing if the watchdog has ended.
    std::optional<Json::Value> wait() {
        announce();
        for (;;) {
            std::array<pollfd, 3> events = {pollfd{watchdog_.fd(), POLLIN, 0},
                                            pollfd{signals_.get(), POLLIN, 0},
                                            pollfd{onTerminal_ ? STDIN_FILENO : -1, POLLIN, 0}};
            (void)poll(events.data(), events.size(), kTick);
            if (events[0].revents != 0) {
                clearLine();
                return watchdog_.receive();
            }
            if (events[1].revents != 0) {
                ask(kAskCancel);
                (void)signals_.close();  // one is enough
            }
            if (events[2].revents != 0) {
                ask(enterPressed() ? kAskConfirm : kAskCancel);
                onTerminal_ = false;
            }
            showTime();
        }
    }

private:
    void ask(const char* what) const {
        Json::Value message;
        message["ask"] = what;
        watchdog_.send(message);
    }

    /// A lost terminal, or Ctrl-D, does not confirm.
    static bool enterPressed() {
        std::array<char, 256> line{};
        return read(STDIN_FILENO, line.data(), line.size()) > 0;
    }

    void announce() const {
        std::cout << "The rules of " << inQuotes(trial_.name) << " are in force for "
                  << counted(static_cast<std::size_t>(trial_.timeout.count()), "second") << ".\n"
                  << (onTerminal_ ? "Press Enter to keep them, Ctrl-C to restore the previous "
                                    "ones; from another terminal, "
                                  : "")
                  << "\"tarnfw try --confirm\" keeps them.\n"
                  << std::flush;
    }

    void showTime() const {
        const auto left = std::chrono::ceil<std::chrono::seconds>(end_ - Clock::now()).count();
        if (onTerminal_ && left >= 0) {
            std::cout << "\r\033[K" << left << " s " << std::flush;
        }
    }

    void clearLine() const {
        if (isatty(STDIN_FILENO) == 1) {
            std::cout << "\r\033[K" << std::flush;
        }
    }

    const Trial& trial_;
    const Channel& watchdog_;
    Descriptor signals_;
    bool onTerminal_;
    Clock::time_point end_ = Clock::now() + trial_.timeout;
};

/// Prints how a trial ended. Throws Error unless the profile was kept.
void conclude(const std::string& name, const Json::Value& report) {
    const std::string state = report.get("state", "").asString();
    const std::string reason = report.get("reason", "").asString();
    const std::string profile = "profile " + inQuotes(name);
    if (state == kTrialAdopted) {
        std::cout << "Kept: " << profile << " is now the active one\n";
        return;
    }
    if (state == kTrialReverted) {
        throw Error(ErrorKind::kSystem, profile + " was not kept: " + reason +
                                            "; the active profile's rules are in force again");
    }
    throw Error(ErrorKind::kSystem, profile + " was not kept: " + reason);
}

/// Ends a trial that has no watchdog.
bool goBackWhole(const std::string& name) {
    return runWhole("Restoring the active profile", [&] { return revertTrial(name); });
}

/// The watchdog was killed, so this process restores the active profile.
void goBackWithoutWatchdog(const std::string& name) {
    const bool reverted = goBackWhole(name);
    stopListening();
    throw Error(ErrorKind::kSystem,
                "profile " + inQuotes(name) + " was not kept: the watchdog was killed" +
                    (reverted ? "; the active profile's rules are in force again"
                              : ", and the active profile could not be restored"));
}

/// The report on the start of the trial; nothing if the watchdog has ended.
std::optional<Json::Value> firstReport(const Trial& trial, const Channel& watchdog) {
    const Progress progress("Applying the rules of \"" + trial.name + "\"");
    return watchdog.receive();
}

void tryProfile(const TryOptions& options) {
    const Trial trial{options.profile, std::chrono::seconds(options.seconds)};
    requireTriable(trial.name);
    const sigset_t signals = blockEndingSignals();
    pid_t process = -1;
    std::cout << std::flush;
    const Channel watchdog = startWatchdog(trial, process);
    std::optional<Json::Value> report = firstReport(trial, watchdog);
    if (report && report->get("state", "").asString() == kTrialGoesOn) {
        report = Countdown(trial, watchdog, signals).wait();
    }
    (void)waitStatusOf(process);  // its report says how it ended
    if (!report) {
        goBackWithoutWatchdog(trial.name);
    }
    conclude(trial.name, *report);
}

// ---- From another terminal ----

/// The running trial's answer; nothing if it has just ended.
std::optional<Json::Value> askTrial(const Channel& trial, const char* what) {
    Json::Value message;
    message["ask"] = what;
    trial.send(message);
    return trial.receive();
}

void confirmTrial() {
    const std::optional<Channel> trial = callTrial();
    if (!trial) {
        throw Error(ErrorKind::kNotFound, "there is no trial");
    }
    const std::optional<Json::Value> report = askTrial(*trial, kAskConfirm);
    if (!report) {
        throw Error(ErrorKind::kNotFound, "the trial has just ended");
    }
    conclude(report->get("profile", "").asString(), *report);
}

/// Ends an abandoned trial.
void cancelAbandonedTrial() {
    const std::optional<std::string> name = abandonedTrial(StoreSnapshot());
    if (!name) {
        throw Error(ErrorKind::kNotFound, "there is no trial");
    }
    const bool reverted = goBackWhole(*name);
    stopListening();
    if (!reverted) {
        throw Error(ErrorKind::kRefused, "the active profile could not be restored");
    }
    std::cout << "Abandoned trial of " << inQuotes(*name)
              << " ended; the active profile's rules are in force\n";
}

void cancelTrial() {
    const std::optional<Channel> trial = callTrial();
    if (!trial) {
        cancelAbandonedTrial();
        return;
    }
    const std::optional<Json::Value> report = askTrial(*trial, kAskCancel);
    if (!report || report->get("state", "").asString() != kTrialReverted) {
        throw Error(ErrorKind::kSystem, "the trial did not end properly; see \"tarnfw status\"");
    }
    std::cout << "Trial of \"" << printable(report->get("profile", "").asString())
              << "\" ended; the active profile's rules are in force\n";
}

void run(const TryOptions& options) {
    requireRoot();
    if (options.confirm) {
        confirmTrial();
    } else if (options.cancel) {
        cancelTrial();
    } else if (options.profile.empty()) {
        throw UsageError("PROFILE is required");
    } else {
        tryProfile(options);
    }
}

}  // namespace

void addTryCommand(Command& app) {
    Command& command = app.subcommand(
        "try",
        "Put a profile's rules in force for a while; they stay only if somebody confirms them");
    const auto options = std::make_shared<TryOptions>();
    Option& profile = command.option(
        "PROFILE", options->profile,
        "A profile other than the active one; if confirmed, it becomes the active one");
    Option& timeout = command
                          .option("--timeout", options->seconds,
                                  "Seconds until the active profile's rules are restored")
                          .range(1, kMaxSeconds)
                          .showDefault();
    Option& confirm = command.flag("--confirm", options->confirm, "Keep the rules on trial");
    Option& cancel =
        command.flag("--cancel", options->cancel,
                     "Restore the previous rules immediately, also after an abandoned trial");
    confirm.excludes(profile).excludes(timeout).excludes(cancel);
    cancel.excludes(profile).excludes(timeout);
    command.footer(
        "During the trial, established connections pass only if the rules allow them, so a "
        "connection that keeps working is allowed.\nA watchdog restores the active profile's rules "
        "after the time limit, on Ctrl-C, when the terminal is lost and when this command is "
        "killed.");
    command.run([options] { run(*options); });
}

}  // namespace tarnfw
