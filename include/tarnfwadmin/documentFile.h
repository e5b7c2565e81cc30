/// JSON documents from files and standard input, read as the library reads them.
#pragma once

#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfwadmin/finding.h"

namespace tarnfw {

/// "-" for a path: standard input.
inline constexpr char kStandardInput[] = "-";

/// The whole content of a file. Throws Error when it cannot be read.
std::string readText(const std::string& path);

/// Whether a file holds a whole document, which is then in `document`. Without the library's lock:
/// documents are replaced as a whole, so this is one version of it.
bool readDocument(const std::string& path, Json::Value& document);

/// Parses a text into `document`, with comments allowed. The findings, with "line 3, column 7" for
/// their place, are errors when it is no JSON document; warnings where the library takes a text
/// that other programs refuse: a member that stands twice, something behind the document.
std::vector<Finding> parseDocument(const std::string& text, Json::Value& document);

}  // namespace tarnfw
