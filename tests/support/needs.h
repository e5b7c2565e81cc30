/// What a case needs that an ordinary user's sandbox lacks. There the user namespace has one user,
/// who is its root, and no right over the machine. sandbox_main names the cases that are left out
/// for that.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

/// Whether files can be given to the user 1000.
inline bool otherUsersAreThere() {
    constexpr unsigned long kUser = 1000;
    std::ifstream map("/proc/self/uid_map");
    unsigned long first = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    while (map >> first >> outside >> count) {
        if (first <= kUser && kUser - first < count) {
            return true;
        }
    }
    return false;
}

/// Whether a socket may have a larger buffer than the machine's limit.
inline bool buffersMayBeLarge() {
    const int end = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int size = 1 << 20;
    const bool may = setsockopt(end, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0;
    close(end);
    return may;
}

#define TARN_NEEDS_OTHER_USERS()                        \
    if (!otherUsersAreThere()) {                        \
        GTEST_SKIP() << "needs a user besides its own"; \
    }                                                   \
    static_assert(true)

#define TARN_NEEDS_LARGE_BUFFERS()                              \
    if (!buffersMayBeLarge()) {                                 \
        GTEST_SKIP() << "needs a buffer above the usual limit"; \
    }                                                           \
    static_assert(true)
