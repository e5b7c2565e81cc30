#include "syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

class Capture {
public:
    static Capture& instance() {
        static Capture capture;
        return capture;
    }

    void add(int priority, const char* format, va_list args) {
        char text[2048];
        (void)vsnprintf(text, sizeof text, format, args);
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({priority, text});
    }

    std::vector<CapturedLine> lines() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

    void clear() {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    std::mutex mutex_;
    std::vector<CapturedLine> lines_;
};

}  // namespace

// The functions that the C library's header leads to, with and without fortification. Exported, so
// that shared libraries find these first.
extern "C" {

__attribute__((visibility("default"))) void vsyslog(int priority, const char* format,
                                                    va_list args) {
    Capture::instance().add(priority, format, args);
}

__attribute__((visibility("default"))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    Capture::instance().add(priority, format, args);
    va_end(args);
}

// NOLINTNEXTLINE: the C library's name
__attribute__((visibility("default"))) void __syslog_chk(int priority, int /*flag*/,
                                                         const char* format, ...) {
    va_list args;
    va_start(args, format);
    Capture::instance().add(priority, format, args);
    va_end(args);
}

// NOLINTNEXTLINE: the C library's name
__attribute__((visibility("default"))) void __vsyslog_chk(int priority, int /*flag*/,
                                                          const char* format, va_list args) {
    Capture::instance().add(priority, format, args);
}
}

std::vector<CapturedLine> capturedLog() {
    return Capture::instance().lines();
}

void clearCapturedLog() {
    Capture::instance().clear();
}

int countLogged(int priority, const std::string& part) {
    int count = 0;
    for (const CapturedLine& line : capturedLog()) {
        if (line.priority == priority && line.text.find(part) != std::string::npos) {
            ++count;
        }
    }
    return count;
}
