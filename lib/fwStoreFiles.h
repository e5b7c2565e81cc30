/// The files of the profile store, for one operation that scans them more than once.
#pragma once

#include <json/json.h>
#include <sys/types.h>
#include <time.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

namespace FW {

/// The state of a file, to detect whether it has been written since.
class FileState {
public:
    /// The state of the file at `path` now. That of a missing file equals no other.
    static FileState of(const std::string& path);

    /// Whether the file certainly has not changed between this state and the `later` one.
    bool stillHolds(const FileState& later) const;

private:
    bool exists_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t size_ = 0;
    timespec changed_{};
    timespec taken_{};  // when this state was read
};

/// Each operation searches for its profile again in every step, so it scans all files of the store
/// several times. A scan checks the state of each file, and locks, reads and parses it again only
/// if it may have changed.
class StoreFiles {
public:
    /// `keep` returns whether the document of a profile is wanted later.
    explicit StoreFiles(std::function<bool(const std::string& name)> keep)
        : keep_(std::move(keep)) {}

    /// The "name" in a profile's file; null for a file without one (such as the settings). A null
    /// pointer, logged, when the file cannot be loaded.
    const Json::Value* nameIn(const std::string& path);

    /// Loads a document as jsonFileLoad() does. If the file has not changed since nameIn() kept its
    /// document, returns that instead, once and without locking the file.
    bool load(const std::string& path, Json::Value& out);

private:
    struct Known {
        FileState state;
        bool lockInPlace = false;
        Json::Value name;
        Json::Value document;  // null when it is not kept
    };

    /// What is known about a file; null if that may be out of date.
    Known* find(const std::string& path);

    std::function<bool(const std::string& name)> keep_;
    std::map<std::string, Known> known_;
};

}  // namespace FW
