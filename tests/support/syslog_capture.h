/// Captures the system log of a test program and of the shared libraries it is linked with: its
/// syslog functions take the place of the C library's. Not for programs with FakePlatform, which
/// brings its own.
#pragma once

#include <string>
#include <vector>

/// One line for the system log.
struct CapturedLine {
    int priority = 0;
    std::string text;
};

/// Everything logged since the program began or clearCapturedLog() was called, by any thread.
std::vector<CapturedLine> capturedLog();

void clearCapturedLog();

/// How many lines of this priority contain `part`.
int countLogged(int priority, const std::string& part);
