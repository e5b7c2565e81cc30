/// Locked JSON files: every document that the library keeps on disk is read and written here, one
/// process at a time, and replaced as a whole.
///
/// Each data file has a lock file, taken exclusively (fcntl) for one load or one dump and awaited
/// for at most 30 s. Such locks belong to a process: threads of one process are not kept apart.
/// Lock files are never removed here.
#pragma once

#include <json/json.h>

#include <string>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Names the lock file of the data file `path`, "/var/lock/firewall/" + its last component +
/// ".lock", and makes directory and file when they are missing. Data files of one name in different
/// directories share a lock file.
/// Returns the lock file's path; below "/tmp/" when the directory cannot be made, which is logged
/// at LOG_DEBUG. A lock file that cannot be made shows up when it is opened.
TARNFW_EXPORT std::string getLockFile(const std::string& path);

/// Reads the JSON document `path` (comments are kept) into `value`.
/// Returns true when it was read and parsed. Logs a missing or unreadable file, a lock not obtained
/// in time, and invalid JSON; in the last case `value` holds what the parser left.
/// Raises boost::interprocess::interprocess_exception when the lock file cannot be opened.
TARNFW_EXPORT bool jsonFileLoad(Json::Value& value, const std::string& path);

/// Replaces the document `path` with `value`, written to `path` + ".tmp" and renamed into place.
/// Returns true when it was replaced. Logs a lock not obtained in time, a temporary file that
/// cannot be opened, and a failed rename, which leaves the temporary file; the old document
/// is then unchanged. A failed write is not noticed.
/// Raises boost::interprocess::interprocess_exception when the lock file cannot be opened.
TARNFW_EXPORT bool jsonFileDump(const Json::Value& value, const std::string& path);

}  // namespace FW
