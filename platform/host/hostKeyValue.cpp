#include "hostKeyValue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "hostCall.h"

namespace host {

namespace {

constexpr char kSource[] = "hostKeyValue";

// One lock for the writers of all key/value files, where only root can hold it. A lock beside the
// file would stay behind in directories that others list, and a lock on the directory could be
// held by anybody when that directory is /tmp.
constexpr char kLockDirectory[] = "/run/tarn";
constexpr char kLockFile[] = "/run/tarn/keyvalue.lock";
constexpr int kLockExclusive = 1;
constexpr int kLockSeconds = 30;

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kModeBits = 07777;

constexpr char kBlanks[] = " \t\r";       // "\r" ends the lines of files edited elsewhere
constexpr char kEscaped[] = "\\\"$`";     // what a shell expands between double quotes
constexpr char kTemporary[] = ".XXXXXX";  // for mkostemp

// ---- Lines ----

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

bool contains(const char* set, char c) {
    return c != '\0' && std::strchr(set, c) != nullptr;
}

std::string quoted(const std::string& value) {
    std::string text = "\"";
    for (const char c : value) {
        if (contains(kEscaped, c)) {
            text += '\\';
        }
        text += c;
    }
    return text + '"';
}

// The value at the start of `text`, which begins with a quote. Nothing when the quote is not closed
// or something other than a comment follows.
std::optional<std::string> unquoted(const std::string& text) {
    std::string value;
    std::size_t i = 1;
    for (; i < text.size() && text[i] != '"'; ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && contains(kEscaped, text[i + 1])) {
            ++i;
        }
        value += text[i];
    }
    if (i >= text.size()) {
        return std::nullopt;
    }
    const std::string rest = trimmed(text.substr(i + 1));
    return rest.empty() || rest[0] == '#' ? std::optional(value) : std::nullopt;
}

// The value in what stands behind the "=" of a line.
std::string valueOf(const std::string& text) {
    std::string bare = trimmed(text);
    if (!bare.empty() && bare[0] == '"') {
        // Half a quotation is damage that reads as it stands.
        return unquoted(bare).value_or(bare);
    }
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '#' && contains(kBlanks, text[i - 1])) {
            return trimmed(text.substr(0, i));
        }
    }
    return bare;
}

struct Entry {
    std::string key;
    std::string value;
};

// Nothing for a comment, a blank line, and a line that is no entry.
std::optional<Entry> entryOf(const std::string& line) {
    const auto equals = line.find('=');
    if (equals == std::string::npos) {
        return std::nullopt;
    }
    Entry entry = {trimmed(line.substr(0, equals)), valueOf(line.substr(equals + 1))};
    if (!KeyValueText::isKey(entry.key)) {
        return std::nullopt;
    }
    return entry;
}

// ---- Files ----

// Opens a file whose content may be believed. 0, or an errno code as readKeyValueFile() has it.
int openTrusted(const std::string& path, Descriptor& file, struct stat& info) {
    // Not blocking, since opening a planted FIFO would wait for its writer.
    file = Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
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
    return 0;
}

int readAll(const Descriptor& file, std::string& content) {
    char buffer[4096];
    content.clear();
    for (;;) {
        const ssize_t length = read(file.get(), buffer, sizeof buffer);
        if (length == 0) {
            return 0;
        }
        if (length > 0) {
            content.append(buffer, static_cast<std::size_t>(length));
        } else if (errno != EINTR) {
            return errno;
        }
    }
}

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

// What a replaced file hands on to its successor.
struct Ownership {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    mode_t mode = kNewFileMode;
};

int fill(const Descriptor& file, const std::string& content, const Ownership& ownership) {
    if (const int error = writeAll(file, content)) {
        return error;
    }
    // The owner first: changing it may take bits from the mode.
    struct stat info = {};
    if (fstat(file.get(), &info) != 0) {
        return errno;
    }
    if ((info.st_uid != ownership.uid || info.st_gid != ownership.gid) &&
        fchown(file.get(), ownership.uid, ownership.gid) != 0) {
        return errno;
    }
    // On the disk before the new name leads to it, so that a crash leaves the old file or the new.
    if (fchmod(file.get(), ownership.mode) != 0 || fsync(file.get()) != 0) {
        return errno;
    }
    return 0;
}

int replaceFile(const std::string& path, const std::string& content, const Ownership& ownership) {
    std::string temporary = path + kTemporary;
    const Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));  // exclusive: follows no link
    if (!file) {
        return errno;
    }
    int error = fill(file, content, ownership);
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(temporary.c_str());
    }
    return error;
}

class WriterLock {
public:
    WriterLock() {
        (void)mkdir(kLockDirectory, 0755);  // mostly there; a failure shows when the lock is opened
        if (TLIBCFileLockTimeByFile(kLockFile, kLockExclusive, kLockSeconds, &fd_) != 1) {
            error_ = errno;
        }
    }
    ~WriterLock() {
        if (fd_ >= 0) {
            (void)TLIBCFileUnlockByFile(fd_);
        }
    }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

    int error() const { return error_; }  ///< 0 when the lock is held

private:
    int fd_ = -1;
    int error_ = 0;
};

}  // namespace

KeyValueText::KeyValueText(const std::string& content) {
    for (std::size_t start = 0; start < content.size();) {
        const auto end = std::min(content.find('\n', start), content.size());
        lines_.push_back(content.substr(start, end - start));
        start = end + 1;
    }
}

bool KeyValueText::isKey(const std::string& key) {
    return !key.empty() && key[0] != '#' && key.find_first_of("=\n") == std::string::npos &&
           trimmed(key) == key;
}

bool KeyValueText::isValue(const std::string& value) {
    return value.find('\n') == std::string::npos;
}

std::optional<std::string> KeyValueText::get(const std::string& key) const {
    for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
        const auto entry = entryOf(*line);
        if (entry && entry->key == key) {
            return entry->value;
        }
    }
    return std::nullopt;
}

void KeyValueText::set(const std::string& key, const std::string& value) {
    const std::string newLine = key + '=' + quoted(value);
    for (auto line = lines_.rbegin(); line != lines_.rend(); ++line) {
        const auto entry = entryOf(*line);
        if (entry && entry->key == key) {
            *line = newLine;
            return;
        }
    }
    lines_.push_back(newLine);
}

std::string KeyValueText::content() const {
    std::string content;
    for (const std::string& line : lines_) {
        content += line + '\n';
    }
    return content;
}

int readKeyValueFile(const std::string& path, std::string& content) {
    Descriptor file;
    struct stat info = {};
    if (const int error = openTrusted(path, file, info)) {
        return error;
    }
    return readAll(file, content);
}

int writeKeyValueFile(const std::string& path, const std::string& key, const std::string& value) {
    const WriterLock lock;
    if (lock.error() != 0) {
        return lock.error();
    }
    Descriptor file;
    struct stat info = {};
    std::string content;
    Ownership ownership;
    switch (const int error = openTrusted(path, file, info)) {
        case 0:
            if (const int readError = readAll(file, content)) {
                return readError;
            }
            ownership = {info.st_uid, info.st_gid, info.st_mode & kModeBits};
            break;
        case ENOENT:
        case ELOOP:
        case EINVAL:
        case EPERM:
            break;  // nothing there, or nothing that is believed: a new file takes its place
        default:
            return error;
    }
    KeyValueText text(content);
    text.set(key, value);
    return replaceFile(path, text.content(), ownership);
}

}  // namespace host
