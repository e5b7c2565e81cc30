/// What a change of the store leaves in the history: the copies of the documents that it changed,
/// and a record. Private to this folder.
///
/// An entry is a directory "<number>/" of ".history/", the highest number for the last change: each
/// document's copy from before the change, under the document's name, and "record", which has the
/// digests of all documents that the change wrote, made or removed, see storeHistory.h. It begins
/// as ".change/", see storeJournal.h, and becomes an entry by one rename: it is there as a whole or
/// not at all. It is not flushed: after a power failure, an entry whose copies do not agree with
/// their digests counts as missing.
#pragma once

#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tarnfw {

/// Texts of documents, by path.
using DocumentTexts = std::map<std::string, std::string>;

/// What a change did to a document: digests of its text before and after; nothing where there was
/// no such document.
struct RecordedDocument {
    std::optional<std::string> before;
    std::optional<std::string> after;
};

struct ChangeRecord {
    std::time_t time = 0;
    std::string command;
    std::map<std::string, RecordedDocument> documents;  // by path
    bool hasCopies = true;
};

/// Where the entries are.
extern const char kHistoryDir[];

/// The digest of a document's text. Of the settings, it is that of their members without "status",
/// which enabling and disabling change, and undoing never does.
std::string digestOf(const std::string& path, const std::string& text);

/// The digest that counts where there is no such document. The library writes settings that are
/// missing when it reads them, as the defaults: that is no change. Any other document has none.
std::optional<std::string> digestOfMissing(const std::string& path);

/// The numbers of the entries, the last change first. None without the directory. Throws Error,
/// kSystem, for one that cannot be read.
std::vector<unsigned long> entryNumbers();

/// The path of an entry's directory, with a slash at its end.
std::string entryPath(unsigned long number);

/// The record of an entry; nothing for one that is not complete.
std::optional<ChangeRecord> readRecord(unsigned long number);

/// Before a change, when the copies are there: notes in ".change/" which command makes it, which
/// documents there are, and the digests of the copies. False, with errno, when that cannot be
/// written.
bool beginRecord(const DocumentTexts& copied, const std::vector<std::string>& paths);

/// After a change that was ended: makes an entry of the copies; or removes the copies, if no
/// document has changed. Then removes the oldest entries while there are more than kHistoryLength,
/// or they take more than 64 MiB, or more than what is free on their disk; of the last one, if it
/// alone takes that, only the copies. Returns why a change cannot be undone; else an empty text.
std::string keepRecord(const DocumentTexts& before, const DocumentTexts& now);

/// The same for a change whose command was killed before it could do that: what the documents held
/// is in the copies. `now` is what they hold. Without an entry, too, where a power failure has left
/// copies that do not agree with their digests.
std::string keepRecordOfKilled(const DocumentTexts& now);

}  // namespace tarnfw
