#include "hostLog.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "fwPrintable.h"

namespace host {

void logLine(int priority, const char* source, int line, const char* format, ...) {
    // Fixed length and no allocation: this also runs when memory has run out.
    char message[2048];
    std::va_list args;
    va_start(args, format);
    if (std::vsnprintf(message, sizeof message, format, args) < 0) {
        message[0] = '\0';
    }
    va_end(args);
    message[FW::makePrintable(message, std::strlen(message))] = '\0';
    syslog(priority, "%s:%d %s", source, line, message);
}

std::string commandLine(const char* const* argv) {
    std::string line;
    for (std::size_t i = 0; argv[i] != nullptr; ++i) {
        if (i > 0) {
            line += ' ';
        }
        line += argv[i];
    }
    FW::makePrintable(line);
    return line;
}

}  // namespace host
