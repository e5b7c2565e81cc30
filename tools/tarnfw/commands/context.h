/// What a command works on.
#pragma once

#include <memory>

#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {

/// The store, opened once for the whole command and handed on, with root's rights; and the machine,
/// asked once for each thing. The session's notes go to standard error: those of opening at once,
/// the others with the object's end.
class Context {
public:
    /// A command that has asked the machine already hands that object over. Throws Error:
    /// kNoRights, and what StoreSession throws.
    explicit Context(StoreSession::Access access,
                     std::unique_ptr<Machine> machine = std::make_unique<Machine>());
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    StoreSession& session() { return session_; }
    const StoreSnapshot& store() const { return session_.snapshot(); }

    Machine& machine() { return *machine_; }

    /// Throws Error while chains or jumps of the base filter are missing. Looks once.
    void requireBase();

private:
    void printNotes();

    StoreSession session_;
    std::unique_ptr<Machine> machine_;
    bool baseSeen_ = false;
};

}  // namespace tarnfw
