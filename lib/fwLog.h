/// One helper through which every line for the system log goes.
///
/// A source names itself once, in its unnamed namespace:
///     constexpr char kSource[] = "fwDB";
/// The name is written out, not derived from __FILE__, because it is part of the message.
#pragma once

#include <syslog.h>

namespace FW {

/// Writes "source:line message" at `priority` (LOG_ERR, ...). `format` and what follows are
/// printf's. Names go into the log unchanged: a program that also prints its log on a terminal
/// makes the lines printable itself.
void logLine(int priority, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace FW

// Macros, because the line number must be the caller's.
#define FW_LOG_ERR(...) ::FW::logLine(LOG_ERR, kSource, __LINE__, __VA_ARGS__)
#define FW_LOG_DEBUG(...) ::FW::logLine(LOG_DEBUG, kSource, __LINE__, __VA_ARGS__)
