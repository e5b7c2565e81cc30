#include "hostFile.h"

#include <fcntl.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace host {

namespace {

constexpr char kSource[] = "hostFile";

constexpr char kTemporary[] = ".XXXXXX";  // for mkostemp
constexpr char kRefused[] = ".refused-";

// ---- Reading ----

// Opens a file whose content can be trusted. 0, or an errno code as in readTrustedFile().
int openTrusted(const std::string& path, Descriptor& file, struct stat& info) {
    // Non-blocking, since opening a planted FIFO would wait for a writer.
    file =
        Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        const int error = errno;
        if (error == ELOOP) {
            HOST_LOG_ERR("Refused %s: it is a symbolic link", path.c_str());
        } else if (error == ENXIO) {  // a socket
            HOST_LOG_ERR("Refused %s: it is no regular file", path.c_str());
            return EINVAL;
        }
        return error;
    }
    if (fstat(file.get(), &info) != 0) {
        return errno;
    }
    if (!S_ISREG(info.st_mode)) {
        HOST_LOG_ERR("Refused %s: it is no regular file", path.c_str());
        return EINVAL;
    }
    if (info.st_uid != 0 && info.st_uid != geteuid()) {
        HOST_LOG_ERR("Refused %s: it belongs to user %u", path.c_str(), info.st_uid);
        return EPERM;
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        HOST_LOG_ERR("Refused %s: group or others may write it (mode %04o)", path.c_str(),
                     info.st_mode & 07777U);
        return EPERM;
    }
    return 0;
}

// Reads to the end, even if the file has grown. 0 or an errno code.
int readAll(const Descriptor& file, off_t most, std::string& content) {
    char buffer[4096];
    std::string text;
    for (;;) {
        const ssize_t length = read(file.get(), buffer, sizeof buffer);
        if (length == 0) {
            content = std::move(text);
            return 0;
        }
        if (length > 0) {
            text.append(buffer, static_cast<std::size_t>(length));
        } else if (errno != EINTR) {
            return errno;
        }
        if (text.size() > static_cast<std::size_t>(most)) {
            return EFBIG;
        }
    }
}

// ---- Writing ----

int writeAll(const Descriptor& file, const std::string& content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t length = write(file.get(), content.data() + done, content.size() - done);
        if (length >= 0) {
            done += static_cast<std::size_t>(length);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

int fill(const Descriptor& file, const std::string& content, const FileOwner& owner) {
    if (const int error = writeAll(file, content)) {
        return error;
    }
    // The owner first: changing it may clear bits of the mode.
    struct stat info = {};
    if (fstat(file.get(), &info) != 0) {
        return errno;
    }
    if ((info.st_uid != owner.uid || info.st_gid != owner.gid) &&
        fchown(file.get(), owner.uid, owner.gid) != 0) {
        return errno;
    }
    // On disk before it is renamed, so that a crash leaves the old file or the new one.
    if (fchmod(file.get(), owner.mode) != 0 || fsync(file.get()) != 0) {
        return errno;
    }
    return 0;
}

// Writes the names in a file's directory to the disk. The file is replaced even if that fails.
void flushDirectoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor directory(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory) {
        (void)fsync(directory.get());
    }
}

// ---- Setting aside ----

bool isSame(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A name that nobody can guess and occupy.
int randomName(const std::string& name, std::string& aside) {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz012345";  // 32 of them
    unsigned char random[6];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        return errno;
    }
    aside = name + kRefused;
    for (const unsigned char byte : random) {
        aside += kLetters[byte % (sizeof kLetters - 1)];
    }
    return 0;
}

// Moves an entry out of the way. 0 or an errno code.
int moveAside(int parent, const std::string& name, const std::string& aside, const Found& entry) {
    if (renameat2(parent, name.c_str(), parent, aside.c_str(), RENAME_NOREPLACE) != 0) {
        return errno;
    }
    Found moved;
    if (lookAt(parent, aside, moved) == 0 && !isSame(moved.info, entry.info)) {
        // Another process was faster, and this is what it has put there since. If it has done so
        // again, either will do.
        (void)renameat2(parent, aside.c_str(), parent, name.c_str(), RENAME_NOREPLACE);
        return ENOENT;
    }
    return 0;
}

}  // namespace

int readTrustedFile(const std::string& path, off_t most, std::string& content, struct stat* info) {
    Descriptor file;
    struct stat found = {};
    if (const int error = openTrusted(path, file, found)) {
        return error;
    }
    if (const int error = readAll(file, most, content)) {
        return error;
    }
    if (info != nullptr) {
        *info = found;
    }
    return 0;
}

bool isRefusal(int error) {
    return error == ELOOP || error == EINVAL || error == EPERM;
}

int replaceFile(const std::string& path, const std::string& content, const FileOwner& owner) {
    std::string temporary = path + kTemporary;
    const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));  // exclusive: follows no link
    if (!file) {
        return errno;
    }
    int error = fill(file, content, owner);
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(temporary.c_str());
        return error;
    }
    flushDirectoryOf(path);
    return 0;
}

int lookAt(int parent, const std::string& name, Found& entry) {
    entry.held = Descriptor(openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    return entry.held && fstat(entry.held.get(), &entry.info) == 0 ? 0 : errno;
}

int setAside(int parent, const std::string& name, const Found& entry, const std::string& path,
             const std::string& why) {
    std::string aside;
    int error = randomName(name, aside);
    if (error == 0) {
        error = moveAside(parent, name, aside, entry);
    }
    if (error == ENOENT) {
        return 0;  // somebody else has removed it
    }
    if (error != 0) {
        HOST_LOG_ERR("Refused %s: %s; not set aside: %s", path.c_str(), why.c_str(),
                     strerror(error));
        return error;
    }
    HOST_LOG_ERR("Refused %s: %s; set aside as %s", path.c_str(), why.c_str(), aside.c_str());
    return 0;
}

}  // namespace host
