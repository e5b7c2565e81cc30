/// Firewall control: settings, execution, enabling, disabling and reloading; and the profiles as
/// callers see them.
#pragma once

#include <json/json.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Firewall control. All state lives in the settings file
/// "/usr/tarn/etc/firewall.d/firewall_settings.json" ("status": enabled or not, "profile": the name
/// of the active one, "apply": the apply mode) and in the kernel; make an object on the stack for
/// each use.
///
/// Operations return true on success and log a failure. Concurrent reloads, also of other
/// processes, wait for each other, up to 30 s; callers serialise other operations that belong
/// together. Exceptions come only from a review and from the libraries used: for a settings member
/// whose type does not convert (Json::Exception) and for a lock file that cannot be opened
/// (boost::interprocess::interprocess_exception). Before an exception leaves a reload, the machine
/// is reopened.
class TARNFW_EXPORT TARNFW : public TARNFW_IPTABLES_RULES {
public:
    TARNFW() = default;
    ~TARNFW() = default;
    TARNFW(const TARNFW&) = delete;
    TARNFW& operator=(const TARNFW&) = delete;

    // ---- Settings ----

    /// Sets the default settings, "status" false and "profile" "default"; other members stay.
    void initJconfig(Json::Value& config);

    /// Reads the settings. A missing file is written with the defaults and is not a failure.
    bool configGet(Json::Value& config);

    /// Merges the members of `config` into the settings file; none is ever removed. The file is not
    /// locked between the read and the write.
    bool configSet(const Json::Value& config);

    /// Whether the firewall is enabled; false without "status". `enabled` is untouched on
    /// failure.
    bool fwStatus(bool& enabled);

    /// The name of the active profile. Settings without "profile" are a failure.
    bool fwProfileConfigGet(std::string& profile);

    /// Makes a stored profile the active one and, with `reload`, applies it.
    bool fwProfileConfigSet(const std::string& profile, bool reload);

    /// The apply mode: "batch" (see FW_BATCH) when that is the settings' member "apply", otherwise
    /// "lines". Missing settings are not written here. Set it with configSet(). `mode` is untouched
    /// on failure.
    bool fwApplyMode(std::string& mode);

    /// Adds the names of the machine's interfaces to `out`; does nothing when `out` holds any.
    /// From TLIBNetGetInterfaceInfo, and "wlan0" on models with wireless.
    bool fwAdapterEnum(std::set<std::string>& out);

    // ---- Execution ----

    /// Runs one command line, path and arguments separated by blanks, and waits for it. No shell,
    /// no quoting: a tab belongs to its word. At most 255 words of 1024 bytes together, each
    /// counted with a terminating zero. True when it could be run; its exit status is
    /// ignored.
    bool cmdExec(const std::string& cmd);

    /// Runs a command document (see TARNFW_IPTABLES_RULES): IPv4 and then IPv6, in each family
    /// "global" first. Stops at the first line that cannot be run; earlier ones stay in force.
    bool fwExec(Json::Value cmds);

    /// Flushes the firewall chains of both families; goes on after a failure.
    bool fwClear();

    /// Closes the machine for a reload: the policies of INPUT and FORWARD become DROP, and
    /// FIREWALL_RELOADING lets established connections through.
    bool fwDefaultDrop();

    /// Reverses fwDefaultDrop().
    bool fwDefaultAccept();

    // ---- On and off ----

    /// Loads the kernel modules, marks the firewall enabled, applies the active profile and runs
    /// the hooks around it. After a failed reload "status" stays true unless the reload itself
    /// disabled the firewall. When modules cannot be loaded, neither settings nor packet filter
    /// change and no hook runs; core modules that went in before stay, and count as loaded.
    bool fwEnable();

    /// Flushes the chains, unloads the kernel modules and marks the firewall disabled, between the
    /// hooks. The result is only whether the settings were written.
    bool fwDisable();

    /// The same as fwDisable().
    bool fwReset();

    /// Applies the active profile; does nothing while the firewall is disabled. Until the rules are
    /// complete the machine accepts only new connections that those in place already allow.
    /// `acceptEstablished` goes to fwRulesToIptablesRules().
    /// On failure: without the lock, the settings or the modules nothing changes. A line that
    /// cannot be run disables the firewall; a profile that cannot be read or translated leaves it
    /// enabled with empty chains; the policies are then ACCEPT again. If closing or reopening
    /// itself fails, the policies stay as they are at that point; a failed reopening disables the
    /// firewall.
    /// With "apply" set to "batch" the machine is never closed: the profile is translated first,
    /// and FW_BATCH::apply() puts the rules in place. Every failure then leaves the settings and,
    /// with the exceptions named there, the packet filter as they were.
    bool fwReload(bool acceptEstablished);

    /// fwReload(), and with "apply" set to "batch" the caller takes part: see
    /// FW_BATCH::applyReviewed().
    /// Without "batch", or while the firewall is disabled, `review` is not called. Where it is
    /// against the batch nothing changes, and the result is false without a log line.
    bool fwReloadReviewed(bool acceptEstablished, const FW_BATCH_REVIEW& review);

    /// Translates the stored profile `profile` into the command document `cmds`.
    bool fwIptablesRulesEnum(std::string profile, Json::Value& cmds, bool acceptEstablished);

    /// The same without the line for established connections. `localIp`, handed on to
    /// fwRulesToIptablesRules(), would be excepted from that line and so has no effect of its own;
    /// one that is not an address makes the translation fail.
    /// Pass a std::string: a literal would convert to the flag above.
    bool fwIptablesRulesEnum(std::string profile, Json::Value& cmds, const std::string& localIp);

    /// Translates the stored profile `profile` as a reload does while "apply" is "batch"; see
    /// fwRulesToBatchRules(), which gets `localIp`, an address or empty.
    bool fwBatchRulesEnum(const std::string& profile, Json::Value& cmds, bool acceptEstablished,
                          const std::string& localIp);

    /// Applies the test profile of `name` for a trial: its rules are in the kernel afterwards,
    /// while the settings still name the active profile, which a reload restores. Packets of
    /// established connections pass only if its rules allow them, so that the trial shows what
    /// they do. `localIp` is handed to fwIptablesRulesEnum() unless it is empty. On failure as
    /// fwReload(), except that chains that cannot be flushed end it; the apply mode applies here as
    /// well. Takes no lock: the caller keeps trials and reloads apart.
    bool TestApplyingProfile(std::string name, const std::string& localIp);

    /// The same with an empty `localIp`.
    bool TestApplyingProfile(std::string name);

    // ---- Services ----

    /// Brings the rules that name services up to date with the service catalogue, in every profile:
    /// unknown and unusable names are removed, and rules that then name none. The
    /// remaining services that use only TCP or only UDP decide a rule's protocol; without any, it
    /// stays. Does not reload. Returns false, logged, when profiles or catalogue cannot be read, or
    /// at the first profile that cannot be written; those before it stay changed.
    bool fwUpdate();

    /// Asks whether the active profile lets a port range through on an adapter, or, with an empty
    /// `adapter`, on every adapter with a default policy. The stored rules are evaluated, not the
    /// kernel's; "global" rules first.
    /// Adds the verdicts to `result`, by adapter: 0 allowed, 1 blocked, 3 mixed, 2 undecided, as
    /// "global" is when its rules leave it to the adapters, and an adapter whose default policy
    /// is none. With the firewall disabled, 0 for `adapter` alone. Interim verdicts, 4 and 5,
    /// become 3, but stay for "global" when asked about an adapter with neither policy nor rules.
    /// Returns false, logged, when settings or profile cannot be read; a rule whose services cannot
    /// be resolved is logged and ignored.
    bool fwPortIsBlocked(const PortCompareST& port, const std::string& adapter,
                         std::map<std::string, FW_POLICY>& result);

    /// The same as fwPortIsBlocked(), and appends to `steps` how each verdict was reached, in
    /// order of evaluation: the first verdict, each rule that matched, and what "global"
    /// decided. The steps of one adapter form a chain: `before` is the `after` of the one before,
    /// and the last `after` is its entry in `result`. With the firewall disabled there are none.
    bool fwPortExplain(const PortCompareST& port, const std::string& adapter,
                       std::map<std::string, FW_POLICY>& result, std::vector<FWVERDICTSTEP>& steps);

    /// The same about `profile`, as if it were the active one of an enabled firewall. Reads no file
    /// of the store and takes no lock.
    void fwPortExplainOf(const FWPROFILE& profile, const PortCompareST& port,
                         const std::string& adapter, std::map<std::string, FW_POLICY>& result,
                         std::vector<FWVERDICTSTEP>& steps);

    /// fwPortIsBlocked() for every port of a service; the most severe verdict of an adapter counts,
    /// blocked before mixed before allowed. A service without ports leaves `result` as it is.
    bool fwServIsBlocked(const std::string& servName, const std::string& adapter,
                         std::map<std::string, FW_POLICY>& result);
};

/// The profiles as callers use them: the store, which protects the active profile. An object has no
/// state: make one on the stack for each operation.
class TARNFW_EXPORT TARNFW_PROFILE {
public:
    // ---- The store's operations, unchanged; see TARNFW_JSON_DB ----

    bool profileEnum(std::map<std::string, FWPROFILE>& profiles);
    bool profileEnum(std::vector<std::string>& names);
    bool profileGet(const std::string& name, FWPROFILE& out);
    bool profileSet(const std::string& name, const FWPROFILE& profile);
    bool profileExist(const std::string& name);
    bool profileCreate(const std::string& name);
    bool profileRename(const std::string& oldName, const std::string& newName);

    /// Deletes a profile. Returns false, logged, for the active one, whether or not the firewall is
    /// enabled, and when the settings cannot be read; nothing is then deleted.
    bool profileDelete(const std::string& name);

    // ---- Services and adapters in all profiles ----
    //
    // Not atomic: each stops, with false, at the first profile that cannot be written, and
    // those before it stay changed. Callers serialise them.

    /// Reserves a service: puts it, with `policy`, into the reserved service rule at the head of
    /// `adapter`'s list in every profile. If that needs a new rule, the service is removed from
    /// the adapter's other reserved rules. With `reload`, applies the active profile afterwards.
    bool profileAddServToReserve(const std::string& adapter, const std::string& servName,
                                 FW_POLICY policy, bool reload);

    /// Removes the first mention of a service from every rule that names services, and then the
    /// rules that name none, in every profile. Does not reload.
    bool profileRemoveServ(const std::string& servName);

    /// Moves the policy and the rules of `oldAdapter` to `newAdapter`, replacing what that has, in
    /// every profile; if both names are the same, they are removed. With `reload`, applies the
    /// active profile when its policies changed.
    bool profileChangeAdapter(const std::string& oldAdapter, const std::string& newAdapter,
                              bool reload);

    // ---- Test profiles ----
    //
    // A test profile is stored like any other, under ".test_" and the name given here. A trial is:
    // create, TARNFW::TestApplyingProfile(), adopt or not, remove, reload. A forgotten test profile
    // stays.

    /// Stores `profile` as the test profile of `name`, replacing an earlier one. Like
    /// profileCreate(), never returns when the store then holds no profile at all.
    bool CreateTestProfile(std::string name, const FWPROFILE& profile);

    /// Deletes the test profile of `name`, unless it is the active profile.
    bool RemoveTestProfile(std::string name);

    /// Overwrites profile `name` with its test profile. The test profile stays, and
    /// the kernel and the settings are not touched.
    bool AdoptTestProfile(std::string name);

private:
    TARNFW_JSON_DB db_;
};

}  // namespace FW
