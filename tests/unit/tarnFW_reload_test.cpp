// Enabling, disabling and reloading: every step in order, what each failure leaves, and that
// no exception leaves the machine closed.

#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include <boost/interprocess/exceptions.hpp>

#include "library_test.h"
#include "reload_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::ValuesIn;
using Lines = std::vector<std::string>;

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The first `count` of `lines`.
Lines firstOf(const Lines& lines, std::size_t count) {
    return {lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(count)};
}

// The rest of every text that begins with `prefix`.
Lines after(const std::string& prefix, const Lines& texts) {
    Lines made;
    for (const std::string& text : texts) {
        made.push_back(prefix + text);
    }
    return made;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// ---- What an operation asks of the platform, step by step, as the fake platform notes it ----

const std::string kRecordLock = kLockDir + "iptables_serv_mod_list.lock";
const Lines kTakeExecLock = {"lock " + kExecLock + " 1 30"};
const Lines kReleaseExecLock = {"unlock 1000"};

// The result of policies() for an open machine, and for one with unchanged policies.
const Lines kOpen = {"ACCEPT", "ACCEPT", "ACCEPT", "ACCEPT"};
const Lines kUntouched = {"", "", "", ""};

// The fixed lines of any profile, with and without the one for established connections.
Lines fixedLines(bool established) {
    Lines made;
    for (const std::string chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
        made.push_back("exec /sbin/iptables -A " + chain + " -i lo -j ACCEPT");
        if (established) {
            made.push_back("exec /sbin/iptables -A " + chain +
                           " -m state --state ESTABLISHED,RELATED -j ACCEPT");
        }
    }
    return made;
}

Lines fixedLines6(bool established) {
    Lines made;
    for (const std::string chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
        const std::string line = "exec /sbin/ip6tables -A " + chain;
        made.push_back(line + " -i lo -j ACCEPT");
        made.push_back(line +
                       " -s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation -j ACCEPT");
        made.push_back(line +
                       " -s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement -j ACCEPT");
        made.push_back(line + " -p icmpv6 --icmpv6-type neighbour-solicitation -j ACCEPT");
        made.push_back(line + " -p icmpv6 --icmpv6-type neighbour-advertisement -j ACCEPT");
        made.push_back(line + " -s fe80::/10 -p icmpv6 --icmpv6-type 137 -j ACCEPT");
        if (established) {
            made.push_back(line + " -m state --state ESTABLISHED,RELATED -j ACCEPT");
        }
    }
    return made;
}

// The lines of the profile "home" for eth0: TCP `port` is accepted, the rest is dropped.
Lines adapterLines(const std::string& tool, const std::string& port) {
    return after("exec " + tool + " -t filter -A ",
                 {"FORWARD_FIREWALL -i eth0 -p tcp --dport " + port + " -j RETURN",
                  "INPUT_FIREWALL -i eth0 -p tcp --dport " + port + " -j RETURN",
                  "FORWARD_FIREWALL -i eth0 -j DROP", "INPUT_FIREWALL -i eth0 -j DROP"});
}

const Lines kRules4 = fixedLines(true) + adapterLines("/sbin/iptables", "22");
const Lines kRules6 = fixedLines6(true) + adapterLines("/sbin/ip6tables", "22");

// A reload of "home" that works, between taking the lock and giving it back.
const Lines kRebuild = kDrop + kFlush + kRules4 + kRules6 + kAccept;

// Writing "firewall" into the record of loaded modules, under the lock with the number `lock`.
Lines record(const std::string& value, int lock) {
    return {"lock " + kRecordLock + " 1 30", "set " + kServiceRecord + " firewall=" + value,
            "unlock " + std::to_string(lock)};
}

// Loading and unloading all modules; `lock` is 1001 within a reload, which holds a lock itself.
Lines load(int lock) {
    return Lines{"insmod firewall: a.ko b.ko c.ko d.ko"} + record("yes", lock) +
           Lines{"insmod firewall: compat_xtables.ko xt_geoip.ko xt_mac.ko"} + record("yes", lock);
}

Lines unload(int lock) {
    return Lines{"rmmod firewall: xt_mac.ko xt_geoip.ko compat_xtables.ko"} + record("no", lock) +
           Lines{"rmmod firewall: d.ko c.ko b.ko a.ko"} + record("no", lock);
}

Lines hook(const std::string& name, const std::string& action, const std::string& result) {
    return {"hook init net net/firewall_" + name, "hook set RESULT=" + result,
            "hook action " + action, "hook exit"};
}

const Lines kBeforeEnabling = hook("enable", "4", "0");
const Lines kAfterEnabling = hook("enable", "5", "0");
const Lines kAfterFailedEnabling = hook("enable", "5", "-1");
const Lines kBeforeDisabling = hook("disable", "4", "0");
const Lines kAfterDisabling = hook("disable", "5", "0");
const Lines kAfterFailedDisabling = hook("disable", "5", "-1");

// All of fwDisable() while the modules are loaded.
Lines disable(int lock) {
    return kBeforeDisabling + kFlush + unload(lock) + kAfterDisabling;
}

// "Failed to execute ..." as cmdExec() and as its caller log it; `noted` is one of the lines above.
Lines failedLine(const std::string& noted) {
    const std::string line = noted.substr(sizeof("exec ") - 1);
    return {"tarnFW: Failed to execute " + line.substr(0, line.find(' ')),
            "tarnFW: Failed to execute \"" + line + "\""};
}

const std::string kSettingsParseError = "utils: Failed to parse Json value of " + kSettingsFile;

// ---- The fixture ----

// An enabled firewall with the active profile "home" (in the file "1.json") and loaded modules.
class FirewallTest : public LibraryTest {
protected:
    FirewallTest() {
        platform_.keyValues[kModuleList] = {{"KERNEL_MODULES_CORE", "a.ko b.ko"},
                                            {"KERNEL_MODULES_COMMON", "c.ko"},
                                            {"IPV6_MODULES", "d.ko"}};
        platform_.failModInsertOf = "not in any list";
        platform_.failModRemoveOf = "not in any list";
        setLoaded("yes");
        storeProfile("1", profileWithPort("home", "22"));
        storeSettings(true, "home");
    }

    void TearDown() override {
        EXPECT_THAT(platform_.heldLocks, IsEmpty());
        EXPECT_EQ(platform_.openLists, 0);
        EXPECT_EQ(platform_.openCatalogues, 0);
        EXPECT_EQ(platform_.openStreams, 0);
    }

    static FW::FWPROFILE profileWithPort(const std::string& name, const std::string& port) {
        FW::FWRULE rule;
        rule.ipType = 2;
        rule.ipGroup = 5;
        rule.portGroup = 1;
        rule.portList = {port};
        FW::FWPROFILE profile;
        profile.name = name;
        profile.rules["eth0"] = {rule};
        profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
        profile.adapterPolicyMap["global"] = FW::FW_POLICY_NONE;
        return profile;
    }

    void setLoaded(const std::string& value) {
        platform_.keyValues[kServiceRecord]["firewall"] = value;
    }

    std::string loaded() { return platform_.keyValues[kServiceRecord]["firewall"]; }

    void removeProfile() { std::filesystem::remove(kProfileDir + "1.json"); }

    // Makes every write of the settings fail.
    void blockSettingsWrite() { std::filesystem::create_directories(kSettingsFile + ".tmp"); }

    // Makes the lock file of a data file impossible to open.
    static void blockLockOf(const std::string& name) {
        std::filesystem::remove(kLockDir + name + ".lock");
        std::filesystem::create_directories(kLockDir + name + ".lock");
    }

    void failLine(const std::string& noted) {
        platform_.failExec(noted.substr(sizeof("exec ") - 1));
    }

    // The journal without what only asks: the directory of lock files, and the translation's
    // questions.
    Lines acts() const {
        Lines found;
        for (const std::string& entry : platform_.journal) {
            if (!startsWith(entry, "mkdir ") && !startsWith(entry, "interfaces ") &&
                !startsWith(entry, "popen ") && entry != "pclose") {
                found.push_back(entry);
            }
        }
        return found;
    }

    bool status() { return storedSettings()["status"].asBool(); }

    // The last policy of INPUT and FORWARD, IPv4 and then IPv6; empty for one never set.
    Lines policies() const {
        return {platform_.policyOf("INPUT", "v4"), platform_.policyOf("FORWARD", "v4"),
                platform_.policyOf("INPUT", "v6"), platform_.policyOf("FORWARD", "v6")};
    }
};

// ---- fwReload ----

using FwReloadTest = FirewallTest;

TEST_F(FwReloadTest, DisabledFirewallSucceedsAndRunsNothing) {
    storeSettings(false, "home");
    setLoaded("no");
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kReleaseExecLock);
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwReloadTest, MissingSettingsAreThoseOfADisabledFirewall) {
    std::filesystem::remove(kSettingsFile);
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kReleaseExecLock);
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "default"})"));
}

TEST_F(FwReloadTest, RunsEveryStepInOrderUnderTheExecutionLock) {
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kRebuild + kReleaseExecLock);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "home"})"));
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwReloadTest, MissingModulesAreLoadedBeforeTheMachineIsClosed) {
    setLoaded("no");
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + load(1001) + kRebuild + kReleaseExecLock);
    EXPECT_EQ(loaded(), "yes");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwReloadTest, WithoutTheFlagNoLineIsMadeForEstablishedConnections) {
    EXPECT_TRUE(FW::TARNFW().fwReload(false));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + fixedLines(false) +
                          adapterLines("/sbin/iptables", "22") + fixedLines6(false) +
                          adapterLines("/sbin/ip6tables", "22") + kAccept + kReleaseExecLock);
}

TEST_F(FwReloadTest, StatusIsReadUnderTheLock) {
    platform_.onLock = [this](const std::string&) { storeSettings(false, "home"); };
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kReleaseExecLock);
}

TEST_F(FwReloadTest, ActiveProfileIsReadAfterTheFlush) {
    storeProfile("2", profileWithPort("away", "80"));
    platform_.onExec = [this](const std::string& line) {
        if ("exec " + line == kFlush.back()) {
            storeSettings(true, "away");
        }
    };
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + fixedLines(true) +
                          adapterLines("/sbin/iptables", "80") + fixedLines6(true) +
                          adapterLines("/sbin/ip6tables", "80") + kAccept + kReleaseExecLock);
}

TEST_F(FwReloadTest, WholeProfileIsTranslatedBetweenTheFlushAndItsFirstLine) {
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    const Lines& journal = platform_.journal;
    const auto isQuestion = [](const std::string& entry) {
        return startsWith(entry, "interfaces ") || startsWith(entry, "popen ");
    };
    const auto first = std::find_if(journal.begin(), journal.end(), isQuestion);
    const auto last = std::find_if(journal.rbegin(), journal.rend(), isQuestion).base();
    ASSERT_NE(first, journal.end());
    EXPECT_GT(first, std::find(journal.begin(), journal.end(), kFlush.back()));
    EXPECT_LE(last, std::find(journal.begin(), journal.end(), kRules4.front()));
}

TEST_F(FwReloadTest, LockThatIsNotObtainedIsATimeoutAndChangesNothing) {
    platform_.lockResult = 0;
    setLoaded("no");
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock);
    EXPECT_THAT(errors(), ElementsAre("tarnFW: TIMEOUT: getting lock"));
    EXPECT_TRUE(status());
    EXPECT_EQ(loaded(), "no");
}

TEST_F(FwReloadTest, UnreadableSettingsAreAFailureThatReleasesTheLock) {
    writeFile(kSettingsFile, "{");
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kReleaseExecLock);
    EXPECT_THAT(errors(), ElementsAre(kSettingsParseError, "tarnFW: Falied to configGet()",
                                      "tarnFW: Failed to check status"));
    EXPECT_EQ(readFile(kSettingsFile), "{");
}

TEST_F(FwReloadTest, CoreModulesThatCannotBeLoadedStopItBeforeAnyLine) {
    setLoaded("no");
    platform_.failModInsertOf = "c.ko";
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(),
              kTakeExecLock + Lines{"insmod firewall: a.ko b.ko c.ko d.ko"} + kReleaseExecLock);
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                    "tarnIptablesModule: Failed to moduleInsert(firewall, a.ko b.ko c.ko d.ko)",
                    "tarnFW: Failed to iptablesCoreModLoad",
                    "tarnFW: Failed to firewallModLoad()"));
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, OwnModulesThatCannotBeLoadedStopItBeforeAnyLine) {
    setLoaded("no");
    platform_.failModInsertOf = "xt_geoip.ko";
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + Lines{"insmod firewall: a.ko b.ko c.ko d.ko"} +
                          record("yes", 1001) +
                          Lines{"insmod firewall: compat_xtables.ko xt_geoip.ko xt_mac.ko"} +
                          kReleaseExecLock);
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                                      "tarnFW: Failed to moduleInsert()",
                                      "tarnFW: Failed to firewallModLoad()"));
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, FailedFlushDoesNotStopIt) {
    failLine(kFlush[0]);
    failLine(kFlush[3]);
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kRebuild + kReleaseExecLock);
    EXPECT_EQ(errors(), failedLine(kFlush[0]) + failedLine(kFlush[3]));
}

TEST_F(FwReloadTest, SettingsWithoutAProfileLeaveEmptyChainsAndOpenPolicies) {
    writeFile(kSettingsFile, R"({"status": true})");
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + kAccept + kReleaseExecLock);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_THAT(errors(), ElementsAre("tarnFW: There are no key: profile in config",
                                      "tarnFW: Failed to fwProfileConfigGet()"));
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, MissingProfileLeavesEmptyChainsAndOpenPolicies) {
    removeProfile();
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + kAccept + kReleaseExecLock);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_THAT(errors(), ElementsAre("fwDB: Failed to profileGet home due to not exist",
                                      "tarnFW: Failed to profileGet(home)",
                                      "tarnFW: Failed to fwIptablesRulesEnum()"));
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, ProfileWithAMemberOfTheWrongTypeIsAFailureLikeAMissingOne) {
    writeFile(kProfileDir + "1.json",
              R"({"name": "home", "rules": null, "adapterPolicyMap": {"eth0": "deny"}})");
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + kAccept + kReleaseExecLock);
    EXPECT_THAT(errors(), ElementsAre(AllOf(HasSubstr("fwDB: "), HasSubstr("home")),
                                      "tarnFW: Failed to profileGet(home)",
                                      "tarnFW: Failed to fwIptablesRulesEnum()"));
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, ProfileThatCannotBeTranslatedLeavesEmptyChainsAndOpenPolicies) {
    FW::FWPROFILE profile = profileWithPort("home", "22");
    profile.rules["eth0"][0].policy = static_cast<FW::FW_POLICY>(7);
    storeProfile("1", profile);
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + kAccept + kReleaseExecLock);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_THAT(errors(), ElementsAre("fwIptables: Unknown policy 7",
                                      "fwIptables: Failed to policyToIptablesArg()",
                                      "tarnFW: Failed to fwRulesToIptablesRules()",
                                      "tarnFW: Failed to fwIptablesRulesEnum()"));
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, FailingLineDisablesTheFirewallBeforeThePoliciesReturn) {
    failLine(kRules6[0]);
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + kRules4 + firstOf(kRules6, 1) +
                          disable(1001) + kAccept + kReleaseExecLock);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_EQ(errors(),
              failedLine(kRules6[0]) + Lines{"tarnFW: Failed to fwExec() so disable firewall"});
    EXPECT_FALSE(status());
    EXPECT_EQ(storedSettings()["profile"], "home");
    EXPECT_EQ(loaded(), "no");
}

TEST_F(FwReloadTest, FailingLineIsReportedAfterTheDisablingItCaused) {
    failLine(kRules4.back());
    platform_.hookActionResult = -1;
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    const Lines disabling = {"fwHook: Failed to run hook: net/firewall_disable",
                             "tarnFW: Failed to run firewall disable pre-hook.",
                             "fwHook: Failed to run hook: net/firewall_disable",
                             "tarnFW: Failed to run firewall disable post-hook."};
    EXPECT_EQ(errors(), failedLine(kRules4.back()) + disabling +
                            Lines{"tarnFW: Failed to fwExec() so disable firewall"});
    EXPECT_EQ(policies(), kOpen);
    EXPECT_FALSE(status());
}

TEST_F(FwReloadTest, FailedDisablingAfterAFailedLineStillOpensThePolicies) {
    failLine(kRules4.front());
    blockSettingsWrite();
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + firstOf(kRules4, 1) + kBeforeDisabling +
                          kFlush + unload(1001) + kAfterFailedDisabling + kAccept +
                          kReleaseExecLock);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_TRUE(status());
}

TEST_F(FwReloadTest, FailedLineAndFailedAcceptDisableTheFirewallTwice) {
    failLine(kRules4.front());
    failLine(kAccept.front());
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + firstOf(kRules4, 1) + disable(1001) +
                          firstOf(kAccept, 1) + kBeforeDisabling + kFlush + kAfterDisabling +
                          kReleaseExecLock);
    EXPECT_EQ(errors(), failedLine(kRules4.front()) +
                            Lines{"tarnFW: Failed to fwExec() so disable firewall"} +
                            failedLine(kAccept.front()) +
                            Lines{"tarnFW: Failed to fwExec() to set default accept."});
    EXPECT_FALSE(status());
}

TEST_F(FwReloadTest, FailedAcceptAfterAMissingProfileDisablesTheFirewall) {
    removeProfile();
    failLine(kAccept.front());
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + firstOf(kAccept, 1) + disable(1001) +
                          kReleaseExecLock);
    EXPECT_FALSE(status());
}

TEST_F(FwReloadTest, FailedReleaseIsLoggedAndNoFailure) {
    platform_.unlockResult = 0;
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kRebuild + kReleaseExecLock);
    EXPECT_THAT(errors(), ElementsAre("tarnFW: Failed to unlock"));
}

TEST_F(FwReloadTest, FailedReleaseTurnsNoFailureIntoSuccess) {
    removeProfile();
    platform_.unlockResult = 0;
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(errors().back(), "tarnFW: Failed to unlock");
}

TEST_F(FwReloadTest, ServicesOfARuleAreReleasedWithTheObject) {
    FW::FWPROFILE profile = profileWithPort("home", "ssh");
    profile.rules["eth0"][0].portGroup = 0;
    storeProfile("1", profile);
    platform_.services["ssh"] = {"Secure shell", FW::FW_PORT_PROTOCOL_TCP, {"22"}, 0, {}};
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_THAT(acts(), Contains(adapterLines("/sbin/iptables", "22")[0]));
    EXPECT_EQ(platform_.openCatalogues, 0);
}

class FwReloadPolicyTest : public FirewallTest,
                           public ::testing::WithParamInterface<std::size_t> {};

TEST_P(FwReloadPolicyTest, FailedDropStopsThereAndLeavesTheChainsAlone) {
    failLine(kDrop[GetParam()]);
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + firstOf(kDrop, GetParam() + 1) + kReleaseExecLock);
    EXPECT_EQ(errors(), failedLine(kDrop[GetParam()]) +
                            Lines{"tarnFW: Failed to fwExec() to set default drop."});
    EXPECT_TRUE(status());
    EXPECT_EQ(loaded(), "yes");
}

TEST_P(FwReloadPolicyTest, FailedAcceptDisablesTheFirewallWithoutAMessageOfItsOwn) {
    failLine(kAccept[GetParam()]);
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + kRules4 + kRules6 +
                          firstOf(kAccept, GetParam() + 1) + disable(1001) + kReleaseExecLock);
    EXPECT_EQ(errors(), failedLine(kAccept[GetParam()]) +
                            Lines{"tarnFW: Failed to fwExec() to set default accept."});
    EXPECT_FALSE(status());
    EXPECT_EQ(loaded(), "no");
}

INSTANTIATE_TEST_SUITE_P(Line, FwReloadPolicyTest, ::testing::Range<std::size_t>(0, 6));

// ---- fwEnable ----

class FwEnableTest : public FirewallTest {
protected:
    FwEnableTest() {
        storeSettings(false, "home");
        setLoaded("no");
    }
};

TEST_F(FwEnableTest, LoadsAnnouncesReloadsAndAnnouncesAgain) {
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kTakeExecLock + kRebuild + kReleaseExecLock +
                          kAfterEnabling);
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "home"})"));
    EXPECT_EQ(loaded(), "yes");
    EXPECT_EQ(policies(), kOpen);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwEnableTest, LoadedModulesAreNotLoadedAgain) {
    setLoaded("yes");
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(),
              kBeforeEnabling + kTakeExecLock + kRebuild + kReleaseExecLock + kAfterEnabling);
}

TEST_F(FwEnableTest, EnablingAnEnabledFirewallReloadsIt) {
    storeSettings(true, "home");
    setLoaded("yes");
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(),
              kBeforeEnabling + kTakeExecLock + kRebuild + kReleaseExecLock + kAfterEnabling);
    EXPECT_TRUE(status());
}

TEST_F(FwEnableTest, StatusIsStoredBetweenTheFirstHookAndTheReload) {
    const std::string before = readFile(kSettingsFile);
    platform_.onLock = [this, before](const std::string& path) {
        if (path == kExecLock) {
            EXPECT_TRUE(status());
        } else {
            EXPECT_EQ(readFile(kSettingsFile), before);
        }
    };
    EXPECT_TRUE(FW::TARNFW().fwEnable());
}

TEST_F(FwEnableTest, OtherSettingsAreKept) {
    writeFile(kSettingsFile, R"({"profile": "home", "note": [1, "x"]})");
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_EQ(storedSettings(),
              parseJson(R"({"status": true, "profile": "home", "note": [1, "x"]})"));
}

TEST_F(FwEnableTest, MissingSettingsMakeDefaultTheActiveProfile) {
    std::filesystem::remove(kSettingsFile);
    storeProfile("1", profileWithPort("default", "22"));
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "default"})"));
}

TEST_F(FwEnableTest, CoreModulesThatCannotBeLoadedChangeNothingAndRunNoHook) {
    const std::string before = readFile(kSettingsFile);
    platform_.failModInsertOf = "a.ko";
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), Lines{"insmod firewall: a.ko b.ko c.ko d.ko"});
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                    "tarnIptablesModule: Failed to moduleInsert(firewall, a.ko b.ko c.ko d.ko)",
                    "tarnFW: Failed to iptablesCoreModLoad",
                    "tarnFW: Failed to firewallModLoad()"));
    EXPECT_EQ(readFile(kSettingsFile), before);
    EXPECT_EQ(loaded(), "no");
}

TEST_F(FwEnableTest, MissingModuleListChangesNothingAndRunsNoHook) {
    platform_.keyValues.erase(kModuleList);
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_THAT(acts(), IsEmpty());
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to get key KERNEL_MODULES_CORE from " + kModuleList,
                    "tarnIptablesModule: Failed to coreCommonModuleLoad()",
                    "tarnFW: Failed to iptablesCoreModLoad",
                    "tarnFW: Failed to firewallModLoad()"));
}

TEST_F(FwEnableTest, OwnModulesThatCannotBeLoadedLeaveTheCoreModulesLoaded) {
    const std::string before = readFile(kSettingsFile);
    platform_.failModInsertOf = "xt_mac.ko";
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), Lines{"insmod firewall: a.ko b.ko c.ko d.ko"} + record("yes", 1000) +
                          Lines{"insmod firewall: compat_xtables.ko xt_geoip.ko xt_mac.ko"});
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModInsert()",
                                      "tarnFW: Failed to moduleInsert()",
                                      "tarnFW: Failed to firewallModLoad()"));
    EXPECT_EQ(readFile(kSettingsFile), before);
    EXPECT_EQ(loaded(), "yes");
}

TEST_F(FwEnableTest, HooksThatCannotBeRunAreLoggedAndStopNothing) {
    platform_.hookActionResult = -1;
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kTakeExecLock + kRebuild + kReleaseExecLock +
                          kAfterEnabling);
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to run hook: net/firewall_enable",
                                      "tarnFW: Failed to run firewall enable pre-hook.",
                                      "fwHook: Failed to run hook: net/firewall_enable",
                                      "tarnFW: Failed to run firewall enable post-hook."));
    EXPECT_TRUE(status());
}

TEST_F(FwEnableTest, HooksThatCannotBeOpenedAreLoggedAndStopNothing) {
    platform_.hookInitResult = -1;
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    const Lines opened = {"hook init net net/firewall_enable", "hook exit"};
    EXPECT_EQ(acts(), load(1000) + opened + kTakeExecLock + kRebuild + kReleaseExecLock + opened);
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to init hook plugin",
                                      "tarnFW: Failed to run firewall enable pre-hook.",
                                      "fwHook: Failed to init hook plugin",
                                      "tarnFW: Failed to run firewall enable post-hook."));
    EXPECT_TRUE(status());
}

TEST_F(FwEnableTest, UnreadableSettingsTellTheHookAndReloadNothing) {
    writeFile(kSettingsFile, "not json");
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kAfterFailedEnabling);
    EXPECT_THAT(errors(), ElementsAre(kSettingsParseError, "tarnFW: Falied to config.configGet()",
                                      "tarnFW: Falied to configSet()"));
    EXPECT_EQ(readFile(kSettingsFile), "not json");
}

TEST_F(FwEnableTest, SettingsThatCannotBeWrittenTellTheHookAndReloadNothing) {
    blockSettingsWrite();
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kAfterFailedEnabling);
    EXPECT_THAT(errors(), ElementsAre("utils: Failed to open json file " + kSettingsFile + ".tmp",
                                      "tarnFW: Falied to configSet()"));
    EXPECT_FALSE(status());
}

TEST_F(FwEnableTest, MissingProfileLeavesTheFirewallMarkedEnabled) {
    removeProfile();
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kTakeExecLock + kDrop + kFlush + kAccept +
                          kReleaseExecLock + kAfterFailedEnabling);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_TRUE(status());
    EXPECT_EQ(errors().back(), "tarnFW: Failed to apply firewall rules");
}

TEST_F(FwEnableTest, TimeoutOfTheReloadLeavesTheFirewallMarkedEnabled) {
    setLoaded("yes");
    platform_.lockResult = 0;
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), kBeforeEnabling + kTakeExecLock + kAfterFailedEnabling);
    EXPECT_TRUE(status());
    EXPECT_THAT(errors(), ElementsAre("tarnFW: TIMEOUT: getting lock",
                                      "tarnFW: Failed to apply firewall rules"));
}

TEST_F(FwEnableTest, FailedDropLeavesTheFirewallMarkedEnabled) {
    failLine(kDrop[1]);
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kTakeExecLock + firstOf(kDrop, 2) +
                          kReleaseExecLock + kAfterFailedEnabling);
    EXPECT_TRUE(status());
}

TEST_F(FwEnableTest, FailingFirstIpv6LineLeavesItDisabledAndTellsTheHook) {
    failLine(kRules6[0]);
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kTakeExecLock + kDrop + kFlush + kRules4 +
                          firstOf(kRules6, 1) + disable(1001) + kAccept + kReleaseExecLock +
                          kAfterFailedEnabling);
    EXPECT_EQ(errors(), failedLine(kRules6[0]) +
                            Lines{"tarnFW: Failed to fwExec() so disable firewall"} +
                            Lines{"tarnFW: Failed to apply firewall rules"});
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "home"})"));
    EXPECT_EQ(loaded(), "no");
    EXPECT_EQ(policies(), kOpen);
}

TEST_F(FwEnableTest, FailedAcceptLeavesItDisabledAndTellsTheHook) {
    failLine(kAccept[3]);
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(acts(), load(1000) + kBeforeEnabling + kTakeExecLock + kDrop + kFlush + kRules4 +
                          kRules6 + firstOf(kAccept, 4) + disable(1001) + kReleaseExecLock +
                          kAfterFailedEnabling);
    EXPECT_FALSE(status());
    EXPECT_EQ(loaded(), "no");
}

TEST_F(FwEnableTest, FailedPostHookIsLoggedAfterAFailedReload) {
    removeProfile();
    platform_.hookActionResult = -1;
    EXPECT_FALSE(FW::TARNFW().fwEnable());
    EXPECT_EQ(errors().back(), "tarnFW: Failed to run firewall enable post-hook.");
}

// ---- fwDisable, fwReset ----

struct OffCase {
    std::string name;
    bool (FW::TARNFW::*run)();
};

void PrintTo(const OffCase& c, std::ostream* out) {
    *out << c.name;
}

class FwDisableTest : public FirewallTest, public ::testing::WithParamInterface<OffCase> {
protected:
    bool turnOff() {
        FW::TARNFW firewall;
        return (firewall.*GetParam().run)();
    }
};

TEST_P(FwDisableTest, AnnouncesFlushesUnloadsStoresAndAnnouncesAgain) {
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(acts(), disable(1000));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "home"})"));
    EXPECT_EQ(loaded(), "no");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(FwDisableTest, DisabledFirewallIsFlushedAndStoredAgain) {
    storeSettings(false, "home");
    setLoaded("no");
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush + kAfterDisabling);
    EXPECT_FALSE(status());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(FwDisableTest, StatusIsStoredAfterTheModulesAreGone) {
    int records = 0;
    platform_.onLock = [this, &records](const std::string&) {
        ++records;
        EXPECT_TRUE(status());
    };
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(records, 2);
    EXPECT_FALSE(status());
}

TEST_P(FwDisableTest, HooksThatCannotBeRunAreLoggedAndStopNothing) {
    platform_.hookActionResult = -1;
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(acts(), disable(1000));
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to run hook: net/firewall_disable",
                                      "tarnFW: Failed to run firewall disable pre-hook.",
                                      "fwHook: Failed to run hook: net/firewall_disable",
                                      "tarnFW: Failed to run firewall disable post-hook."));
    EXPECT_FALSE(status());
}

TEST_P(FwDisableTest, FailedFlushIsNoFailure) {
    failLine(kFlush[1]);
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(acts(), disable(1000));
    EXPECT_EQ(errors(), failedLine(kFlush[1]));
}

TEST_P(FwDisableTest, OwnModulesThatCannotBeRemovedKeepTheCoreModulesAndAreNoFailure) {
    platform_.failModRemoveOf = "xt_geoip.ko";
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush +
                          Lines{"rmmod firewall: xt_mac.ko xt_geoip.ko compat_xtables.ko"} +
                          kAfterDisabling);
    EXPECT_THAT(errors(), ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModRemove()",
                                      "tarnFW: Failed to moduleInsert()"));
    EXPECT_FALSE(status());
    EXPECT_EQ(loaded(), "yes");
}

TEST_P(FwDisableTest, CoreModulesThatCannotBeRemovedAreNoFailure) {
    platform_.failModRemoveOf = "d.ko";
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush +
                          Lines{"rmmod firewall: xt_mac.ko xt_geoip.ko compat_xtables.ko"} +
                          record("no", 1000) + Lines{"rmmod firewall: d.ko c.ko b.ko a.ko"} +
                          kAfterDisabling);
    EXPECT_THAT(
        errors(),
        ElementsAre("tarnIptablesModule: Failed to TLIBIptablesModRemove()",
                    "tarnIptablesModule: Failed to moduleRemove(firewall, d.ko c.ko b.ko a.ko)",
                    "tarnFW: Failed to iptablesCoreModLoad"));
    EXPECT_FALSE(status());
    EXPECT_EQ(loaded(), "no");
}

TEST_P(FwDisableTest, UnreadableSettingsAreTheFailureThatTheHookIsTold) {
    writeFile(kSettingsFile, "not json");
    EXPECT_FALSE(turnOff());
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush + unload(1000) + kAfterFailedDisabling);
    EXPECT_THAT(errors(), ElementsAre(kSettingsParseError, "tarnFW: Falied to config.configGet()",
                                      "tarnFW: Falied to configSet()"));
    EXPECT_EQ(readFile(kSettingsFile), "not json");
}

TEST_P(FwDisableTest, SettingsThatCannotBeWrittenAreTheFailureThatTheHookIsTold) {
    blockSettingsWrite();
    EXPECT_FALSE(turnOff());
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush + unload(1000) + kAfterFailedDisabling);
    EXPECT_THAT(errors(), ElementsAre("utils: Failed to open json file " + kSettingsFile + ".tmp",
                                      "tarnFW: Falied to configSet()"));
    EXPECT_TRUE(status());
}

TEST_P(FwDisableTest, MissingSettingsAreWritten) {
    std::filesystem::remove(kSettingsFile);
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "default"})"));
}

TEST_P(FwDisableTest, PoliciesAndExecutionLockAreLeftAlone) {
    EXPECT_TRUE(turnOff());
    EXPECT_EQ(policies(), kUntouched);
    EXPECT_THAT(platform_.journalOf("lock "), Not(Contains(HasSubstr(kExecLock))));
}

const OffCase kOff[] = {{"Disable", &FW::TARNFW::fwDisable}, {"Reset", &FW::TARNFW::fwReset}};

INSTANTIATE_TEST_SUITE_P(Off, FwDisableTest, ValuesIn(kOff),
                         [](const auto& tested) { return tested.param.name; });

// ---- fwProfileConfigSet ----

class FwProfileConfigSetTest : public FirewallTest {
protected:
    FwProfileConfigSetTest() {
        storeProfile("2", profileWithPort("away", "80"));
        writeFile(kSettingsFile, R"({"status": true, "profile": "home", "note": "kept"})");
    }
};

TEST_F(FwProfileConfigSetTest, ChangesOnlyTheProfileWithoutReload) {
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigSet("away", false));
    EXPECT_EQ(storedSettings(),
              parseJson(R"({"status": true, "profile": "away", "note": "kept"})"));
    EXPECT_THAT(acts(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwProfileConfigSetTest, ReloadAppliesTheNewProfileWithEstablishedConnections) {
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigSet("away", true));
    EXPECT_EQ(acts(), kTakeExecLock + kDrop + kFlush + fixedLines(true) +
                          adapterLines("/sbin/iptables", "80") + fixedLines6(true) +
                          adapterLines("/sbin/ip6tables", "80") + kAccept + kReleaseExecLock);
    EXPECT_EQ(storedSettings()["profile"], "away");
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwProfileConfigSetTest, ReloadOfADisabledFirewallSucceedsAndRunsNothing) {
    storeSettings(false, "home");
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigSet("away", true));
    EXPECT_EQ(acts(), kTakeExecLock + kReleaseExecLock);
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "away"})"));
}

TEST_F(FwProfileConfigSetTest, UnknownNameLeavesTheSettingsUntouched) {
    const std::string before = readFile(kSettingsFile);
    EXPECT_FALSE(FW::TARNFW().fwProfileConfigSet("nowhere", true));
    EXPECT_EQ(readFile(kSettingsFile), before);
    EXPECT_THAT(acts(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("tarnFW: Profile nowhere is not in database"));
}

TEST_F(FwProfileConfigSetTest, NameIsCaseSensitiveAndWhole) {
    for (const std::string name : {"Away", "awa", "away ", ""}) {
        EXPECT_FALSE(FW::TARNFW().fwProfileConfigSet(name, false)) << name;
        EXPECT_EQ(errors().back(), "tarnFW: Profile " + name + " is not in database");
    }
}

TEST_F(FwProfileConfigSetTest, StoreThatCannotBeListedIsAFailure) {
    removeProfile();
    std::filesystem::remove(kProfileDir + "2.json");
    std::filesystem::remove(kSettingsFile);
    EXPECT_FALSE(FW::TARNFW().fwProfileConfigSet("home", true));
    EXPECT_THAT(errors(), ElementsAre("fwDB: Fail to read file from " + kProfileDir,
                                      "fwDB: Failed to create meta json from " + kProfileDir,
                                      "tarnFW: Failed to profileEnum()"));
    EXPECT_THAT(acts(), IsEmpty());
}

TEST_F(FwProfileConfigSetTest, UnreadableSettingsAreAFailureAndNotOverwritten) {
    writeFile(kSettingsFile, "not json");
    EXPECT_FALSE(FW::TARNFW().fwProfileConfigSet("away", true));
    // The settings lie among the profiles, whose listing meets them first.
    EXPECT_THAT(errors(),
                ElementsAre(kSettingsParseError, "fwDB: Failed to load json from " + kSettingsFile,
                            kSettingsParseError, "tarnFW: Falied to configGet()"));
    EXPECT_EQ(readFile(kSettingsFile), "not json");
    EXPECT_THAT(acts(), IsEmpty());
}

TEST_F(FwProfileConfigSetTest, SettingsThatCannotBeWrittenAreAFailureBeforeTheReload) {
    blockSettingsWrite();
    EXPECT_FALSE(FW::TARNFW().fwProfileConfigSet("away", true));
    EXPECT_THAT(errors(), ElementsAre("utils: Failed to open json file " + kSettingsFile + ".tmp",
                                      "tarnFW: Falied to configSet()"));
    EXPECT_EQ(storedSettings()["profile"], "home");
    EXPECT_THAT(acts(), IsEmpty());
}

TEST_F(FwProfileConfigSetTest, FailedReloadLeavesTheNewProfileActive) {
    platform_.lockResult = 0;
    EXPECT_FALSE(FW::TARNFW().fwProfileConfigSet("away", true));
    EXPECT_THAT(errors(),
                ElementsAre("tarnFW: TIMEOUT: getting lock", "tarnFW: Failed to reload firewall"));
    EXPECT_EQ(storedSettings()["profile"], "away");
}

TEST_F(FwProfileConfigSetTest, ReloadUsesAFreshTranslation) {
    FW::TARNFW firewall;
    ASSERT_TRUE(firewall.adapterIsEnabled("eth0"));  // which this object then remembers
    platform_.interfaces = {"eth1"};
    EXPECT_TRUE(firewall.fwProfileConfigSet("away", true));
    EXPECT_EQ(acts(), Lines(kTakeExecLock + kDrop + kFlush + fixedLines(true) + fixedLines6(true) +
                            kAccept + kReleaseExecLock));
}

// ---- fwIptablesRulesEnum ----

class FwIptablesRulesEnumTest : public FirewallTest {
protected:
    // The lines of a document as fwExec() would run them.
    Lines linesOf(const Json::Value& document) {
        platform_.clearJournal();
        EXPECT_TRUE(FW::TARNFW().fwExec(document));
        return acts();
    }
};

TEST_F(FwIptablesRulesEnumTest, FillsTheDocumentOfAStoredProfileAndRunsNothing) {
    Json::Value document;
    EXPECT_TRUE(FW::TARNFW().fwIptablesRulesEnum("home", document, true));
    EXPECT_THAT(acts(), IsEmpty());
    EXPECT_EQ(linesOf(document), kRules4 + kRules6);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwIptablesRulesEnumTest, FlagDecidesAboutEstablishedConnections) {
    Json::Value document;
    EXPECT_TRUE(FW::TARNFW().fwIptablesRulesEnum("home", document, false));
    EXPECT_EQ(linesOf(document), fixedLines(false) + adapterLines("/sbin/iptables", "22") +
                                     fixedLines6(false) + adapterLines("/sbin/ip6tables", "22"));
}

TEST_F(FwIptablesRulesEnumTest, AnAddressStandsForAClearedFlag) {
    for (const std::string address : {"", "192.168.1.9", "127.0.0.1", "fd00::9"}) {
        Json::Value document;
        EXPECT_TRUE(FW::TARNFW().fwIptablesRulesEnum("home", document, address)) << address;
        EXPECT_EQ(linesOf(document), fixedLines(false) + adapterLines("/sbin/iptables", "22") +
                                         fixedLines6(false) + adapterLines("/sbin/ip6tables", "22"))
            << address;
    }
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(FwIptablesRulesEnumTest, SomethingElseThanAnAddressIsAFailure) {
    Json::Value document;
    EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("home", document, std::string("eth0")));
    EXPECT_TRUE(document.isNull());
    EXPECT_THAT(errors(),
                ElementsAre("fwIptables: Invalid input argument 'eth0' which is not an IP address.",
                            "tarnFW: Failed to fwRulesToIptablesRules()"));
}

TEST_F(FwIptablesRulesEnumTest, ProfileNeedNotBeTheActiveOne) {
    storeProfile("2", profileWithPort("away", "80"));
    Json::Value document;
    EXPECT_TRUE(FW::TARNFW().fwIptablesRulesEnum("away", document, true));
    EXPECT_EQ(linesOf(document), fixedLines(true) + adapterLines("/sbin/iptables", "80") +
                                     fixedLines6(true) + adapterLines("/sbin/ip6tables", "80"));
}

TEST_F(FwIptablesRulesEnumTest, MissingProfileIsAFailureOfBothForms) {
    Json::Value document;
    EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("away", document, true));
    EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("away", document, std::string("10.0.0.1")));
    EXPECT_TRUE(document.isNull());
    const Lines failure = {"fwDB: Failed to profileGet away due to not exist",
                           "tarnFW: Failed to profileGet(away)"};
    EXPECT_EQ(errors(), failure + failure);
}

TEST_F(FwIptablesRulesEnumTest, ProfileThatCannotBeTranslatedIsAFailureOfBothForms) {
    FW::FWPROFILE profile = profileWithPort("home", "22");
    profile.rules["eth0"][0].policy = static_cast<FW::FW_POLICY>(-1);
    storeProfile("1", profile);
    Json::Value document;
    EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("home", document, true));
    EXPECT_FALSE(FW::TARNFW().fwIptablesRulesEnum("home", document, std::string("10.0.0.1")));
    const Lines failure = {"fwIptables: Unknown policy -1",
                           "fwIptables: Failed to policyToIptablesArg()",
                           "tarnFW: Failed to fwRulesToIptablesRules()"};
    EXPECT_EQ(errors(), failure + failure);
}

// ---- Exceptions: a damaged file must not keep the machine shut ----

struct LineBroke {};
struct AcceptBroke {};
struct LockBroke {};

std::size_t openDescriptors() {
    return filesIn("/proc/self/fd").size();
}

class ExceptionTest : public FirewallTest {
protected:
    void TearDown() override {
        EXPECT_EQ(openDescriptors(), descriptors_);
        FirewallTest::TearDown();
    }

    // The first time that `noted` runs, `action` is called.
    void atLine(const std::string& noted, const std::function<void()>& action) {
        platform_.onExec = [noted, action, done = false](const std::string& line) mutable {
            if (!done && "exec " + line == noted) {
                done = true;
                action();
            }
        };
    }

    static void damageSettings() { writeFile(kSettingsFile, "[]"); }

private:
    const std::size_t descriptors_ = openDescriptors();
};

void reload() {
    FW::TARNFW().fwReload(true);
}

void enable() {
    FW::TARNFW().fwEnable();
}

std::string raisedBy(void (*operation)()) {
    try {
        operation();
    } catch (const Json::Exception&) {
        return "Json::Exception";
    } catch (const boost::interprocess::interprocess_exception&) {
        return "interprocess_exception";
    }
    return "nothing";
}

// What is damaged before an operation or while it works, and all that the operation does then.
struct Damage {
    std::string name;
    void (*operation)();
    std::string settings;  ///< the settings file before
    std::string blocked;   ///< the data file whose lock cannot be opened, or none
    std::string at;        ///< from this line on; empty: from the beginning
    std::string failing;   ///< this line fails, and damages the settings; or none
    std::string raised;
    Lines acts;
    std::string left;  ///< the settings file afterwards, compared as JSON
};

void PrintTo(const Damage& c, std::ostream* out) {
    *out << c.settings;
}

class DamageTest : public ExceptionTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(DamageTest, OpensThePoliciesReleasesTheLockAndTellsTheHook) {
    const Damage& c = GetParam();
    writeFile(kSettingsFile, c.settings);
    if (!c.failing.empty()) {
        failLine(c.failing);
        atLine(c.failing, damageSettings);
    } else if (!c.at.empty()) {
        atLine(c.at, [&c] { blockLockOf(c.blocked); });
    } else if (!c.blocked.empty()) {
        blockLockOf(c.blocked);
    }

    EXPECT_EQ(raisedBy(c.operation), c.raised);

    EXPECT_EQ(acts(), c.acts);
    EXPECT_EQ(storedSettings(), parseJson(c.left));
}

const std::string kSettingsLock = "firewall_settings.json";
const std::string kJson = "Json::Exception";
const std::string kLock = "interprocess_exception";
const std::string kEnabled = R"({"status": true, "profile": "home"})";
const std::string kDisabled = R"({"status": false, "profile": "home"})";
const std::string kObject = R"({"status": true, "profile": {}})";
const std::string kFilledObject = R"({"status": true, "profile": {"name": "home"}})";
const std::string kArray = R"({"status": true, "profile": []})";
const std::string kWord = R"({"status": "yes", "profile": "home"})";
const std::string kStatusObject = R"({"status": {}, "profile": "home"})";

const Lines kStopped = kTakeExecLock + kReleaseExecLock;
const Lines kReopened = kTakeExecLock + kDrop + kFlush + kAccept + kReleaseExecLock;
const Lines kToFailedLine = kTakeExecLock + kDrop + kFlush + kRules4 + firstOf(kRules6, 1);
const Lines kFailedDisabling = kBeforeDisabling + kFlush + unload(1001) + kAfterFailedDisabling;
// What failed to reopen is not tried again.
const Lines kFailedAccept = kTakeExecLock + kRebuild + kFailedDisabling + kReleaseExecLock;

const Damage kDamages[] = {
    {"ProfileIsAnObject", reload, kObject, "", "", "", kJson, kReopened, kObject},
    {"ProfileIsAFilledObject", reload, kFilledObject, "", "", "", kJson, kReopened, kFilledObject},
    {"ProfileIsAnArray", reload, kArray, "", "", "", kJson, kReopened, kArray},
    {"StatusIsAWord", reload, kWord, "", "", "", kJson, kStopped, kWord},
    {"StatusIsAnObject", reload, kStatusObject, "", "", "", kJson, kStopped, kStatusObject},
    {"DocumentIsAnArray", reload, "[]", "", "", "", kJson, kStopped, "[]"},
    {"SettingsLock", reload, kEnabled, kSettingsLock, "", "", kLock, kStopped, kEnabled},
    {"SettingsLockLater", reload, kEnabled, kSettingsLock, kFlush.back(), "", kLock, kReopened,
     kEnabled},
    {"ProfileLock", reload, kEnabled, "1.json", "", "", kLock, kReopened, kEnabled},
    {"DisablingAfterAFailedLine", reload, kEnabled, "", "", kRules6[0], kJson,
     kToFailedLine + kFailedDisabling + kAccept + kReleaseExecLock, "[]"},
    {"DisablingAfterAFailedAccept", reload, kEnabled, "", "", kAccept[5], kJson, kFailedAccept,
     "[]"},

    {"EnablingProfileIsAnObject", enable, R"({"status": false, "profile": {}})", "", "", "", kJson,
     kBeforeEnabling + kReopened + kAfterFailedEnabling, kObject},
    {"EnablingProfileIsAnArray", enable, R"({"status": false, "profile": []})", "", "", "", kJson,
     kBeforeEnabling + kReopened + kAfterFailedEnabling, kArray},
    {"EnablingStatusIsAWord", enable, kWord, "", "", "", "nothing",
     kBeforeEnabling + kTakeExecLock + kRebuild + kReleaseExecLock + kAfterEnabling, kEnabled},
    {"EnablingDocumentIsAnArray", enable, "[]", "", "", "", kJson,
     kBeforeEnabling + kAfterFailedEnabling, "[]"},
    {"EnablingSettingsLock", enable, kDisabled, kSettingsLock, "", "", kLock,
     kBeforeEnabling + kAfterFailedEnabling, kDisabled},
    {"EnablingDisablingAfterAFailedLine", enable, kDisabled, "", "", kRules6[0], kJson,
     kBeforeEnabling + kToFailedLine + kFailedDisabling + kAccept + kReleaseExecLock +
         kAfterFailedEnabling,
     "[]"},
};

INSTANTIATE_TEST_SUITE_P(, DamageTest, ValuesIn(kDamages),
                         [](const auto& tested) { return tested.param.name; });

using FwReloadExceptionTest = ExceptionTest;

TEST_F(FwReloadExceptionTest, ExceptionOfTheModuleRecordReleasesTheExecutionLock) {
    setLoaded("no");
    platform_.onLock = [](const std::string& path) {
        if (path == kRecordLock) {
            throw LockBroke();
        }
    };
    EXPECT_THROW(FW::TARNFW().fwReload(true), LockBroke);
    EXPECT_EQ(acts(), kTakeExecLock + Lines{"insmod firewall: a.ko b.ko c.ko d.ko"} +
                          firstOf(record("yes", 1001), 1) + kReleaseExecLock);
}

TEST_F(FwReloadExceptionTest, ExceptionOfTheExecutionLockReleasesNothing) {
    platform_.onLock = [](const std::string&) { throw LockBroke(); };
    EXPECT_THROW(FW::TARNFW().fwReload(true), LockBroke);
    EXPECT_EQ(acts(), kTakeExecLock);
}

TEST_F(FwReloadExceptionTest, CatalogueOfServicesIsReleased) {
    FW::FWPROFILE profile = profileWithPort("home", "ssh");
    profile.rules["eth0"][0].portGroup = 0;
    storeProfile("1", profile);
    platform_.services["ssh"] = {"Secure shell", FW::FW_PORT_PROTOCOL_TCP, {"22"}, 0, {}};
    atLine(kRules6.back(), [] { throw LineBroke(); });
    EXPECT_THROW(FW::TARNFW().fwReload(true), LineBroke);
    EXPECT_THAT(platform_.journalOf("services "), ElementsAre("enum", "free"));
    EXPECT_EQ(policies(), kOpen);
}

TEST_F(FwReloadExceptionTest, FailureToReopenIsLoggedAndTheFirstExceptionReachesTheCaller) {
    writeFile(kSettingsFile, R"({"status": true, "profile": {}})");
    failLine(kAccept[0]);
    EXPECT_THROW(FW::TARNFW().fwReload(true), Json::Exception);
    EXPECT_THAT(errors(), Contains("tarnFW: Failed to fwExec() to set default accept."));
    EXPECT_EQ(acts().back(), kReleaseExecLock.back());
}

TEST_F(FwReloadExceptionTest, ExceptionWhileReopeningDoesNotReplaceTheFirst) {
    platform_.onExec = [](const std::string& line) {
        if ("exec " + line == kRules4[0]) {
            throw LineBroke();
        }
        if ("exec " + line == kAccept[1]) {
            throw AcceptBroke();
        }
    };
    EXPECT_THROW(FW::TARNFW().fwReload(true), LineBroke);
    EXPECT_THAT(errors(), Contains("tarnFW: Failed to set default accept after an exception"));
    EXPECT_EQ(acts().back(), kReleaseExecLock.back());
}

struct BrokenLine {
    std::string name;
    std::string line;
};

void PrintTo(const BrokenLine& c, std::ostream* out) {
    *out << c.line;
}

// An exception at one line of a reload, wherever that is.
class BrokenLineTest : public ExceptionTest, public ::testing::WithParamInterface<BrokenLine> {};

TEST_P(BrokenLineTest, ReloadOpensThePoliciesAgainAndReleasesTheLock) {
    atLine(GetParam().line, [] { throw LineBroke(); });
    EXPECT_THROW(FW::TARNFW().fwReload(true), LineBroke);
    EXPECT_EQ(policies(), kOpen);
    const Lines done = acts();
    ASSERT_GT(done.size(), kAccept.size());
    EXPECT_EQ(Lines(done.end() - static_cast<std::ptrdiff_t>(kAccept.size()) - 1, done.end()),
              kAccept + kReleaseExecLock);
    EXPECT_TRUE(status());
}

TEST_P(BrokenLineTest, EnablingTellsTheHookOfTheFailureToo) {
    storeSettings(false, "home");
    atLine(GetParam().line, [] { throw LineBroke(); });
    EXPECT_THROW(FW::TARNFW().fwEnable(), LineBroke);
    EXPECT_EQ(policies(), kOpen);
    const Lines ending = kAccept + kReleaseExecLock + kAfterFailedEnabling;
    const Lines done = acts();
    ASSERT_GT(done.size(), ending.size());
    EXPECT_EQ(Lines(done.end() - static_cast<std::ptrdiff_t>(ending.size()), done.end()), ending);
    EXPECT_TRUE(status());
}

const BrokenLine kBrokenLines[] = {
    {"FirstDrop", kDrop[0]},     {"SecondDrop", kDrop[1]},       {"LastDrop", kDrop[5]},
    {"FirstFlush", kFlush[0]},   {"FirstRule", kRules4.front()}, {"LastRule", kRules6.back()},
    {"FirstAccept", kAccept[0]}, {"SecondAccept", kAccept[1]},   {"LastAccept", kAccept[5]},
};

INSTANTIATE_TEST_SUITE_P(Lines, BrokenLineTest, ValuesIn(kBrokenLines),
                         [](const auto& tested) { return tested.param.name; });

class FwEnableExceptionTest : public ExceptionTest {
protected:
    FwEnableExceptionTest() { storeSettings(false, "home"); }
};

TEST_F(FwEnableExceptionTest, FailedHookIsLoggedBeforeTheExceptionLeaves) {
    damageSettings();
    platform_.hookActionResult = -1;
    EXPECT_THROW(FW::TARNFW().fwEnable(), Json::Exception);
    EXPECT_EQ(acts(), kBeforeEnabling + kAfterFailedEnabling);
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to run hook: net/firewall_enable",
                                      "tarnFW: Failed to run firewall enable pre-hook.",
                                      "fwHook: Failed to run hook: net/firewall_enable",
                                      "tarnFW: Failed to run firewall enable post-hook."));
}

TEST_F(FwEnableExceptionTest, ExceptionBeforeTheFirstHookRunsNone) {
    setLoaded("no");
    platform_.onLock = [](const std::string&) { throw LockBroke(); };
    EXPECT_THROW(FW::TARNFW().fwEnable(), LockBroke);
    EXPECT_THAT(platform_.journalOf("hook "), IsEmpty());
    EXPECT_FALSE(status());
}

class FwDisableExceptionTest : public ExceptionTest, public ::testing::WithParamInterface<OffCase> {
protected:
    void turnOff() {
        FW::TARNFW firewall;
        (firewall.*GetParam().run)();
    }
};

TEST_P(FwDisableExceptionTest, SettingsThatAreNoObjectTellTheHook) {
    damageSettings();
    EXPECT_THROW(turnOff(), Json::Exception);
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush + unload(1000) + kAfterFailedDisabling);
    EXPECT_EQ(readFile(kSettingsFile), "[]");
}

TEST_P(FwDisableExceptionTest, LockFileThatCannotBeOpenedTellsTheHook) {
    blockLockOf("firewall_settings.json");
    EXPECT_THROW(turnOff(), boost::interprocess::interprocess_exception);
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush + unload(1000) + kAfterFailedDisabling);
}

TEST_P(FwDisableExceptionTest, ExceptionOfAFlushTellsTheHook) {
    atLine(kFlush[2], [] { throw LineBroke(); });
    EXPECT_THROW(turnOff(), LineBroke);
    EXPECT_EQ(acts(), kBeforeDisabling + firstOf(kFlush, 3) + kAfterFailedDisabling);
    EXPECT_TRUE(status());
}

TEST_P(FwDisableExceptionTest, ExceptionOfTheModuleRecordTellsTheHook) {
    platform_.onLock = [](const std::string&) { throw LockBroke(); };
    EXPECT_THROW(turnOff(), LockBroke);
    EXPECT_EQ(acts(), kBeforeDisabling + kFlush + firstOf(unload(1000), 2) + kAfterFailedDisabling);
}

TEST_P(FwDisableExceptionTest, FailedHookIsLoggedBeforeTheExceptionLeaves) {
    damageSettings();
    platform_.hookActionResult = -1;
    EXPECT_THROW(turnOff(), Json::Exception);
    EXPECT_THAT(errors(), ElementsAre("fwHook: Failed to run hook: net/firewall_disable",
                                      "tarnFW: Failed to run firewall disable pre-hook.",
                                      "fwHook: Failed to run hook: net/firewall_disable",
                                      "tarnFW: Failed to run firewall disable post-hook."));
}

TEST_P(FwDisableExceptionTest, ValuesThatDoNotConvertAreNotLookedAt) {
    writeFile(kSettingsFile, R"({"status": "yes", "profile": {}})");
    EXPECT_NO_THROW(turnOff());
    EXPECT_EQ(acts(), disable(1000));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": {}})"));
}

INSTANTIATE_TEST_SUITE_P(Off, FwDisableExceptionTest, ValuesIn(kOff),
                         [](const auto& tested) { return tested.param.name; });

// ---- Exceptions that nobody catches ----

// Prints what a dying process leaves.
[[noreturn]] void reportAndAbort() {
    const FakePlatform& platform = FakePlatform::current();
    std::fprintf(stderr, "left: v4 %s %s, v6 %s %s, ", platform.policyOf("INPUT", "v4").c_str(),
                 platform.policyOf("FORWARD", "v4").c_str(),
                 platform.policyOf("INPUT", "v6").c_str(),
                 platform.policyOf("FORWARD", "v6").c_str());
    for (const std::string& hookCall : platform.journalOf("hook set ")) {
        std::fprintf(stderr, "%s ", hookCall.c_str());
    }
    std::fprintf(stderr, "end\n");
    std::abort();
}

// Runs `operation` where no frame above it has a handler, so that nothing is unwound when it
// raises: in a thread of its own, as the test program itself catches what a test lets through.
void withoutHandler(const std::function<void()>& operation) {
    std::set_terminate(reportAndAbort);
    std::thread([&operation] { operation(); }).join();
}

class UncaughtExceptionDeathTest : public FirewallTest {};

TEST_F(UncaughtExceptionDeathTest, ReloadOfDamagedSettingsDiesWithOpenPolicies) {
    writeFile(kSettingsFile, R"({"status": true, "profile": {}})");
    EXPECT_EXIT(withoutHandler([] { FW::TARNFW().fwReload(true); }),
                ::testing::KilledBySignal(SIGABRT),
                HasSubstr("left: v4 ACCEPT ACCEPT, v6 ACCEPT ACCEPT, end"));
}

TEST_F(UncaughtExceptionDeathTest, ReloadWithABrokenLineDiesWithOpenPolicies) {
    for (const std::string& broken : {kDrop[1], kRules4[0], kAccept[1]}) {
        platform_.onExec = [broken, done = false](const std::string& line) mutable {
            if (!done && "exec " + line == broken) {
                done = true;
                throw LineBroke();
            }
        };
        EXPECT_EXIT(withoutHandler([] { FW::TARNFW().fwReload(true); }),
                    ::testing::KilledBySignal(SIGABRT),
                    HasSubstr("left: v4 ACCEPT ACCEPT, v6 ACCEPT ACCEPT, end"))
            << broken;
    }
}

TEST_F(UncaughtExceptionDeathTest, NewActiveProfileDiesWithOpenPolicies) {
    platform_.onExec = [](const std::string& line) {
        if ("exec " + line == kRules4[0]) {
            throw LineBroke();
        }
    };
    EXPECT_EXIT(withoutHandler([] { FW::TARNFW().fwProfileConfigSet("home", true); }),
                ::testing::KilledBySignal(SIGABRT),
                HasSubstr("left: v4 ACCEPT ACCEPT, v6 ACCEPT ACCEPT, end"));
}

TEST_F(UncaughtExceptionDeathTest, EnablingDiesWithOpenPoliciesAndATrueHook) {
    writeFile(kSettingsFile, R"({"status": false, "profile": []})");
    EXPECT_EXIT(withoutHandler([] { FW::TARNFW().fwEnable(); }), ::testing::KilledBySignal(SIGABRT),
                HasSubstr("left: v4 ACCEPT ACCEPT, v6 ACCEPT ACCEPT, RESULT=0 RESULT=-1 end"));
}

TEST_F(UncaughtExceptionDeathTest, DisablingDiesAfterATrueHook) {
    writeFile(kSettingsFile, "[]");
    EXPECT_EXIT(withoutHandler([] { FW::TARNFW().fwDisable(); }),
                ::testing::KilledBySignal(SIGABRT), HasSubstr("RESULT=0 RESULT=-1 end"));
}

}  // namespace
