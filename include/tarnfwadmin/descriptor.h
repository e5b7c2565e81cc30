/// Open files that are closed with the object, and reading and writing them whole.
#pragma once

#include <unistd.h>

#include <string>
#include <utility>

#include "tarnfirewall/fwExport.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Owns a file descriptor.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { (void)close(); }
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    /// -1 when there is none.
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    /// Gives the descriptor away.
    int release() { return std::exchange(fd_, -1); }

    /// Closes it now. False where that fails, as for a file that was not written.
    bool close() {
        const int fd = release();
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_ = -1;
};

/// A pipe. Throws Error, kSystem, when it cannot be made.
struct Pipe {
    Pipe();

    Descriptor readEnd;
    Descriptor writeEnd;
};

/// An empty file in memory; `name` is for people who list the open files of a process.
/// Throws Error, kSystem, when it cannot be made.
Descriptor memoryFile(const char* name);

/// Appends what is left of a file or stream. False, with errno, when it cannot be read.
bool readAll(int fd, std::string& text);

/// Writes all of a text. False, with errno, when that fails.
bool writeText(int fd, const std::string& text);

/// Flushes a file or directory to the disk. False, with errno, when that fails; true on a file
/// system that cannot do it.
bool flush(int fd);

}  // namespace tarnfw
