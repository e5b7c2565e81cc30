/// Access to the store for one task: what it holds, and changes of it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tarnfwadmin/store.h"

namespace tarnfw {

/// What lives until the next start of the machine: locks, and the records of running commands.
inline constexpr char kRunDir[] = "/run/tarn";

/// What the library holds while it reloads. A trial's rules must not go in between those of a
/// reload: the library leaves that to its caller.
inline constexpr char kReloadLock[] = "/tmp/firewall_iptables_exec.lock";

/// Makes a directory and those above it. Throws Error, kSystem.
void makeDirectory(const char* path);

/// A lock between the programs that use this library, held from construction to destruction.
class ToolLock {
public:
    /// Waits up to 30 s for the lock file `name` of the run directory; throws Error, kBusy.
    explicit ToolLock(const std::string& name);
    ~ToolLock();
    ToolLock(const ToolLock&) = delete;
    ToolLock& operator=(const ToolLock&) = delete;

private:
    int fd_ = -1;
};

/// The store as one task sees it. Make one at the beginning and hand it on: its snapshot is then
/// the same for all steps, and no file is read again that has not changed.
///
///     StoreSession session(StoreSession::Access::kChange);
///     session.snapshot().requireProfile("home");
///     if (!session.change([] { return FW::TARNFW().fwProfileConfigSet("home", false); })) {
///         ...
///     }
///
/// Nothing is printed: what a person should hear, such as a file that was put right, is in
/// takeNotes().
class StoreSession {
public:
    enum class Access {
        kRead,    ///< without a lock, and without a right to write
        kChange,  ///< under the store's lock: the library locks single files, and of two programs
                  ///< that read and then write at the same time one would undo the other
    };

    /// Opens and reads the store. With kChange, waits up to 30 s for the lock and first puts back
    /// what a program that was killed during a change has left truncated; the damaged file is kept
    /// beside it with ".damaged" after its name. Throws Error, kBusy without the lock.
    explicit StoreSession(Access access);
    StoreSession(const StoreSession&) = delete;
    StoreSession& operator=(const StoreSession&) = delete;
    ~StoreSession();

    const StoreSnapshot& snapshot() const { return snapshot_; }

    /// Looks whether the store has changed since, as after an operation of the library outside of
    /// change().
    void refresh() { snapshot_.refresh(); }

    /// Makes one change of the store, in a StoreTransaction: `write` calls the library, and its
    /// result is returned. The snapshot then is that of the changed store. Throws Error, kSystem,
    /// when there is no room for the copies, with nothing changed, or when a document was not
    /// written whole, with all documents as before; and what `write` throws.
    bool change(const std::function<bool()>& write);

    /// Stores a profile under the name that it carries. Throws Error, kSystem, as change() and when
    /// the library cannot write it; kNotFound in a store without any profile.
    void storeProfile(const FW::FWPROFILE& profile);

    /// Lets other programs change the store; the snapshot stays. Afterwards nothing may be changed.
    void unlock() { lock_.reset(); }

    /// What there is to tell a person since the last call, a line each.
    std::vector<std::string> takeNotes();

private:
    friend class StoreTransaction;

    void mendInterruptedChange();

    std::vector<std::string> notes_;
    std::unique_ptr<ToolLock> lock_;
    StoreSnapshot snapshot_;
};

/// Keeps the store whole while the library writes to it. The library does not notice a full disk:
/// it puts half a document, or an empty one, in the place of the old one, and reports success.
///
/// Made in a session that may change the store, just before the library writes. A change that needs
/// no room, as a deletion, goes without. The copies are in ".change/" of the profile directory, and
/// not flushed: they are for a program that fails or is killed, not for a loss of power.
class StoreTransaction {
public:
    /// Copies every document, which needs about the room that the change will. Throws Error,
    /// kSystem, where there is none, with nothing changed and no copy left.
    explicit StoreTransaction(StoreSession& session);

    /// Does the same as finish() for a change that an exception has ended; what finish() would
    /// throw is then a note of the session.
    ~StoreTransaction();
    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;

    /// To be called when the library has written, and before its result is looked at: brings the
    /// session's snapshot up to date. Where a document is not whole, all of them are put back, and
    /// Error, kSystem, says so. A caller that has refreshed the session since the library wrote
    /// says so with `refreshed`, and nothing is read again.
    void finish(bool refreshed = false);

    /// Ends the change by putting all documents back. False when that fails; they are then left in
    /// the directory of the copies.
    bool undo();

private:
    void copyAll();
    std::string finished(bool refreshed);
    bool putBack() const;

    StoreSession& session_;
    std::map<std::string, std::string> before_;  // what the documents held, by their paths
    bool open_ = true;
};

/// Throws what a StoreTransaction would throw for want of room. For a change that another process
/// makes.
void requireRoomForChange();

}  // namespace tarnfw
