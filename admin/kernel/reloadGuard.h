/// What surrounds an operation of the library that changes the kernel: the state before it, and
/// what it would leave otherwise.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarnfwadmin/descriptor.h"
#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/savedRules.h"

namespace FW {
class XtablesLock;
}

namespace tarnfw {

/// Looks at the kernel under the reload's lock, before and after. The library takes that lock by
/// itself for a reload, so this class holds it only for its own steps.
///
/// A reload in apply mode "lines" sets the policies to DROP, and then to ACCEPT. A file of the run
/// directory has the state before as long as a reload is running: of one that was killed it says
/// what the policies were.
///
/// A reload in "batch" changes neither policies nor FIREWALL_RELOADING. Unless it is killed, it
/// changes all of the rules or none. The library saves the tables itself then, and review() reads
/// what it saved: nothing is listed twice before the reload.
class ReloadGuard {
public:
    /// Whether the caller holds the reload's lock.
    enum class Lock { kTake, kHeld };

    /// What the operation changes in the kernel.
    enum class Change {
        kAny,
        kBatch,  ///< a reload that calls review(). The constructor then only checks whether a
                 ///< reload in "lines" was killed; if so, this is a guard for any change
    };

    /// Reads the state before and makes ready: the firewall's jumps come first in INPUT and
    /// FORWARD, no rule of a killed reload is left unless the machine is closed, and the state
    /// before is stored. Throws Error: kBusy without the lock, kSystem when the kernel cannot be
    /// listed or changed.
    explicit ReloadGuard(Lock lock = Lock::kTake, Change change = Change::kAny);
    ReloadGuard(const ReloadGuard&) = delete;
    ReloadGuard& operator=(const ReloadGuard&) = delete;

    /// To be called in a batch, with what the library saved, see FW_BATCH_REVIEW: keeps the state
    /// before, also for the process that has made this one. Returns whether the batch may go on:
    /// not after a killed reload that closed the machine, see needsMore(). Throws Error, kSystem,
    /// without the base filter.
    bool review(const std::map<std::string, std::string_view>& saved);

    /// Whether review() has found that the batch needs a guard for any change.
    bool needsMore() const;

    /// The previous rules and policies, without what a killed reload left. After a killed reload
    /// that closed the machine: the rules before that reload, where they are known; else the rules
    /// that were last in force without an error; else what it left, closed. Throws Error, kSystem,
    /// when they could not be saved.
    const SavedRules& before() const;

    /// From now on, going back waits only some seconds for the lock of iptables, then does without
    /// it and logs that: a machine that stays closed would be worse than a change that another
    /// process loses.
    void insist();

    /// Whether somebody was found to keep that lock.
    bool lockIsKept() const { return lockIsKept_; }

    /// After a change that has succeeded: FIREWALL_RELOADING is empty, the policies are those of
    /// before, and the firewall's jumps come first. Returns what is in force. Throws as the
    /// constructor.
    SavedRules finish() const;

    /// After a change that has failed: puts back the state before. Throws Error, kSystem.
    void putBack() const;

    /// Without a change: ends what a killed reload left. With `enabled` the previous rules are put
    /// back; where they are not known, a machine that is closed stays so until a reload succeeds.
    /// Throws Error, kSystem.
    void mend(bool enabled) const;

    /// Whether the kernel has the state before.
    bool isAsBefore() const;

private:
    using Listings = std::map<std::string, RuleListing>;

    void read(const Listings& found);
    std::string reviewed() const;
    static void makeReady(const Listings& found);
    void settle(const Listings& now) const;
    Listings listNow() const;
    std::unique_ptr<FW::XtablesLock> lockIfFree() const;

    Lock lock_;
    mutable std::optional<SavedRules> before_;   // for a batch only when somebody asks
    std::map<std::string, FamilyRules> shared_;  // the policies of before, in a batch
    std::map<std::string, std::size_t> bytes_;   // of the tables of before, in a batch
    Descriptor saved_;  // a file of the processes that share this guard in a batch
    bool insists_ = false;
    mutable bool lockIsKept_ = false;
    bool leftClosed_ = false;  // before_ is that of a killed reload
};

}  // namespace tarnfw
