#include "store/storeJournal.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "store/changeRecord.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {

// In the profile directory, so that a copy can replace its document by a rename, which needs no
// space. The library ignores names that begin with a dot, and subdirectories.
const char kCopyDir[] = "/usr/tarn/etc/firewall.d/.change/";

namespace {

namespace fs = std::filesystem;

constexpr mode_t kCopyDirMode = 0700;
constexpr mode_t kJournalMode = 0600;
constexpr mode_t kModeBits = 07777;

// The list: each name with kEndOfName after it, which no name of a file can contain, and at the end
// kEndOfName alone. No document has its name, which lacks ".json".
constexpr char kJournal[] = "/usr/tarn/etc/firewall.d/.change/documents";
constexpr char kEndOfName[] = "/\n";

// Empty files beside the journal: the rules of the change are being applied, and were applied.
constexpr char kApplying[] = "/usr/tarn/etc/firewall.d/.change/applying";
constexpr char kApplied[] = "/usr/tarn/etc/firewall.d/.change/applied";

// A second name of a copy on its way to its document's place.
constexpr char kPassingName[] = "/usr/tarn/etc/firewall.d/.change/put_back";

[[noreturn]] void refuse() {
    const int error = errno;
    dropCopies();
    throw Error(ErrorKind::kSystem, std::string("cannot store a copy in ") + kCopyDir + ": " +
                                        std::strerror(error) + "; nothing was changed");
}

/// Flushes a file or directory. False, with errno, when that fails.
bool flush(const std::string& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return file && tarnfw::flush(file.get());
}

/// Writes a copy with the mode and the owner of its document.
bool writeCopy(const std::string& path, const std::string& text) {
    struct stat document {};
    if (stat(path.c_str(), &document) != 0) {
        return false;
    }
    Descriptor file(
        open(copyOf(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kJournalMode));
    if (!file || !writeText(file.get(), text)) {
        return false;
    }
    // Fails without the right to give files away; the document then is this process's as well.
    const int owned = fchown(file.get(), document.st_uid, document.st_gid);
    (void)owned;
    return fchmod(file.get(), document.st_mode & kModeBits) == 0 && file.close();
}

bool writeJournal(const std::map<std::string, std::string>& texts) {
    std::string list;
    for (const auto& [path, text] : texts) {
        list += fs::path(path).filename().string() + kEndOfName;
    }
    list += kEndOfName;
    Descriptor file(open(kJournal, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kJournalMode));
    return file && writeText(file.get(), list) && tarnfw::flush(file.get()) && file.close();
}

/// The paths of the listed documents; nothing without a complete list, or where a copy is missing:
/// then the journal was not flushed, and the change had not begun. Throws Error, kSystem, when that
/// cannot be read.
std::optional<std::set<std::string>> listedDocuments() {
    const std::string end = kEndOfName;
    std::set<std::string> paths;
    const std::string list = readTextIfAny(kJournal).value_or("");
    std::size_t begin = 0;
    for (std::size_t stop = list.find(end); stop != std::string::npos;
         stop = list.find(end, begin)) {
        if (stop == begin) {
            return paths;
        }
        const std::string path = kProfileDir + list.substr(begin, stop - begin);
        if (!isThere(copyOf(path))) {
            return std::nullopt;
        }
        paths.insert(path);
        begin = stop + end.size();
    }
    return std::nullopt;
}

/// Whether the document is as its copy. False, too, when one of them cannot be read.
bool isAsBefore(const std::string& path) {
    std::error_code ignored;
    try {
        return fs::is_regular_file(path, ignored) &&
               fs::file_size(path, ignored) == fs::file_size(copyOf(path), ignored) &&
               readText(path) == readText(copyOf(path));
    } catch (const Error&) {
        return false;
    }
}

/// The files, and links, that the library takes for documents. Throws Error, kSystem, when that
/// cannot be found out.
std::vector<std::string> documents() {
    std::vector<std::string> paths;
    for (const std::string& path : filesIn(kProfileDir, ".json")) {
        std::error_code error;
        const fs::file_type type = fs::symlink_status(path, error).type();
        if (type == fs::file_type::none) {
            throw Error(ErrorKind::kSystem,
                        "cannot look at " + printable(path) + ": " + error.message());
        }
        if (type == fs::file_type::regular || type == fs::file_type::symlink) {
            paths.push_back(path);
        }
    }
    return paths;
}

/// Creates a mark. False, with errno, if that fails: EEXIST if it is there.
bool makeMark(const char* path) {
    return static_cast<bool>(
        Descriptor(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kJournalMode)));
}

}  // namespace

std::string copyOf(const std::string& path) {
    return kCopyDir + fs::path(path).filename().string();
}

bool hasCopies() {
    return isThere(kCopyDir);
}

bool hasJournal() {
    return isThere(kJournal);
}

ChangePhase changePhase() {
    return isThere(kApplied)    ? ChangePhase::kApplied
           : isThere(kApplying) ? ChangePhase::kApplying
                                : ChangePhase::kWriting;
}

bool beginApplying() {
    if (makeMark(kApplying)) {
        return true;
    }
    if (errno != EEXIST) {
        throw Error(ErrorKind::kSystem, std::string("cannot create ") + kApplying + ": " +
                                            std::strerror(errno) + "; nothing was applied");
    }
    return false;
}

void endApplying() {
    (void)unlink(kApplying);
}

bool markApplied() {
    if (const auto listed = listedDocuments()) {
        std::for_each(listed->begin(), listed->end(), keepMode);
    }
    if (!flushProfileDir() || !makeMark(kApplied)) {
        return false;
    }
    if (!flush(kCopyDir)) {
        const int error = errno;
        (void)unlink(kApplied);
        errno = error;
        return false;
    }
    return true;
}

bool unmarkApplied() {
    return unlink(kApplied) == 0 ? flush(kCopyDir) : errno == ENOENT;
}

bool tryToCopy(const std::map<std::string, std::string>& texts,
               const std::vector<std::string>& present) {
    const bool copied =
        mkdir(kCopyDir, kCopyDirMode) == 0 &&
        std::all_of(texts.begin(), texts.end(),
                    [](const auto& copy) { return writeCopy(copy.first, copy.second); }) &&
        beginRecord(texts, present);
    if (!copied) {
        const int error = errno;
        dropCopies();
        errno = error;
    }
    return copied;
}

void copyDocuments(const std::map<std::string, std::string>& texts,
                   const std::vector<std::string>& present) {
    if (!tryToCopy(texts, present)) {
        refuse();
    }
}

void beginJournal(const std::map<std::string, std::string>& texts) {
    // First all copies are written, then all are flushed: the first flush does most of the work.
    const bool flushed = std::all_of(texts.begin(), texts.end(),
                                     [](const auto& copy) { return flush(copyOf(copy.first)); });
    if (!flushed || !writeJournal(texts) || !flush(kCopyDir) || !flushProfileDir()) {
        refuse();
    }
}

bool putBack(const std::string& path) {
    const std::string copy = copyOf(path);
    // By a second name, so that the copy is there until the end, should this be interrupted.
    (void)unlink(kPassingName);
    const bool flushed = flush(copy);
    return link(copy.c_str(), kPassingName) == 0 && std::rename(kPassingName, path.c_str()) == 0 &&
           flushed;
}

void keepMode(const std::string& path) {
    struct stat copy {};
    struct stat now {};
    if (lstat(path.c_str(), &now) != 0 || !S_ISREG(now.st_mode) ||
        stat(copyOf(path).c_str(), &copy) != 0 ||
        (now.st_mode == copy.st_mode && now.st_uid == copy.st_uid && now.st_gid == copy.st_gid)) {
        return;
    }
    // Not flushed: after a power failure the document may be for root alone.
    if (lchown(path.c_str(), copy.st_uid, copy.st_gid) == 0) {
        (void)chmod(path.c_str(), copy.st_mode & kModeBits);
    }
}

bool undoByJournal() {
    const std::optional<std::set<std::string>> listed = listedDocuments();
    if (!listed) {
        dropCopies();
        return true;
    }
    if (!unmarkApplied()) {
        return false;  // whoever finds both would keep what is half undone
    }
    bool done = true;
    const std::map<std::string, std::string> unusable = StoreSnapshot().unusable();
    for (const std::string& path : documents()) {
        if (listed->count(path) == 0 && unusable.count(path) == 0) {
            done = unlink(path.c_str()) == 0 && done;
        }
    }
    for (const std::string& path : *listed) {
        done = (isAsBefore(path) || putBack(path)) && done;
    }
    if (!done || !endJournal()) {
        return false;
    }
    dropCopies();
    return true;
}

bool endJournal() {
    // The change is on the disk before the journal goes, and that is before anybody relies on it.
    return flushProfileDir() && unlink(kJournal) == 0 && flush(kCopyDir);
}

void dropCopies() {
    std::error_code ignored;
    (void)fs::remove_all(kCopyDir, ignored);  // the next copies replace leftovers
}

bool flushProfileDir() {
    return flush(kProfileDir);
}

}  // namespace tarnfw
