#include "tarnfirewall/utils.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <utility>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/sync/file_lock.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include "tarnsdk.h"

#include "fwJsonFile.h"
#include "fwLog.h"
#include "fwSpawn.h"

namespace FW {
namespace {

constexpr char kSource[] = "utils";

constexpr char kLockDir[] = "/var/lock/firewall/";
constexpr char kFallbackLockDir[] = "/tmp/";
constexpr mode_t kLockDirMode = 0770;
constexpr mode_t kLockFileMode = 0600;
constexpr mode_t kNewFileMode = 0600;
constexpr mode_t kPermissions = 0777;
constexpr std::size_t kPathBytes = 1024;
constexpr std::size_t kChunkBytes = 16384;

constexpr long kLockMicroseconds = 30 * 1000 * 1000;

// See jsonFileLimit().
std::atomic<std::size_t> mostBytes = 0;

bool pathExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

/// The exclusive lock of one data file, held from construction to destruction.
class DataFileLock {
public:
    /// Waits for the lock; raises the lock library's exception when its file cannot be opened.
    explicit DataFileLock(const std::string& lockPath)
        : file_(lockPath.c_str()), lock_(file_, deadline()) {}

    bool held() const { return lock_.owns(); }

private:
    static boost::posix_time::ptime deadline() {
        return boost::posix_time::microsec_clock::universal_time() +
               boost::posix_time::microseconds(kLockMicroseconds);
    }

    boost::interprocess::file_lock file_;
    boost::interprocess::scoped_lock<boost::interprocess::file_lock> lock_;
};

std::string lockDirectory() {
    if (TARNFSMkdirP(kLockDir, nullptr, 1, 0, 0, kLockDirMode) < 0) {
        FW_LOG_DEBUG("Failed to create path: %s", std::strerror(errno));
        return kFallbackLockDir;
    }
    return kLockDir;
}

/// The last component of a path, by the POSIX rules: "." for an empty one.
std::string lastComponent(const std::string& path) {
    char buffer[kPathBytes];
    std::snprintf(buffer, sizeof(buffer), "%s", path.c_str());
    return ::basename(buffer);
}

/// Creates an empty lock file. A failure is reported when the lock is opened.
void createLockFile(const std::string& path) {
    // Does not follow a link: anybody could have put one into the fallback directory.
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kLockFileMode);
    if (fd >= 0) {
        close(fd);
    }
}

/// Whether the limit allows this process to use a file as a document.
bool isAllowed(const Descriptor& file) {
    struct stat info {};
    return mostBytes == 0 || (fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) &&
                              static_cast<std::size_t>(info.st_size) <= mostBytes);
}

Descriptor openDocument(const std::string& path, int flags) {
    const int doNotWait = mostBytes > 0 ? O_NONBLOCK | O_NOCTTY : 0;
    Descriptor file(open(path.c_str(), flags | O_CLOEXEC | doNotWait, kNewFileMode));
    return file && isAllowed(file) ? std::move(file) : Descriptor();
}

/// Reads the rest of a file. False when it cannot be read, such as a directory, which can be
/// opened.
bool readAll(const Descriptor& file, std::string& text) {
    std::array<char, kChunkBytes> chunk;
    for (;;) {
        const ssize_t count = read(file.get(), chunk.data(), chunk.size());
        if (count == 0 || (count < 0 && errno != EINTR)) {
            return count == 0;
        }
        text.append(chunk.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

/// Gives a new file the owner and mode of the one that it will replace, whatever the umask; a file
/// that replaces nothing is for its owner only. A caller who may not change the owner keeps what it
/// writes. A pipe or a device in the place of the new file keeps its own.
void takeOwnerAndMode(const Descriptor& file, const std::string& replaced) {
    struct stat info {};
    if (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return;
    }
    mode_t mode = kNewFileMode;
    if (lstat(replaced.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
        mode = info.st_mode & kPermissions;
        if (fchown(file.get(), info.st_uid, info.st_gid) != 0) {
            mode &= ~static_cast<mode_t>(S_IRWXG);  // they were for another group
        }
    }
    (void)fchmod(file.get(), mode);
}

void writeAll(const Descriptor& file, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(file.get(), text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

/// Writes a file or directory to the disk. True also on a file system that cannot do it.
bool flush(const Descriptor& file) {
    return file && (fsync(file.get()) == 0 || errno == EINVAL);
}

/// Writes the names in a file's directory to the disk.
bool flushDirectoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return flush(Descriptor(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
}

}  // namespace

std::string getLockFile(const std::string& path) {
    const std::string lockPath = lockDirectory() + lastComponent(path) + ".lock";
    if (!pathExists(lockPath)) {
        createLockFile(lockPath);
    }
    return lockPath;
}

bool isInLockDirectory(const std::string& lockPath) {
    return lockPath.rfind(kLockDir, 0) == 0;
}

bool jsonFileLoad(Json::Value& value, const std::string& path) {
    std::string lockPath;
    return jsonFileLoad(value, path, lockPath);
}

bool jsonFileLoad(Json::Value& value, const std::string& path, std::string& lockPath) {
    if (!pathExists(path)) {
        FW_LOG_ERR("File %s does not exist", path.c_str());
        return false;
    }
    lockPath = getLockFile(path);
    const DataFileLock lock(lockPath);
    if (!lock.held()) {
        FW_LOG_ERR("Failed to get lock timeout");
        return false;
    }
    const Descriptor file = openDocument(path, O_RDONLY);
    if (!file) {
        FW_LOG_ERR("Failed to open json file %s", path.c_str());
        return false;
    }
    bool parsed = false;
    std::string text;
    try {
        parsed = readAll(file, text) &&
                 Json::Reader().parse(text.data(), text.data() + text.size(), value,
                                      /*collectComments=*/true);
    } catch (const Json::Exception&) {
        // The reader returns false for invalid text, but raises for text nested too deeply.
    }
    if (!parsed) {
        FW_LOG_ERR("Failed to parse Json value of %s", path.c_str());
    }
    return parsed;
}

void jsonFileLimit(std::size_t bytes) {
    mostBytes = bytes;
}

bool jsonFileDump(const Json::Value& value, const std::string& path) {
    const DataFileLock lock(getLockFile(path));
    if (!lock.held()) {
        FW_LOG_ERR("Failed to get lock timeout");
        return false;
    }
    const std::string temporaryPath = path + ".tmp";
    Descriptor file = openDocument(temporaryPath, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file) {
        FW_LOG_ERR("Failed to open json file %s", temporaryPath.c_str());
        return false;
    }
    takeOwnerAndMode(file, path);
    // A failed write does not change the result. Both flushes do: after a power cut the old
    // document is there, or the new one, and not an empty one; and what was reported as done is on
    // the disk.
    writeAll(file, Json::StyledWriter().write(value));
    if (!flush(file)) {
        FW_LOG_ERR("Failed to flush %s", temporaryPath.c_str());
        (void)unlink(temporaryPath.c_str());
        return false;
    }
    file = Descriptor();
    if (std::rename(temporaryPath.c_str(), path.c_str()) != 0) {
        FW_LOG_ERR("Failed to rename to %s", path.c_str());
        return false;
    }
    if (!flushDirectoryOf(path)) {
        FW_LOG_ERR("Failed to flush the directory of %s", path.c_str());
        return false;
    }
    return true;
}

}  // namespace FW
