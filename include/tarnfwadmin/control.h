/// Enabling, disabling and applying.
#pragma once

#include <functional>
#include <string>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/storeSession.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;

/// Runs `work`, an operation of the library, to its end and returns its result. `what` is for a
/// person who waits: "Applying the rules of "home"". Throws what the work throws, and Error,
/// kSystem, when the work cannot be run or is killed.
using Runner = std::function<bool(const std::string& what, const std::function<bool()>& work)>;

/// Runs the work in this process, and shows nothing. A process that is killed meanwhile may leave
/// the machine closed to new connections, until the next reload: block the signals that could do
/// that.
bool runHere(const std::string& what, const std::function<bool()>& work);

/// Control of the firewall for one task. Uses the session, which must outlive it; after each
/// operation the session has the store as it is then.
class Control {
public:
    explicit Control(StoreSession& session, Runner run = runHere);

    StoreSession& session() { return session_; }

    /// Throws Error, kSystem, while chains or jumps of the base filter are missing. Lists the
    /// kernel's rules once: later calls, and those of the operations below, return at once.
    void requireBase();

    /// Enables the firewall and applies the active profile. The session may change the store.
    /// `confirm` is called with the active profile when that is valid, and may throw to stop.
    /// Throws Error: kNotFound or kInvalid for an active profile that is not there or not valid and
    /// kSystem without the base filter, with nothing changed; kRefused when the rules could not be
    /// applied, or what the runner throws: a firewall that was disabled is disabled again.
    void enable(Machine& machine, const std::function<void(const FW::FWPROFILE&)>& confirm = {});

    /// Empties the firewall's chains and disables it. The session may change the store. Throws
    /// Error, kSystem, when the settings cannot be written; the chains are empty then.
    void disable();

    /// Applies the active profile, and returns true. While the firewall is disabled it does nothing
    /// and returns false. The profile is not checked: in the apply mode "lines" the library leaves
    /// out what the kernel does not take, see requireValidProfile(). Throws Error: kSystem without
    /// the base filter, with nothing changed; kRefused, with what is in force now, when the rules
    /// could not be applied.
    bool apply();

private:
    [[noreturn]] void enableFailed(const Error& reason, bool wasEnabled);

    StoreSession& session_;
    Runner run_;
    bool baseSeen_ = false;
};

}  // namespace tarnfw
