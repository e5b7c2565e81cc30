/// The lock of iptables' legacy programs. Compiled into the library, libtarnfwadmin and
/// platform/host, and depends on nothing of theirs but the header fwSpawn.h.
#pragma once

#include <chrono>

#include "fwSpawn.h"

namespace FW {

inline constexpr char kXtablesLockPath[] = "/run/xtables.lock";

/// How long one piece of work waits for other programs.
inline constexpr std::chrono::seconds kXtablesLockWait{30};

/// The lock that iptables' legacy programs hold while they change a table, held from construction
/// to destruction. When this library runs several of them at the same time, it holds the lock for
/// all: otherwise they would wait for each other. It is always the machine's lock file, whatever
/// XTABLES_LOCKFILE is in the caller's environment.
class XtablesLock {
public:
    /// Waits for at most `most`. If it is not held, errno has the reason: EWOULDBLOCK when another
    /// program held it.
    explicit XtablesLock(std::chrono::milliseconds most = kXtablesLockWait);
    ~XtablesLock();
    XtablesLock(const XtablesLock&) = delete;
    XtablesLock& operator=(const XtablesLock&) = delete;

    bool held() const { return held_; }

private:
    Descriptor file_;
    bool held_ = false;
};

}  // namespace FW
