/// tarnfw base: the chains and jumps that the library expects to find, and a first profile. tarnfw
/// boot: what the service runs.
#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarncore.h"

#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/utils.h"

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "cli/report.h"
#include "commands/applying.h"
#include "commands/commands.h"
#include "commands/sshGuard.h"
#include "process/heldLog.h"
#include "process/trialState.h"
#include "tarnfwadmin/baseFilter.h"
#include "tarnfwadmin/baseRecord.h"
#include "tarnfwadmin/bootRules.h"
#include "tarnfwadmin/descriptor.h"

namespace tarnfw {
namespace {

constexpr char kAcceptPolicy[] = "ACCEPT";
constexpr char kDropPolicy[] = "DROP";

// Serialises "base up" and "base down".
constexpr char kLockName[] = "base_filter.lock";

constexpr char kAbsent[] = "absent: this machine has no packet filter for it";

// The profile that new settings name.
constexpr char kFirstProfile[] = "default";

// ---- The record of what was added ----

/// Records what is about to be added to a family, so that "base down" also removes what an
/// interrupted call added, and the policies that others have set. Not those of a reload in apply
/// mode "lines" that is running or was killed, and not those of a later call, which may be a
/// reload's. Throws Error, kSystem.
void recordBase(const BaseFilter& filter, const BaseParts& parts) {
    const BaseRecord before = loadBaseRecord();
    BaseRecord record = before;
    FamilyBaseRecord& family = record[filter.key()];
    family.add(parts);
    if (family.policies.empty() && !filter.isClosed()) {
        family.policies = filter.policies();
    }
    if (record != before) {
        storeBaseRecord(record);
    }
}

/// Puts back a policy that drops: a reload by a program that does not restore it has made it
/// ACCEPT. One that others have set since stays.
void putPoliciesBack(const FamilyBaseRecord& family, BaseFilter& filter) {
    const auto now = filter.policies();
    for (const auto& [chain, policy] : family.policies) {
        const auto found = now.find(chain);
        if (policy == kDropPolicy && found != now.end() && found->second == kAcceptPolicy) {
            filter.setPolicy(chain, kDropPolicy);
        }
    }
}

// ---- The first profile ----

/// Whether the store has a profile, even an unreadable one: it is somebody's, and must
/// not be replaced by a first one of the same name.
bool storeHasProfile(const StoreSnapshot& store) {
    if (!store.profileNames().empty() || !store.testProfileNames().empty()) {
        return true;
    }
    for (const std::string& path : store.unreadable()) {
        if (path != kSettingsFile) {
            std::cerr << "tarnfw: " << printable(path)
                      << " cannot be read and may be a profile: no first profile is written\n";
            return true;
        }
    }
    return false;
}

/// Writes the first profile, for this machine. Not through the store: its generator of file names
/// needs a profile to compare with, and would not return.
void writeFirstProfile(Context& context, std::ostream& said) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(firstProfileHere(kFirstProfile, context.machine()),
                                       document);
    std::string path;
    for (std::time_t number = std::time(nullptr); path.empty(); ++number) {
        const std::string candidate = kProfileDir + std::to_string(number) + ".json";
        if (TLIBCFileExist(candidate.c_str()) != 1) {
            path = candidate;
        }
    }
    if (!context.session().change([&] { return FW::jsonFileDump(document, path); })) {
        throw Error(ErrorKind::kSystem, "cannot write the first profile to " + path);
    }
    said << "Profile " << inQuotes(kFirstProfile) << " written to " << path << '\n';
}

/// Whether the settings are there and name no profile: they were written, such as by a choice of
/// the apply mode, before there was one.
bool namesNoProfile(const StoreSnapshot& store) {
    if (!store.hasSettings()) {
        return false;
    }
    try {
        const Json::Value settings = store.settings();
        const Json::Value& profile = settings["profile"];
        return profile.isNull() || (profile.isString() && profile.asString().empty());
    } catch (const Error&) {
        return false;
    }
}

/// Makes the first profile the active one. Only stored: changes of the firewall's state are not
/// those of "base up".
void activateFirst(Context& context, std::ostream& said) {
    if (!context.session().change(
            [] { return FW::TARNFW().fwProfileConfigSet(kFirstProfile, /*reload=*/false); })) {
        throw Error(ErrorKind::kSystem, "the settings cannot be written");
    }
    said << "Profile " << inQuotes(kFirstProfile) << " is now the active one\n";
}

/// Whether nobody has chosen an apply mode. Settings that cannot be read are not to be written.
bool lacksApplyMode(const StoreSnapshot& store) {
    try {
        return !store.chosenApplyMode();
    } catch (const Error&) {
        return false;
    }
}

/// Chooses the apply mode: "batch", which no connection notices, or "lines" if ip6tables fails.
void chooseApplyMode(Context& context, bool ipv6Works, std::ostream& said) {
    const ApplyMode mode = ipv6Works ? ApplyMode::kBatch : ApplyMode::kLines;
    context.session().setApplyMode(mode);
    said << "Settings written to " << kSettingsFile << ": "
         << "apply mode \"" << applyModeName(mode) << '"'
         << (ipv6Works ? "" : ", because ip6tables fails") << " (see \"tarnfw apply-mode\")\n";
}

/// Whether the settings do not say when changes are applied.
bool lacksAppliesChanges(const StoreSnapshot& store) {
    try {
        return !store.settings().isMember(kApplyChangesKey);
    } catch (const Error&) {
        return false;
    }
}

/// Writes what the store lacks, as one change: a first profile, an apply mode. On a new machine,
/// changes are then applied at once; one with a profile goes on as its people know it.
void setUpStore(bool ipv6Works, const LockTime& time, Report& report) {
    makeProfileDirectory();
    {
        // First without the lock: at boot a stopped command, or a file that is no document, must
        // not keep the machine from its rules.
        const Context context(StoreSession::Access::kRead, std::make_unique<Machine>(), time);
        if (!lacksApplyMode(context.store()) && storeHasProfile(context.store())) {
            return;
        }
    }
    Context context(StoreSession::Access::kChange, std::make_unique<Machine>(), time);
    const bool first = !storeHasProfile(context.store());
    std::ostringstream said;
    context.session().holdChange();  // with a profile alone, the next call would leave out the rest
    if (first) {
        writeFirstProfile(context, said);
        if (namesNoProfile(context.store())) {
            activateFirst(context, said);
        }
    }
    if (lacksApplyMode(context.store())) {
        chooseApplyMode(context, ipv6Works, said);
    }
    if (first && lacksAppliesChanges(context.store())) {
        context.session().setAppliesChanges();
        said << "Commands apply their changes of the active profile at once; \"--later\" leaves "
                "that out\n";
    }
    context.session().keepChange();
    if (first) {
        report.setProfile(kFirstProfile);
    }
    if (context.session().hasChanged()) {
        report.setChanged();
    }
    std::cout << said.str();
}

// ---- Commands ----

Json::Value jumpsJson(const BaseParts& parts) {
    Json::Value jumps(Json::arrayValue);
    for (const auto& [chain, target] : parts.jumps) {
        Json::Value jump;
        jump.append(chain);
        jump.append(target);
        jumps.append(jump);
    }
    return jumps;
}

/// Reports what was added to a family, or removed.
void reportParts(const BaseFilter& filter, const BaseParts& parts, Report& report) {
    Json::Value& family = report[filter.key().c_str()];
    family["absent"] = false;
    family["chains"] = textsJson(parts.chains);
    family["jumps"] = jumpsJson(parts);
    if (!parts.empty()) {
        report.setChanged();
    }
}

/// What to do when the record cannot be read or written.
enum class Unrecorded { kStop, kGoOn };

/// Sets up one family. Returns why it is not recorded, or nothing; throws Error where it stops.
std::string setUp(BaseFilter filter, Report& report, Unrecorded unrecorded = Unrecorded::kStop) {
    if (MachineKernel().isAbsent(filter.key())) {
        std::cout << filter.title() << ": " << kAbsent << '\n';
        report[filter.key().c_str()]["absent"] = true;
        return "";
    }
    const BaseParts parts = filter.missing();
    std::string failure;
    try {
        recordBase(filter, parts);
    } catch (const Error& error) {
        if (unrecorded == Unrecorded::kStop) {
            throw;
        }
        failure = error.what();
    }
    filter.add(parts);
    reportParts(filter, parts, report);
    std::cout << filter.title() << ": added " << describe(parts) << '\n';
    return failure;
}

/// Sets up both families. Returns why IPv6 could not be, or nothing: IPv4 is useful without it.
std::string setUpBoth(Report& report) {
    (void)setUp(BaseFilter("v4"), report);
    try {
        (void)setUp(BaseFilter("v6"), report);
    } catch (const Error& failure) {
        return failure.what();
    }
    return "";
}

/// Sets up the base filter and what is missing in the store, and only then fails.
void setUpMachine(const LockTime& time, bool enabled, Report& report) {
    const std::string failure = setUpBoth(report);
    setUpStore(failure.empty(), time, report);
    tidyBase(enabled);
    if (!failure.empty()) {
        throw Error(ErrorKind::kSystem, failure);
    }
}

/// What the settings say; settings that cannot be read count as enabled.
bool isEnabled() {
    try {
        return StoreSnapshot().firewallEnabled();
    } catch (const std::exception&) {
        return true;
    }
}

void baseUp(Report& report) {
    requireRoot();
    requireNoTrial();
    LockTime time;
    const ToolLock lock(kLockName, time);
    awaitXtablesLock(time);
    setUpMachine(time, isEnabled(), report);
}

/// Whether some of `parts` are among the missing ones.
bool isAnyOf(const BaseParts& parts, const BaseParts& missing) {
    const auto haveOne = [](const auto& all, const auto& others) {
        return std::any_of(all.begin(), all.end(), [&](const auto& part) {
            return std::find(others.begin(), others.end(), part) != others.end();
        });
    };
    return haveOne(parts.chains, missing.chains) || haveOne(parts.jumps, missing.jumps);
}

void baseDown(Report& report) {
    requireRoot();
    requireNoTrial();
    LockTime time;
    const ToolLock lock(kLockName, time);
    awaitXtablesLock(time);
    BaseRecord record = loadBaseRecord();
    const bool enabled = Context(StoreSession::Access::kRead).store().firewallEnabled();
    tidyBase(/*enabled=*/false);
    for (BaseFilter filter : baseFilters()) {
        const FamilyBaseRecord family = record[filter.key()];
        if (isAnyOf(family.added, filter.missing())) {
            // Once more: iptables succeeds even when it could not write all of a listing.
            filter = BaseFilter(filter.key());
        }
        filter.remove(family.added);
        putPoliciesBack(family, filter);
        record.erase(filter.key());
        storeBaseRecord(record);
        reportParts(filter, family.added, report);
        std::cout << filter.title() << ": removed " << describe(family.added) << '\n';
    }
    for (const char* const family : {"v4", "v6"}) {
        if (report[family].isNull()) {
            report[family]["absent"] = true;
        }
    }
    if (enabled) {
        std::cerr
            << "tarnfw: the firewall is still enabled in the settings, but now filters nothing\n";
    }
}

Json::Value statusJson(const BaseFilter& filter) {
    Json::Value state;
    state["absent"] = MachineKernel().isAbsent(filter.key());
    if (state["absent"].asBool()) {
        return state;
    }
    const BaseParts parts = filter.missing();
    Json::Value missing(Json::objectValue);
    missing["chains"] = textsJson(parts.chains);
    missing["jumps"] = jumpsJson(parts);
    state["setUp"] = parts.empty();
    state["inOrder"] = filter.inOrder();
    state["missing"] = missing;
    return state;
}

std::string statusText(const BaseFilter& filter) {
    if (MachineKernel().isAbsent(filter.key())) {
        return kAbsent;
    }
    const BaseParts parts = filter.missing();
    if (!parts.empty()) {
        return "missing: " + describe(parts);
    }
    return filter.inOrder() ? "set up" : kWrongOrder;
}

void baseStatus(bool json) {
    requireKernelRights();
    Json::Value document;
    for (const BaseFilter& filter : {BaseFilter("v4"), BaseFilter("v6")}) {
        if (json) {
            document[filter.key()] = statusJson(filter);
        } else {
            const std::string text = statusText(filter);  // may throw: nothing is printed then
            std::cout << filter.title() << ": " << text << '\n';
        }
    }
    if (json) {
        printJson(document);
    }
}

// ---- Boot ----

/// While it exists, the programs that this process starts take the lock of a file in memory
/// instead of that of iptables. For a machine that would be open otherwise: the holder of that lock
/// is stopped, or the file cannot be opened. A change that the holder has begun is refused by the
/// kernel when it goes on, because the number of rules is another one.
class OwnXtablesLock {
public:
    OwnXtablesLock() : file_(memoryFile("xtables.lock")) {
        (void)fcntl(file_.get(), F_SETFD, 0);  // the programs find it open
        const std::string path = "/proc/self/fd/" + std::to_string(file_.get());
        (void)setenv(kLockVariable, path.c_str(), 1);
    }
    ~OwnXtablesLock() { (void)unsetenv(kLockVariable); }
    OwnXtablesLock(const OwnXtablesLock&) = delete;
    OwnXtablesLock& operator=(const OwnXtablesLock&) = delete;

private:
    static constexpr char kLockVariable[] = "XTABLES_LOCKFILE";

    Descriptor file_;
};

/// Nothing where the lock of iptables can be had. Waits for what is left of `time`.
std::unique_ptr<OwnXtablesLock> ownXtablesLockIfNeeded(LockTime& time) {
    try {
        awaitXtablesLock(time);
        if (canOpenXtablesLock()) {
            return nullptr;
        }
    } catch (const Error&) {
        // said when the profile is applied, with the machine protected
    }
    return std::make_unique<OwnXtablesLock>();
}

/// Adds a failure to a text of several, unless it is there.
void addFailure(std::string& failures, const std::string& failure) {
    if (failures.find(failure) != std::string::npos) {
        return;
    }
    failures += (failures.empty() ? "" : "; ") + failure;
}

/// Sets up both families. Returns what has failed, or nothing.
std::string setUpAtBoot() {
    std::string failures;
    for (const char* const family : {"v4", "v6"}) {
        try {
            Report report;  // "boot" reports no parts
            const std::string unrecorded = setUp(BaseFilter(family), report, Unrecorded::kGoOn);
            addFailure(failures, unrecorded);
        } catch (const Error& failure) {
            addFailure(failures, failure.what());
        }
    }
    return failures;
}

/// Sets up the base filter and protects the machine, in up to two attempts: at boot nobody else
/// does. Returns what is in force, and adds to `failures`.
std::string setUpAndProtect(LockTime& time, std::string& failures) {
    std::unique_ptr<OwnXtablesLock> own = ownXtablesLockIfNeeded(time);
    Protection protection;
    for (;;) {
        std::string failure = setUpAtBoot();
        protection = protectMachine(protection);
        addFailure(failure, protection.failure);
        if (failure.empty() || own) {
            addFailure(failures, failure);
            return protection.inForce;
        }
        own = std::make_unique<OwnXtablesLock>();
    }
}

/// Applies the active profile, unless something has failed before. Throws what went wrong.
void applyAtBoot(const std::string& failures, const LockTime& time, Report& report) {
    if (!failures.empty()) {
        throw Error(ErrorKind::kSystem, failures);
    }
    // To change, so that what an interrupted command has left is undone, or nothing is applied.
    Context context(StoreSession::Access::kChange, std::make_unique<Machine>(), time);
    context.session().unlock();
    context.session().awaitReloadLock();
    awaitXtablesLock(context.session().lockTime());
    tidyBase(/*enabled=*/true);
    if (!context.store().firewallEnabled()) {
        throw Error(ErrorKind::kSystem, "the settings do not say whether the firewall is enabled");
    }
    reloadActive(context.control(), report);
}

/// For the journal and the system log, and for "status".
[[noreturn]] void bootFailed(const std::exception& error, const std::string& inForce) {
    const BootFailure failure{error.what(), inForce};
    const std::string text = textOf(failure);
    logUnprinted(text);
    try {
        LockTime none(std::chrono::milliseconds::zero());
        const auto own = ownXtablesLockIfNeeded(none);
        storeBootFailure(failure);
    } catch (const std::exception& another) {
        std::cerr << "tarnfw: " << another.what() << '\n';
    }
    throw Error(ErrorKind::kSystem, text);
}

/// As requireNoTrial(), but the boot goes on when it cannot be found out whether a trial runs.
void requireNoTrialAtBoot() {
    try {
        requireNoTrial();
    } catch (const Error& error) {
        if (error.kind() == ErrorKind::kBusy) {
            throw;
        }
    }
}

/// The lock of the base filter. Nothing when it cannot be had, and why in `failures`: the machine
/// is protected all the same.
std::unique_ptr<ToolLock> lockAtBoot(LockTime& time, std::string& failures) {
    try {
        return std::make_unique<ToolLock>(kLockName, time);
    } catch (const Error& error) {
        failures = error.what();
        return nullptr;
    }
}

/// Undoes an interrupted change, before its half is read.
void undoChangeAtBoot(LockTime& time) {
    time.spend([&] {
        try {
            const Context context(StoreSession::Access::kChange, std::make_unique<Machine>(), time);
        } catch (const std::exception&) {
            // said by the second attempt, with the machine protected
        }
    });
}

void boot(Report& report) {
    requireRoot();
    requireNoTrialAtBoot();
    LockTime time;
    std::string failures;
    const std::unique_ptr<ToolLock> lock = lockAtBoot(time, failures);
    undoChangeAtBoot(time);
    if (!mustProtect()) {
        // The service is enabled by installing the package: nobody has asked for chains yet.
        forgetBootFailure();
        std::cout << "Firewall disabled: nothing to apply\n";
        return;
    }
    // Without a first profile: it would take the place of a lost one of the same name.
    std::string inForce = "nothing: the machine is open";
    try {
        inForce = setUpAndProtect(time, failures);
        applyAtBoot(failures, time, report);
    } catch (const std::exception& error) {
        bootFailed(error, inForce);
    }
}

}  // namespace

void addBaseCommands(Command& app) {
    Command& base = app.subcommand(
        "base", "The chains that the firewall fills, for machines that do not create them");
    const auto up = std::make_shared<Report>();
    Command& upCommand = base.subcommand(
        "up",
        "Add those of the chains INPUT_FIREWALL, FORWARD_FIREWALL and "
        "FIREWALL_RELOADING, and of the jumps to them, that are missing, for IPv4 and "
        "IPv6, write a first profile for this machine if there is none, and choose an "
        "apply mode if nobody has");
    runReporting(upCommand, *up, [up] { baseUp(*up); });
    const auto down = std::make_shared<Report>();
    Command& downCommand =
        base.subcommand("down",
                        "Remove the chains and jumps that \"base up\" added, and nothing else; "
                        "profiles stay");
    runReporting(downCommand, *down, [down] { baseDown(*down); });
    Command& status =
        base.subcommand("status", "Show which chains and jumps exist and which are missing");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(status, *json);
    status.run([json] { baseStatus(*json); });
    Command& bootCommand = app.subcommand(
        "boot",
        "What the service runs at boot: the base filter, as \"base up\" does it, then the active "
        "profile. Fails when that is not in force");
    bootCommand.footer(
        "With the firewall enabled, first loads the rules of the last successful reload, which "
        "stay in force when the profile cannot be applied. Without them, the machine is closed, "
        "except for established connections, loopback, neighbour discovery, DHCP, and SSH from "
        "private and link-local networks. With the firewall disabled, or on a machine without "
        "settings, it changes nothing, and the machine is open.");
    const auto booting = std::make_shared<Report>();
    runReporting(bootCommand, *booting, [booting] { boot(*booting); });
}

}  // namespace tarnfw
