#include "hostKeyValue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fwFileLock.h"
#include "hostFile.h"
#include "tarncore.h"

namespace host {

namespace {

// One lock for the writers of all key/value files, in a place where only root can hold it. A lock
// file next to the data file would clutter directories that others list, and anybody could hold a
// lock on a directory such as /tmp.
constexpr char kLockDirectory[] = "/run/tarn";
constexpr char kLockFile[] = "/run/tarn/keyvalue.lock";
constexpr int kLockSeconds = 30;

constexpr mode_t kModeBits = 07777;
constexpr off_t kMostFileBytes = 16 * 1024 * 1024;  // real ones have some thousand

constexpr char kBlanks[] = " \t\r";    // "\r" is from files with other line ends
constexpr char kEscaped[] = "\\\"$`";  // what a shell expands between double quotes

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

// The value in what follows the "=" of a line.
std::string valueOf(const std::string& text) {
    std::string bare = trimmed(text);
    if (!bare.empty() && bare[0] == '"') {
        // An unclosed quotation is damage; it is read literally.
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

// Nothing for a comment, a blank line or any other line that is not an entry.
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

// Moves a directory out of the way, since a file cannot replace it. 0 or an errno code.
int clearDirectory(const std::string& path) {
    Found entry;
    if (const int error = lookAt(AT_FDCWD, path, entry)) {
        return error == ENOENT ? 0 : error;
    }
    if (!S_ISDIR(entry.info.st_mode)) {
        return 0;
    }
    return setAside(AT_FDCWD, path, entry, path, "it is a directory");
}

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
    return readTrustedFile(path, kMostFileBytes, content);
}

int writeKeyValueFile(const std::string& path, const std::string& key, const std::string& value) {
    (void)mkdir(kLockDirectory, 0755);  // usually exists; opening the lock reports a failure
    const FW::FileLock lock(kLockFile, kLockSeconds, [] {});
    if (!lock.held()) {
        return errno;
    }
    struct stat info = {};
    std::string content;
    FileOwner owner;
    const int readError = readTrustedFile(path, kMostFileBytes, content, &info);
    if (readError == 0) {
        owner = {info.st_uid, info.st_gid, info.st_mode & kModeBits};
    } else if (readError != ENOENT && !isRefusal(readError)) {
        return readError;
    }
    // A new file replaces a missing or untrusted one.
    KeyValueText text(content);
    text.set(key, value);
    int error = replaceFile(path, text.content(), owner);
    for (int i = 0; error == EISDIR && geteuid() == 0 && i < kMostPlanted; ++i) {
        if (const int clearError = clearDirectory(path)) {
            return clearError;
        }
        error = replaceFile(path, text.content(), owner);
    }
    return error;
}

}  // namespace host
