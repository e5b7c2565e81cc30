/// The files of the profile store, for one operation that goes through them more than once.
#pragma once

#include <json/json.h>
#include <sys/types.h>
#include <time.h>

#include <functional>
#include <map>
#include <string>
#include <utility>

namespace FW {

/// The state of a file, to see whether it has been written since.
class FileState {
public:
    /// The state of the file at `path` now; that of a missing file equals no other.
    static FileState of(const std::string& path);

    /// Whether the file surely has not changed from this state to the `later` one.
    bool stillHolds(const FileState& later) const;

private:
    bool exists_ = false;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    off_t size_ = 0;
    timespec changed_{};
    timespec taken_{};  // when this state was found
};

/// Each operation looks for its profile anew in every step, so a store of any number of profiles is
/// gone through several times. Every time each file is looked at; it is locked, read and parsed
/// again when it may have changed.
class StoreFiles {
public:
    /// `keep` returns whether the document of a profile is wanted later.
    explicit StoreFiles(std::function<bool(const std::string& name)> keep)
        : keep_(std::move(keep)) {}

    /// The "name" of a profile's file, null for a file that is none (such as the settings).
    /// Nothing, logged, when the file cannot be loaded.
    const Json::Value* nameIn(const std::string& path);

    /// Loads a document as jsonFileLoad() does, or hands out the one that nameIn() has kept: once,
    /// when the file has not changed since, and then without its lock.
    bool load(const std::string& path, Json::Value& out);

private:
    struct Known {
        FileState state;
        bool lockInPlace = false;
        Json::Value name;
        Json::Value document;  // null when it is not kept
    };

    /// What is known of a file, null when that may be out of date.
    Known* find(const std::string& path);

    std::function<bool(const std::string& name)> keep_;
    std::map<std::string, Known> known_;
};

}  // namespace FW
