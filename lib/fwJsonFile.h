/// What the reading of locked JSON files tells besides the document.
#pragma once

#include <json/json.h>

#include <string>

namespace FW {

/// jsonFileLoad(), which also tells the lock file that it took; unset where it took none.
bool jsonFileLoad(Json::Value& value, const std::string& path, std::string& lockPath);

/// Whether a lock file is where it should be. Otherwise its directory cannot be made.
bool isInLockDirectory(const std::string& lockPath);

}  // namespace FW
