// Put in front of a program by LD_PRELOAD, notes which documents of the store and of the service
// catalogue it opens, and which programs of iptables it runs, a line each in the file $OPEN_PROBE:
//
//     tool /usr/tarn/etc/firewall.d/1.json        opened by the program or libtarnfwadmin
//     library /usr/tarn/etc/firewall.d/1.json     opened by an operation of libtarnfirewall
//     run /sbin/iptables -w 30 -t filter -S
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char* kDirectories[] = {
    "/usr/tarn/etc/firewall.d/",
    "/usr/tarn/etc/services.d/",
    "/usr/tarn/etc.defaults/services.d/",
};

void note(const std::string& line) {
    const char* const path = std::getenv("OPEN_PROBE");
    if (path == nullptr) {
        return;
    }
    // Not through a function of this file.
    const auto fd = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    if (fd >= 0) {
        (void)!write(fd, line.data(), line.size());
        (void)close(fd);
    }
}

/// A document: "*.json" in one of the directories, not below it.
bool isDocument(const std::string& path) {
    for (const char* const directory : kDirectories) {
        const std::size_t length = std::strlen(directory);
        if (path.compare(0, length, directory) == 0 &&
            path.find('/', length) == std::string::npos && path.size() > length + 5 &&
            path.compare(path.size() - 5, 5, ".json") == 0) {
            return true;
        }
    }
    return false;
}

bool calledByLibrary() {
    std::array<void*, 100> frames{};
    const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
    for (int i = 0; i < count; ++i) {
        Dl_info info{};
        if (dladdr(frames[static_cast<std::size_t>(i)], &info) != 0 && info.dli_fname != nullptr &&
            std::strstr(info.dli_fname, "/libtarnfirewall.so") != nullptr) {
            return true;
        }
    }
    return false;
}

void noteOpening(const char* path) {
    thread_local bool busy = false;  // what this function does opens nothing that counts
    if (busy || path == nullptr || !isDocument(path)) {
        return;
    }
    busy = true;
    note(std::string(calledByLibrary() ? "library " : "tool ") + path + "\n");
    busy = false;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

mode_t modeFrom(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

/// Notes a run of iptables, in whose process this is.
__attribute__((constructor)) void noteRun() {
    std::array<char, 4096> words{};
    const auto fd =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/cmdline", O_RDONLY | O_CLOEXEC));
    const ssize_t length = fd < 0 ? -1 : read(fd, words.data(), words.size());
    (void)close(fd);
    if (length <= 0 || std::strstr(words.data(), "tables") == nullptr) {
        return;
    }
    std::string line(words.data(), static_cast<std::size_t>(length));
    for (char& c : line) {
        c = c == '\0' ? ' ' : c;
    }
    note("run " + line + "\n");
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeFrom(flags, arguments);
    va_end(arguments);
    noteOpening(path);
    return next<int (*)(const char*, int, ...)>("open")(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeFrom(flags, arguments);
    va_end(arguments);
    noteOpening(path);
    return next<int (*)(const char*, int, ...)>("open64")(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeFrom(flags, arguments);
    va_end(arguments);
    noteOpening(path);
    return next<int (*)(int, const char*, int, ...)>("openat")(directory, path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeFrom(flags, arguments);
    va_end(arguments);
    noteOpening(path);
    return next<int (*)(int, const char*, int, ...)>("openat64")(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    noteOpening(path);
    return next<FILE* (*)(const char*, const char*)>("fopen")(path, mode);
}

FILE* fopen64(const char* path, const char* mode) {
    noteOpening(path);
    return next<FILE* (*)(const char*, const char*)>("fopen64")(path, mode);
}

}  // extern "C"
