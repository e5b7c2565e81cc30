#include "tarnfwadmin/storeChange.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <vector>

#include <json/json.h>

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/text.h"
#include "tarnfwadmin/wholeFile.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

// In the profile directory, so that a copy takes its document's place by renaming, which needs no
// room. The library looks at no name that begins with a dot, and not below the directory.
constexpr char kCopyDir[] = "/usr/tarn/etc/firewall.d/.change/";
constexpr mode_t kCopyDirMode = 0700;
constexpr mode_t kModeBits = 07777;

// Behind the name of a document that a copy has replaced, so that nothing of it is lost.
constexpr char kDamaged[] = ".damaged";

std::string copyOf(const std::string& path) {
    return kCopyDir + fs::path(path).filename().string();
}

/// The paths of the documents that the library could replace: neither directories nor links to
/// nowhere, which have such names as well.
std::vector<std::string> filePaths() {
    std::vector<std::string> paths = documentPaths();
    paths.erase(std::remove_if(paths.begin(), paths.end(),
                               [](const std::string& path) { return !fs::is_regular_file(path); }),
                paths.end());
    return paths;
}

bool isWhole(const std::string& path) {
    Json::Value document;
    return readDocument(path, document);
}

void dropCopies() {
    std::error_code ignored;
    (void)fs::remove_all(kCopyDir, ignored);  // what stays is replaced by the next copies
}

[[noreturn]] void refuse() {
    throw Error(ErrorKind::kSystem, std::string("nothing was changed: cannot keep a copy in ") +
                                        kCopyDir + ": " + std::strerror(errno));
}

/// Not synced: the copies are for a command that fails or is killed, not for a loss of power.
bool writeCopy(const std::string& path, const std::string& text, mode_t mode) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    const bool written = fd >= 0 && writeText(fd, text) && fchmod(fd, mode) == 0;
    return (fd < 0 || close(fd) == 0) && written;
}

}  // namespace

StoreChange::StoreChange() {
    if (!fs::exists(kProfileDir)) {
        return;  // nothing to keep
    }
    try {
        copyAll();
    } catch (const Error&) {
        dropCopies();
        throw;
    }
}

StoreChange::~StoreChange() {
    if (!open_) {
        return;
    }
    try {
        const std::string fault = finished();
        if (!fault.empty()) {
            std::cerr << "tarnfw: " << fault << '\n';
        }
    } catch (const std::exception& error) {
        std::cerr << "tarnfw: " << error.what() << '\n';
    }
}

void StoreChange::finish() {
    const std::string fault = finished();
    if (!fault.empty()) {
        throw Error(ErrorKind::kSystem, fault);
    }
}

void StoreChange::copyAll() {
    if (mkdir(kCopyDir, kCopyDirMode) != 0) {
        refuse();
    }
    for (const std::string& path : filePaths()) {
        struct stat status {};
        before_[path] = readText(path);
        if (stat(path.c_str(), &status) != 0 ||
            !writeCopy(copyOf(path), before_[path], status.st_mode & kModeBits)) {
            refuse();
        }
    }
}

/// Ends the change. Returns what was wrong with it; empty when nothing was.
std::string StoreChange::finished() {
    open_ = false;
    for (const std::string& path : filePaths()) {
        const auto old = before_.find(path);
        if ((old != before_.end() && readText(path) == old->second) || isWhole(path)) {
            continue;
        }
        const std::string fault =
            printable(path) + " could not be written whole; is the disk full? ";
        return fault + (undo() ? "All documents are as they were"
                               : "Putting back what was there failed, too; it is in " +
                                     std::string(kCopyDir));
    }
    dropCopies();
    return "";
}

bool StoreChange::undo() {
    open_ = false;
    const bool done = putBack();
    if (done) {
        dropCopies();
    }
    return done;
}

/// Makes the store what it was, also where a document was written whole: half a change is none.
bool StoreChange::putBack() const {
    bool done = true;
    for (const std::string& path : filePaths()) {
        if (before_.count(path) == 0) {
            done = unlink(path.c_str()) == 0 && done;
        }
    }
    for (const auto& [path, text] : before_) {
        if (!fs::exists(path) || readText(path) != text) {
            done = std::rename(copyOf(path).c_str(), path.c_str()) == 0 && done;
        }
    }
    return done;
}

void requireRoomForChange() {
    const StoreLock lock;
    StoreChange().finish();
}

void mendInterruptedChange() {
    if (!fs::exists(kCopyDir)) {
        return;
    }
    for (const std::string& path : filePaths()) {
        const std::string copy = copyOf(path);
        if (!isWhole(path) && isWhole(copy) &&
            std::rename(path.c_str(), (path + kDamaged).c_str()) == 0 &&
            std::rename(copy.c_str(), path.c_str()) == 0) {
            std::cerr << "tarnfw: " << printable(path)
                      << " was left half written by a command that was killed; it is as it was "
                         "before\n";
        }
    }
    dropCopies();
}

}  // namespace tarnfw
