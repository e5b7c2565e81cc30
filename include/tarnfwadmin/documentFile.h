/// JSON documents as texts, and their files.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/finding.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// "-" for a path: standard input.
inline constexpr char kStandardInput[] = "-";

/// The whole content of a file, or of standard input. Throws Error, kSystem, when it cannot be
/// read.
std::string readText(const std::string& path);

/// Whether there is such a file. Throws Error, kSystem, when that cannot be found out.
bool isThere(const std::string& path);

/// The whole content of a file; nothing when there is none. Throws Error, kSystem, when there may
/// be one: it cannot be opened for any other reason, or not be read.
std::optional<std::string> readTextIfAny(const std::string& path);

/// The whole content of a document of the store: only of a regular file of at most `most` bytes,
/// and without waiting for anything, whatever is at `path`. Throws Error, kSystem, also when there
/// is none.
std::string readDocument(const std::string& path, off_t most);

/// The paths in `directory`, which ends with a slash, of the entries whose names end with `suffix`;
/// sorted, and without those whose names begin with a dot. None if there is no such directory.
/// Throws Error, kSystem, for one that cannot be read: it may have any files.
std::vector<std::string> filesIn(const std::string& directory, const std::string& suffix);

/// Parses a text like the library's store, including comments. False for invalid JSON;
/// `document` then holds what was read up to there.
bool parseAsStored(const std::string& text, Json::Value& document);

/// Parses a text into `document`, with comments allowed. The findings, with "line 3, column 7" for
/// their place, are errors for invalid JSON; warnings if the library accepts a text
/// that other programs reject: a member that occurs twice, text after the document.
std::vector<Finding> parseDocument(const std::string& text, Json::Value& document);

/// A document as text, indented, in UTF-8, with escapes for what a terminal would obey.
std::string documentText(const Json::Value& document);

/// What happens to an existing file. With kReplacedAlike the new one gets its mode and group, and
/// its owner where this process may give files away.
enum class Existing { kKept, kReplaced, kReplacedAlike };

/// Writes a file atomically: under another name beside it, flushed, then
/// renamed, and the directory flushed. `mode` is set whatever the umask. Throws Error, kSystem,
/// with no file left, if that fails or, with kKept, the file exists; where only the directory
/// cannot be flushed, with the new file in its place.
void writeFileAtomically(const std::string& path, const std::string& text, mode_t mode,
                         Existing existing);

}  // namespace tarnfw
