/// What a command works on, and how it applies stored profiles to the kernel.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "cli/commandLine.h"
#include "cli/report.h"
#include "tarnfwadmin/control.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/storeSession.h"
#include "tarnfwadmin/unlisted.h"

namespace tarnfw {

/// The reload options of a command that changes profiles. Context::applies() resolves them.
struct ReloadOptions {
    bool wanted = false;  ///< "--reload": apply the active profile afterwards
    bool later = false;   ///< "--later": only store the change
    bool yes = false;     ///< do not ask
    bool quiet = false;   ///< "--quiet": do not say what the change opens and closes
    /// What the command reports; see runReporting().
    std::shared_ptr<Report> report = std::make_shared<Report>();
};

/// The store, opened once for the whole command, and the machine, asked once for
/// each thing. The session's notes go to standard error: those of opening it at once, the others
/// when the object is destroyed.
class Context {
public:
    /// A command that already has a Machine passes it on; one that has taken a lock passes the
    /// rest of its time for waiting. Throws Error: kNoRights for a change without root's rights,
    /// and what StoreSession throws.
    explicit Context(StoreSession::Access access,
                     std::unique_ptr<Machine> machine = std::make_unique<Machine>(),
                     const LockTime& time = LockTime());
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    StoreSession& session() { return session_; }
    const StoreSnapshot& store() const { return session_.snapshot(); }

    Machine& machine() { return *machine_; }

    /// Each operation runs to its end, see runWhole().
    Control& control() { return control_; }

    /// Whether the active profile makes other rules than those that are in force, or, where these
    /// are not known, than when this was made: what is off, or for an adapter that is not there,
    /// makes none.
    bool hasOtherRules();

    /// The profile whose rules are in force, see profileInForce(), as it is at the first call: to
    /// be called before anything is applied.
    const std::optional<FW::FWPROFILE>& inForce();

    /// The active profile as it was when this was made; nothing if it could not be read.
    const std::optional<FW::FWPROFILE>& activeBefore() const { return before_; }

    /// A profile as it is before this command changes it, for profileBefore().
    void rememberProfile(const std::string& name);

    /// The active profile as it was when this was made, or another one that was remembered; nothing
    /// if it could not be read.
    std::optional<FW::FWPROFILE> profileBefore(const std::string& name) const;

    /// Whether a change of the active profile is to be applied: with "--reload"; without it, and
    /// without "--later", if the firewall is enabled and the settings have changes applied at once,
    /// as they were at the first call.
    bool applies(const ReloadOptions& options);

private:
    void printNotes();

    StoreSession session_;
    std::unique_ptr<Machine> machine_;
    Control control_;
    std::optional<FW::FWPROFILE> before_;      // the active profile
    std::optional<FW::FWPROFILE> remembered_;  // another one
    std::optional<FW::FWPROFILE> inForce_;     // of the kernel
    bool hasAskedKernel_ = false;              // for inForce_
    std::optional<bool> atOnce_;               // whether changes are applied without "--reload"
};

/// Adds "--reload", "--later" and "--yes" to a command that changes profiles. `yesHelp` is for one
/// that has more to ask.
void addReloadFlag(Command& command, ReloadOptions& options,
                   const char* yesHelp = "Do not ask if rules that are applied would lock you out");

// ---- Before a change ----

/// "rule 3 of eth0: ...; profile "home" has 2 errors, ..."; empty when it has none.
std::string errorsText(const FW::FWPROFILE& profile, Machine& machine);

/// Warns in one line about an invalid profile.
void warnAboutErrors(const FW::FWPROFILE& profile, Machine& machine);

/// For a command that will apply its change, before it changes anything: throws what reloadActive()
/// would. What it then changes is undone unless finishChange() succeeds. `profile` is the only one
/// that it changes, if there is only one; empty for the active one. A change of another one is
/// applied with "--reload" alone; what it was is remembered, for the words about the change.
void requireReloadable(Context& context, const ReloadOptions& options,
                       const std::string& profile = "");

/// The question about a profile that would lock out the person who applies it.
inline constexpr char kApplyAnyway[] = "Apply it anyway?";

/// For a profile that is about to be stored. If it will be applied, because it is the active one:
/// throws Error, kInvalid, when it is invalid, and asks when it would lock out the person who
/// is connected over SSH. If not: only warns when it is invalid.
void requireAppliable(Context& context, const FW::FWPROFILE& changed, const ReloadOptions& options);

/// Before a profile is applied: asks as requireSshAccess(). Throws Error, kBusy, if another program
/// writes before the answer: the change is made from what was read.
void askBeforeApplying(Context& context, const FW::FWPROFILE& profile,
                       const ReloadOptions& options);

/// As requireAppliable(), for a command whose result is known only after its change: `write` makes
/// it, as a held one, and the active profile is judged as it is then stored. If somebody is to be
/// asked, the change is undone for the time of the question, and made again after it. An invalid
/// profile is only warned about.
void writeWithConsent(Context& context, const ReloadOptions& options,
                      const std::function<void()>& write);

/// After a question: throws Error, kBusy, unless the documents hold what they held before it.
void requireUntouched(const std::map<std::string, std::string>& before);

/// With a capital letter at its beginning.
std::string capitalised(std::string text);

/// Prints a line to standard output, broken between words where the terminal is narrower.
void sayWrapped(const std::string& line);

/// "what this opens and closes could not be found out: ...": a change does not depend on what is
/// said about it, but silence would mean that it opens and closes nothing.
std::string unknownChangeText(const Error& failure);

/// What happens with `after` in force and not with `before`: "opens tcp 445 on eth0, for everybody
/// (rule 4 of eth0)", and which of the adapters concerned have no interface now. Empty where
/// nothing else happens to any packet; unknownChangeText() where that cannot be found out.
std::string changeText(const FW::FWPROFILE& before, const FW::FWPROFILE& after, Machine& machine);

/// What the new state of profile `name` is compared with: of the active one what is in force, where
/// that is known, since applying it applies what was only stored before, too. While the firewall is
/// disabled, and of another profile, it is `stored`, the profile as it was.
struct ComparedWith {
    FW::FWPROFILE profile;
    bool isKnown = true;  ///< false: other rules than those of `profile` are in force
};
ComparedWith comparedWith(Context& context, const std::string& name, const FW::FWPROFILE& stored);

/// The text of a change, with what is to be said where what is in force is not known.
std::string withUnknown(std::string text, const ComparedWith& before);

/// Such a text with when it is true of a change of a profile: "Opens ..." for one that is about to
/// be applied, "Once applied: opens ...", "Once profile "home" is in use: opens ...". Empty for an
/// empty one.
std::string whenText(Context& context, const std::string& profile, const ReloadOptions& options,
                     const std::string& text);

// ---- The kernel ----

/// Runs `change` detached, see runDetached(). Shows "`what` ..." on the terminal meanwhile, and
/// prints its messages when it is done; those of a failure wait for its cause, see
/// printAfterwards(). Returns what `change` returns. Throws Error, kSystem, with
/// the reason when `change` throws or is killed. `meanwhile` runs at the same time; the text that
/// it returns goes to standard error first.
bool runWhole(const std::string& what, const std::function<bool()>& change,
              const std::function<std::string()>& meanwhile = {});

/// Adds to the document of an adapter whether the profile has anything for it ("inProfile"), and
/// whether it is open without that ("open").
void addUnlisted(Json::Value& document, bool inProfile,
                 const std::optional<UnlistedAdapter>& adapter);

/// "left out, without an interface now: eth7, vpn": the adapters of a profile that a reload skips
/// although they have rules, or are denied by default. Empty when there is none.
std::string skippedText(const FW::FWPROFILE& profile, Machine& machine);

/// Applies the active profile if the firewall is enabled, prints its name and reports it. Throws as
/// Control::apply().
void reloadActive(Control& control, Report& report);

/// After the active profile was applied, or the firewall disabled: ends an abandoned trial. What
/// fails is a warning. Afterwards the context may change nothing.
void forgetTrial(Context& context);

/// After a profile was changed. If it is the active one and the firewall is enabled: applies it,
/// see Context::applies(), or says that the kernel still has the old rules. Throws Error, with the
/// store as it was before and the old rules in force, when it cannot be applied. `say` prints what
/// was changed, once it is. What the change opens and closes is said as well: before it is applied,
/// or after `say`. That is `effect`, if it is given; otherwise it is found out from
/// Context::profileBefore(). A profile that is not applied is tried in a scratch
/// kernel, with a warning when a reload would be refused; of a large one only what is new, if that
/// is given as `changed`.
void finishChange(Context& context, const std::string& profile, const ReloadOptions& options,
                  const std::function<void()>& say,
                  const std::optional<FW::FWPROFILE>& changed = std::nullopt,
                  const std::optional<std::string>& effect = std::nullopt);

/// The same for a change of more than one profile; `profiles` are those that changed.
void finishChange(Context& context, const std::vector<std::string>& profiles,
                  const ReloadOptions& options, const std::function<void()>& say);

/// After a command that found the profile to be as wanted. Where a change of it would have been
/// applied: applies it unless its rules are in force. Throws Error when it cannot be applied.
void finishUnchanged(Context& context, const FW::FWPROFILE& profile, const ReloadOptions& options);

/// Warns about stored profiles that a reload would refuse.
void warnAboutRefusals(Context& context, const std::vector<std::string>& names);

/// The profile with all rules switched off but those at these positions of an adapter, and without
/// default policies.
FW::FWPROFILE onlyRules(FW::FWPROFILE profile, const std::string& adapter,
                        const std::vector<std::size_t>& positions);

/// Says that the kernel still has the old rules, if they are not those of the active profile as
/// this command found it.
void reportUnchangedKernel(Context& context);

}  // namespace tarnfw
