/// What surrounds an operation of the library that changes the kernel: the state before it, and
/// what it would leave otherwise.
#pragma once

#include <map>
#include <string>

#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/savedRules.h"

namespace tarnfw {

/// Looks at the kernel under the reload's lock, before and after. The library takes that lock by
/// itself for a reload, so this class holds it only for its own steps.
///
/// A reload in apply mode "lines" sets the policies to DROP, and then to ACCEPT. A file of the run
/// directory has the state before as long as a reload is running: of one that was killed it says
/// what the policies were.
class ReloadGuard {
public:
    /// Whether the caller holds the reload's lock.
    enum class Lock { kTake, kHeld };

    /// Reads the state before and makes ready: the firewall's jumps come first in INPUT and
    /// FORWARD, no rule of a killed reload is left unless the machine is closed, and the state
    /// before is stored. Throws Error: kBusy without the lock, kSystem when the kernel cannot be
    /// listed or changed.
    explicit ReloadGuard(Lock lock = Lock::kTake);

    /// The rules and policies of before, without what a killed reload left. After a killed reload
    /// that closed the machine: the rules of before that one, where they are known; else the rules
    /// that were last in force without an error; else what it left, closed.
    const SavedRules& before() const { return before_; }

    /// After a change that has succeeded: FIREWALL_RELOADING is empty and the policies are those of
    /// before. Returns what is in force. Throws as the constructor.
    SavedRules finish() const;

    /// After a change that has failed: puts back the state before. Throws Error, kSystem.
    void putBack() const;

    /// Without a change: ends what a killed reload left. With `enabled` the rules of before are put
    /// back; where they are not known, a machine that is closed stays so until a reload succeeds.
    /// Throws Error, kSystem.
    void mend(bool enabled) const;

    /// Whether the kernel has the state before.
    bool isAsBefore() const;

private:
    void read(const std::map<std::string, RuleListing>& found);

    Lock lock_;
    SavedRules before_;
    bool leftClosed_ = false;  // before_ is that of a killed reload
};

}  // namespace tarnfw
