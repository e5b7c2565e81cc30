/// Enabling, disabling and applying.
#pragma once

#include <functional>
#include <string>

#include <json/json.h>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/storeSession.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;
class Descriptor;
class ReloadGuard;

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
///
/// An operation that applies rules looks first whether they can be applied. In apply mode "lines",
/// where the library leaves out what the kernel does not take, the active profile is read,
/// translated and loaded into a scratch kernel; in "batch" the library changes nothing when it
/// cannot read or translate it, or when a line is refused. After an error the rules and the
/// settings are as before, also when it comes from the library's own reload; where going back has
/// failed, too, the error says so. Policies of INPUT and
/// FORWARD that others have set stay, and the firewall's two jumps in each of these chains come
/// first. What is then in force is stored, see lastGoodRules().
///
/// A signal that ends this process between the steps may leave a change half made: block signals.
class Control {
public:
    explicit Control(StoreSession& session, Runner run = runHere);

    StoreSession& session() { return session_; }

    /// Throws Error, kSystem, while chains or jumps of the base filter are missing. Lists the
    /// kernel's rules once: later calls, and those of the operations below, return at once.
    void requireBase();

    /// Throws Error when the active profile cannot be applied, without applying it: kNotFound,
    /// kSystem or kInvalid for one that cannot be read or translated, kRefused for one that this
    /// kernel does not take in apply mode "lines". Where the system does not allow a scratch
    /// kernel, a note of the session says so. May load the firewall's kernel modules, and leaves
    /// them loaded when the lines need them.
    void requireApplicable();

    /// Why requireApplicable() would refuse the lines of a profile in apply mode "lines", and a
    /// reload in "batch": "rule 3 of eth0: this kernel refuses ..."; empty when the kernel takes
    /// all of them, or nobody can tell.
    static std::string kernelRefusal(const FW::FWPROFILE& profile);

    /// Enables the firewall and applies the active profile. The session may change the store.
    /// `confirm` is called with the active profile when that is valid, and may throw to stop.
    /// Throws Error: as requireApplicable(), kInvalid for an invalid profile and kSystem without
    /// the base filter, with nothing changed; kRefused when the rules could not be applied, or what
    /// the runner throws: a firewall that was disabled is disabled again.
    void enable(Machine& machine, const std::function<void(const FW::FWPROFILE&)>& confirm = {});

    /// Empties the firewall's chains and disables it, under the lock of a reload. The session may
    /// change the store. Throws Error: kBusy without the lock, with nothing changed; kSystem when
    /// the settings cannot be written, with the chains empty, or when chains are not empty.
    void disable();

    /// Applies the active profile, and returns true. While the firewall is disabled it does nothing
    /// and returns false. Throws Error: as requireApplicable(), and kSystem without the base
    /// filter, with nothing changed; kRefused, with what is in force now, when the rules could not
    /// be applied.
    bool apply();

private:
    void awaitLocks();
    using Operation = std::function<bool(const FW::FW_BATCH_REVIEW&)>;

    bool reload(const Operation& operation, ReloadGuard& guard, const Descriptor& warning) const;
    void runGuarded(const std::string& failed, const Operation& operation, bool reviewed);
    std::string goBack(ReloadGuard& guard, bool wasEnabled);

    StoreSession& session_;
    Runner run_;
    bool baseSeen_ = false;
    Json::Value commands_;  // the active profile, translated by requireApplicable()
};

/// Makes the base filter ready for rules, under the lock of a reload: puts the firewall's own jumps
/// first in INPUT and FORWARD, and ends what a killed reload left there. `enabled` is the settings'
/// status; a disabled firewall has no rules to put back. Throws Error: kBusy without the lock,
/// kSystem when the kernel cannot be changed.
void tidyBase(bool enabled);

}  // namespace tarnfw
