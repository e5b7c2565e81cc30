#include "fwStoreFiles.h"

#include <sys/stat.h>

#include <utility>

#include "tarnfirewall/utils.h"

#include "fwJsonFile.h"

namespace FW {
namespace {

// A time in whole seconds may come from a file system that keeps only seconds, or every second one.
constexpr time_t kCoarseTickSeconds = 2;

bool sameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool isBefore(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

/// Whether a write at `now` or later would set a time other than `changed`. Two writes in the same
/// clock tick set the same time.
bool isOver(timespec changed, const timespec& now) {
    if (changed.tv_nsec == 0) {
        changed.tv_sec += kCoarseTickSeconds;
    }
    return isBefore(changed, now);
}

}  // namespace

FileState FileState::of(const std::string& path) {
    FileState state;
    struct stat status {};
    // The clock that file systems use; read first, so that no write comes in between.
    (void)clock_gettime(CLOCK_REALTIME_COARSE, &state.taken_);
    state.exists_ = stat(path.c_str(), &status) == 0;
    state.device_ = status.st_dev;
    state.inode_ = status.st_ino;
    state.size_ = status.st_size;
    state.changed_ = status.st_ctim;
    return state;
}

bool FileState::stillHolds(const FileState& later) const {
    return exists_ && later.exists_ && device_ == later.device_ && inode_ == later.inode_ &&
           size_ == later.size_ && sameTime(changed_, later.changed_) && isOver(changed_, taken_);
}

StoreFiles::Known* StoreFiles::find(const std::string& path) {
    const auto found = known_.find(path);
    if (found == known_.end() || !found->second.state.stillHolds(FileState::of(path))) {
        return nullptr;
    }
    if (!found->second.lockInPlace) {
        // Nothing is read, so no lock is needed, but every step must log that the directory
        // of the locks cannot be created.
        (void)getLockFile(path);
    }
    return &found->second;
}

const Json::Value* StoreFiles::nameIn(const std::string& path) {
    if (const Known* const known = find(path)) {
        return &known->name;
    }
    Known loaded;
    loaded.state = FileState::of(path);  // read before the content, which is then not older
    Json::Value document;
    std::string lockPath;
    if (!jsonFileLoad(document, path, lockPath)) {
        known_.erase(path);
        return nullptr;
    }
    loaded.lockInPlace = isInLockDirectory(lockPath);
    if (document.isObject() && std::as_const(document)["name"].isString()) {
        loaded.name = document["name"];
        if (keep_(loaded.name.asString())) {
            loaded.document = std::move(document);
        }
    }
    return &(known_[path] = std::move(loaded)).name;
}

bool StoreFiles::load(const std::string& path, Json::Value& out) {
    Known* const known = find(path);
    if (known == nullptr || known->document.isNull()) {
        return jsonFileLoad(out, path);
    }
    out = std::move(known->document);
    known->document = Json::Value();
    return true;
}

}  // namespace FW
