#include "tarnfirewall/tarnFW.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>

#include "tarncore.h"

#include "tarnfirewall/fwBatch.h"
#include "tarnfirewall/fwHook.h"
#include "tarnfirewall/tarnIptablesModule.h"

#include "fwFileLock.h"
#include "fwInterfaces.h"
#include "fwLineLimits.h"
#include "fwLog.h"
#include "fwSettings.h"
#include "tarnFWInternal.h"

namespace FW {
namespace {

constexpr const char* kSource = kFirewallSource;

constexpr char kIptables[] = "/sbin/iptables";
constexpr char kIp6tables[] = "/sbin/ip6tables";

constexpr std::size_t kCommandSlots = 256;  // pointers to the words of a command, and a null

// The name under which the module loader counts the firewall's modules.
constexpr char kServiceName[] = "firewall";

constexpr char kExecLockPath[] = "/tmp/firewall_iptables_exec.lock";
constexpr int kExecLockSeconds = 30;

// ---- Command documents ----

/// A command document that runs the same lines in both families.
Json::Value documentOf(const std::array<const char*, 3>& lines) {
    Json::Value family;
    for (const char* const line : lines) {
        family[FW_ADAPTER_GLOBAL].append(line);
    }
    Json::Value document;
    document["v4"] = family;
    document["v6"] = family;
    return document;
}

/// Runs a whole command line, logging one that cannot be run.
bool runLogged(TARNFW& firewall, const std::string& command) {
    if (!firewall.cmdExec(command)) {
        FW_LOG_ERR("Failed to execute \"%s\"", command.c_str());
        return false;
    }
    return true;
}

/// Runs the lines of one adapter, up to the first that cannot be run.
bool runLines(TARNFW& firewall, const std::string& tool, const Json::Value& lines) {
    return std::all_of(lines.begin(), lines.end(), [&](const Json::Value& line) {
        return runLogged(firewall, tool + " " + line.asString());
    });
}

/// Runs the lines of one family, "global" first.
bool runFamily(TARNFW& firewall, const std::string& tool, const Json::Value& family) {
    if (family.isMember(FW_ADAPTER_GLOBAL) &&
        !runLines(firewall, tool, family[FW_ADAPTER_GLOBAL])) {
        return false;
    }
    for (const std::string& adapter : family.getMemberNames()) {
        if (adapter != FW_ADAPTER_GLOBAL && !runLines(firewall, tool, family[adapter])) {
            return false;
        }
    }
    return true;
}

// ---- Kernel modules ----

bool firewallModLoad() {
    if (TARN_IPTABLES_MODULES::isModuleLoad(kServiceName)) {
        return true;
    }
    if (!TARN_IPTABLES_MODULES::iptablesCoreModLoad(kServiceName)) {
        FW_LOG_ERR("Failed to iptablesCoreModLoad");
        return false;
    }
    if (!TARN_IPTABLES_MODULES::moduleInsert(kServiceName, FW_FIREWALL_MODULES)) {
        FW_LOG_ERR("Failed to moduleInsert()");
        return false;
    }
    return true;
}

/// Removes the firewall's modules; disabling goes on whatever the result.
void firewallModUnload() {
    if (!TARN_IPTABLES_MODULES::isModuleLoad(kServiceName)) {
        return;
    }
    const std::vector<std::string> modules(FW_FIREWALL_MODULES.rbegin(),
                                           FW_FIREWALL_MODULES.rend());
    // The messages are exactly those of loading, and part of the behaviour.
    if (!TARN_IPTABLES_MODULES::moduleRemove(kServiceName, modules)) {
        FW_LOG_ERR("Failed to moduleInsert()");
        return;
    }
    if (!TARN_IPTABLES_MODULES::iptablesCoreModUnload(kServiceName)) {
        FW_LOG_ERR("Failed to iptablesCoreModLoad");
    }
}

// ---- Hooks ----

void announceEnabled(bool result) {
    if (!TarnFwHook().RunFwEnablePostHook(result)) {
        FW_LOG_ERR("Failed to run firewall enable post-hook.");
    }
}

void announceDisabled(bool result) {
    if (!TarnFwHook().RunFwDisablePostHook(result)) {
        FW_LOG_ERR("Failed to run firewall disable post-hook.");
    }
}

/// Writes "status" into the settings.
bool statusSet(TARNFW& firewall, bool enabled) {
    Json::Value config;
    config[kStatusKey] = enabled;
    if (!firewall.configSet(config)) {
        FW_LOG_ERR("Falied to configSet()");
        return false;
    }
    return true;
}

// ---- Reload ----

/// Runs a ruleset. An incomplete one is worse than none, so a failure disables the firewall.
bool execOrDisable(TARNFW& firewall, const Json::Value& cmds) {
    if (!firewall.fwExec(cmds)) {
        (void)firewall.fwDisable();  // logs for itself
        FW_LOG_ERR("Failed to fwExec() so disable firewall");
        return false;
    }
    return true;
}

/// Reopens the machine before an exception reaches the caller.
void acceptDespiteException(TARNFW& firewall) noexcept {
    try {
        (void)firewall.fwDefaultAccept();  // logs for itself
    } catch (...) {
        FW_LOG_ERR("Failed to set default accept after an exception");
    }
}

/// Runs `apply` while the machine is closed to new connections, and always reopens it afterwards.
/// True if all three steps succeed.
template <typename Apply>
bool applyWhileClosed(TARNFW& firewall, Apply apply) {
    bool applied = false;
    bool accepted = false;
    // A handler, not a guard's destructor: when nobody catches the exception, the process ends
    // without running destructors, and the machine would stay closed.
    try {
        if (!firewall.fwDefaultDrop()) {
            return false;  // what was run stays in force
        }
        applied = apply();
        accepted = firewall.fwDefaultAccept();
    } catch (...) {
        acceptDespiteException(firewall);
        throw;
    }
    if (!accepted) {
        // Whatever this raises, reopening has just failed and is not tried again.
        (void)firewall.fwDisable();  // logs for itself
        return false;
    }
    return applied;
}

/// The name of the active profile.
bool activeProfileGet(TARNFW& firewall, std::string& profile) {
    if (!firewall.fwProfileConfigGet(profile)) {
        FW_LOG_ERR("Failed to fwProfileConfigGet()");
        return false;
    }
    return true;
}

/// Logs a failed translation. Returns the translation's result.
bool translated(bool result) {
    if (!result) {
        FW_LOG_ERR("Failed to fwIptablesRulesEnum()");
    }
    return result;
}

/// Replaces the chains' content with the rules of the active profile.
bool applyActiveProfile(TARNFW& firewall, bool acceptEstablished) {
    (void)firewall.fwClear();  // logs for itself; the new rules are added anyway
    std::string profile;
    Json::Value cmds;
    return activeProfileGet(firewall, profile) &&
           translated(firewall.fwIptablesRulesEnum(profile, cmds, acceptEstablished)) &&
           execOrDisable(firewall, cmds);
}

/// Replaces the chains' content with the rules of a test profile. Unlike a reload it stops when the
/// chains cannot be flushed: a trial on top of other rules would show nothing.
bool applyTestProfile(TARNFW& firewall, const std::string& testName, const std::string& localIp) {
    if (!firewall.fwClear()) {
        FW_LOG_ERR("Failed to fwClear()");
        return false;
    }
    Json::Value cmds;
    return translated(localIp.empty() ? firewall.fwIptablesRulesEnum(testName, cmds, false)
                                      : firewall.fwIptablesRulesEnum(testName, cmds, localIp)) &&
           execOrDisable(firewall, cmds);
}

/// Replaces the chains' content with the rules of a profile in apply mode "batch".
bool applyInBatch(TARNFW& firewall, const std::string& profile, bool acceptEstablished,
                  const std::string& localIp, const FW_BATCH_REVIEW& review = {}) {
    Json::Value cmds;
    return translated(firewall.fwBatchRulesEnum(profile, cmds, acceptEstablished, localIp)) &&
           FW_BATCH().applyReviewed(cmds, review);
}

/// Reads from the settings whether the firewall is enabled and, if so, whether in apply mode
/// "batch".
bool readStatus(TARNFW& firewall, bool& enabled, bool& inBatch) {
    Json::Value config;
    if (!firewall.configGet(config)) {
        FW_LOG_ERR("Falied to configGet()");
        return false;
    }
    enabled = isEnabled(config);
    inBatch = enabled && choosesBatch(config);
    return true;
}

}  // namespace

// ==== TARNFW: settings ==========================================================================

void TARNFW::initJconfig(Json::Value& config) {
    settingsDefaults(config);
}

bool TARNFW::configGet(Json::Value& config) {
    return settingsGet(config);
}

bool TARNFW::configSet(const Json::Value& config) {
    return settingsSet(config);
}

bool TARNFW::fwStatus(bool& enabled) {
    Json::Value config;
    if (!configGet(config)) {
        FW_LOG_ERR("Falied to configGet()");
        return false;
    }
    enabled = isEnabled(config);
    return true;
}

bool TARNFW::fwProfileConfigGet(std::string& profile) {
    Json::Value config;
    if (!configGet(config)) {
        FW_LOG_ERR("Falied to configGet()");
        return false;
    }
    if (!config.isMember(kProfileKey)) {
        FW_LOG_ERR("There are no key: %s in config", kProfileKey);
        return false;
    }
    profile = config[kProfileKey].asString();
    return true;
}

bool TARNFW::fwProfileConfigSet(const std::string& profile, bool reload) {
    std::vector<std::string> names;
    if (!TARNFW_PROFILE().profileEnum(names)) {
        FW_LOG_ERR("Failed to profileEnum()");
        return false;
    }
    if (std::find(names.begin(), names.end(), profile) == names.end()) {
        FW_LOG_ERR("Profile %s is not in database", profile.c_str());
        return false;
    }
    Json::Value config;
    if (!configGet(config)) {
        FW_LOG_ERR("Falied to configGet()");
        return false;
    }
    config[kProfileKey] = profile;
    if (!configSet(config)) {
        FW_LOG_ERR("Falied to configSet()");
        return false;
    }
    // A new object: this one may have the interfaces of an earlier translation.
    if (reload && !TARNFW().fwReload(true)) {
        FW_LOG_ERR("Failed to reload firewall");
        return false;
    }
    return true;
}

bool TARNFW::fwApplyMode(std::string& mode) {
    Json::Value config;
    if (!settingsPeek(config)) {  // a trial does not change the settings
        FW_LOG_ERR("Falied to configGet()");
        return false;
    }
    mode = choosesBatch(config) ? FW_APPLY_BATCH : FW_APPLY_LINES;
    return true;
}

bool TARNFW::fwAdapterEnum(std::set<std::string>& out) {
    if (!out.empty()) {
        return true;
    }
    std::vector<std::string> names;
    const int result = interfacesEnum(names);
    if (result < 0) {
        FW_LOG_INTERFACES_FAILURE(result);
        return false;
    }
    out.insert(names.begin(), names.end());
    return true;
}

// ==== TARNFW: execution =========================================================================

bool TARNFW::cmdExec(const std::string& cmd) {
    char text[kCommandBytes] = {};
    const char* argv[kCommandSlots] = {};
    std::size_t count = 0;
    std::size_t used = 0;

    std::istringstream words(cmd);
    std::string word;
    while (std::getline(words, word, ' ')) {
        // Before the test for an empty word, so an extra blank after a full line counts too.
        if (count >= kCommandSlots - 1 || used > kCommandBytes - 2) {
            FW_LOG_ERR("#Arguments exceeds limit");
            return false;
        }
        if (word.empty()) {
            continue;
        }
        argv[count++] = text + used;
        std::snprintf(text + used, kCommandBytes - used, "%s", word.c_str());
        // By the word's full length, even if the copy was truncated: the sum shows that it was.
        used += word.size() + 1;
    }
    argv[count] = nullptr;
    if (used == 0 || used > kCommandBytes) {
        FW_LOG_ERR("cmd is empty or arguments exceeding limit");
        return false;
    }
    if (TLIBCExecv(argv[0], argv, 1) == -1) {
        FW_LOG_ERR("Failed to execute %s", argv[0]);
        return false;
    }
    return true;
}

bool TARNFW::fwExec(Json::Value cmds) {
    struct Runner {
        const char* tool;
        const char* key;
    };
    constexpr Runner kRunners[] = {{kIptables, "v4"}, {kIp6tables, "v6"}};

    for (const Runner& runner : kRunners) {
        if (cmds.isMember(runner.key) && !runFamily(*this, runner.tool, cmds[runner.key])) {
            return false;
        }
    }
    return true;
}

bool TARNFW::fwClear() {
    bool cleared = true;
    for (const std::string& chain : FW_FIREWALL_CHAINS) {
        for (const char* const tool : {kIptables, kIp6tables}) {
            cleared = runLogged(*this, std::string(tool) + " -F " + chain) && cleared;
        }
    }
    return cleared;
}

bool TARNFW::fwDefaultDrop() {
    if (!fwExec(
            documentOf({"--policy INPUT DROP", "--policy FORWARD DROP",
                        "-A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"}))) {
        FW_LOG_ERR("Failed to fwExec() to set default drop.");
        return false;
    }
    return true;
}

bool TARNFW::fwDefaultAccept() {
    if (!fwExec(
            documentOf({"--policy INPUT ACCEPT", "--policy FORWARD ACCEPT",
                        "-D FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT"}))) {
        FW_LOG_ERR("Failed to fwExec() to set default accept.");
        return false;
    }
    return true;
}

// ==== TARNFW: on and off ========================================================================

bool TARNFW::fwEnable() {
    if (!firewallModLoad()) {
        FW_LOG_ERR("Failed to firewallModLoad()");
        return false;
    }
    if (!TarnFwHook().RunFwEnablePreHook()) {
        FW_LOG_ERR("Failed to run firewall enable pre-hook.");
    }
    bool result = false;
    try {
        if (statusSet(*this, true)) {
            result = fwReload(true);
            if (!result) {
                FW_LOG_ERR("Failed to apply firewall rules");
            }
        }
    } catch (...) {
        announceEnabled(false);
        throw;
    }
    announceEnabled(result);
    return result;
}

bool TARNFW::fwDisable() {
    if (!TarnFwHook().RunFwDisablePreHook()) {
        FW_LOG_ERR("Failed to run firewall disable pre-hook.");
    }
    bool result = false;
    try {
        (void)fwClear();  // logs for itself; disabling goes on
        firewallModUnload();
        result = statusSet(*this, false);
    } catch (...) {
        announceDisabled(false);
        throw;
    }
    announceDisabled(result);
    return result;
}

bool TARNFW::fwReset() {
    return fwDisable();
}

bool TARNFW::fwReload(bool acceptEstablished) {
    return fwReloadReviewed(acceptEstablished, {});
}

bool TARNFW::fwReloadReviewed(bool acceptEstablished, const FW_BATCH_REVIEW& review) {
    const FileLock lock(kExecLockPath, kExecLockSeconds, [] { FW_LOG_ERR("Failed to unlock"); });
    if (lock.result() == 0) {
        FW_LOG_ERR("TIMEOUT: getting lock");
        return false;
    }
    bool enabled = false;
    bool inBatch = false;
    if (!readStatus(*this, enabled, inBatch)) {
        FW_LOG_ERR("Failed to check status");
        return false;
    }
    if (!enabled) {
        return true;
    }
    if (!firewallModLoad()) {
        FW_LOG_ERR("Failed to firewallModLoad()");
        return false;
    }
    if (inBatch) {
        std::string profile;
        return activeProfileGet(*this, profile) &&
               applyInBatch(*this, profile, acceptEstablished, "", review);
    }
    return applyWhileClosed(*this, [&] { return applyActiveProfile(*this, acceptEstablished); });
}

bool TARNFW::fwIptablesRulesEnum(std::string profile, Json::Value& cmds, bool acceptEstablished) {
    FWPROFILE record;
    if (!profileGetLogged(profile, record)) {
        return false;
    }
    if (!fwRulesToIptablesRules(acceptEstablished, record.rules, record.adapterPolicyMap, cmds)) {
        FW_LOG_ERR("Failed to fwRulesToIptablesRules()");
        return false;
    }
    return true;
}

bool TARNFW::fwIptablesRulesEnum(std::string profile, Json::Value& cmds,
                                 const std::string& localIp) {
    FWPROFILE record;
    if (!profileGetLogged(profile, record)) {
        return false;
    }
    if (!fwRulesToIptablesRules(false, record.rules, record.adapterPolicyMap, cmds, localIp)) {
        FW_LOG_ERR("Failed to fwRulesToIptablesRules()");
        return false;
    }
    return true;
}

bool TARNFW::fwBatchRulesEnum(const std::string& profile, Json::Value& cmds, bool acceptEstablished,
                              const std::string& localIp) {
    FWPROFILE record;
    if (!profileGetLogged(profile, record)) {
        return false;
    }
    if (!fwRulesToBatchRules(acceptEstablished, record.rules, record.adapterPolicyMap, cmds,
                             localIp)) {
        FW_LOG_ERR("Failed to fwRulesToIptablesRules()");
        return false;
    }
    return true;
}

bool TARNFW::TestApplyingProfile(std::string name, const std::string& localIp) {
    const std::string testName = testProfileName(name);
    if (!firewallModLoad()) {
        FW_LOG_ERR("Failed to firewallModLoad()");
        return false;
    }
    if (settingsChooseBatch()) {
        return applyInBatch(*this, testName, /*acceptEstablished=*/false, localIp);
    }
    return applyWhileClosed(*this, [&] { return applyTestProfile(*this, testName, localIp); });
}

bool TARNFW::TestApplyingProfile(std::string name) {
    return TestApplyingProfile(name, "");
}

}  // namespace FW
