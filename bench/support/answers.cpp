/// Replaces platform functions of platform/host, because the dynamic linker finds a program's own
/// functions first: the interfaces are those of a machine with a VPN server, and the router
/// interface is found without starting a process. So only the library's own work is measured.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tarncore.h"
#include "tarnnetsdk.h"

namespace {

constexpr const char* kInterfaces[] = {"eth0", "eth1", "ppp100", "ppp101", "tun0", "tun1"};

/// The stream with every answer. Opened once: the cost of a stream belongs to the platform.
struct Answer {
    char name[sizeof(TLIBNET_INTERFACE::name)] = {};
    std::size_t length = 0;
    std::size_t offset = 0;

    static ssize_t read(void* cookie, char* buffer, std::size_t size) {
        Answer& answer = *static_cast<Answer*>(cookie);
        const std::size_t left = answer.length - answer.offset;
        const std::size_t count = size < left ? size : left;
        std::memcpy(buffer, answer.name + answer.offset, count);
        answer.offset += count;
        return static_cast<ssize_t>(count);
    }
};

}  // namespace

int TLIBNetGetInterfaceInfo(TLIBNET_INTERFACE* table, int capacity, int /*selector*/,
                            int* /*extra*/) {
    int count = 0;
    for (const char* const name : kInterfaces) {
        if (count < capacity) {
            std::snprintf(table[count++].name, sizeof(table->name), "%s", name);
        }
    }
    return count;
}

/// Returns its last argument: no interface has a tunnel.
FILE* TLIBCPopen(const char* /*path*/, const char* mode, ...) {
    static Answer answer;
    static FILE* const stream =
        fopencookie(&answer, "r", {Answer::read, nullptr, nullptr, nullptr});
    const char* last = mode;
    va_list arguments;
    va_start(arguments, mode);
    while (const char* const word = va_arg(arguments, const char*)) {
        last = word;
    }
    va_end(arguments);
    answer.length = std::min(std::strlen(last), sizeof(answer.name));
    std::memcpy(answer.name, last, answer.length);
    answer.offset = 0;
    return stream;
}

int TLIBCPclose(FILE* stream) {
    clearerr(stream);  // it has been read to the end
    return 0;
}
