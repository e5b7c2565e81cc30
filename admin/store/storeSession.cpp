#include "tarnfwadmin/storeSession.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <utility>

#include <boost/algorithm/string/predicate.hpp>

#include "tarnsdk.h"

#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/utils.h"

#include "store/changeRecord.h"
#include "store/storeJournal.h"
#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kPrivateMode = 0700;
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPermissions = 0777;

constexpr char kStoreLock[] = "store.lock";

// What a command that only reads waits for that lock.
constexpr std::chrono::seconds kBriefly(2);

// Suffix for the damaged document when its copy is restored, so that nothing is lost.
constexpr char kDamaged[] = ".damaged";

// The name of a document that the library is writing: its own with kPassing after it.
constexpr char kPassing[] = ".tmp";
constexpr char kUnfinished[] = ".json.tmp";

/// A file of the run directory, which is created when missing.
std::string pathInRunDir(const std::string& name) {
    makeDirectory(kRunDir);
    return std::string(kRunDir).append("/").append(name);
}

bool isWholeFile(const std::string& path) {
    Json::Value document;
    try {
        return parseAsStored(readText(path), document);
    } catch (const Error&) {
        return false;
    }
}

struct Stored {
    std::string path;
    ino_t inode;
};

/// 0 for a file that is not there.
ino_t inodeOf(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

/// The documents of all profiles, by name. A document that is stored anew is another file: the old
/// one is there until the new one replaces it.
std::map<std::string, Stored> storedProfiles(const StoreSnapshot& store) {
    std::map<std::string, Stored> documents;
    for (const auto& [name, profile] : store.profiles()) {
        const std::string& path = store.pathOf(name);
        documents[name] = {path, inodeOf(path)};
    }
    return documents;
}

/// Writes a document as the library does, under its passing name first; what is left of that is
/// removed with the library's. A new one gets the mode and the owner of `likeFile`.
void replaceDocument(const std::string& path, const std::string& text,
                     const std::string& likeFile) {
    struct stat like {};
    const bool known = stat(path.c_str(), &like) == 0 || stat(likeFile.c_str(), &like) == 0;
    const std::string passing = path + kPassing;
    Descriptor file(open(passing.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPrivateFile));
    // Giving files away fails without the right to it; the document then is this process's.
    const int owned = file && known ? fchown(file.get(), like.st_uid, like.st_gid) : 0;
    (void)owned;
    if (!file || !writeText(file.get(), text) ||
        (known && fchmod(file.get(), like.st_mode & kPermissions) != 0) || !flush(file.get()) ||
        !file.close() || std::rename(passing.c_str(), path.c_str()) != 0) {
        throw Error(ErrorKind::kSystem,
                    "cannot write " + printable(path) + ": " + std::strerror(errno));
    }
}

/// Removes what the library has left of documents that it was writing: under the store's lock, and
/// unless a program without it is writing that document now.
void removeUnfinished() try {
    std::error_code ignored;
    for (const std::string& path : filesIn(kProfileDir, kUnfinished)) {
        if (fs::is_regular_file(path, ignored) &&
            !isLocked(FW::getLockFile(path.substr(0, path.size() - std::strlen(kPassing))))) {
            (void)unlink(path.c_str());
        }
    }
} catch (const Error&) {
    // the next session removes them
}

}  // namespace

void makeDirectory(const char* path) {
    if (TARNFSMkdirP(path, nullptr, 1, 0, 0, kDirectoryMode) < 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot create the directory ") + path);
    }
}

void makeProfileDirectory() {
    const fs::path directory = fs::path(kProfileDir).parent_path();
    if (fs::exists(directory)) {
        return;  // with the mode and the group that an administrator gave it
    }
    makeDirectory(directory.parent_path().c_str());
    if (mkdir(directory.c_str(), kPrivateMode) != 0 ||
        chmod(directory.c_str(), kPrivateMode) != 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot create the directory ") + kProfileDir);
    }
    // What is flushed in it is lost without its own name.
    const Descriptor parent(
        open(directory.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent || !flush(parent.get())) {
        throw Error(ErrorKind::kSystem, "cannot flush the directory " +
                                            directory.parent_path().string() + ": " +
                                            std::strerror(errno));
    }
}

// ---- Session ------------------------------------------------------------------------------------

ToolLock::ToolLock(const std::string& name, LockTime& time) : lock_(pathInRunDir(name), time) {
    if (!lock_.held()) {
        throwLocked(pathInRunDir(name));
    }
}

StoreSession::StoreSession(Access access, LockTime time)
    : time_(time),
      lock_(access == Access::kRead ? nullptr : std::make_unique<ToolLock>(kStoreLock, time_)) {
    FW::jsonFileLimit(kMostDocumentBytes);
    if (lock_) {
        undoInterruptedChange();
    } else {
        undoIfPossible();
    }
    for (const auto& [path, reason] : snapshot_.unusable()) {
        notes_.push_back(printable(path).append(" ").append(reason).append(": skipped"));
    }
}

StoreSession::~StoreSession() = default;

void StoreSession::awaitDocumentLocks(LockTime& time) {
    const StoreSnapshot now;  // lists the files, and reads none
    for (const std::string& path : now.documentPaths()) {
        awaitUnlocked(FW::getLockFile(path), time);
    }
}

void StoreSession::awaitReloadLock(LockTime& time) {
    awaitDocumentLocks(time);
    awaitUnlocked(kReloadLock, time);
}

void StoreSession::unlock() {
    if (!holds_) {
        lock_.reset();
    }
}

void StoreSession::holdChange() {
    holds_ = true;
}

void StoreSession::keepChange() {
    holds_ = false;
    if (const std::unique_ptr<StoreTransaction> held = std::move(held_)) {
        held->finish(/*refreshed=*/true);  // since the library wrote
    }
}

bool StoreSession::undoChange() {
    holds_ = false;
    const std::unique_ptr<StoreTransaction> held = std::move(held_);
    return !held || held->undo();
}

bool StoreSession::applyChange(const std::function<bool()>& apply) {
    if (!hasJournal()) {
        return apply();
    }
    if (!beginApplying()) {
        (void)unmarkApplied();  // where that fails, undoing the change fails as well, and says so
        return apply();
    }
    if (!apply()) {
        return false;
    }
    if (!markApplied()) {
        throw Error(
            ErrorKind::kSystem,
            std::string("the change could not be flushed to the disk: ") + std::strerror(errno));
    }
    return true;
}

void StoreSession::applyAnew() {
    endApplying();  // where that fails, a change that is interrupted will be undone, with a note
}

/// Makes a change as a part of the held one.
bool StoreSession::changeHeld(const std::function<bool()>& write) {
    if (!held_) {
        held_ = std::make_unique<StoreTransaction>(*this, StoreTransaction::Extent::kManyDocuments);
    }
    const bool written = write();
    held_->requireWhole();
    return written;
}

bool StoreSession::change(const std::function<bool()>& write) {
    if (holds_) {
        return changeHeld(write);
    }
    return StoreTransaction::change(*this, StoreTransaction::Extent::kOneDocument, write);
}

bool StoreSession::changeMany(const std::function<bool()>& write) {
    if (holds_) {
        return changeHeld(write);
    }
    return StoreTransaction::change(*this, StoreTransaction::Extent::kManyDocuments, write);
}

bool StoreSession::changeAllProfiles(const std::function<bool()>& write) {
    return changeMany([&] {
        const std::map<std::string, Stored> before = storedProfiles(snapshot_);
        if (!write()) {
            return false;
        }
        for (const auto& [name, stored] : before) {
            if (inodeOf(stored.path) == stored.inode) {
                throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) +
                                                    " could not be read; nothing was changed");
            }
        }
        return true;
    });
}

/// Copies what a deletion removes. A deletion makes space, so a full disk does not refuse it: that
/// is how it gets less full. Nothing else does, either: what is not copied is a note.
std::map<std::string, std::string> StoreSession::copyDeleted(const std::string& name) {
    if (!snapshot_.hasProfile(name) || boost::starts_with(name, kTestPrefix)) {
        return {};
    }
    std::map<std::string, std::string> deleted = {{snapshot_.pathOf(name), snapshot_.textOf(name)}};
    if (!tryToCopy(deleted, snapshot_.documentPaths())) {
        notes_.push_back(
            std::string("\"tarnfw undo\" cannot undo this deletion: cannot store a copy "
                        "in ") +
            kCopyDir + ": " + std::strerror(errno));
    }
    return deleted;
}

bool StoreSession::deleteProfile(const std::string& name) {
    awaitDocumentLocks();
    snapshot_.refresh();
    const std::map<std::string, std::string> before = copyDeleted(name);
    const bool deleted = FW::TARNFW_PROFILE().profileDelete(name);
    snapshot_.refresh();
    if (!deleted || snapshot_.hasProfile(name)) {
        dropCopies();
        return false;
    }
    changed_ = true;
    noteIfAny(keepRecord(before, {}));  // other documents stay, and may be unreadable
    if (!flushProfileDir()) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(name) +
                                            " is deleted, but a power failure may bring it back: "
                                            "that could not be flushed to the disk: " +
                                            std::strerror(errno));
    }
    return true;
}

void StoreSession::replaceDocuments(const std::map<std::string, UndoneDocument>& documents) {
    (void)changeMany([&] {
        for (const auto& [path, document] : documents) {
            if (document.text) {
                replaceDocument(path, *document.text, document.likeFile);
            } else if (unlink(path.c_str()) != 0) {
                throw Error(ErrorKind::kSystem,
                            "cannot remove " + printable(path) + ": " + std::strerror(errno));
            }
        }
        return true;
    });
}

void StoreSession::storeProfile(const FW::FWPROFILE& profile) {
    (void)snapshot_.requireProfiles();
    Stored before{"", 0};
    if (snapshot_.hasProfile(profile.name)) {
        const std::string& path = snapshot_.pathOf(profile.name);
        before = {path, inodeOf(path)};
    }
    const auto write = [&] { return FW::TARNFW_PROFILE().profileSet(profile.name, profile); };
    // The library writes a second document when it cannot read the one that is there.
    const auto wasMissed = [&] {
        return before.inode != 0 && inodeOf(before.path) == before.inode;
    };
    if (!change([&] { return write() && !wasMissed(); })) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(profile.name) + " cannot be written");
    }
}

void StoreSession::changeSettings(const Json::Value& members) {
    if (!change([&] { return FW::TARNFW().configSet(members); })) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
}

void StoreSession::setApplyMode(ApplyMode mode) {
    Json::Value members;
    members[FW::FW_APPLY_KEY] = applyModeName(mode);
    changeSettings(members);
}

void StoreSession::setAppliesChanges() {
    Json::Value members;
    members[kApplyChangesKey] = true;
    changeSettings(members);
}

std::vector<std::string> StoreSession::takeNotes() {
    return std::exchange(notes_, {});
}

void StoreSession::undoInterruptedChange() {
    if (!hasCopies()) {
        removeUnfinished();
        return;
    }
    const ChangePhase phase = changePhase();
    if (hasJournal() && phase == ChangePhase::kApplied) {
        if (!endJournal()) {
            throw Error(ErrorKind::kSystem, std::string("an interrupted change cannot be ended: ") +
                                                std::strerror(errno) + "; its rules are in force");
        }
        keepKilled();
        notes_.emplace_back(
            "a change whose command was interrupted is kept: its rules had been applied");
    } else if (hasJournal()) {
        if (!undoByJournal()) {
            throw Error(ErrorKind::kSystem,
                        std::string("an interrupted change cannot be undone: ") +
                            std::strerror(errno) + "; the documents before it are in " + kCopyDir);
        }
        notes_.push_back(
            std::string("an interrupted change was undone: all documents are as before it") +
            (phase == ChangePhase::kApplying ? ", but its rules may be in force; \"tarnfw reload\" "
                                               "applies those that are stored"
                                             : ""));
    } else {
        restoreTruncated();
        keepKilled();
    }
    removeUnfinished();
    snapshot_.refresh();
}

/// Adds what a killed command has done as a whole to the history.
void StoreSession::keepKilled() {
    snapshot_.refresh();
    try {
        noteIfAny(keepRecordOfKilled(snapshot_.texts()));
    } catch (const Error&) {
        dropCopies();  // of documents that cannot be read any more
    }
}

void StoreSession::noteIfAny(std::string text) {
    if (!text.empty()) {
        notes_.push_back(std::move(text));
    }
}

/// For a session without the lock. Copies without a journal may be those of an "enable" that goes
/// on, and nothing needs them at once.
void StoreSession::undoIfPossible() {
    if (geteuid() != 0) {  // no lock: its file would be this user's
        if (hasCopies()) {
            notes_.emplace_back(
                "a change goes on or was interrupted: what is shown may be half of it; the next "
                "command as root ends it");
        }
        return;
    }
    if (!hasJournal()) {
        return;
    }
    LockTime brief(kBriefly);
    try {
        const ToolLock lock(kStoreLock, brief);
        undoInterruptedChange();
    } catch (const Error& error) {
        notes_.emplace_back(
            error.kind() != ErrorKind::kBusy
                ? error.what()
                : "the profiles are being changed: what is shown may be half of a change");
    }
}

void StoreSession::restoreTruncated() {
    for (const std::string& path : snapshot_.unreadable()) {
        const std::string kept = path + kDamaged;
        (void)unlink(kept.c_str());  // of an earlier time
        if (fs::is_regular_file(path) && isWholeFile(copyOf(path)) &&
            link(path.c_str(), kept.c_str()) == 0 && putBack(path) && flushProfileDir()) {
            notes_.push_back(printable(path) +
                             " was truncated by a killed command; previous version restored");
        }
    }
}

// ---- Transaction --------------------------------------------------------------------------------

StoreTransaction::StoreTransaction(StoreSession& session, Extent extent)
    : session_(session), extent_(extent) {
    if (!fs::exists(kProfileDir)) {
        return;  // nothing to keep
    }
    session_.refresh();  // programs that ignore the lock may have written
    before_ = session_.snapshot().texts();
    copyDocuments(before_, session_.snapshot().documentPaths());
    try {
        session_.awaitDocumentLocks();
    } catch (const std::exception&) {
        dropCopies();
        throw;
    }
    if (extent_ == Extent::kManyDocuments) {
        beginJournal(before_);
    }
}

/// A change as a whole, as StoreSession::change().
bool StoreTransaction::change(StoreSession& session, Extent extent,
                              const std::function<bool()>& write) {
    StoreTransaction transaction(session, extent);
    if (write()) {
        transaction.finish();
        return true;
    }
    if (!transaction.undo()) {
        throw Error(ErrorKind::kSystem, "the change failed. " + transaction.notUndoneText());
    }
    return false;
}

StoreTransaction::~StoreTransaction() {
    if (!open_) {
        return;
    }
    try {
        if (!(extent_ == Extent::kManyDocuments ? undo() : undoDamage())) {
            session_.notes_.push_back(notUndoneText());
        }
    } catch (const std::exception& error) {
        session_.notes_.emplace_back(error.what());
    }
}

void StoreTransaction::finish(bool refreshed) {
    if (!refreshed) {
        session_.refresh();
    }
    open_ = false;
    session_.changed_ = session_.changed_ || !changed().empty();
    if (extent_ == Extent::kManyDocuments) {
        for (const auto& [path, text] : before_) {
            keepMode(path);
        }
    }
    if (hasJournal() && changePhase() == ChangePhase::kApplied) {
        // It is on the disk, and its rules are in force: whoever opens the store next ends what
        // cannot be ended here.
        if (endJournal()) {
            keepInHistory();
        }
        removeUnfinished();
        return;
    }
    std::string failure;
    const std::vector<std::string> paths = damaged();
    if (!paths.empty()) {
        failure = printable(paths.front()) + " could not be written completely; is the disk full? ";
    } else if (extent_ == Extent::kManyDocuments && hasJournal() && !endJournal()) {
        failure = std::string("the change could not be flushed to the disk: ") +
                  std::strerror(errno) + ". ";
    }
    if (failure.empty()) {
        keepInHistory();
        removeUnfinished();
        return;
    }
    throw Error(ErrorKind::kSystem,
                failure + (undo() ? "All documents were restored" : notUndoneText()));
}

/// Makes the copies an entry of the history. What goes wrong is a note: the change is made.
void StoreTransaction::keepInHistory() {
    try {
        session_.noteIfAny(keepRecord(before_, session_.snapshot().texts()));
    } catch (const Error& error) {  // a document that cannot be read
        session_.notes_.push_back(std::string("\"tarnfw undo\" cannot undo this change: ") +
                                  error.what());
        dropCopies();
    }
}

void StoreTransaction::requireWhole() const {
    session_.refresh();
    const std::vector<std::string> paths = damaged();
    if (!paths.empty()) {
        throw Error(ErrorKind::kSystem, printable(paths.front()) +
                                            " could not be written completely; is the disk full?");
    }
}

/// The documents that are not whole and were written meanwhile.
std::vector<std::string> StoreTransaction::damaged() const {
    const StoreSnapshot& now = session_.snapshot();
    std::vector<std::string> paths;
    for (const auto& [path, text] : now.texts()) {
        const auto old = before_.find(path);
        if ((old == before_.end() || text != old->second) && !now.isWhole(path)) {
            paths.push_back(path);
        }
    }
    return paths;
}

/// The documents that are not as they were, or not there any more.
std::vector<std::string> StoreTransaction::changed() const {
    const std::map<std::string, std::string> now = session_.snapshot().texts();
    std::vector<std::string> paths;
    for (const auto& [path, text] : now) {
        const auto old = before_.find(path);
        if (old == before_.end() || text != old->second) {
            paths.push_back(path);
        }
    }
    for (const auto& [path, text] : before_) {
        if (now.count(path) == 0) {
            paths.push_back(path);
        }
    }
    return paths;
}

bool StoreTransaction::undo() {
    open_ = false;
    session_.refresh();
    return endUndone(hasJournal() ? undoByJournal() : restore(changed()));
}

/// Restores only what is not whole; what was written before the exception stays.
bool StoreTransaction::undoDamage() {
    open_ = false;
    session_.refresh();
    if (!restore(damaged())) {
        return endUndone(false);
    }
    session_.refresh();
    keepInHistory();
    removeUnfinished();
    return true;
}

/// Removes the copies when the documents were restored. Returns `done`.
bool StoreTransaction::endUndone(bool done) {
    if (done) {
        dropCopies();
        removeUnfinished();
    }
    session_.refresh();
    return done;
}

/// What is so after undo() has failed.
std::string StoreTransaction::notUndoneText() const {
    return changed().empty()
               ? "The documents are as before, but that could not be flushed to the "
                 "disk: a power failure may bring the change back"
               : "Restoring the documents failed, too; the copies are in " + std::string(kCopyDir);
}

/// Puts these documents back; those that were not there before are removed.
bool StoreTransaction::restore(const std::vector<std::string>& paths) const {
    bool done = true;
    for (const std::string& path : paths) {
        done = (before_.count(path) == 0 ? unlink(path.c_str()) == 0 : putBack(path)) && done;
    }
    return (paths.empty() || flushProfileDir()) && done;
}

void requireRoomForChange() {
    StoreSession session(StoreSession::Access::kChange);
    StoreTransaction(session, StoreTransaction::Extent::kOneDocument).finish();
}

}  // namespace tarnfw
