/// The system log of the whole program, its shared libraries included: syslog() in the place of the
/// C library's. The libraries log names from documents unchanged, and LOG_PERROR prints each line
/// on the terminal as well.

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>

#include "tarnfwadmin/text.h"

// Without <syslog.h>, which defines syslog() inline where the C library is fortified.
extern "C" void vsyslog(int priority, const char* format, va_list args);

namespace {

__attribute__((format(printf, 2, 3))) void send(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

std::string messageOf(const char* format, va_list args) {
    va_list measured;
    va_copy(measured, args);
    const int length = vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string message;
    if (length > 0) {
        message.resize(static_cast<std::size_t>(length));
        (void)vsnprintf(message.data(), message.size() + 1, format, args);
    }
    if (!message.empty() && message.back() == '\n') {
        message.pop_back();  // vsyslog() ends the line itself
    }
    return message;
}

/// Raises nothing: the callers are C functions, and some log that there is no memory.
void sendPrintable(int priority, const char* format, va_list args) noexcept {
    try {
        send(priority, "%s", tarnfw::printable(messageOf(format, args)).c_str());
    } catch (const std::exception&) {
        send(priority, "There is no memory for a line of the log");
    }
}

}  // namespace

// The two functions that <syslog.h> leads to, without and with fortification. Exported, so that
// shared libraries find these first.
extern "C" {

__attribute__((visibility("default"), format(printf, 2, 3))) void syslog(int priority,
                                                                         const char* format, ...) {
    va_list args;
    va_start(args, format);
    sendPrintable(priority, format, args);
    va_end(args);
}

// NOLINTNEXTLINE: the C library's name
__attribute__((visibility("default"), format(printf, 3, 4))) void __syslog_chk(int priority,
                                                                               int /*flag*/,
                                                                               const char* format,
                                                                               ...) {
    va_list args;
    va_start(args, format);
    sendPrintable(priority, format, args);
    va_end(args);
}
}
