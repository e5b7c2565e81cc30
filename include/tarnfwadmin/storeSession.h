/// Access to the store for one task: reading and changing it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/fileLock.h"
#include "tarnfwadmin/store.h"
#include "tarnfwadmin/storeHistory.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The directory for locks and the records of running commands, cleared by a reboot.
inline constexpr char kRunDir[] = "/run/tarn";

/// The lock that the library holds during a reload. A trial must not run during a
/// reload; the library leaves that to its caller.
inline constexpr char kReloadLock[] = "/tmp/firewall_iptables_exec.lock";
inline constexpr int kReloadLockSeconds = 30;  // the longest wait for it

/// Creates a directory and its parents, if it is missing. Throws Error, kSystem.
void makeDirectory(const char* path);

/// Creates the profile directory, if it is missing, for root alone as the profiles are. Throws
/// Error, kSystem.
void makeProfileDirectory();

/// A lock between the programs that use this library, held from construction to destruction.
class ToolLock {
public:
    /// Waits for the lock file `name` of the run directory. Throws Error, kBusy, which names the
    /// process that holds the lock.
    ToolLock(const std::string& name, LockTime& time);

private:
    FileLock lock_;
};

class StoreTransaction;

/// The store for one task. Create one session at the beginning and pass it on: its snapshot is then
/// the same for all steps, and unchanged files are not read again.
///
///     StoreSession session(StoreSession::Access::kChange);
///     session.snapshot().requireProfile("home");
///     if (!session.change([] { return FW::TARNFW().fwProfileConfigSet("home", false); })) {
///         ...
///     }
///
/// Each change is added to the history, see storeHistory.h, with the copies that it has made
/// anyway. What cannot be added is a note: the change itself is made, and needs no more space.
///
/// Nothing is printed: messages for a person, such as a restored file, are in
/// takeNotes().
class StoreSession {
public:
    enum class Access {
        kRead,     ///< no changes, and no lock except to end an interrupted change
        kSettled,  ///< no changes, under the store's lock: for what relies on the documents, such
                   ///< as a reload, which must not apply a change that may be undone yet
        kChange,   ///< under the store's lock: the library locks single files, and of two programs
                   ///< that read and then write at the same time one would undo the other
    };

    /// Opens and reads the store. With kChange and kSettled, waits for the lock and first ends an
    /// interrupted change. One of many documents is undone, or kept if its rules were applied, see
    /// applyChange(); a note says which. Of any other, truncated documents are restored; the
    /// damaged file is kept beside its document with ".damaged" after its name. With kRead, root
    /// ends an interrupted change of many documents as well; where the lock for it is not free
    /// within 2 s, a note says so. Others take no lock, and a note names a change that goes on.
    /// Throws Error: kBusy without the lock, kSystem where an interrupted change can be neither
    /// undone nor kept. A file that StoreSnapshot::unusable() lists is a note. `time` is what the
    /// session may wait for locks, see lockTime().
    explicit StoreSession(Access access, LockTime time = LockTime());
    StoreSession(const StoreSession&) = delete;
    StoreSession& operator=(const StoreSession&) = delete;
    ~StoreSession();

    const StoreSnapshot& snapshot() const { return snapshot_; }

    /// The time that is left for locks, for all steps of the task.
    LockTime& lockTime() { return time_; }

    /// To be called before an operation of the library that reads documents, outside a change:
    /// throws Error, kBusy, which names the holder, when another process keeps the lock of a
    /// document for longer than lockTime().
    void awaitDocumentLocks() { awaitDocumentLocks(time_); }

    /// The same for an operation that takes the lock of a reload as well.
    void awaitReloadLock() { awaitReloadLock(time_); }

    /// The same before a session, with `time` for it.
    static void awaitReloadLock(LockTime& time);

    /// Reads files that have changed since, as after an operation of the library outside
    /// change().
    void refresh() { snapshot_.refresh(); }

    /// Changes one document, in a StoreTransaction: `write` calls the library, and its result is
    /// returned. The snapshot then is that of the changed store. If `write` returns false, as when
    /// the document cannot be flushed, the previous version is restored. Throws Error, kSystem, if
    /// there is no space for the copies, with nothing changed; if the document was not written
    /// completely, with the previous version restored; if restoring fails; and what `write` throws.
    bool change(const std::function<bool()>& write);

    /// The same for a change of many documents, or of files that come and go: it is made as a whole
    /// or not at all, whatever interrupts it. All documents are also restored if `write` throws.
    bool changeMany(const std::function<bool()>& write);

    /// changeMany() for an operation of the library that stores every profile anew. The library
    /// skips a profile that it cannot read at the moment, for want of a descriptor or after an
    /// error of the disk, and reports success: then all documents are restored, and Error, kSystem,
    /// names the profile.
    bool changeAllProfiles(const std::function<bool()>& write);

    /// Deletes a profile's file. False if it is still there. Throws Error, kSystem, if it is
    /// deleted and that cannot be flushed to the disk. Without space for a copy it is deleted, with
    /// a note that this cannot be undone. Other documents need not be readable.
    bool deleteProfile(const std::string& name);

    /// Writes and removes documents as StoreHistory::undoing() says, with changeMany(). Throws
    /// Error, kSystem, with the store as it was.
    void replaceDocuments(const std::map<std::string, UndoneDocument>& documents);

    /// Stores a profile under its name. Throws Error, kSystem, like change() and if
    /// the library cannot write it; kNotFound in a store without any profile.
    void storeProfile(const FW::FWPROFILE& profile);

    /// Sets the apply mode. Throws Error, kSystem, like change() and if the library cannot write
    /// it.
    void setApplyMode(ApplyMode mode);

    /// Has changes of the active profile applied at once, see StoreSnapshot::appliesChanges().
    /// Throws Error as setApplyMode().
    void setAppliesChanges();

    /// Lets other programs change the store; the snapshot stays. Afterwards nothing may be changed.
    /// Does nothing while a change is held.
    void unlock();

    // ---- A change that is kept only when what depends on it succeeds, such as a reload ----

    /// The next changes stay open, as one, until keepChange() or undoChange(). A session that ends
    /// before that undoes them. After a kill the next session does, unless their rules were
    /// applied.
    void holdChange();

    /// For the process that applies the rules of an open change of many documents: records that,
    /// calls `apply`, and when that returns true, records that the rules were applied: whoever
    /// opens the store after a kill or a power failure then keeps the change. A change that is
    /// interrupted in between is undone, with a note that its rules may be in force. A further
    /// call, such as one that puts back the old rules, makes the change one that is undone after a
    /// kill. Without such a change only calls `apply`. Throws Error, kSystem: without calling
    /// `apply`, when its beginning cannot be recorded; after it, when its end cannot be flushed to
    /// the disk. The change is then still to be undone.
    bool applyChange(const std::function<bool()>& apply);

    /// After an applyChange() whose `apply` has put nothing in force: the next call counts as the
    /// first.
    void applyAnew();

    /// Ends a held change. Throws Error, kSystem, like change(), but not when its rules were
    /// applied.
    void keepChange();

    /// Restores all documents. False if that fails; the copies then stay.
    bool undoChange();

    /// Whether a change of this session that was kept has altered a document.
    bool hasChanged() const { return changed_; }

    /// Adds a message for a person.
    void note(std::string text) { notes_.push_back(std::move(text)); }

    /// The messages for a person since the last call, one line each.
    std::vector<std::string> takeNotes();

private:
    friend class StoreTransaction;

    static void awaitDocumentLocks(LockTime& time);
    bool changeHeld(const std::function<bool()>& write);
    void changeSettings(const Json::Value& members);
    void keepKilled();
    void noteIfAny(std::string text);
    std::map<std::string, std::string> copyDeleted(const std::string& name);
    void undoInterruptedChange();
    void undoIfPossible();
    void restoreTruncated();

    std::vector<std::string> notes_;
    LockTime time_;
    std::unique_ptr<ToolLock> lock_;
    StoreSnapshot snapshot_;
    bool holds_ = false;
    bool changed_ = false;
    std::unique_ptr<StoreTransaction> held_;  // uses the members before it
};

/// Protects the store while the library writes to it, with copies of all documents in ".change/" of
/// the profile directory.
///
/// Create it in a session that may change the store, just before the library writes. A change that
/// needs no space, such as a deletion, does without.
class StoreTransaction {
public:
    /// What the library writes meanwhile.
    enum class Extent {
        kOneDocument,  ///< which it replaces as a whole: an interrupted change was made or not, and
                       ///< only a damaged document is restored; undo() restores all
        kManyDocuments,  ///< whoever opens the store next undoes an interrupted change, or keeps it
                         ///< if its rules were applied; the copies are flushed, for a power failure
    };

    /// Copies every document, which needs about as much space as the change. Throws Error,
    /// kSystem, if there is none, with nothing changed and no copy left.
    StoreTransaction(StoreSession& session, Extent extent);

    /// Ends a change that an exception has ended: undoes one of many documents, and restores what
    /// is damaged. What goes wrong is then a note of the session.
    ~StoreTransaction();
    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;

    /// To be called when the library has written: brings the session's snapshot up to date. Of many
    /// documents, what was done is flushed. Where a document is not whole, or that fails, the
    /// change is undone, and Error, kSystem, says so. A change whose rules were applied stays
    /// instead, and nothing is thrown: applyChange() has flushed it. A caller that has refreshed
    /// the session since the library wrote says so with `refreshed`, and nothing is read again.
    void finish(bool refreshed = false);

    /// Throws Error, kSystem, for a document that is not whole. The change goes on; brings the
    /// session's snapshot up to date.
    void requireWhole() const;

    /// Ends the change by undoing it: restores all documents. False if that fails; the copies then
    /// stay, and the next session tries again.
    bool undo();

private:
    friend class StoreSession;

    static bool change(StoreSession& session, Extent extent, const std::function<bool()>& write);
    void keepInHistory();
    bool undoDamage();
    bool endUndone(bool done);
    std::string notUndoneText() const;
    std::vector<std::string> damaged() const;
    std::vector<std::string> changed() const;
    bool restore(const std::vector<std::string>& paths) const;

    StoreSession& session_;
    Extent extent_;
    std::map<std::string, std::string> before_;  // what the documents held, by their paths
    bool open_ = true;
};

/// Throws what a StoreTransaction would throw for lack of space. For a change that another process
/// makes.
void requireRoomForChange();

}  // namespace tarnfw
