/// Whole files, read and written at once.
#pragma once

#include <sys/types.h>

#include <string>

namespace host {

/// Reads a regular file of at most `most` bytes. Never waits, whatever the name leads to.
/// 0, or the errno of the failure: EFBIG for a larger one, EINVAL or EISDIR for another kind of
/// file.
int readWholeFile(const std::string& path, off_t most, std::string& content);

/// Writes `path` + ".tmp" and renames it into place, with `mode` whatever the umask. 0, or the
/// errno of the failure, which leaves the file as it was. Writers see to it that one is at work at
/// a time.
int replaceFile(const std::string& path, const std::string& content, mode_t mode);

}  // namespace host
