#include "tarnfwadmin/descriptor.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "tarnfwadmin/error.h"

namespace tarnfw {

Pipe::Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    readEnd = Descriptor(ends[0]);
    writeEnd = Descriptor(ends[1]);
}

Descriptor memoryFile(const char* name) {
    Descriptor file(memfd_create(name, MFD_CLOEXEC));
    if (!file) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot make a file in memory: ") + std::strerror(errno));
    }
    return file;
}

bool readAll(int fd, std::string& text) {
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

bool writeText(int fd, const std::string& text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t length = write(fd, text.data() + done, text.size() - done);
        if (length < 0 && errno != EINTR) {
            return false;
        }
        done += static_cast<std::size_t>(length > 0 ? length : 0);
    }
    return true;
}

bool flush(int fd) {
    return fsync(fd) == 0 || errno == EINVAL;
}

}  // namespace tarnfw
