/// Key/value files: lines `key="value"` or `key=value`, comments from "#", blank lines.
///
/// Between double quotes the characters \ " $ ` are written with a backslash, as in a shell, so a
/// script may source such a file. Without quotes a value ends at a "#" after a blank, and blanks
/// around it are ignored. If a key occurs twice, the last line counts, also as in a shell.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace host {

/// The text of a key/value file. Lines that are not changed keep their place and spelling.
class KeyValueText {
public:
    explicit KeyValueText(const std::string& content);

    /// Whether a line can hold it: a key has no "=", no line break, no "#" at its start, no blank
    /// at either end, and is not empty; a value has no line break.
    static bool isKey(const std::string& key);
    static bool isValue(const std::string& value);

    /// The value of `key`; nothing when no line has it.
    std::optional<std::string> get(const std::string& key) const;

    /// Gives `key` a value in the line that counts, or in a new line at the end.
    void set(const std::string& key, const std::string& value);

    std::string content() const;

private:
    std::vector<std::string> lines_;
};

/// Reads a key/value file as readTrustedFile() does, because such files are also in /tmp, where
/// anybody can plant one. 0, or the errno code of the failure.
int readKeyValueFile(const std::string& path, std::string& content);

/// Sets one key in a file and replaces the file as a whole, with its owner and mode; a new file
/// gets mode 0644. 0, or the errno code of the failure, which leaves the file unchanged. A file
/// that readKeyValueFile() refuses is replaced by a new one with this key only; a directory is set
/// aside if the caller is root, and otherwise EISDIR. Writers wait for each other, at most 30 s
/// (then EAGAIN), with one lock for all files.
int writeKeyValueFile(const std::string& path, const std::string& key, const std::string& value);

}  // namespace host
