#include "hostFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "hostCall.h"

namespace host {

namespace {

int writeAll(int fd, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t put = write(fd, content.data() + done, content.size() - done);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put < 0) {
            return errno;
        }
        done += static_cast<std::size_t>(put);
    }
    return 0;
}

int writeNew(const std::string& path, const std::string& content, mode_t mode) {
    const Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file || fchmod(file.get(), mode) != 0) {
        return errno;
    }
    return writeAll(file.get(), content);
}

}  // namespace

int readWholeFile(const std::string& path, off_t most, std::string& content) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info {};
    if (!file || fstat(file.get(), &info) != 0) {
        return errno;
    }
    if (!S_ISREG(info.st_mode)) {
        return S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    }
    if (info.st_size > most) {
        return EFBIG;
    }
    std::string read(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < read.size()) {
        const ssize_t got = ::read(file.get(), &read[done], read.size() - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return errno;
        }
        if (got == 0) {
            break;  // it has become shorter
        }
        done += static_cast<std::size_t>(got);
    }
    read.resize(done);
    content = std::move(read);
    return 0;
}

int replaceFile(const std::string& path, const std::string& content, mode_t mode) {
    const std::string temporary = path + ".tmp";
    int error = writeNew(temporary, content, mode);
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(temporary.c_str());  // often it was not even made
    }
    return error;
}

}  // namespace host
