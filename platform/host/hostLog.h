/// All messages of the platform to the system log go through here.
///
/// A source names itself once, in its unnamed namespace:
///     constexpr char kSource[] = "tarnkm";
#pragma once

#include <syslog.h>

#include <string>

namespace host {

/// The error code of an invalid argument; other codes are values of errno.
constexpr int kErrorBadParameter = 0x0D00;

/// Writes "source:line message" at `priority` (LOG_ERR, ...). `format` and what follows are
/// printf's.
void logLine(int priority, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// The arguments of a program joined by blanks, for a message. Control characters become "?".
std::string commandLine(const char* const* argv);

}  // namespace host

// Macros, because the line must be the caller's.
#define HOST_LOG_ERR(...) ::host::logLine(LOG_ERR, kSource, __LINE__, __VA_ARGS__)
#define HOST_LOG_WARNING(...) ::host::logLine(LOG_WARNING, kSource, __LINE__, __VA_ARGS__)
#define HOST_LOG_NOTICE(...) ::host::logLine(LOG_NOTICE, kSource, __LINE__, __VA_ARGS__)
#define HOST_LOG_DEBUG(...) ::host::logLine(LOG_DEBUG, kSource, __LINE__, __VA_ARGS__)
