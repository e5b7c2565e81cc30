/// Firewall control: settings, execution, enabling, disabling and reloading; and the profiles as
/// callers see them.
#pragma once

#include <json/json.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwIptables.h"
#include "tarnfirewall/fwTypes.h"

namespace FW {

/// Firewall control. All state lives in the settings file
/// "/usr/tarn/etc/firewall.d/firewall_settings.json" ("status": enabled or not, "profile": the name
/// of the active one, "apply": how rules go in) and in the kernel; make an object on the stack, use
/// it, let it go.
///
/// Operations return true on success and log a failure. Concurrent reloads, also of other
/// processes, wait for each other, up to 30 s; other operations that belong together are serialised
/// by their callers. Exceptions come only from the libraries underneath: a settings member of a
/// type that does not convert (Json::Exception), a lock file that cannot be opened
/// (boost::interprocess::interprocess_exception). On their way a machine that was closed for a
/// reload is reopened.
class TARNFW_EXPORT TARNFW : public TARNFW_IPTABLES_RULES {
public:
    TARNFW() = default;
    ~TARNFW() = default;
    TARNFW(const TARNFW&) = delete;
    TARNFW& operator=(const TARNFW&) = delete;

    // ---- Settings ----

    /// Sets the default settings, "status" false and "profile" "default"; other members stay.
    void initJconfig(Json::Value& config);

    /// Reads the settings. A missing file is written with the defaults and never a failure.
    bool configGet(Json::Value& config);

    /// Merges the members of `config` into the settings file; none is ever removed. The file is not
    /// locked between its reading and its writing.
    bool configSet(const Json::Value& config);

    /// Whether the firewall is enabled; settings without "status" say no. `enabled` is untouched on
    /// failure.
    bool fwStatus(bool& enabled);

    /// The name of the active profile. Settings without "profile" are a failure.
    bool fwProfileConfigGet(std::string& profile);

    /// Makes a stored profile the active one and, with `reload`, applies it.
    bool fwProfileConfigSet(const std::string& profile, bool reload);

    /// How rules are put into the kernel: "batch", see FW_BATCH, when the
    /// settings' member "apply" says so; "lines" otherwise, also without settings, which are not
    /// written here. To be set with configSet(). `mode` is untouched on failure.
    bool fwApplyMode(std::string& mode);

    /// Adds the names of the machine's interfaces to `out`; does nothing when `out` holds any.
    /// From TLIBNetGetInterfaceInfo, and "wlan0" on models with wireless.
    bool fwAdapterEnum(std::set<std::string>& out);

    // ---- Execution ----

    /// Runs one command line, path and arguments separated by blanks, and waits for it. No shell,
    /// no quoting: a tab belongs to its word. At most 255 words of 1024 bytes together, each
    /// counted with a terminating zero. True when it could be run; its exit status is not looked
    /// at.
    bool cmdExec(const std::string& cmd);

    /// Runs a command document (see TARNFW_IPTABLES_RULES): IPv4 and then IPv6, in each family
    /// "global" first. Stops at the first line that cannot be run; earlier ones stay in force.
    bool fwExec(Json::Value cmds);

    /// Flushes the firewall chains of both families; goes on after a failure.
    bool fwClear();

    /// Closes the machine for a reload: the policies of INPUT and FORWARD become DROP, and
    /// FIREWALL_RELOADING lets established connections through.
    bool fwDefaultDrop();

    /// Takes back fwDefaultDrop().
    bool fwDefaultAccept();

    // ---- On and off ----

    /// Loads the kernel modules, marks the firewall enabled, applies the active profile and runs
    /// the hooks around it. After a failed reload "status" stays true unless the reload itself
    /// disabled the firewall. When modules cannot be loaded, neither settings nor packet filter
    /// change and no hook runs; core modules that went in before stay, and count as loaded.
    bool fwEnable();

    /// Flushes the chains, unloads the kernel modules and marks the firewall disabled, between the
    /// hooks. The result is that of the settings' write alone.
    bool fwDisable();

    /// The same as fwDisable().
    bool fwReset();

    /// Applies the active profile; does nothing while the firewall is disabled. Until the rules are
    /// complete the machine takes no new connections but those that they already allow.
    /// `acceptEstablished` goes to fwRulesToIptablesRules().
    /// On failure: without the lock, the settings or the modules nothing changes. A line that
    /// cannot be run disables the firewall; a profile that cannot be read or translated leaves it
    /// enabled with empty chains; the policies are then ACCEPT again. Where closing or reopening
    /// itself fails, the policies stay as far as that came; a failed reopening disables the
    /// firewall.
    /// With "apply" set to "batch" there is no closed moment: the profile is translated first, and
    /// FW_BATCH::apply() puts the rules in place. Every failure then leaves the settings and, with
    /// the exceptions named there, the packet filter as they were.
    bool fwReload(bool acceptEstablished);

    /// Translates the stored profile `profile` into the command document `cmds`.
    bool fwIptablesRulesEnum(std::string profile, Json::Value& cmds, bool acceptEstablished);

    /// The same without the line for established connections. `localIp`, handed on to
    /// fwRulesToIptablesRules(), would be excepted from that line and so has no effect of its own;
    /// one that is no address makes the translation fail.
    /// Pass a std::string: a literal is taken for the flag above.
    bool fwIptablesRulesEnum(std::string profile, Json::Value& cmds, const std::string& localIp);

    /// Translates the stored profile `profile` as a reload does while "apply" is "batch"; see
    /// fwRulesToBatchRules(), which gets `localIp`, an address or empty.
    bool fwBatchRulesEnum(const std::string& profile, Json::Value& cmds, bool acceptEstablished,
                          const std::string& localIp);

    /// Applies the test profile of `name` for a trial: its rules are in the kernel afterwards,
    /// while the settings still name the active profile, to which a reload returns. Packets of
    /// established connections pass only where its rules let them, so that the trial shows what
    /// they do. `localIp` is handed to fwIptablesRulesEnum() unless it is empty. On failure as
    /// fwReload(), except that chains that cannot be flushed end it; "apply" counts here as well.
    /// Takes no lock: the caller keeps trials and reloads apart.
    bool TestApplyingProfile(std::string name, const std::string& localIp);

    /// The same with an empty `localIp`.
    bool TestApplyingProfile(std::string name);

    // ---- Services ----

    /// Brings the rules that name services up to date with the service catalogue, in every profile:
    /// names that are unknown or not usable go, and rules that then name none. What the others
    /// name for TCP alone and for UDP alone decides their protocol; without such a name it stays.
    /// No reload is made.
    /// Returns false, logged, when profiles or catalogue cannot be read, or at the first profile
    /// that cannot be written; those before it stay changed.
    bool fwUpdate();

    /// Asks whether the active profile lets a port range through on an adapter, or, with an empty
    /// `adapter`, on every adapter with a default policy. The stored rules are evaluated, not the
    /// kernel's; "global" rules first.
    /// Adds the verdicts to `result`, by adapter: 0 allowed, 1 blocked, 3 mixed, 2 undecided, as
    /// "global" is when its rules leave it to the adapters, and an adapter whose default is "no
    /// target". With the firewall disabled, 0 for `adapter` alone. Interim verdicts, 4 and 5,
    /// become 3, but stay for "global" when asked about an adapter with neither policy nor rules.
    /// Returns false, logged, when settings or profile cannot be read; a rule whose services cannot
    /// be resolved is logged and ignored.
    bool fwPortIsBlocked(const PortCompareST& port, const std::string& adapter,
                         std::map<std::string, FW_POLICY>& result);

    /// The same as fwPortIsBlocked(), and appends to `steps` how each verdict came about, in the
    /// order of the evaluation: what it began with, each rule that matched, what followed from
    /// "global". The steps of one adapter form a chain: `before` is the `after` of the one before,
    /// and the last `after` is its entry in `result`. With the firewall disabled there are none.
    bool fwPortExplain(const PortCompareST& port, const std::string& adapter,
                       std::map<std::string, FW_POLICY>& result, std::vector<FWVERDICTSTEP>& steps);

    /// fwPortIsBlocked() for every port of a service; the most severe verdict of an adapter counts,
    /// blocked before mixed before allowed. A service without ports leaves `result` as it is.
    bool fwServIsBlocked(const std::string& servName, const std::string& adapter,
                         std::map<std::string, FW_POLICY>& result);
};

/// The profiles as callers use them: the store, with a guard on the profile in use. An object holds
/// no data of its own; make one on the stack for each operation.
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
    /// `adapter`'s list in every profile. Where that takes a new rule, the service leaves that
    /// adapter's other reserved rules. With `reload`, applies the active profile afterwards.
    bool profileAddServToReserve(const std::string& adapter, const std::string& servName,
                                 FW_POLICY policy, bool reload);

    /// Takes the first mention of a service out of every rule that names services, and rules that
    /// then name none out of their lists, in every profile. No reload is made.
    bool profileRemoveServ(const std::string& servName);

    /// Moves the policy and the rules of `oldAdapter` to `newAdapter`, replacing what that has, in
    /// every profile; with equal names they are gone. With `reload`, applies the active profile
    /// when its policies changed.
    bool profileChangeAdapter(const std::string& oldAdapter, const std::string& newAdapter,
                              bool reload);

    // ---- Test profiles ----
    //
    // A test profile is stored like any other, under ".test_" and the name given here. A trial is:
    // create, TARNFW::TestApplyingProfile(), adopt or not, remove, reload. Nothing removes one that
    // was forgotten.

    /// Stores `profile` as the test profile of `name`, in the place of an earlier one. Like
    /// profileCreate(), never returns when the store then holds no profile at all.
    bool CreateTestProfile(std::string name, const FWPROFILE& profile);

    /// Deletes the test profile of `name`, unless it is the active profile.
    bool RemoveTestProfile(std::string name);

    /// Stores what the test profile of `name` holds as profile `name`. The test profile stays, and
    /// the kernel and the settings are not touched.
    bool AdoptTestProfile(std::string name);

private:
    TARNFW_JSON_DB db_;
};

}  // namespace FW
