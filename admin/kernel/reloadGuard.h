/// What surrounds an operation of the library that changes the kernel: the state before it, and
/// what it would leave otherwise.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarnfwadmin/packetFilter.h"
#include "tarnfwadmin/savedRules.h"

namespace tarnfw {

class RuleSaves;

/// Looks at the kernel under the reload's lock, before and after. The library takes that lock by
/// itself for a reload, so this class holds it only for its own steps.
///
/// A reload in apply mode "lines" sets the policies to DROP, and then to ACCEPT. A file of the run
/// directory has the state before as long as a reload is running: of one that was killed it says
/// what the policies were.
///
/// A reload in "batch" changes neither policies nor FIREWALL_RELOADING, and all or nothing of the
/// rules unless it is killed. The guard then lists only the chains that the firewall shares with
/// others. The rules of before are saved while the library reads and translates the profile: the
/// lock of iptables, which the library takes before it changes anything, is held until they are.
class ReloadGuard {
public:
    /// Whether the caller holds the reload's lock.
    enum class Lock { kTake, kHeld };

    /// How the operation changes the rules.
    enum class Change { kAny, kBatch };

    /// Reads the state before and makes ready: the firewall's jumps come first in INPUT and
    /// FORWARD, no rule of a killed reload is left unless the machine is closed, and the state
    /// before is stored. Throws Error: kBusy without the lock, kSystem when the kernel cannot be
    /// listed or changed, or, for a batch, without the base filter.
    explicit ReloadGuard(Lock lock = Lock::kTake, Change change = Change::kAny);
    ~ReloadGuard();
    ReloadGuard(const ReloadGuard&) = delete;
    ReloadGuard& operator=(const ReloadGuard&) = delete;

    /// The rules and policies of before, without what a killed reload left. After a killed reload
    /// that closed the machine: the rules of before that one, where they are known; else the rules
    /// that were last in force without an error; else what it left, closed. Throws Error, kSystem,
    /// when they could not be saved.
    const SavedRules& before() const;

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
    using Listings = std::map<std::string, RuleListing>;

    bool readForBatch();
    void read(const Listings& found);
    static void makeReady(const Listings& found);
    void settle(const Listings& now) const;

    Lock lock_;
    mutable std::optional<SavedRules> before_;   // for a batch only when somebody asks
    std::map<std::string, FamilyRules> shared_;  // the policies of before, for a batch
    std::unique_ptr<RuleSaves> saves_;
    bool leftClosed_ = false;  // before_ is that of a killed reload
};

}  // namespace tarnfw
