#include "tarnfwadmin/documentFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <sstream>
#include <system_error>

#include <boost/algorithm/string/predicate.hpp>

#include "fwPrintable.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

std::string placeOf(std::size_t line, std::size_t column) {
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

/// The place of a byte; columns are counted in characters.
std::string placeAt(const std::string& text, std::size_t offset) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
    const auto line = std::count(text.begin(), end, '\n') + 1;
    const auto start = std::find(std::make_reverse_iterator(end), text.rend(), '\n').base();
    const auto column = std::count_if(start, end, [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0U) != 0x80U;  // no later byte of a character
    });
    return placeOf(static_cast<std::size_t>(line), static_cast<std::size_t>(column) + 1);
}

/// The reader's message without its full stop.
std::string unstopped(std::string words) {
    if (!words.empty() && words.back() == '.') {
        words.pop_back();
    }
    return words;
}

std::string leniencyText(const std::string& words) {
    if (boost::starts_with(words, "Duplicate key: ")) {
        const std::string name = words.substr(words.find('\'') + 1);
        return "the member " + inQuotes(name.substr(0, name.rfind('\''))) +
               " occurs twice; the last one counts";
    }
    if (boost::starts_with(words, "Extra non-whitespace")) {
        return "text after the document is ignored";
    }
    return unstopped(words);
}

/// The findings of a strict reader about a text that the library accepts. They are lines: a place,
/// "* Line 3, Column 7", and after it an indented message.
std::vector<Finding> leniencies(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["rejectDupKeys"] = true;
    builder["failIfExtra"] = true;
    builder["allowTrailingCommas"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string told;
    Findings findings;
    if (reader->parse(text.data(), text.data() + text.size(), &ignored, &told)) {
        return {};
    }
    std::istringstream lines(told);
    std::string where;
    for (std::string line; std::getline(lines, line);) {
        unsigned row = 0;
        unsigned column = 0;
        // NOLINTNEXTLINE(cert-err34-c): two small numbers that the reader itself has written
        if (std::sscanf(line.c_str(), "* Line %u, Column %u", &row, &column) == 2) {
            where = placeOf(row, column);
        } else if (boost::starts_with(line, "  ") && !where.empty()) {
            findings.warning(where, leniencyText(line.substr(2)));
            break;  // after the first error, the reader's findings are unreliable
        }
    }
    return findings.take();
}

/// A file with a temporary name, removed by the destructor.
class PassingFile {
public:
    explicit PassingFile(const std::string& path)
        : name_(path + ".XXXXXX"), file_(mkostemp(name_.data(), O_CLOEXEC)) {}
    ~PassingFile() {
        if (file_) {
            (void)unlink(name_.c_str());  // fails after renaming, as it should
        }
    }
    PassingFile(const PassingFile&) = delete;
    PassingFile& operator=(const PassingFile&) = delete;

    /// Writes all of the text and flushes it to disk.
    bool write(const std::string& text, mode_t mode) const {
        return file_ && writeText(file_.get(), text) && fchmod(file_.get(), mode) == 0 &&
               flush(file_.get());
    }

    bool become(const std::string& path, Existing existing) const {
        return existing == Existing::kKept ? link(name_.c_str(), path.c_str()) == 0
                                           : rename(name_.c_str(), path.c_str()) == 0;
    }

    /// False where that is not allowed; then the group at least, if that is.
    bool giveTo(uid_t owner, gid_t group) const {
        return file_ && (fchown(file_.get(), owner, group) == 0 ||
                         fchown(file_.get(), static_cast<uid_t>(-1), group) == 0);
    }

private:
    std::string name_;
    Descriptor file_;
};

/// With the reason in errno.
[[noreturn]] void throwUnreadable(const std::string& name, int error = errno) {
    const bool denied = geteuid() != 0 && (error == EACCES || error == EPERM);
    throw Error(denied ? ErrorKind::kNoRights : ErrorKind::kSystem,
                "cannot read " + name + ": " + std::strerror(error) + (denied ? "; root can" : ""));
}

/// What is left of an open file or stream.
std::string allOf(int file, const std::string& name) {
    std::string text;
    if (!readAll(file, text)) {
        throwUnreadable(name);
    }
    return text;
}

/// Flushes the directory, which has the file's name. False, with errno, when that fails.
bool flushDirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Descriptor file(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return file && flush(file.get());
}

}  // namespace

std::string readText(const std::string& path) {
    if (path == kStandardInput) {
        return allOf(STDIN_FILENO, "standard input");
    }
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        throwUnreadable(printable(path));
    }
    return allOf(file.get(), printable(path));
}

bool isThere(const std::string& path) {
    if (access(path.c_str(), F_OK) == 0) {
        return true;
    }
    if (errno != ENOENT && errno != ENOTDIR) {
        throwUnreadable(printable(path));
    }
    return false;
}

std::optional<std::string> readTextIfAny(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file && errno == ENOENT) {
        return std::nullopt;
    }
    if (!file) {
        throwUnreadable(printable(path));
    }
    return allOf(file.get(), printable(path));
}

std::string readDocument(const std::string& path, off_t most) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        throwUnreadable(printable(path));
    }
    if (!S_ISREG(status.st_mode) || status.st_size > most) {
        throw Error(ErrorKind::kSystem,
                    "cannot read " + printable(path) + ": it is no regular file, or too large");
    }
    return allOf(file.get(), printable(path));
}

std::vector<std::string> filesIn(const std::string& directory, const std::string& suffix) {
    std::vector<std::string> paths;
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        const std::string name = entry->path().filename().string();
        if (name.front() != '.' && boost::ends_with(name, suffix)) {
            paths.push_back(directory + name);
        }
        entry.increment(error);
    }
    if (error && error.value() != ENOENT) {
        throwUnreadable("the directory " + printable(directory), error.value());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

bool parseAsStored(const std::string& text, Json::Value& document) {
    try {
        return Json::Reader().parse(text, document, /*collectComments=*/true);
    } catch (const Json::Exception&) {  // nested too deeply
        return false;
    }
}

std::vector<Finding> parseDocument(const std::string& text, Json::Value& document) {
    Json::Reader reader;  // the one that the library's store uses
    Findings findings;
    try {
        if (reader.parse(text, document, /*collectComments=*/false)) {
            return leniencies(text);
        }
        for (const Json::Reader::StructuredError& error : reader.getStructuredErrors()) {
            findings.error(placeAt(text, static_cast<std::size_t>(error.offset_start)),
                           unstopped(error.message));
        }
    } catch (const Json::Exception& error) {  // nested too deeply
        findings.error("", unstopped(error.what()));
    }
    return findings.take();
}

std::string documentText(const Json::Value& document) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    // It may be printed. Bytes that are not UTF-8 stay, since it may also be the only backup.
    return FW::escapedJson(Json::writeString(builder, document), FW::NotUtf8::kKept) + "\n";
}

void writeFileAtomically(const std::string& path, const std::string& text, mode_t mode,
                         Existing existing) {
    const PassingFile file(path);
    struct stat old {};
    const bool alike = existing == Existing::kReplacedAlike && lstat(path.c_str(), &old) == 0 &&
                       S_ISREG(old.st_mode);
    const bool owned = alike && file.giveTo(old.st_uid, old.st_gid);
    // A group that it cannot have gets no rights.
    const mode_t oldMode = old.st_mode & (owned ? 0777U : 0707U);
    if (!file.write(text, alike ? oldMode : mode) || !file.become(path, existing)) {
        throw Error(ErrorKind::kSystem,
                    "cannot write " + printable(path) + ": " + std::strerror(errno));
    }
    if (!flushDirectoryOf(path)) {
        throw Error(ErrorKind::kSystem, printable(path) +
                                            " is written, but a power failure may undo that: its "
                                            "directory cannot be flushed: " +
                                            std::strerror(errno));
    }
}

}  // namespace tarnfw
