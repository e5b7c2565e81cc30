/// Runs iptables' legacy programs while other programs use them.
///
/// They hold a lock while they change a table, and without "-w" some versions give up at once when
/// another program has it. A caller that ignores exit statuses then misses a line of its rules.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "fwXtablesLock.h"

namespace host {

/// Whether `path` is one of the two programs that change the packet filter, and takes that lock.
/// Those of the nft variant do not.
bool takesXtablesLock(const char* path);

/// Whether `path` is ip6tables on a machine that has none: there is then no IPv6 to filter, and
/// what the program would do is done.
bool isAbsentFamily(const char* path);

/// Whether `path` is ip6tables.
bool isIp6tables(const char* path);

/// Whether a complaint of ip6tables says that the kernel does not have its family, and an earlier
/// one of this process has said so: it does for every line.
bool saysAbsentAgain(const std::string& complaint);

/// The environment of a program that runs while the caller holds the lock: its own standard input
/// is its lock file, for which nobody else waits.
inline constexpr char kInputAsLockFile[] = "XTABLES_LOCKFILE=/proc/self/fd/0";

/// How a program is run: with a lock file of its own, or so that it takes the machine's lock.
enum class OwnLockFile { kYes, kNo };

/// Runs `attempt`, which returns an exit status or -1, while holding the lock. An old program that
/// does not know lock files of its own is run again without that, until it gets the lock itself.
/// Returns the exit status. -1 when the lock was not free within `most`, which is logged with the
/// name of `path`; then nothing was changed. After that has happened, calls of the next half minute
/// wait for a moment only: a failing reload runs several programs more.
int underXtablesLock(const char* path, const std::function<int(OwnLockFile)>& attempt,
                     std::chrono::milliseconds most = FW::kXtablesLockWait);

}  // namespace host
