#include "tarnfwadmin/storeSession.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <utility>

#include "tarnsdk.h"

#include "tarnfirewall/tarnFW.h"

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kDirectoryMode = 0755;

// In the profile directory, so that a copy can replace its document by renaming, which needs no
// space. The library ignores names that begin with a dot, and subdirectories.
constexpr char kCopyDir[] = "/usr/tarn/etc/firewall.d/.change/";
constexpr mode_t kCopyDirMode = 0700;
constexpr mode_t kModeBits = 07777;

// Suffix for the damaged document when its copy is restored, so that nothing is lost.
constexpr char kDamaged[] = ".damaged";

std::string copyOf(const std::string& path) {
    return kCopyDir + fs::path(path).filename().string();
}

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

void dropCopies() {
    std::error_code ignored;
    (void)fs::remove_all(kCopyDir, ignored);  // the next copies replace leftovers
}

[[noreturn]] void refuse() {
    throw Error(ErrorKind::kSystem, std::string("nothing was changed: cannot store a copy in ") +
                                        kCopyDir + ": " + std::strerror(errno));
}

bool writeCopy(const std::string& path, const std::string& text, mode_t mode) {
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    const bool written = file && writeText(file.get(), text) && fchmod(file.get(), mode) == 0;
    return file.close() && written;
}

}  // namespace

void makeDirectory(const char* path) {
    if (TARNFSMkdirP(path, nullptr, 1, 0, 0, kDirectoryMode) < 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot create the directory ") + path);
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
      lock_(access == Access::kChange ? std::make_unique<ToolLock>("store.lock", time_) : nullptr) {
    if (lock_) {
        mendInterruptedChange();
    }
}

StoreSession::~StoreSession() = default;

bool StoreSession::change(const std::function<bool()>& write) {
    StoreTransaction transaction(*this);
    const bool written = write();
    transaction.finish();
    return written;
}

void StoreSession::storeProfile(const FW::FWPROFILE& profile) {
    (void)snapshot_.requireProfiles();
    if (!change([&] { return FW::TARNFW_PROFILE().profileSet(profile.name, profile); })) {
        throw Error(ErrorKind::kSystem, "profile " + inQuotes(profile.name) + " cannot be written");
    }
}

void StoreSession::setApplyMode(ApplyMode mode) {
    Json::Value settings;
    settings[FW::FW_APPLY_KEY] = applyModeName(mode);
    if (!change([&] { return FW::TARNFW().configSet(settings); })) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
}

std::vector<std::string> StoreSession::takeNotes() {
    return std::exchange(notes_, {});
}

void StoreSession::mendInterruptedChange() {
    if (!fs::exists(kCopyDir)) {
        return;
    }
    for (const std::string& path : snapshot_.unreadable()) {
        const std::string copy = copyOf(path);
        if (fs::is_regular_file(path) && isWholeFile(copy) &&
            std::rename(path.c_str(), (path + kDamaged).c_str()) == 0 &&
            std::rename(copy.c_str(), path.c_str()) == 0) {
            notes_.push_back(printable(path) +
                             " was truncated by a killed command; previous version restored");
        }
    }
    dropCopies();
    snapshot_.refresh();
}

// ---- Transaction --------------------------------------------------------------------------------

StoreTransaction::StoreTransaction(StoreSession& session) : session_(session) {
    if (!fs::exists(kProfileDir)) {
        return;  // nothing to keep
    }
    try {
        copyAll();
    } catch (const Error&) {
        dropCopies();
        throw;
    }
}

StoreTransaction::~StoreTransaction() {
    if (!open_) {
        return;
    }
    try {
        const std::string failure = finished(/*refreshed=*/false);
        if (!failure.empty()) {
            session_.notes_.push_back(failure);
        }
    } catch (const std::exception& error) {
        session_.notes_.emplace_back(error.what());
    }
}

void StoreTransaction::finish(bool refreshed) {
    const std::string failure = finished(refreshed);
    if (!failure.empty()) {
        throw Error(ErrorKind::kSystem, failure);
    }
}

void StoreTransaction::copyAll() {
    session_.refresh();  // programs that ignore the lock may have written
    if (mkdir(kCopyDir, kCopyDirMode) != 0) {
        refuse();
    }
    before_ = session_.snapshot().texts();
    for (const auto& [path, text] : before_) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0 ||
            !writeCopy(copyOf(path), text, status.st_mode & kModeBits)) {
            refuse();
        }
    }
}

/// Ends the change. Returns its error; empty on success.
std::string StoreTransaction::finished(bool refreshed) {
    open_ = false;
    if (!refreshed) {
        session_.refresh();
    }
    const StoreSnapshot& now = session_.snapshot();
    for (const auto& [path, text] : now.texts()) {
        const auto old = before_.find(path);
        if ((old != before_.end() && text == old->second) || now.isWhole(path)) {
            continue;
        }
        const std::string failure =
            printable(path) + " could not be written completely; is the disk full? ";
        return failure +
               (undo() ? "All documents were restored"
                       : "Restoring them failed, too; the copies are in " + std::string(kCopyDir));
    }
    dropCopies();
    return "";
}

bool StoreTransaction::undo() {
    open_ = false;
    session_.refresh();
    const bool done = putBack();
    if (done) {
        dropCopies();
    }
    session_.refresh();
    return done;
}

/// Restores all documents, even those that were written completely.
bool StoreTransaction::putBack() const {
    const std::map<std::string, std::string> now = session_.snapshot().texts();
    bool done = true;
    for (const auto& [path, text] : now) {
        if (before_.count(path) == 0) {
            done = unlink(path.c_str()) == 0 && done;
        }
    }
    for (const auto& [path, text] : before_) {
        const auto found = now.find(path);
        if (found == now.end() || found->second != text) {
            done = std::rename(copyOf(path).c_str(), path.c_str()) == 0 && done;
        }
    }
    return done;
}

void requireRoomForChange() {
    StoreSession session(StoreSession::Access::kChange);
    StoreTransaction(session).finish();
}

}  // namespace tarnfw
