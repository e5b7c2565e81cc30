/// Whole files, read and written at once, and what to do where others may have put something first.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "hostCall.h"

namespace host {

/// Reads a file whose content may be believed, of at most `most` bytes. Never waits, whatever the
/// name leads to. 0, or the errno code of the failure: EFBIG for a larger file.
/// Refused and logged: a symbolic link (ELOOP), anything else that is no regular file (EINVAL), and
/// a file that belongs neither to root nor to the caller or that others may write (EPERM).
/// `info`, if given, gets the status of a file that was read.
int readTrustedFile(const std::string& path, off_t most, std::string& content,
                    struct stat* info = nullptr);

/// Whether an error of readTrustedFile() is a refusal, which is logged already.
bool isRefusal(int error);

/// What a new file gets, or a replaced one hands on to its successor.
struct FileOwner {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    mode_t mode = 0644;
};

/// Puts a new file in the place of whatever has this name, with owner and mode whatever the umask.
/// It is on the disk before the name leads to it. 0, or the errno code of the failure, which leaves
/// everything as it was: EISDIR where a directory is in the way.
int replaceFile(const std::string& path, const std::string& content, const FileOwner& owner);

/// What is at a name. Holding it open keeps its inode from being given to something else.
struct Found {
    Descriptor held;
    struct stat info {};
};

/// Looks at what is at `name` below `parent`, at a link itself. 0 or an errno code.
int lookAt(int parent, const std::string& name, Found& entry);

/// How often a name is cleared before somebody who puts things there all the time has won.
constexpr int kMostPlanted = 8;

/// Takes what root found at a name and must not use out of its way: "NAME.refused-XXXXXX" keeps it
/// for a look. Logged with `path` and the reason. Whatever took the place of `entry` meanwhile is
/// left there. 0 when the caller may look again, or the errno code of the failure, logged as well.
int setAside(int parent, const std::string& name, const Found& entry, const std::string& path,
             const std::string& why);

}  // namespace host
