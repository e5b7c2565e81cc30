/// What is kept of the store while the library writes to it.
#pragma once

#include <map>
#include <string>

namespace tarnfw {

/// Keeps the store whole. The library does not notice a full disk: it puts half a document, or an
/// empty one, in the place of the old one, and reports success.
///
/// Made while the StoreLock is held, just before the library writes. A change that needs no room,
/// as a deletion, goes without.
class StoreChange {
public:
    /// Copies every document, which needs about the room that the change will; throws Error
    /// where there is none, with nothing changed.
    StoreChange();

    /// Does the same as finish() for a change that an exception has ended, and says on standard
    /// error what finish() would throw.
    ~StoreChange();
    StoreChange(const StoreChange&) = delete;
    StoreChange& operator=(const StoreChange&) = delete;

    /// To be called when the library has written, and before its result is looked at: where a
    /// document is not whole, all of them are put back, and Error says so.
    void finish();

    /// Ends the change by putting all documents back. False when that fails; they are then left in
    /// the directory of the copies.
    bool undo();

private:
    void copyAll();
    std::string finished();
    bool putBack() const;

    std::map<std::string, std::string> before_;  ///< what the documents held, by their paths
    bool open_ = true;
};

/// Refuses what a StoreChange would refuse. For a change that another process makes.
void requireRoomForChange();

/// Puts back what a command that was killed during a StoreChange has left half written, and says so
/// on standard error. For StoreLock, which sees to it that no change is going on.
void mendInterruptedChange();

}  // namespace tarnfw
