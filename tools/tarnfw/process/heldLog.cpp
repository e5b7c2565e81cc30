#include "process/heldLog.h"

#include <syslog.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <vector>

namespace tarnfw {
namespace {

struct HeldLog {
    bool holds = false;
    std::vector<std::string> lines;
};

/// The log is the process's: syslog() is called without any object.
HeldLog& heldLog() {
    static HeldLog held;
    return held;
}

}  // namespace

void holdLog() {
    openlog("tarnfw", 0, LOG_USER);
    heldLog().holds = true;
}

void printLogAtOnce(bool withNumber) {
    heldLog() = HeldLog();
    openlog("tarnfw", LOG_PERROR | (withNumber ? LOG_PID : 0), LOG_USER);
}

bool isLogHeld() {
    return heldLog().holds;
}

void logUnprinted(const std::string& text) {
    const bool holds = isLogHeld();
    openlog("tarnfw", 0, LOG_USER);
    heldLog().holds = false;
    syslog(LOG_ERR, "%s", text.c_str());
    if (holds) {
        holdLog();
    } else {
        printLogAtOnce(/*withNumber=*/false);
    }
}

void printAfterwards(const std::string& lines) {
    if (!isLogHeld()) {
        std::cerr << lines;
        return;
    }
    std::vector<std::string>& held = heldLog().lines;
    std::istringstream input(lines);
    for (std::string line; std::getline(input, line);) {
        if (std::find(held.begin(), held.end(), line) == held.end()) {
            held.push_back(line);
        }
    }
}

void printHeldLog() {
    for (const std::string& line : heldLog().lines) {
        std::cerr << line << '\n';
    }
    heldLog().lines.clear();
}

}  // namespace tarnfw
