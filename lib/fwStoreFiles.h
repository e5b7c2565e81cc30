/// The files of the profile store, for one operation that scans them more than once.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>

#include <json/json.h>

#include "tarnfirewall/fwFileState.h"

namespace FW {

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
