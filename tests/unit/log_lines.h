/// The captured system log as text, so that a test compares everything that was logged, in order.
#pragma once

#include <syslog.h>

#include <string>
#include <vector>

#include "fake_platform.h"

/// The captured lines as "err fwDB: The profile home already exist"; "debug" for LOG_DEBUG, the
/// number of any other level, and "fwDB(no line)" where the line number is missing.
inline std::vector<std::string> logLines(const FakePlatform& platform) {
    std::vector<std::string> lines;
    for (const LoggedLine& line : platform.log()) {
        const std::string level = line.priority == LOG_ERR     ? "err"
                                  : line.priority == LOG_DEBUG ? "debug"
                                                               : std::to_string(line.priority);
        const std::string source = line.source + (line.line > 0 ? "" : "(no line)");
        lines.push_back(level + " " + source + ": " + line.text);
    }
    return lines;
}
