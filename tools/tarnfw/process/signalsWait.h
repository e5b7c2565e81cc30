/// A guard that holds signals back.
#pragma once

#include <signal.h>

namespace tarnfw {

/// Signals that would end the tool are held back until the object is destroyed. Guards may
/// be nested.
class SignalsWait {
public:
    SignalsWait() {
        sigset_t signals;
        (void)sigemptyset(&signals);
        for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
            (void)sigaddset(&signals, number);
        }
        (void)sigprocmask(SIG_BLOCK, &signals, &before_);
    }
    ~SignalsWait() { (void)sigprocmask(SIG_SETMASK, &before_, nullptr); }
    SignalsWait(const SignalsWait&) = delete;
    SignalsWait& operator=(const SignalsWait&) = delete;

private:
    sigset_t before_{};
};

}  // namespace tarnfw
