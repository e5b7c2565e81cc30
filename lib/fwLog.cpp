#include "fwLog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "fwPrintable.h"

namespace FW {

void logLine(int priority, const char* source, int line, const char* format, ...) {
    std::va_list args;
    std::va_list measured;
    va_start(args, format);
    va_copy(measured, args);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string message;
    if (length > 0) {
        // vsnprintf's terminating zero overwrites the one that a string has after its end.
        message.resize(static_cast<std::size_t>(length));
        std::vsnprintf(&message[0], message.size() + 1, format, args);
    }
    va_end(args);
    // Names in messages come from documents, and some callers print their log on a terminal. A line
    // feed at the end is the message's own.
    const bool hasLineFeed = !message.empty() && message.back() == '\n';
    makePrintable(message);
    if (hasLineFeed) {
        message.back() = '\n';
    }
    syslog(priority, "%s:%d %s", source, line, message.c_str());
}

}  // namespace FW
