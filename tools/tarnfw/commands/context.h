/// What a command works on.
#pragma once

#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

/// The store, opened once for the whole command and handed on, with root's rights. The session's
/// notes go to standard error: those of opening at once, the others with the object's end.
class Context {
public:
    /// Throws Error: kNoRights, and what StoreSession throws.
    explicit Context(StoreSession::Access access);
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    StoreSession& session() { return session_; }
    const StoreSnapshot& store() const { return session_.snapshot(); }

    /// Throws Error while chains or jumps of the base filter are missing. Looks once.
    void requireBase();

private:
    void printNotes();

    StoreSession session_;
    bool baseSeen_ = false;
};

}  // namespace tarnfw
