/// Copies of the documents during a change of the store, and the journal of a change of more than
/// one document. Private to this folder.
///
/// The copies are in ".change/" of the profile directory, each under its document's name. In a
/// change of many documents they are flushed, and a list of them is written last: the journal.
/// While it is there, the change is open: whoever has the store's lock next puts everything back,
/// or, once the rules of the change were applied, keeps the change. Copies of a change that is kept
/// become an entry of the history, see changeRecord.h.
///
/// A file that cannot be looked at is not taken for missing: each function throws Error, kSystem,
/// then, with everything left as it is.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tarnfw {

/// Where the copies are.
extern const char kCopyDir[];

/// Whether there are copies: a change goes on, or was interrupted.
bool hasCopies();

/// Whether there is a journal: a change of many documents goes on, or was interrupted.
bool hasJournal();

/// How far the change of the journal has come: documents are written, its rules are being applied,
/// or they were applied. In the last phase, whoever finds the journal keeps the change.
enum class ChangePhase { kWriting, kApplying, kApplied };

ChangePhase changePhase();

/// From kWriting to kApplying. False if it was begun before. Throws Error, kSystem, when that
/// cannot be recorded; the phase then is as before.
bool beginApplying();

/// From kApplying back to kWriting. Does nothing if that fails.
void endApplying();

/// From kApplying to kApplied: gives the documents their modes, see keepMode(), and flushes what
/// the change has done. False, with errno, if that fails; the change then is one that is to be
/// undone.
bool markApplied();

/// Back to kApplying, on the disk, too. False, with errno, if that fails.
bool unmarkApplied();

/// Copies documents; `texts` is their content by path. `present` are the paths of all documents,
/// for the record of the change. Throws Error, kSystem, with the copies removed.
void copyDocuments(const std::map<std::string, std::string>& texts,
                   const std::vector<std::string>& present);

/// The same; false, with errno, instead of an error.
bool tryToCopy(const std::map<std::string, std::string>& texts,
               const std::vector<std::string>& present);

/// Flushes the copies and writes the journal. Throws Error, kSystem, with the copies removed.
void beginJournal(const std::map<std::string, std::string>& texts);

/// Puts everything back that the journal lists, and removes other documents, whatever the phase.
/// May be interrupted and called again. False if something cannot be put back; the copies then
/// stay. Copies without a complete journal are removed: nothing was changed.
bool undoByJournal();

/// Replaces a document by its copy. False if that fails, or if the copy cannot be flushed.
bool putBack(const std::string& path);

/// Gives the document the mode and the owner of its copy where it was deleted and written anew;
/// both are then on the disk. What fails leaves a document for root alone.
void keepMode(const std::string& path);

/// The copy's path.
std::string copyOf(const std::string& path);

/// Ends the change: what it did stays, and so do the copies. False if that cannot be flushed: a
/// power failure may then undo the change.
bool endJournal();

/// Removes the copies.
void dropCopies();

/// Flushes the entries of the profile directory. False, with errno, when that fails.
bool flushProfileDir();

}  // namespace tarnfw
