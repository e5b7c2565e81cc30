/// Reads and writes whole files, safely even where others can put something at the path first.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "hostCall.h"

namespace host {

/// Reads a file whose content can be trusted, of at most `most` bytes. Never blocks, whatever is at
/// the path. 0, or the errno code of the failure: EFBIG for a larger file.
/// Refused and logged: a symbolic link (ELOOP), anything else that is not a regular file (EINVAL),
/// and a file that belongs neither to root nor to the caller or that others may write (EPERM).
/// `info`, if given, gets the status of a file that was read.
int readTrustedFile(const std::string& path, off_t most, std::string& content,
                    struct stat* info = nullptr);

/// Whether an error of readTrustedFile() means that the file was refused, which is already logged.
bool isRefusal(int error);

/// Owner and mode of a new file, or those that a replaced file passes on.
struct FileOwner {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    mode_t mode = 0644;
};

/// Replaces whatever has this name with a new file, with the given owner and mode whatever the
/// umask. The file is on disk before it gets the name, and the name before success is returned. 0,
/// or the errno code of the failure, after which nothing has changed: EISDIR if a directory has the
/// name.
int replaceFile(const std::string& path, const std::string& content, const FileOwner& owner);

/// What is at a name. It is held open, so that its inode number is not reused.
struct Found {
    Descriptor held;
    struct stat info {};
};

/// Examines what is at `name` below `parent`; does not follow a link. 0 or an errno code.
int lookAt(int parent, const std::string& name, Found& entry);

/// How often a name is cleared before giving up on somebody who occupies it again and again.
constexpr int kMostPlanted = 8;

/// Renames what root found at a name and must not use to "NAME.refused-XXXXXX", for inspection.
/// Logged with `path` and the reason. Whatever has replaced `entry` meanwhile stays. 0 when the
/// caller may try again, or the errno code of the failure, also logged.
int setAside(int parent, const std::string& name, const Found& entry, const std::string& path,
             const std::string& why);

}  // namespace host
