#include "hostLog.h"

#include <cstdarg>
#include <cstdio>

namespace host {

void logLine(int priority, const char* source, int line, const char* format, ...) {
    // Cut at a fixed length and without an allocation: this also runs when memory has run out.
    char message[2048];
    std::va_list args;
    va_start(args, format);
    if (std::vsnprintf(message, sizeof message, format, args) < 0) {
        message[0] = '\0';
    }
    va_end(args);
    syslog(priority, "%s:%d %s", source, line, message);
}

}  // namespace host
