/// Locked JSON files. Every document that the library keeps on disk is read and written here, by
/// one process at a time, and replaced as a whole.
///
/// Each data file has a lock file, locked exclusively (fcntl) for one load or one dump, with a wait
/// of at most 30 s. Such locks belong to a process: they do not separate threads of one process.
/// Lock files are never removed here.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>

#include "tarnfirewall/fwExport.h"

namespace FW {

/// Returns the path of the lock file of the data file `path`: "/var/lock/firewall/" + its last
/// component + ".lock"; below "/tmp/" when that directory cannot be created, which is logged at
/// LOG_DEBUG. Creates directory and file if they are missing. Data files with the same name in
/// different directories share a lock file. A lock file that cannot be created is reported when it
/// is opened.
TARNFW_EXPORT std::string getLockFile(const std::string& path);

/// Reads the JSON document `path` (comments are kept) into `value`.
/// Returns true when it was read and parsed. Logs a missing or unreadable file, a lock not obtained
/// in time, and invalid JSON; in the last case `value` has what the parser read.
/// Raises boost::interprocess::interprocess_exception when the lock file cannot be opened.
TARNFW_EXPORT bool jsonFileLoad(Json::Value& value, const std::string& path);

/// Lets jsonFileLoad() and jsonFileDump() of this process use only regular files, and read none of
/// more than `bytes`: for a program that has to go on when a pipe or a device lies among the
/// documents, on which they may otherwise wait for ever. Such a file counts as one that cannot be
/// opened. 0, the default, for no limit.
TARNFW_EXPORT void jsonFileLimit(std::size_t bytes);

/// Replaces the document `path` with `value`, written to `path` + ".tmp" and renamed into place.
/// Both the document and its name are flushed to the disk. It keeps owner and mode of the file that
/// it replaces; a new one gets mode 0600, whatever the umask.
/// Returns true when it was replaced and flushed. Logs a lock not obtained in time, a temporary
/// file that cannot be opened or flushed, and a failed rename, which leaves the temporary file; the
/// old document is then unchanged. Logs also that the directory cannot be flushed: the new document
/// is then in its place, but a power failure may bring the old one back. A failed write is not
/// detected.
/// Raises boost::interprocess::interprocess_exception when the lock file cannot be opened.
TARNFW_EXPORT bool jsonFileDump(const Json::Value& value, const std::string& path);

}  // namespace FW
