/// Helpers of all platform functions: report a failure, and stop exceptions at the C interface.
#pragma once

#include <cerrno>
#include <exception>
#include <new>

#include "fwSpawn.h"
#include "hostLog.h"
#include "tarncore.h"

namespace host {

/// Puts a failure into the error state and into errno. Returns -1, for the caller to return.
inline int fail(int code, const char* source, int line) {
    TLIBCErrSetEx(code, source, line);
    errno = code == kErrorBadParameter ? EINVAL : code;
    return -1;
}

/// Runs `work` for a function with C linkage. An exception is caught: it is logged and
/// put into the error state, and the result is `onException`.
template <typename Result, typename Work>
Result guarded(const char* source, int line, Result onException, Work work) noexcept {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        logLine(LOG_ERR, source, line, "Out of memory");
        (void)fail(ENOMEM, source, line);
    } catch (const std::exception& exception) {
        logLine(LOG_ERR, source, line, "Unexpected failure: %s", exception.what());
        (void)fail(EIO, source, line);
    }
    return onException;
}

using FW::Descriptor;

}  // namespace host

// Macros, because the line number must be the caller's.
#define HOST_FAIL(code) ::host::fail((code), kSource, __LINE__)
#define HOST_GUARDED(onException, ...) \
    ::host::guarded(kSource, __LINE__, (onException), __VA_ARGS__)
