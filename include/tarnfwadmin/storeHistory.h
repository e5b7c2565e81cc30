/// What the last changes of the store replaced, and what undoing them would write.
#pragma once

#include <cstddef>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/store.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// How many changes are kept; fewer where they take more than 64 MiB, or more than what is free on
/// their disk.
inline constexpr std::size_t kHistoryLength = 50;

/// One change of the store, by a program that used a StoreSession.
struct HistoryEntry {
    std::size_t number = 0;  ///< from 1, the last change
    std::time_t time = 0;    ///< when it began
    std::string command;     ///< the command line, quoted as for a shell; empty if unknown
    std::vector<std::string> documents;  ///< the paths of what it wrote, made or removed, sorted
    bool undoable = true;  ///< false: too large to be kept; what the documents held is lost
};

/// The texts of documents before and after a change, by path. A document that was not there is not
/// among them.
struct StoreChange {
    std::map<std::string, std::string> before;
    std::map<std::string, std::string> after;
};

/// A document that undoing changes.
struct UndoneDocument {
    std::optional<std::string> text;  ///< what it is to hold; nothing: it is to be removed
    std::string likeFile;             ///< a file with the mode and the owner that it had
};

/// The changes that are kept in ".history/" of the profile directory, as they were when this was
/// made. Only root can read them. Changes by the firewall library alone are not among them, nor
/// those that only enabled or disabled the firewall, which no undoing does.
class StoreHistory {
public:
    /// Reads all of it. Throws Error, kNoRights or kSystem, when some of it cannot be read.
    StoreHistory();

    /// The last change first.
    const std::vector<HistoryEntry>& entries() const { return entries_; }

    /// The change of that number. Throws Error, kNotFound.
    const HistoryEntry& entry(std::size_t number) const;

    /// What that change did. `store` is the present one, which ends the last change. What other
    /// programs did since, without a StoreSession, counts as done by it. "status" of the settings
    /// is no part of a change: both sides have that of before, or
    /// none where there were no settings. Documents that are not known on both
    /// sides are left out: those of a change that is not undoable, and what it has found. Throws
    /// Error, kNotFound, for a change that is no longer kept.
    StoreChange changeOf(std::size_t number, const StoreSnapshot& store) const;

    /// What puts back the documents that change `number` and all later ones have changed, by path;
    /// without those that are as they were. "status" of the settings stays what it is now: only
    /// enabling and disabling may change it. Throws Error, kUnusable, if one of these changes is
    /// not undoable.
    std::map<std::string, UndoneDocument> undoing(std::size_t number,
                                                  const StoreSnapshot& store) const;

    /// The paths of the documents of undoing() that hold something else than these changes have
    /// left: another program has changed them, without a StoreSession.
    std::vector<std::string> changedByOthers(std::size_t number, const StoreSnapshot& store) const;

private:
    std::optional<std::string> textBefore(std::size_t number, const std::string& path) const;

    std::vector<HistoryEntry> entries_;
    std::vector<unsigned long> directories_;                  // of the entries
    std::vector<std::map<std::string, std::string>> before_;  // digests by path, of each entry
    std::vector<std::map<std::string, std::string>> after_;
};

/// Throws Error, kUnusable, for documents of StoreHistory::undoing() that are not to be written:
/// the active profile would not be there any more, or two documents would have one profile's name.
void requireUndoable(const std::map<std::string, UndoneDocument>& undone,
                     const StoreSnapshot& store);

}  // namespace tarnfw
