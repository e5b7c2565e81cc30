#include "commands/applying.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/algorithm/string/join.hpp>

#include "tarnfirewall/fwDB.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/profileInForce.h"
#include "commands/sshGuard.h"
#include "process/detachedRun.h"
#include "process/heldLog.h"
#include "process/signalsWait.h"
#include "process/trialState.h"
#include "tarnfwadmin/inForce.h"
#include "tarnfwadmin/interfaces.h"
#include "tarnfwadmin/meaningChange.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/ruleChange.h"
#include "tarnfwadmin/savedRules.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

StoreSession::Access allowed(StoreSession::Access access) {
    if (access != StoreSession::Access::kRead) {
        requireRoot();
    }
    return access;
}

constexpr std::size_t kMostRefused = 3;  // profiles that are named

void warnIfAny(const std::string& text) {
    if (!text.empty()) {
        warn(text);
    }
}

/// The active profile; nothing when it cannot be read.
std::optional<FW::FWPROFILE> activeProfileOf(const StoreSnapshot& store) {
    try {
        return store.profile("");
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// What of a profile makes the kernel's rules now: without rules that are off, the names of rules,
/// and what is for adapters that are not there.
Json::Value effectiveRules(FW::FWPROFILE profile, Machine& machine) {
    profile.name.clear();
    for (const std::string& adapter : adaptersOf(profile)) {
        if (isNeverApplied(adapter) || !machine.hasAdapter(adapter)) {
            profile.rules.erase(adapter);
            profile.adapterPolicyMap.erase(adapter);
            continue;
        }
        const auto policy = profile.adapterPolicyMap.find(adapter);
        if (policy != profile.adapterPolicyMap.end() && policy->second == FW::FW_POLICY_NONE) {
            profile.adapterPolicyMap.erase(policy);
        }
        const auto list = profile.rules.find(adapter);
        if (list == profile.rules.end()) {
            continue;
        }
        std::vector<FW::FWRULE>& rules = list->second;
        rules.erase(std::remove_if(rules.begin(), rules.end(),
                                   [](const FW::FWRULE& rule) { return !rule.enable; }),
                    rules.end());
        for (FW::FWRULE& rule : rules) {
            rule.name.clear();
            rule.labelList.clear();
        }
        if (rules.empty()) {
            profile.rules.erase(list);
        }
    }
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    return document;
}

}  // namespace

Context::Context(StoreSession::Access access, std::unique_ptr<Machine> machine,
                 const LockTime& time)
    : session_(allowed(access), time),
      machine_(std::move(machine)),
      control_(session_, [this](const auto& what, const auto& work) {
          return runWhole(what, [&] { return session_.applyChange(work); });
      }) {
    if (access == StoreSession::Access::kChange) {
        removeLeftoverTestProfiles(session_);
    }
    printNotes();
    if (access == StoreSession::Access::kChange) {
        before_ = activeProfileOf(store());
    }
}

bool Context::hasOtherRules() {
    const std::optional<FW::FWPROFILE> now = activeProfileOf(store());
    if (now && inForce()) {
        return effectiveRules(*now, *machine_) != effectiveRules(*inForce(), *machine_);
    }
    return now && before_ ? effectiveRules(*now, *machine_) != effectiveRules(*before_, *machine_)
                          : now.has_value() != before_.has_value();
}

const std::optional<FW::FWPROFILE>& Context::inForce() {
    if (!hasAskedKernel_) {
        hasAskedKernel_ = true;
        inForce_ = profileInForce(before_, store());
    }
    return inForce_;
}

void Context::rememberProfile(const std::string& name) {
    if (name != store().activeProfile() && store().hasProfile(name)) {
        remembered_ = store().profile(name);
    }
}

std::optional<FW::FWPROFILE> Context::profileBefore(const std::string& name) const {
    return remembered_ && remembered_->name == name ? remembered_ : before_;
}

bool Context::applies(const ReloadOptions& options) {
    if (!atOnce_) {
        atOnce_ = store().appliesChanges() && store().firewallEnabled();
    }
    return options.wanted || (*atOnce_ && !options.later);
}

Context::~Context() {
    printNotes();
}

void Context::printNotes() {
    for (const std::string& note : session_.takeNotes()) {
        std::cerr << "tarnfw: " << note << '\n';
    }
}

void addReloadFlag(Command& command, ReloadOptions& options, const char* yesHelp) {
    const Option& reload = command.flag(
        "--reload", options.wanted,
        "Apply the active profile afterwards. Not needed where \"base up\" has written "
        "the settings: there, changes of an enabled firewall are applied at once");
    command
        .flag("--later", options.later,
              "Only store the change; \"tarnfw reload\" applies it, and so does the "
              "package's udev rule when an interface of the profile appears")
        .excludes(reload);
    command.flag("--yes", options.yes, yesHelp);
    command.flag("--quiet", options.quiet, "Do not say what the change opens and closes");
}

std::string capitalised(std::string text) {
    const unsigned char first = text.empty() ? '\0' : static_cast<unsigned char>(text.front());
    if (!text.empty()) {
        text.front() = static_cast<char>(std::toupper(first));
    }
    return text;
}

void sayWrapped(const std::string& line) {
    const std::size_t width = terminalWidth();
    for (const std::string& part :
         width > 0 ? wrapped(printable(line), width) : std::vector<std::string>{printable(line)}) {
        std::cout << part << '\n';
    }
    std::cout << std::flush;
}

namespace {

/// Whether a text has a name as a word of its own.
bool hasWord(const std::string& text, const std::string& name) {
    const auto isPart = [&](std::size_t index) {
        return index < text.size() && text[index] != ' ' && text[index] != ',' &&
               text[index] != ';' && text[index] != ')' && text[index] != '(';
    };
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
        if ((at == 0 || !isPart(at - 1)) && !isPart(at + name.size())) {
            return true;
        }
    }
    return false;
}

/// "eth7 and vpn have no interface now", of those that a text names; empty when all have one.
std::string absentText(const std::string& text, const std::vector<std::string>& adapters,
                       Machine& machine) {
    std::vector<std::string> absent;
    std::copy_if(adapters.begin(), adapters.end(), std::back_inserter(absent),
                 [&](const std::string& adapter) {
                     return hasWord(text, adapter) && !isNeverApplied(adapter) &&
                            !machine.hasAdapter(adapter);
                 });
    return absent.empty()
               ? ""
               : enumerated(absent) + (absent.size() == 1 ? " has" : " have") + " no interface now";
}

}  // namespace

std::string unknownChangeText(const Error& failure) {
    return std::string("what this opens and closes could not be found out: ") + failure.what();
}

std::string changeText(const FW::FWPROFILE& before, const FW::FWPROFILE& after, Machine& machine) {
    try {
        const FW::FWENVIRONMENT environment = environmentOf({before, after}, machine);
        const MeaningDifference difference(Meaning(before, environment),
                                           Meaning(after, environment));
        if (difference.same()) {
            return "";
        }
        const std::string text = difference.text();
        const std::string absent = absentText(text, difference.adapters(), machine);
        return text + (absent.empty() ? "" : "; " + absent);
    } catch (const Error& failure) {
        return unknownChangeText(failure);
    }
}

ComparedWith comparedWith(Context& context, const std::string& name, const FW::FWPROFILE& stored) {
    const StoreSnapshot& store = context.store();
    if (!store.firewallEnabled() || name != store.activeProfile()) {
        return {stored};
    }
    const std::optional<FW::FWPROFILE>& inForce = context.inForce();
    return inForce ? ComparedWith{*inForce} : ComparedWith{stored, false};
}

std::string withUnknown(std::string text, const ComparedWith& before) {
    return text.empty() || before.isKnown
               ? text
               : std::move(text) +
                     "; more may change, since other rules were in force than those stored before";
}

std::string whenText(Context& context, const std::string& profile, const ReloadOptions& options,
                     const std::string& text) {
    if (text.empty()) {
        return text;
    }
    const StoreSnapshot& store = context.store();
    if (profile != store.activeProfile()) {
        return "Once profile " + inQuotes(profile) + " is in use: " + text;
    }
    if (!store.firewallEnabled()) {
        return "Once the firewall is enabled: " + text;
    }
    return context.applies(options) ? capitalised(text) : "Once applied: " + text;
}

std::string errorsText(const FW::FWPROFILE& profile, Machine& machine) {
    try {
        requireValidProfile(profile, machine);
    } catch (const Error& error) {
        return error.what() +
               ("; \"tarnfw check " + printable(shellWord(profile.name)) + "\" lists all");
    }
    return "";
}

void warnAboutErrors(const FW::FWPROFILE& profile, Machine& machine) {
    warnIfAny(errorsText(profile, machine));
}

void requireReloadable(Context& context, const ReloadOptions& options, const std::string& profile) {
    if (!options.quiet) {
        context.rememberProfile(profile);
    }
    const bool concerned =
        options.wanted || profile.empty() || profile == context.store().activeProfile();
    if (concerned && context.applies(options) && context.store().firewallEnabled()) {
        requireNoTrial();
        context.control().requireBase();
        context.session().holdChange();
    }
}

void requireAppliable(Context& context, const FW::FWPROFILE& changed,
                      const ReloadOptions& options) {
    const StoreSnapshot& store = context.store();
    const bool goesIn = context.applies(options) && store.firewallEnabled() &&
                        changed.name == store.activeProfile();
    if (!goesIn) {
        warnAboutErrors(changed, context.machine());
        return;
    }
    requireValidProfile(changed, context.machine());
    askBeforeApplying(context, changed, options);
}

void askBeforeApplying(Context& context, const FW::FWPROFILE& profile,
                       const ReloadOptions& options) {
    const ApplyMode mode = context.store().applyMode();
    const bool waits =
        !options.yes && canAsk() && !sshWarning(profile, context.machine(), mode).empty();
    const auto before = waits ? context.store().texts() : std::map<std::string, std::string>();
    requireSshAccess(profile, context.machine(), mode, options.yes, kApplyAnyway);
    if (waits) {
        requireUntouched(before);
    }
}

void requireUntouched(const std::map<std::string, std::string>& before) {
    if (StoreSnapshot().texts() != before) {
        throw Error(ErrorKind::kBusy,
                    "another program has changed profiles or settings meanwhile; nothing was "
                    "changed");
    }
}

namespace {

/// Called from a handler of `failure`: undoes the change, and throws the failure with what became
/// of it.
[[noreturn]] void undoAndThrow(Context& context, const Error& failure) {
    const bool undone = context.session().undoChange();
    if (undone && failure.kind() == ErrorKind::kDeclined) {
        throw;  // it says that nothing was changed
    }
    throw Error(failure.kind(),
                std::string(failure.what()) +
                    (undone ? "; nothing was stored" : "; undoing the change failed, too"),
                failure.place(), failure.remedy());
}

}  // namespace

void writeWithConsent(Context& context, const ReloadOptions& options,
                      const std::function<void()>& write) {
    write();
    if (!context.applies(options) || !context.store().firewallEnabled()) {
        return;
    }
    std::optional<FW::FWPROFILE> judged;
    try {
        judged = context.store().profile("");
        warnAboutErrors(*judged, context.machine());
        const bool harmless =
            sshWarning(*judged, context.machine(), context.store().applyMode()).empty();
        if (harmless || options.yes || !canAsk()) {
            askBeforeApplying(context, *judged, options);
            return;
        }
    } catch (const Error& failure) {
        undoAndThrow(context, failure);
    }
    // Nothing is written while a person thinks about it.
    const ApplyMode mode = context.store().applyMode();
    if (!context.session().undoChange()) {
        throw Error(ErrorKind::kSystem, "undoing the change failed");
    }
    const std::map<std::string, std::string> before = context.store().texts();
    requireSshAccess(*judged, context.machine(), mode, options.yes, kApplyAnyway);
    requireUntouched(before);
    context.session().holdChange();
    write();
}

bool runWhole(const std::string& what, const std::function<bool()>& change,
              const std::function<std::string()>& meanwhile) {
    const SignalsWait wait;  // until the messages are there
    DetachedRun run;
    std::string found;
    {
        const Progress progress(what);
        run = runDetached(change, [&] { found = meanwhile ? meanwhile() : ""; });
    }
    std::cerr << found;
    if (run.succeeded) {
        std::cerr << run.messages;
    } else {
        printAfterwards(run.messages);
    }
    if (!run.failure.empty()) {
        throw Error(ErrorKind::kSystem, run.failure);
    }
    return run.succeeded;
}

void addUnlisted(Json::Value& document, bool inProfile,
                 const std::optional<UnlistedAdapter>& adapter) {
    document["inProfile"] = inProfile;
    document["open"] = adapter ? Json::Value(adapter->open) : Json::Value();
}

std::string skippedText(const FW::FWPROFILE& profile, Machine& machine) {
    std::vector<std::string> skipped;
    for (const std::string& adapter : adaptersOf(profile)) {
        const auto rules = profile.rules.find(adapter);
        const auto policy = profile.adapterPolicyMap.find(adapter);
        const bool wanted =
            (policy != profile.adapterPolicyMap.end() && policy->second == FW::FW_POLICY_DENY) ||
            (rules != profile.rules.end() &&
             std::any_of(rules->second.begin(), rules->second.end(),
                         [](const FW::FWRULE& rule) { return rule.enable; }));
        if (wanted && !isNeverApplied(adapter) && !machine.hasAdapter(adapter)) {
            skipped.push_back(adapter);
        }
    }
    return skipped.empty() ? ""
                           : "left out, without an interface now: " + boost::join(skipped, ", ");
}

void reloadActive(Control& control, Report& report) {
    report.setProfile(control.session().snapshot().activeProfile());
    if (!control.apply()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    std::cout << "Profile " << inQuotes(control.session().snapshot().activeProfile())
              << " applied\n";
    report.setApplied();
}

void forgetTrial(Context& context) {
    try {
        context.session().unlock();
        forgetAbandonedTrial(context.session().lockTime());
    } catch (const Error& error) {
        warn(std::string("an abandoned trial is not over: ") + error.what());
    }
}

namespace {

/// Applies the active profile as it was changed, and keeps the change; or undoes it. Returns false
/// when the change is kept and nothing was applied: the firewall is disabled.
bool reloadChanged(Context& context, Report& report, const std::function<void()>& say) {
    const SignalsWait wait;  // between the reload and the end of the change
    bool applied = false;
    try {
        applied = context.control().apply();
    } catch (const Error& failure) {
        undoAndThrow(context, failure);
    }
    context.session().keepChange();
    say();
    report.setChanged(context.session().hasChanged());
    report.setApplied(applied);
    if (applied) {
        std::cout << "Profile " << inQuotes(context.store().activeProfile()) << " applied\n";
        warnIfAny(skippedText(context.store().profile(""), context.machine()));
        forgetTrial(context);
    } else {
        std::cout << "Firewall disabled: nothing to reload\n";
    }
    return applied;
}

/// "...; stored, but a reload would be refused"; false when it would not be.
bool warnAboutRefusal(const FW::FWPROFILE& profile) {
    const std::string refusal = Control::kernelRefusal(profile);
    if (!refusal.empty()) {
        warn(refusal + "; stored, but a reload would be refused");
    }
    return !refusal.empty();
}

bool makesLines(const FW::FWPROFILE& profile) {
    return std::any_of(profile.adapterPolicyMap.begin(), profile.adapterPolicyMap.end(),
                       [](const auto& entry) { return entry.second != FW::FW_POLICY_NONE; }) ||
           std::any_of(profile.rules.begin(), profile.rules.end(), [](const auto& entry) {
               return std::any_of(entry.second.begin(), entry.second.end(),
                                  [](const FW::FWRULE& rule) { return rule.enable; });
           });
}

/// Applies the active profile unless its rules are in force.
void reloadUnchanged(Context& context, const FW::FWPROFILE& profile, const ReloadOptions& options) {
    if (profile.name != context.store().activeProfile()) {
        std::cout << "Profile " << inQuotes(profile.name)
                  << " is not the active one: nothing to reload\n";
        return;
    }
    if (!context.store().firewallEnabled()) {
        std::cout << "Firewall disabled: nothing to reload\n";
        return;
    }
    requireNoTrial();
    context.control().requireBase();
    if (hasActiveProfile(SavedRules::inKernel(), context.store())) {
        if (options.wanted) {
            std::cout << "Profile " << inQuotes(profile.name) << " is in force\n";
        }
        return;
    }
    requireAppliable(context, profile, options);
    reloadActive(context.control(), *options.report);
    forgetTrial(context);
}

}  // namespace

void finishUnchanged(Context& context, const FW::FWPROFILE& profile, const ReloadOptions& options) {
    options.report->setProfile(profile.name);
    const bool active = profile.name == context.store().activeProfile();
    if (options.wanted || (active && context.applies(options))) {
        reloadUnchanged(context, profile, options);
    }
}

void warnAboutRefusals(Context& context, const std::vector<std::string>& names) {
    std::vector<FW::FWPROFILE> profiles;
    for (const std::string& name : names) {
        try {
            profiles.push_back(context.store().profile(name));
        } catch (const Error&) {
            // it cannot be read; a reload says so
        }
    }
    // Usually the kernel takes all profiles, which one call for all of them shows.
    if (profiles.size() > 1 && Control::kernelRefusal(together(profiles)).empty()) {
        return;
    }
    std::size_t refused = 0;
    for (const FW::FWPROFILE& profile : profiles) {
        if (refused == kMostRefused) {
            warn("other profiles may be refused as well; \"tarnfw check --kernel\" lists them");
            return;
        }
        refused += warnAboutRefusal(profile) ? 1U : 0U;
    }
}

FW::FWPROFILE onlyRules(FW::FWPROFILE profile, const std::string& adapter,
                        const std::vector<std::size_t>& positions) {
    for (auto& [name, rules] : profile.rules) {
        for (std::size_t i = 0; i < rules.size(); ++i) {
            const bool kept = name == adapter && std::find(positions.begin(), positions.end(),
                                                           i + 1) != positions.end();
            rules[i].enable = rules[i].enable && kept;
        }
    }
    for (auto& [name, policy] : profile.adapterPolicyMap) {
        policy = FW::FW_POLICY_NONE;
    }
    return profile;
}

namespace {

/// What the change of a profile opens and closes, or that another one is in use now.
std::string effectOn(Context& context, const std::string& profile, const ReloadOptions& options) {
    const StoreSnapshot& store = context.store();
    const bool active = profile == store.activeProfile();
    const std::optional<FW::FWPROFILE> before =
        options.quiet ? std::nullopt : context.profileBefore(profile);
    if (!before || (!active && before->name != profile)) {
        return "";
    }
    const ComparedWith compared = comparedWith(context, profile, *before);
    return whenText(
        context, profile, options,
        withUnknown(changeText(compared.profile, store.profile(profile), context.machine()),
                    compared));
}

void sayUnlessEmpty(const std::string& line) {
    if (!line.empty()) {
        sayWrapped(line);
    }
}

/// Says the effect of a change of the active profile that is about to be applied. Returns what says
/// the rest: `say`, and the effect of any other change.
std::function<void()> sayBeforeApplying(Context& context, const ReloadOptions& options, bool active,
                                        const std::string& effect,
                                        const std::function<void()>& say) {
    if (active && context.applies(options) && context.store().firewallEnabled()) {
        sayUnlessEmpty(effect);
        return say;
    }
    return [say, effect] {
        say();
        sayUnlessEmpty(effect);
    };
}

}  // namespace

void finishChange(Context& context, const std::string& profile, const ReloadOptions& options,
                  const std::function<void()>& say, const std::optional<FW::FWPROFILE>& changed,
                  const std::optional<std::string>& effect) {
    const bool active = profile == context.store().activeProfile();
    options.report->setProfile(profile);
    const std::function<void()> sayAll = sayBeforeApplying(
        context, options, active, effect ? *effect : effectOn(context, profile, options), say);
    const auto warnIfRefused = [&] {
        if (changed) {
            (void)(makesLines(*changed) && warnAboutRefusal(*changed));
        } else {
            warnAboutRefusals(context, {profile});
        }
    };
    if (active && context.applies(options)) {
        if (!reloadChanged(context, *options.report, sayAll)) {
            warnIfRefused();
        }
        return;
    }
    context.session().keepChange();
    options.report->setChanged(context.session().hasChanged());
    sayAll();
    warnIfRefused();
    if (active) {
        reportUnchangedKernel(context);
    } else if (options.wanted) {
        std::cout << "Profile " << inQuotes(profile)
                  << " is not the active one: nothing to reload\n";
    }
}

void finishChange(Context& context, const std::vector<std::string>& profiles,
                  const ReloadOptions& options, const std::function<void()>& say) {
    const bool active = std::find(profiles.begin(), profiles.end(),
                                  context.store().activeProfile()) != profiles.end();
    const std::function<void()> sayAll = sayBeforeApplying(
        context, options, active,
        active ? effectOn(context, context.store().activeProfile(), options) : std::string(), say);
    if (!options.wanted && !(active && context.applies(options))) {
        context.session().keepChange();
        options.report->setChanged(context.session().hasChanged());
        sayAll();
        warnAboutRefusals(context, profiles);
        reportUnchangedKernel(context);
        return;
    }
    const bool applied = reloadChanged(context, *options.report, sayAll);
    std::vector<std::string> untried;
    for (const std::string& name : profiles) {
        if (!(applied && name == context.store().activeProfile())) {
            untried.push_back(name);
        }
    }
    warnAboutRefusals(context, untried);
}

void reportUnchangedKernel(Context& context) {
    if (context.store().firewallEnabled() && context.hasOtherRules()) {
        std::cout << "The kernel still has the old rules; \"tarnfw reload\" applies the new ones\n";
    }
}

}  // namespace tarnfw
