/// The system log of the whole program, its shared libraries included: syslog() in the place of the
/// C library's. The libraries log names from documents unchanged, and each line is printed on the
/// terminal as well: by LOG_PERROR, or after what the command says, see heldLog.h.

#include <stdio.h>

#include <cstdarg>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "process/heldLog.h"
#include "tarnfwadmin/text.h"

// Without <syslog.h>, which defines syslog() inline where the C library is fortified.
extern "C" {
void vsyslog(int priority, const char* format, va_list args);
int setlogmask(int mask);
}

namespace {

constexpr char kNoMemory[] = "There is no memory for a line of the log";

__attribute__((format(printf, 2, 3))) void send(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

struct MemoryFree {
    void operator()(char* memory) const { std::free(memory); }
};

bool isLogged(int priority) {
    constexpr int kPriorities = 7;  // the rest says which part of the system it is
    constexpr int kAsItIs = 0;
    return (setlogmask(kAsItIs) & (1 << (priority & kPriorities))) != 0;
}

/// Raises nothing: the callers are C functions, and some log that there is no memory.
void sendPrintable(int priority, const char* format, va_list args) noexcept {
    char* text = nullptr;
    const int length = vasprintf(&text, format, args);
    const std::unique_ptr<char, MemoryFree> owned(length >= 0 ? text : nullptr);
    try {
        std::string message = owned ? owned.get() : kNoMemory;
        if (!message.empty() && message.back() == '\n') {
            message.pop_back();  // vsyslog() ends the line itself
        }
        message = tarnfw::printable(std::move(message));
        send(priority, "%s", message.c_str());
        if (tarnfw::isLogHeld() && isLogged(priority)) {
            tarnfw::printAfterwards("tarnfw: " + message + "\n");
        }
    } catch (const std::exception&) {
        send(priority, "%s", kNoMemory);
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
