/// tarnfw try: puts a profile's rules in force for a while, and keeps them if somebody confirms.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <syslog.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <ctime>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "process/heldLog.h"
#include "process/trial.h"
#include "process/trialState.h"
#include "process/trialWatch.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/process.h"

namespace tarnfw {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultSeconds = 60;
constexpr int kMaxSeconds = 86400;
constexpr int kTick = 1000;  // ms between two lines of the countdown

// How long a terminal waits for the end of a trial that cannot end; the watchdog goes on.
constexpr std::chrono::seconds kEndPatience{35};

struct TryOptions {
    std::string profile;
    int seconds = kDefaultSeconds;
    bool confirm = false;
    bool cancel = false;
    bool quiet = false;
    Report report;
};

// ---- Conditions of a trial ----

/// Also says, unless `quiet`, what the trial opens and closes.
void requireTriable(const std::string& name, bool quiet) {
    requireNoTrial();
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
    if (const std::optional<std::string> abandoned = abandonedTrial(store)) {
        throw Error(ErrorKind::kBusy, "the trial of " + inQuotes(*abandoned) +
                                          " was abandoned; \"tarnfw try --cancel\" ends it");
    }
    requireRestorable(store.profile(name));
    context.control().requireBase();
    // Apply mode "lines" leaves out what the kernel refuses: other rules would be tried.
    const std::string refusal = Control::kernelRefusal(store.profile(name));
    if (!refusal.empty()) {
        throw Error(ErrorKind::kRefused, refusal);
    }
    // Whether there is room for the test profile.
    StoreTransaction(context.session(), StoreTransaction::Extent::kOneDocument).finish();
    if (quiet || !context.activeBefore()) {
        return;
    }
    const ComparedWith before =
        comparedWith(context, store.activeProfile(), *context.activeBefore());
    const std::string changes =
        withUnknown(changeText(before.profile, store.profile(name), context.machine()), before);
    if (!changes.empty()) {
        sayWrapped(capitalised(changes));
    }
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

/// Detaches from the terminal, so that its end does not end this process. The library's log goes to
/// a file: a terminal that takes no more output, as when its connection hangs, would stop the
/// watchdog.
void leaveTerminal(const Descriptor& log) {
    (void)setsid();
    (void)prctl(PR_SET_NAME, "tarnfw-watchdog");  // so that "killall tarnfw" does not find it
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    (void)dup2(nothing, STDIN_FILENO);
    (void)dup2(nothing, STDOUT_FILENO);
    (void)dup2(log.get(), STDERR_FILENO);
    printLogAtOnce(/*withNumber=*/false);
    (void)signal(SIGPIPE, SIG_IGN);  // of a program that ends before it has read its input
}

/// A watchdog, and the connection to it.
struct Watchdog {
    Channel channel;
    pid_t process = -1;
    Descriptor log = memoryFile("log");

    /// Has printed afterwards what it has logged, without what Retries has shown already.
    void printLog() const {
        std::string text;
        (void)lseek(log.get(), 0, SEEK_SET);
        (void)readAll(log.get(), text);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(kTrialTryingAgain) == std::string::npos) {
                printAfterwards(line + "\n");
            }
        }
    }

    /// A stopped watchdog would not go back.
    void wake() const {
        int status = 0;
        if (waitpid(process, &status, WNOHANG | WUNTRACED) == process && WIFSTOPPED(status)) {
            (void)kill(process, SIGCONT);
        }
    }
};

using WatchdogWork = std::function<void(const Channel& terminal, const Channel& listener)>;

/// Starts a process for `work`, which nothing ends but the work itself.
Watchdog startWatchdog(const WatchdogWork& work) {
    const Channel listener = listenForTerminals();
    std::pair<Channel, Channel> ends = connectedChannels();
    Watchdog watchdog;
    try {
        watchdog.process = startProcess("the watchdog", [&] {
            ends.first = Channel();
            leaveTerminal(watchdog.log);
            try {
                work(ends.second, listener);
                return 0;
            } catch (const std::exception& error) {
                syslog(LOG_ERR, "%s", error.what());
                return 1;  // the terminal starts another one, as after a killed watchdog
            }
        });
    } catch (const Error&) {
        stopListening();
        throw;
    }
    watchdog.channel = std::move(ends.first);
    return watchdog;
}

// ---- The terminal's side ----

/// Says on standard error why a trial is not over yet.
class Retries {
public:
    /// To be called when the trial is to end.
    void start() {
        if (!begin_) {
            begin_ = Clock::now();
        }
    }

    /// Returns whether the report is about that; after 35 seconds it is taken for the last one.
    bool isShown(const Json::Value& report) {
        if (report.get("state", "").asString() != kTrialEnding || isOver()) {
            return false;
        }
        start();
        const std::string obstacle = report.get("obstacle", "").asString();
        if (obstacle != shown_) {
            shown_ = obstacle;
            warn("the trial" + std::string(kTrialTryingAgain) + obstacle);
        }
        last_ = report;
        return true;
    }

    /// Whether the terminal has waited long enough, and there is a report to leave with.
    bool isLeft() const { return last_ && isOver(); }

    /// The report so far; nothing where all has gone well.
    const std::optional<Json::Value>& last() const { return last_; }

private:
    bool isOver() const { return begin_ && Clock::now() - *begin_ > kEndPatience; }

    std::optional<Clock::time_point> begin_;
    std::string shown_;
    std::optional<Json::Value> last_;
};

/// Waits for the person, the watchdog or a signal, and shows the time left.
class Countdown {
public:
    Countdown(const Trial& trial, const Watchdog& watchdog, const sigset_t& signals, Report& answer)
        : trial_(trial),
          watchdog_(watchdog),
          signals_(signalfd(-1, &signals, SFD_CLOEXEC)),
          answer_(answer),
          showsTime_(isatty(STDIN_FILENO) == 1 && !answer.isJson()),
          onTerminal_(showsTime_) {
        // Enter counts only when it is pressed after the rules are in force.
        (void)tcflush(STDIN_FILENO, TCIFLUSH);
    }

    /// The watchdog's last report after the first one, or the last one so far when going back takes
    /// too long or the person does not want to wait; nothing if the watchdog has ended.
    std::optional<Json::Value> wait(const Json::Value& first) {
        if (first.get("state", "").asString() == kTrialGoesOn) {
            announce();
        } else if (retries_.isShown(first)) {
            onTerminal_ = false;
        } else {
            return first;
        }
        for (;;) {
            std::array<pollfd, 3> events = {pollfd{watchdog_.channel.fd(), POLLIN, 0},
                                            pollfd{signals_.get(), POLLIN, 0},
                                            pollfd{onTerminal_ ? STDIN_FILENO : -1, POLLIN, 0}};
            (void)poll(events.data(), events.size(), kTick);
            if (events[0].revents != 0) {
                clearLine();
                std::optional<Json::Value> report = watchdog_.channel.receive();
                if (!report || !retries_.isShown(*report)) {
                    return report;
                }
                onTerminal_ = false;
            }
            if (retries_.isLeft() || (events[1].revents != 0 && retries_.last())) {
                return retries_.last();
            }
            if (events[1].revents != 0) {
                ask(kAskCancel);
                (void)takeSignal();
            }
            if (events[2].revents != 0) {
                ask(enterPressed() ? kAskConfirm : kAskCancel);
                onTerminal_ = false;
            }
            if (Clock::now() > end_) {
                watchdog_.wake();
            }
            showTime();
        }
    }

private:
    void ask(const char* what) {
        retries_.start();
        Json::Value message;
        message["ask"] = what;
        watchdog_.channel.send(message);
    }

    bool takeSignal() const {
        signalfd_siginfo taken{};
        return read(signals_.get(), &taken, sizeof(taken)) > 0;
    }

    /// A lost terminal, or Ctrl-D, does not confirm.
    static bool enterPressed() {
        std::array<char, 256> line{};
        return read(STDIN_FILENO, line.data(), line.size()) > 0;
    }

    void announce() {
        std::cout << "The rules of " << inQuotes(trial_.name) << " are in force for "
                  << counted(static_cast<std::size_t>(trial_.timeout.count()), "second") << ".\n"
                  << (onTerminal_ ? "Press Enter to keep them, Ctrl-C to restore the previous "
                                    "ones; from another terminal, "
                                  : "")
                  << "\"tarnfw try --confirm\" keeps them.\n"
                  << std::flush;
        answer_.setApplied();
        answer_["state"] = "in force";
        answer_["until"] = timeForPrograms(std::time(nullptr) + trial_.timeout.count());
        answer_.printNow();
    }

    void showTime() const {
        const auto left = std::chrono::ceil<std::chrono::seconds>(end_ - Clock::now()).count();
        if (onTerminal_ && left >= 0) {
            std::cout << "\r\033[K" << left << " s " << std::flush;
        }
    }

    void clearLine() const {
        if (showsTime_) {
            std::cout << "\r\033[K" << std::flush;
        }
    }

    const Trial& trial_;
    const Watchdog& watchdog_;
    Descriptor signals_;
    Report& answer_;
    const bool showsTime_;
    bool onTerminal_;
    Retries retries_;
    Clock::time_point end_ = Clock::now() + trial_.timeout;
};

/// Prints how a trial ended. Throws Error unless the profile was kept.
void conclude(const std::string& name, const Json::Value& report, Report& answer) {
    answer.setProfile(name);
    const std::string state = report.get("state", "").asString();
    const std::string reason = report.get("reason", "").asString();
    const std::string obstacle = report.get("obstacle", "").asString();
    const std::string profile = "profile " + inQuotes(name);
    if (state == kTrialAdopted) {
        answer.setChanged();
        answer.setApplied();
        answer["state"] = "kept";
        answer["until"] = Json::nullValue;
        std::cout << "Kept: " << profile << " is now the active one\n";
        return;
    }
    if (state == kTrialNotBegun) {
        throw Error(ErrorKind::kSystem, profile + " was not tried: " + reason);
    }
    if (state == kTrialReverted) {
        throw Error(ErrorKind::kSystem,
                    profile + " was not kept: " + reason + "; " + report.get("now", "").asString());
    }
    if (reason.empty()) {
        throw Error(ErrorKind::kBusy, "whether " + profile +
                                          " is kept is not known yet; \"tarnfw "
                                          "status\" shows when the trial is over");
    }
    throw Error(ErrorKind::kBusy,
                profile + " was not kept: " + reason +
                    (obstacle.empty() ? "" : "; the trial is not over yet: " + obstacle) +
                    "; \"tarnfw status\" shows when it is over");
}

/// Waits for the watchdog's next report; nothing if it has ended.
std::optional<Json::Value> nextReport(const Watchdog& watchdog) {
    while (!watchdog.channel.awaits(std::chrono::milliseconds(kTick))) {
        watchdog.wake();
    }
    return watchdog.channel.receive();
}

/// Ends a trial whose watchdog is gone, with a new one; the last report. Whoever kills that one,
/// too, leaves the trial abandoned.
Json::Value endAbandoned(const std::string& name, const std::string& reason) {
    const Watchdog watchdog = startWatchdog([&](const Channel& terminal, const Channel& listener) {
        watchAbandonedTrial(name, reason, terminal, listener);
    });
    const Progress progress("Restoring the previous rules");
    Retries retries;
    retries.start();
    for (;;) {
        const bool heard = watchdog.channel.awaits(std::chrono::milliseconds(kTick));
        if (heard) {
            const std::optional<Json::Value> report = watchdog.channel.receive();
            if (!report) {
                throw Error(ErrorKind::kSystem, "the watchdog of the trial of " + inQuotes(name) +
                                                    " was killed; see \"tarnfw status\"");
            }
            if (!retries.isShown(*report)) {
                watchdog.printLog();
                return *report;
            }
        }
        if (retries.isLeft()) {
            return *retries.last();
        }
        watchdog.wake();
    }
}

void tryProfile(TryOptions& options) {
    const Trial trial{options.profile, std::chrono::seconds(options.seconds)};
    options.report.setProfile(trial.name);
    requireTriable(trial.name, options.quiet);
    const sigset_t signals = blockEndingSignals();
    std::cout << std::flush;
    const Watchdog watchdog = startWatchdog([&](const Channel& terminal, const Channel& listener) {
        watchTrial(trial, terminal, listener);
    });
    std::optional<Json::Value> report;
    {
        const Progress progress("Applying the rules of \"" + trial.name + "\"");
        report = nextReport(watchdog);
    }
    if (report) {
        report = Countdown(trial, watchdog, signals, options.report).wait(*report);
    }
    watchdog.printLog();
    if (!report) {
        const bool killed = !exitStatusOf(watchdog.process);  // until then it may seem to listen
        report =
            endAbandoned(trial.name, killed ? "the watchdog was killed" : "the watchdog failed");
    }
    conclude(trial.name, *report, options.report);
}

// ---- From another terminal ----

void confirmTrial(Report& answer) {
    const std::optional<Channel> trial = callTrial();
    if (!trial) {
        throw Error(ErrorKind::kNotFound, StoreSnapshot().firewallEnabled()
                                              ? "there is no trial"
                                              : "there is no trial: the firewall is disabled, and "
                                                "nothing was kept");
    }
    const Json::Value report = askTrial(*trial, kAskConfirm);
    conclude(report.get("profile", "").asString(), report, answer);
}

/// Prints that a trial was cancelled. Throws Error where it is not over.
void concludeCancelled(const std::string& whose, const Json::Value& report, Report& answer) {
    if (report.get("state", "").asString() != kTrialReverted) {
        conclude(report.get("profile", "").asString(), report, answer);
        return;
    }
    answer.setProfile(report.get("profile", "").asString());
    answer.setApplied();
    answer["state"] = "reverted";
    answer["until"] = Json::nullValue;
    std::cout << whose << " of " << inQuotes(report.get("profile", "").asString()) << " ended; "
              << report.get("now", "").asString() << '\n';
}

void cancelTrial(Report& answer) {
    if (const std::optional<Channel> trial = callTrial()) {
        concludeCancelled("Trial", askTrial(*trial, kAskCancel), answer);
        return;
    }
    const std::optional<std::string> name = abandonedTrial(StoreSnapshot());
    if (!name) {
        throw Error(ErrorKind::kNotFound, "there is no trial");
    }
    (void)blockEndingSignals();
    concludeCancelled("Abandoned trial", endAbandoned(*name, "cancelled"), answer);
}

void run(TryOptions& options) {
    requireRoot();
    if (options.confirm) {
        confirmTrial(options.report);
    } else if (options.cancel) {
        cancelTrial(options.report);
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
    Option& timeout =
        command
            .option("--timeout", options->seconds,
                    "Seconds until the previous rules are restored if nobody confirms")
            .range(1, kMaxSeconds)
            .showDefault();
    Option& confirm =
        command.flag("--confirm", options->confirm, "Keep the rules of the running trial");
    Option& cancel = command.flag(
        "--cancel", options->cancel,
        "Restore the previous rules immediately; also ends a trial that a crash has left");
    Option& quiet =
        command.flag("--quiet", options->quiet, "Do not say what the trial opens and closes");
    confirm.excludes(profile).excludes(timeout).excludes(cancel).excludes(quiet);
    cancel.excludes(profile).excludes(timeout).excludes(quiet);
    command.footer(
        "Enter, or \"tarnfw try --confirm\" in another terminal, keeps the rules. After the time "
        "limit, on Ctrl-C, when the terminal is lost and when this command is killed, the previous "
        "ones are restored: by a process of its own, the watchdog, which tries until it "
        "succeeds.\nDuring the trial, established connections pass only if the rules allow them, "
        "so a connection that keeps working is allowed. Commands that would apply other rules are "
        "refused; \"tarnfw disable\" ends the trial at once, without any rules.");
    runReporting(command, options->report, [options] { run(*options); });
}

}  // namespace tarnfw
