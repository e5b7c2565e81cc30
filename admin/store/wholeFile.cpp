#include "tarnfwadmin/wholeFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

/// A file under a passing name, which is gone with the object.
class PassingFile {
public:
    explicit PassingFile(const std::string& path)
        : name_(path + ".XXXXXX"), fd_(mkostemp(name_.data(), O_CLOEXEC)) {}
    ~PassingFile() {
        if (fd_ >= 0) {
            close(fd_);
            (void)unlink(name_.c_str());  // fails after a renaming, which is as well
        }
    }
    PassingFile(const PassingFile&) = delete;
    PassingFile& operator=(const PassingFile&) = delete;

    /// All of it, on the disk.
    bool write(const std::string& text, mode_t mode) const {
        return fd_ >= 0 && writeText(fd_, text) && fchmod(fd_, mode) == 0 && fsync(fd_) == 0;
    }

    bool become(const std::string& path, Existing existing) const {
        return existing == Existing::kReplaced ? rename(name_.c_str(), path.c_str()) == 0
                                               : link(name_.c_str(), path.c_str()) == 0;
    }

private:
    std::string name_;
    int fd_;
};

/// The name of a file is in its directory, and that has to reach the disk as well.
void syncDirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        (void)fsync(fd);  // some file systems cannot; the file is there all the same
        close(fd);
    }
}

}  // namespace

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

void writeWholeFile(const std::string& path, const std::string& text, mode_t mode,
                    Existing existing) {
    const PassingFile file(path);
    if (!file.write(text, mode) || !file.become(path, existing)) {
        throw Error(ErrorKind::kSystem,
                    "cannot write " + printable(path) + ": " + std::strerror(errno));
    }
    syncDirectoryOf(path);
}

}  // namespace tarnfw
