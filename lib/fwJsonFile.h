/// Reading locked JSON files, for sources that also need the lock file.
#pragma once

#include <json/json.h>

#include <string>

namespace FW {

/// As jsonFileLoad(); also returns the lock file that it used, untouched where it used none.
bool jsonFileLoad(Json::Value& value, const std::string& path, std::string& lockPath);

/// Whether a lock file is in its proper directory. Otherwise that directory cannot be created.
bool isInLockDirectory(const std::string& lockPath);

}  // namespace FW
