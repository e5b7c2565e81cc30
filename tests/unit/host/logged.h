/// Captured log lines of one priority, for matchers.
#pragma once

#include <string>
#include <vector>

#include "syslog_capture.h"

/// The lines of `priority` (LOG_ERR), whole ("tarnkm:12 The module ..."), in order.
inline std::vector<std::string> logged(int priority) {
    std::vector<std::string> texts;
    for (const CapturedLine& line : capturedLog()) {
        if (line.priority == priority) {
            texts.push_back(line.text);
        }
    }
    return texts;
}
