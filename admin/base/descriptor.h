/// An open file, closed with the object.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <array>
#include <string>
#include <utility>

namespace tarnfw {

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

/// Appends what is left of a file or stream. False, with errno, when it cannot be read.
inline bool readAll(int fd, std::string& text) {
    std::array<char, 65536> chunk;
    for (;;) {
        const ssize_t length = read(fd, chunk.data(), chunk.size());
        if (length > 0) {
            text.append(chunk.data(), static_cast<std::size_t>(length));
        } else if (length == 0 || errno != EINTR) {
            return length == 0;
        }
    }
}

/// Writes all of a text. False, with errno, when that fails.
inline bool writeText(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t length = write(fd, text.data() + done, text.size() - done);
        if (length < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<std::size_t>(length > 0 ? length : 0);
    }
    return true;
}

}  // namespace tarnfw
