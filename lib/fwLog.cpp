#include "fwLog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

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
    syslog(priority, "%s:%d %s", source, line, message.c_str());
}

}  // namespace FW
