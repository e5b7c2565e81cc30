/// Reading locked JSON files, for sources that also need the lock file.
#pragma once

#include <json/json.h>

#include <string>

namespace FW {

/// jsonFileLoad(), which also gives the lock file that it took; untouched where it took none.
bool jsonFileLoad(Json::Value& value, const std::string& path, std::string& lockPath);

/// Whether a lock file is where it should be. Otherwise its directory cannot be made.
bool isInLockDirectory(const std::string& lockPath);

}  // namespace FW
