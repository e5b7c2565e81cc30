// Test profiles: creating, adopting and removing one, and its trial in the kernel, step by step.

#include <dlfcn.h>
#include <glob.h>
#include <stdio.h>

#include <cstddef>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/interprocess/exceptions.hpp>

#include "library_test.h"
#include "log_lines.h"
#include "reload_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ValuesIn;

namespace {

using Action = std::function<void(const std::string&)>;

// Called once, with the path, when the next file has been renamed into its place.
Action& fileWritten() {
    static Action action;
    return action;
}

// Called once, with an empty text, when the next scan of the profile directory is over.
Action& scanDone() {
    static Action action;
    return action;
}

void runOnce(Action& action, const std::string& argument) {
    if (const Action taken = std::exchange(action, nullptr)) {
        taken(argument);
    }
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int rename(const char* from, const char* to) noexcept {
    const int result = next<int(const char*, const char*)>("rename")(from, to);
    runOnce(fileWritten(), to);
    return result;
}

void globfree(glob_t* result) noexcept {
    next<void(glob_t*)>("globfree")(result);
    runOnce(scanDone(), "");
}

}  // extern "C"

namespace {

using FW::FWPROFILE;
using FW::FWRULE;
using Lines = std::vector<std::string>;

Lines operator+(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Lines firstOf(const Lines& lines, std::size_t count) {
    return {lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(count)};
}

const Lines kNoIndex = {"err fwDB: Fail to read file from /usr/tarn/etc/firewall.d/",
                        "err fwDB: Failed to create meta json from /usr/tarn/etc/firewall.d/"};
const std::string kSettingsParseError = "err utils: Failed to parse Json value of " + kSettingsFile;

// A profile that lets TCP `port` in on eth0 and denies the rest.
FWPROFILE profileWithPort(const std::string& name, const std::string& port) {
    FWRULE rule;
    rule.ipType = 2;
    rule.ipGroup = 5;
    rule.portGroup = 1;
    rule.portList = {port};
    FWPROFILE profile;
    profile.name = name;
    profile.rules["eth0"] = {rule};
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    profile.adapterPolicyMap["global"] = FW::FW_POLICY_NONE;
    return profile;
}

Json::Value documentOf(const FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    return document;
}

// "home" is active, in the file "1.json". Nothing here looks at whether the firewall is enabled.
class TrialTest : public LibraryTest {
protected:
    TrialTest() {
        platform_.keyValues[kModuleList] = {{"KERNEL_MODULES_CORE", "a.ko b.ko"},
                                            {"KERNEL_MODULES_COMMON", "c.ko"},
                                            {"IPV6_MODULES", "d.ko"}};
        platform_.failModInsertOf = "not in any list";
        platform_.failModRemoveOf = "not in any list";
        setLoaded("yes");
        storeProfile("1", profileWithPort("home", "22"));
        storeSettings(true, "home");
    }
    ~TrialTest() override {
        fileWritten() = nullptr;
        scanDone() = nullptr;
    }

    void TearDown() override {
        EXPECT_THAT(platform_.heldLocks, IsEmpty());
        EXPECT_EQ(platform_.openLists, 0);
        EXPECT_EQ(platform_.openCatalogues, 0);
        EXPECT_EQ(platform_.openStreams, 0);
    }

    Lines log() const { return logLines(platform_); }

    void setLoaded(const std::string& value) {
        platform_.keyValues[kServiceRecord]["firewall"] = value;
    }

    // The stored document of a profile, by its name; null when there is none.
    static Json::Value stored(const std::string& name) {
        FW::TARNFW_JSON_DB store;
        Json::Value document;
        if (store.profileExist(name)) {
            EXPECT_TRUE(store.profileDbLoad(name, document));
        }
        return document;
    }

    static std::string blockWrite(const std::string& path) {
        fs::create_directories(path + ".tmp");
        return "err utils: Failed to open json file " + path + ".tmp";
    }

    const std::string kHomeFile = kProfileDir + "1.json";
    FW::TARNFW_PROFILE profiles_;
};

// ---- CreateTestProfile ----

TEST_F(TrialTest, CreateStoresACopyUnderTheTestName) {
    const FWPROFILE profile = profileWithPort("home", "80");
    const std::string home = readFile(kHomeFile);
    EXPECT_TRUE(profiles_.CreateTestProfile("home", profile));
    EXPECT_EQ(stored(".test_home"), documentOf(profileWithPort(".test_home", "80")));
    EXPECT_EQ(readFile(kHomeFile), home);
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "home"})"));
    EXPECT_EQ(filesIn(kProfileDir).size(), 3u);
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TrialTest, CreateReplacesAnEarlierTestProfileWhateverNameIsPassed) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    FWPROFILE profile = profileWithPort("any other name", "443");
    profile.rules["eth1"] = profile.rules["eth0"];
    profile.rules.erase("eth0");
    EXPECT_TRUE(profiles_.CreateTestProfile("home", profile));
    profile.name = ".test_home";
    profile.adapterPolicyMap["eth1"] = FW::FW_POLICY_ALLOW;  // the store's addition
    EXPECT_EQ(stored(".test_home"), documentOf(profile));
    EXPECT_TRUE(stored("any other name").isNull());
    EXPECT_EQ(filesIn(kProfileDir).size(), 3u);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TrialTest, CreateKeepsEveryFieldOfTheRules) {
    FWPROFILE profile = profileWithPort("x", "80");
    FWRULE& rule = profile.rules["eth0"][0];
    rule.enable = false;
    rule.policy = static_cast<FW::FW_POLICY>(9);
    rule.labelList = {"a", "b"};
    rule.name = "rule";
    rule.table = "nat";
    rule.chainList.insert("OTHER");
    rule.ipGroup = 1;
    rule.ipList = {"10.0.0.0", "255.0.0.0"};
    rule.protocol = 32;
    profile.rules["global"] = {FWRULE(), rule};
    EXPECT_TRUE(profiles_.CreateTestProfile("home", profile));
    profile.name = ".test_home";
    EXPECT_EQ(stored(".test_home"), documentOf(profile));
}

struct NameCase {
    const char* name;
    std::string given;
    std::string stored;
};

void PrintTo(const NameCase& c, std::ostream* out) {
    *out << c.name;
}

// The prefix and the name, with nothing between and no other change.
const NameCase kNames[] = {
    {"Ordinary", "home", ".test_home"},
    {"Unknown", "none", ".test_none"},
    {"Empty", "", ".test_"},
    {"OfATestProfile", ".test_home", ".test_.test_home"},
    {"Blanks", " a b ", ".test_ a b "},
    {"Slash", "a/b", ".test_a/b"},
    {"Bytes", "h\xc3\xb6me", ".test_h\xc3\xb6me"},
};

class TestNameTest : public TrialTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(TestNameTest, IsMadeInEveryOperation) {
    const NameCase& c = GetParam();
    EXPECT_TRUE(profiles_.CreateTestProfile(c.given, profileWithPort("x", "80")));
    EXPECT_EQ(stored(c.stored)["name"].asString(), c.stored);
    EXPECT_TRUE(profiles_.AdoptTestProfile(c.given));
    EXPECT_EQ(stored(c.given), documentOf(profileWithPort(c.given, "80")));
    EXPECT_TRUE(FW::TARNFW().TestApplyingProfile(c.given));
    EXPECT_TRUE(profiles_.RemoveTestProfile(c.given));
    EXPECT_TRUE(stored(c.stored).isNull());
    EXPECT_FALSE(stored(c.given).isNull());
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, TestNameTest, ValuesIn(kNames),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(TrialTest, CreateLeavesAnActiveTestProfileAsItIs) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    storeSettings(false, ".test_home");
    const std::string before = readFile(kProfileDir + "2.json");
    EXPECT_FALSE(profiles_.CreateTestProfile("home", profileWithPort("home", "443")));
    EXPECT_THAT(log(),
                ElementsAre("err tarnFW: The profile .test_home is used now so cannot remove",
                            "err tarnFW: failed to profileDelete()"));
    EXPECT_EQ(readFile(kProfileDir + "2.json"), before);
}

TEST_F(TrialTest, CreateWithUnreadableSettingsLeavesTheEarlierTestProfile) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    const std::string before = readFile(kProfileDir + "2.json");
    writeFile(kSettingsFile, "{");
    EXPECT_FALSE(profiles_.CreateTestProfile("home", profileWithPort("home", "443")));
    const Lines lines = log();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
              (Lines{kSettingsParseError, "err tarnFW: Falied to config.configGet()",
                     "err tarnFW: failed to profileDelete()"}));
    EXPECT_EQ(readFile(kProfileDir + "2.json"), before);
}

// The settings are read only to delete an earlier test profile.
TEST_F(TrialTest, FirstCreateNeedsNoSettings) {
    fs::remove(kSettingsFile);
    EXPECT_TRUE(profiles_.CreateTestProfile("home", profileWithPort("home", "443")));
    EXPECT_FALSE(fileExists(kSettingsFile));
}

TEST_F(TrialTest, CreateThatCannotMakeTheFileIsAFailure) {
    fs::remove(kHomeFile);
    fs::remove(kSettingsFile);
    EXPECT_FALSE(profiles_.CreateTestProfile("home", profileWithPort("home", "443")));
    // Asked twice whether it exists, then where to write it.
    const Lines failures = {"err fwDB: Failed to profileDbDump()", "err fwDB: Failed to profileSet",
                            "err tarnFW: failed to profileCreate()"};
    EXPECT_EQ(log(), kNoIndex + kNoIndex + kNoIndex + failures);
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
}

TEST_F(TrialTest, CreateThatCannotWriteTheContentLeavesAnEmptyTestProfile) {
    std::string failure;
    fileWritten() = [&](const std::string& path) { failure = blockWrite(path); };
    EXPECT_FALSE(profiles_.CreateTestProfile("home", profileWithPort("home", "443")));
    EXPECT_EQ(log(), (Lines{failure, "err fwDB: Failed to profileDbDump()",
                            "err tarnFW: failed to profileSet()"}));
    EXPECT_EQ(stored(".test_home"), parseJson(R"({"name": ".test_home", "rules": null,
                                                  "adapterPolicyMap": {"global": 2}})"));
}

// ---- RemoveTestProfile ----

TEST_F(TrialTest, RemoveDeletesTheTestProfileAlone) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    EXPECT_TRUE(profiles_.RemoveTestProfile("home"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json", "firewall_settings.json"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TrialTest, RemoveOfAMissingTestProfileSucceeds) {
    EXPECT_TRUE(profiles_.RemoveTestProfile("home"));
    EXPECT_TRUE(profiles_.RemoveTestProfile("none"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json", "firewall_settings.json"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TrialTest, RemoveKeepsAnActiveTestProfile) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    storeSettings(false, ".test_home");
    EXPECT_FALSE(profiles_.RemoveTestProfile("home"));
    EXPECT_THAT(log(),
                ElementsAre("err tarnFW: The profile .test_home is used now so cannot remove",
                            "err tarnFW: failed to profileDelete()"));
    EXPECT_TRUE(fileExists(kProfileDir + "2.json"));
}

TEST_F(TrialTest, RemoveWithUnreadableSettingsDeletesNothing) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    writeFile(kSettingsFile, "{");
    EXPECT_FALSE(profiles_.RemoveTestProfile("home"));
    EXPECT_THAT(log(), ElementsAre(kSettingsParseError, "err tarnFW: Falied to config.configGet()",
                                   "err tarnFW: failed to profileDelete()"));
    EXPECT_TRUE(fileExists(kProfileDir + "2.json"));
}

// ---- AdoptTestProfile ----

TEST_F(TrialTest, AdoptWritesTheContentOverTheProfileAndKeepsTheTestProfile) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    const std::string test = readFile(kProfileDir + "2.json");
    EXPECT_TRUE(profiles_.AdoptTestProfile("home"));
    EXPECT_EQ(storedJson(kHomeFile), documentOf(profileWithPort("home", "80")));
    EXPECT_EQ(readFile(kProfileDir + "2.json"), test);
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "home"})"));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(platform_.journalOf("lock "), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(TrialTest, AdoptMakesAProfileThatDoesNotExist) {
    storeProfile("2", profileWithPort(".test_office", "80"));
    EXPECT_TRUE(profiles_.AdoptTestProfile("office"));
    EXPECT_EQ(stored("office"), documentOf(profileWithPort("office", "80")));
    EXPECT_EQ(storedJson(kHomeFile), documentOf(profileWithPort("home", "22")));
}

TEST_F(TrialTest, AdoptWithoutATestProfileLeavesTheProfileAsItIs) {
    const std::string before = readFile(kHomeFile);
    EXPECT_FALSE(profiles_.AdoptTestProfile("home"));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: profile does not exist"));
    EXPECT_EQ(readFile(kHomeFile), before);
}

TEST_F(TrialTest, AdoptOfATestProfileThatCannotBeReadLeavesTheProfileAsItIs) {
    const std::string file = kProfileDir + "2.json";
    const std::string before = readFile(kHomeFile);
    storeProfile("2", profileWithPort(".test_home", "80"));
    scanDone() = [&](const std::string&) { writeFile(file, "{"); };  // once it was found
    EXPECT_FALSE(profiles_.AdoptTestProfile("home"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + file,
                                   "err fwDB: Failed to load json from " + file,
                                   "err fwDB: Failed to profileGet .test_home due to not exist",
                                   "err tarnFW: failed to profileGet()"));
    EXPECT_EQ(readFile(kHomeFile), before);
}

TEST_F(TrialTest, AdoptThatCannotBeWrittenLeavesTheProfileAsItIs) {
    storeProfile("2", profileWithPort(".test_home", "80"));
    const std::string before = readFile(kHomeFile);
    const std::string failure = blockWrite(kHomeFile);
    EXPECT_FALSE(profiles_.AdoptTestProfile("home"));
    EXPECT_EQ(log(), (Lines{failure, "err fwDB: Failed to profileDbDump()",
                            "err tarnFW: failed to profileSet()"}));
    EXPECT_EQ(readFile(kHomeFile), before);
    EXPECT_FALSE(stored(".test_home").isNull());
}

// ---- TestApplyingProfile ----

// What it runs and asks for, as the fake platform notes it.

// The lines for eth0 of the profile with this port.
Lines adapterLines(const std::string& tool, const std::string& port) {
    Lines made;
    const Lines targets = {" -p tcp --dport " + port + " -j RETURN", " -j DROP"};
    for (const std::string& target : targets) {
        for (const std::string chain : {"FORWARD_FIREWALL", "INPUT_FIREWALL"}) {
            made.push_back("exec " + tool + " -t filter -A " + chain + " -i eth0" + target);
        }
    }
    return made;
}

// The fixed lines and those of the test profile; established connections have none.
Lines rules4(const std::string& port) {
    return Lines{"exec /sbin/iptables -A INPUT_FIREWALL -i lo -j ACCEPT",
                 "exec /sbin/iptables -A FORWARD_FIREWALL -i lo -j ACCEPT"} +
           adapterLines("/sbin/iptables", port);
}

Lines rules6(const std::string& port) {
    Lines made;
    for (const std::string chain : {"INPUT_FIREWALL", "FORWARD_FIREWALL"}) {
        const std::string line = "exec /sbin/ip6tables -A " + chain;
        made.push_back(line + " -i lo -j ACCEPT");
        for (const std::string match : {"-s fe80::/10 -p icmpv6 --icmpv6-type router-solicitation",
                                        "-s fe80::/10 -p icmpv6 --icmpv6-type router-advertisement",
                                        "-p icmpv6 --icmpv6-type neighbour-solicitation",
                                        "-p icmpv6 --icmpv6-type neighbour-advertisement",
                                        "-s fe80::/10 -p icmpv6 --icmpv6-type 137"}) {
            made.push_back(line + " " + match + " -j ACCEPT");
        }
    }
    return made + adapterLines("/sbin/ip6tables", port);
}

const Lines kRules4 = rules4("80");
const Lines kRules6 = rules6("80");

Lines record(const std::string& value) {
    return {"lock " + kLockDir + "iptables_serv_mod_list.lock 1 30",
            "set " + kServiceRecord + " firewall=" + value, "unlock 1000"};
}

const Lines kLoad = Lines{"insmod firewall: a.ko b.ko c.ko d.ko"} + record("yes") +
                    Lines{"insmod firewall: compat_xtables.ko xt_geoip.ko xt_mac.ko"} +
                    record("yes");

Lines disableHook(const std::string& action) {
    return {"hook init net net/firewall_disable", "hook set RESULT=0", "hook action " + action,
            "hook exit"};
}

// fwDisable() while the modules are loaded, and again when they no longer are.
const Lines kUnload = Lines{"rmmod firewall: xt_mac.ko xt_geoip.ko compat_xtables.ko"} +
                      record("no") + Lines{"rmmod firewall: d.ko c.ko b.ko a.ko"} + record("no");
const Lines kDisable = disableHook("4") + kFlush + kUnload + disableHook("5");
const Lines kDisableAgain = disableHook("4") + kFlush + disableHook("5");

// The two messages about a line that cannot be run.
Lines failedLine(const std::string& noted) {
    const std::string line = noted.substr(sizeof("exec ") - 1);
    return {"err tarnFW: Failed to execute " + line.substr(0, line.find(' ')),
            "err tarnFW: Failed to execute \"" + line + "\""};
}

const Lines kOpen = {"ACCEPT", "ACCEPT", "ACCEPT", "ACCEPT"};

class ApplyTest : public TrialTest {
protected:
    ApplyTest() { storeProfile("2", profileWithPort(".test_home", "80")); }

    bool apply() { return FW::TARNFW().TestApplyingProfile("home"); }

    void failLine(const std::string& noted) {
        platform_.failExec(noted.substr(sizeof("exec ") - 1));
    }

    // The journal without what only asks: the directory of lock files, and the translation's
    // questions.
    Lines acts() const {
        Lines found;
        for (const std::string& entry : platform_.journal) {
            if (entry.rfind("mkdir ", 0) != 0 && entry.rfind("interfaces ", 0) != 0 &&
                entry.rfind("popen ", 0) != 0 && entry != "pclose") {
                found.push_back(entry);
            }
        }
        return found;
    }

    Lines policies() const {
        return {platform_.policyOf("INPUT", "v4"), platform_.policyOf("FORWARD", "v4"),
                platform_.policyOf("INPUT", "v6"), platform_.policyOf("FORWARD", "v6")};
    }

    std::string loaded() { return platform_.keyValues[kServiceRecord]["firewall"]; }

    void expectSettings(bool status) {
        EXPECT_EQ(storedSettings()["status"].asBool(), status);
        EXPECT_EQ(storedSettings()["profile"].asString(), "home");
        EXPECT_EQ(storedSettings().size(), 2u);
    }
};

TEST_F(ApplyTest, RunsEveryStepInOrderAndTakesNoLock) {
    EXPECT_TRUE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kRules4 + kRules6 + kAccept);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ApplyTest, LeavesSettingsAndProfilesAsTheyAre) {
    const std::string settings = readFile(kSettingsFile);
    const std::string home = readFile(kHomeFile);
    const std::string test = readFile(kProfileDir + "2.json");
    EXPECT_TRUE(apply());
    EXPECT_EQ(readFile(kSettingsFile), settings);
    EXPECT_EQ(readFile(kHomeFile), home);
    EXPECT_EQ(readFile(kProfileDir + "2.json"), test);
    EXPECT_EQ(filesIn(kProfileDir).size(), 3u);
}

TEST_F(ApplyTest, DisabledFirewallIsTriedAllTheSame) {
    storeSettings(false, "home");
    EXPECT_TRUE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kRules4 + kRules6 + kAccept);
    expectSettings(false);
}

TEST_F(ApplyTest, NeedsNoSettingsAndMakesNone) {
    fs::remove(kSettingsFile);
    EXPECT_TRUE(apply());
    EXPECT_FALSE(fileExists(kSettingsFile));
}

TEST_F(ApplyTest, ReloadReturnsToTheActiveProfile) {
    EXPECT_TRUE(apply());
    platform_.clearJournal();
    EXPECT_TRUE(FW::TARNFW().fwReload(false));
    EXPECT_EQ(acts(), Lines{"lock " + kExecLock + " 1 30"} + kDrop + kFlush + rules4("22") +
                          rules6("22") + kAccept + Lines{"unlock 1000"});
}

TEST_F(ApplyTest, EmptyAddressIsTheSameAsNone) {
    EXPECT_TRUE(apply());
    // Not the whole journal: how often a file's lock is asked for depends on how long ago it was
    // written.
    const Lines expected = acts();
    platform_.clearJournal();
    EXPECT_TRUE(FW::TARNFW().TestApplyingProfile("home", ""));
    EXPECT_EQ(acts(), expected);
}

TEST_F(ApplyTest, AnAddressOfAnyFamilyIsTaken) {
    for (const std::string address : {"10.0.0.1", "127.0.0.1", "fe80::1"}) {
        SCOPED_TRACE(address);
        platform_.clearJournal();
        EXPECT_TRUE(FW::TARNFW().TestApplyingProfile("home", address));
        EXPECT_EQ(acts(), kDrop + kFlush + kRules4 + kRules6 + kAccept);
    }
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ApplyTest, MissingModulesAreLoadedBeforeTheMachineIsClosed) {
    setLoaded("no");
    EXPECT_TRUE(apply());
    EXPECT_EQ(acts(), kLoad + kDrop + kFlush + kRules4 + kRules6 + kAccept);
    EXPECT_EQ(loaded(), "yes");
}

TEST_F(ApplyTest, CoreModulesThatCannotBeLoadedStopItBeforeAnyLine) {
    setLoaded("no");
    platform_.failModInsertOf = "c.ko";
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), (Lines{"insmod firewall: a.ko b.ko c.ko d.ko"}));
    const Lines lines = log();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"err tarnFW: Failed to iptablesCoreModLoad",
                     "err tarnFW: Failed to firewallModLoad()"}));
    expectSettings(true);
}

TEST_F(ApplyTest, OwnModulesThatCannotBeLoadedStopItBeforeAnyLine) {
    setLoaded("no");
    platform_.failModInsertOf = "xt_geoip.ko";
    EXPECT_FALSE(apply());
    EXPECT_THAT(platform_.executed(), IsEmpty());
    const Lines lines = log();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(
        Lines(lines.end() - 2, lines.end()),
        (Lines{"err tarnFW: Failed to moduleInsert()", "err tarnFW: Failed to firewallModLoad()"}));
    expectSettings(true);
}

// A line, by its number, in a step of several.
class ApplyLineTest : public ApplyTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(ApplyLineTest, FailedDropEndsItAndNothingIsTakenBack) {
    const std::size_t line = GetParam();
    failLine(kDrop[line]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), firstOf(kDrop, line + 1));
    EXPECT_EQ(log(), failedLine(kDrop[line]) +
                         Lines{"err tarnFW: Failed to fwExec() to set default drop."});
    expectSettings(true);
}

TEST_P(ApplyLineTest, FailedAcceptDisablesTheFirewall) {
    const std::size_t line = GetParam();
    failLine(kAccept[line]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kRules4 + kRules6 + firstOf(kAccept, line + 1) + kDisable);
    EXPECT_EQ(log(), failedLine(kAccept[line]) +
                         Lines{"err tarnFW: Failed to fwExec() to set default accept."});
    expectSettings(false);
    EXPECT_EQ(loaded(), "no");
}

INSTANTIATE_TEST_SUITE_P(Line, ApplyLineTest, ::testing::Range<std::size_t>(0, 6));

class ApplyFlushTest : public ApplyTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(ApplyFlushTest, FailureAppliesNoRulesAndOpensTheMachine) {
    const std::size_t line = GetParam();
    failLine(kFlush[line]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kAccept);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_EQ(log(), failedLine(kFlush[line]) + Lines{"err tarnFW: Failed to fwClear()"});
    expectSettings(true);
}

INSTANTIATE_TEST_SUITE_P(Line, ApplyFlushTest, ::testing::Range<std::size_t>(0, 4));

TEST_F(ApplyTest, MissingTestProfileLeavesEmptyChainsAndOpenPolicies) {
    fs::remove(kProfileDir + "2.json");
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kAccept);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_THAT(log(), ElementsAre("err fwDB: Failed to profileGet .test_home due to not exist",
                                   "err tarnFW: Failed to profileGet(.test_home)",
                                   "err tarnFW: Failed to fwIptablesRulesEnum()"));
    expectSettings(true);
}

TEST_F(ApplyTest, NameIsTheProfilesAndNotTheTestProfiles) {
    EXPECT_FALSE(FW::TARNFW().TestApplyingProfile(".test_home"));
    EXPECT_THAT(log(), ::testing::Contains("err tarnFW: Failed to profileGet(.test_.test_home)"));
}

TEST_F(ApplyTest, TextThatIsNoAddressLeavesEmptyChainsAndOpenPolicies) {
    EXPECT_FALSE(FW::TARNFW().TestApplyingProfile("home", "localhost"));
    EXPECT_EQ(acts(), kDrop + kFlush + kAccept);
    EXPECT_THAT(
        log(), ElementsAre(
                   "err fwIptables: Invalid input argument 'localhost' which is not an IP address.",
                   "err tarnFW: Failed to fwRulesToIptablesRules()",
                   "err tarnFW: Failed to fwIptablesRulesEnum()"));
    expectSettings(true);
}

TEST_F(ApplyTest, ProfileThatCannotBeTranslatedLeavesEmptyChainsAndOpenPolicies) {
    FWPROFILE profile = profileWithPort(".test_home", "80");
    profile.rules["eth0"][0].policy = static_cast<FW::FW_POLICY>(9);
    storeProfile("2", profile);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kAccept);
    const Lines lines = log();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"err tarnFW: Failed to fwRulesToIptablesRules()",
                     "err tarnFW: Failed to fwIptablesRulesEnum()"}));
    expectSettings(true);
}

TEST_F(ApplyTest, FailedRuleDisablesTheFirewallAtOnceAndOpensTheMachine) {
    failLine(kRules4[3]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + firstOf(kRules4, 4) + kDisable + kAccept);
    EXPECT_EQ(policies(), kOpen);
    EXPECT_EQ(log(),
              failedLine(kRules4[3]) + Lines{"err tarnFW: Failed to fwExec() so disable firewall"});
    expectSettings(false);
    EXPECT_EQ(loaded(), "no");
}

TEST_F(ApplyTest, FailedIpv6RuleDisablesTheFirewallAtOnceAndOpensTheMachine) {
    failLine(kRules6[0]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kRules4 + firstOf(kRules6, 1) + kDisable + kAccept);
    EXPECT_EQ(policies(), kOpen);
    expectSettings(false);
}

TEST_F(ApplyTest, FailedRuleAndFailedAcceptDisableTheFirewallTwice) {
    failLine(kRules4[0]);
    failLine(kAccept[1]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + firstOf(kRules4, 1) + kDisable + firstOf(kAccept, 2) +
                          kDisableAgain);
    EXPECT_EQ(log(), failedLine(kRules4[0]) +
                         Lines{"err tarnFW: Failed to fwExec() so disable firewall"} +
                         failedLine(kAccept[1]) +
                         Lines{"err tarnFW: Failed to fwExec() to set default accept."});
    expectSettings(false);
}

// The message comes after disabling, so the messages of disabling come before it.
TEST_F(ApplyTest, FailedRuleIsReportedAfterTheFirewallIsDisabled) {
    failLine(kRules4[0]);
    platform_.failModRemoveOf = "xt_mac.ko";
    EXPECT_FALSE(apply());
    const Lines lines = log();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"err tarnFW: Failed to moduleInsert()",
                     "err tarnFW: Failed to fwExec() so disable firewall"}));
}

TEST_F(ApplyTest, FailedFlushAndFailedAcceptDisableTheFirewall) {
    failLine(kFlush[0]);
    failLine(kAccept[0]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + firstOf(kAccept, 1) + kDisable);
    expectSettings(false);
}

TEST_F(ApplyTest, MissingTestProfileAndFailedAcceptDisableTheFirewall) {
    fs::remove(kProfileDir + "2.json");
    failLine(kAccept[5]);
    EXPECT_FALSE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + kAccept + kDisable);
    expectSettings(false);
}

TEST_F(ApplyTest, ServicesOfTheTestProfileAreResolvedAndTheCatalogueIsFreed) {
    platform_.services["ssh"] = {"SSH", 1, {"22"}, 0, {}};
    FWPROFILE profile = profileWithPort(".test_home", "ssh");
    profile.rules["eth0"][0].portGroup = 2;
    storeProfile("2", profile);
    EXPECT_TRUE(apply());
    EXPECT_EQ(acts(), kDrop + kFlush + Lines{"services enum"} + rules4("22") + rules6("22") +
                          kAccept + Lines{"services free"});
}

// What the libraries underneath raise leaves the machine open as well.
TEST_F(ApplyTest, LockFileThatCannotBeOpenedRaisesTheLockErrorAndOpensTheMachine) {
    fs::create_directories(kLockDir + "2.json.lock");
    EXPECT_THROW((void)apply(), boost::interprocess::interprocess_exception);
    EXPECT_EQ(acts(), kDrop + kFlush + kAccept);
}

}  // namespace
