/// Files that are there whole or not at all.
#pragma once

#include <sys/types.h>

#include <string>

namespace tarnfw {

/// What becomes of a file that is there already.
enum class Existing { kKept, kReplaced };

/// Writes all of a text to an open file. False, with errno, when that fails.
bool writeText(int fd, const std::string& text);

/// Writes a file under another name beside it, and gives it its own when it is on the disk. Throws
/// Error, with nothing left behind, when that fails or, with kKept, the file is there.
void writeWholeFile(const std::string& path, const std::string& text, mode_t mode,
                    Existing existing);

}  // namespace tarnfw
