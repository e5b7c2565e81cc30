#include "fwStoreFiles.h"

#include <utility>

#include "tarnfirewall/utils.h"

#include "fwJsonFile.h"

namespace FW {

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
