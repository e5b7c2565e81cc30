/// JSON documents as texts, and the files that hold them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// "-" for a path: standard input.
inline constexpr char kStandardInput[] = "-";

/// The whole content of a file, or of standard input. Throws Error, kSystem, when it cannot be
/// read.
std::string readText(const std::string& path);

/// Parses a text as the library's store does, comments included. False for what is no JSON
/// document; `document` then holds what was read up to there.
bool parseAsStored(const std::string& text, Json::Value& document);

/// Parses a text into `document`, with comments allowed. The findings, with "line 3, column 7" for
/// their place, are errors when it is no JSON document; warnings where the library takes a text
/// that other programs refuse: a member that stands twice, text after the document.
std::vector<Finding> parseDocument(const std::string& text, Json::Value& document);

/// A document as text, indented, in UTF-8.
std::string documentText(const Json::Value& document);

/// What becomes of a file that exists already.
enum class Existing { kKept, kReplaced };

/// Writes a file that is complete or does not exist: under another name beside it, flushed, then
/// renamed, and the directory flushed. `mode` is set whatever the umask. Throws Error, kSystem,
/// with nothing left behind, when that fails or, with kKept, the file exists.
void writeFileAtomically(const std::string& path, const std::string& text, mode_t mode,
                         Existing existing);

}  // namespace tarnfw
