// The apply mode in the settings, and what a reload and a trial do and leave in apply mode "batch".

#include <algorithm>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/interprocess/exceptions.hpp>

#include "fake_restore.h"
#include "library_test.h"
#include "reload_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::ValuesIn;
using Lines = std::vector<std::string>;

const std::string kSettingsParseError = "utils: Failed to parse Json value of " + kSettingsFile;

// ---- The settings' member ----

struct ModeCase {
    std::string name;
    std::string settings;
    std::string mode;
};

void PrintTo(const ModeCase& c, std::ostream* out) {
    *out << c.settings;
}

const ModeCase kModes[] = {
    {"Absent", R"({"status": true, "profile": "home"})", "lines"},
    {"Lines", R"({"apply": "lines"})", "lines"},
    {"Batch", R"({"apply": "batch"})", "batch"},
    {"OtherText", R"({"apply": "BATCH"})", "lines"},
    {"Number", R"({"apply": 1})", "lines"},
    {"Null", R"({"apply": null})", "lines"},
    {"Object", R"({"apply": {"batch": true}})", "lines"},
    {"NoObject", R"(["apply", "batch"])", "lines"},
};

class ApplyModeTest : public LibraryTest, public ::testing::WithParamInterface<ModeCase> {};

TEST_P(ApplyModeTest, OnlyBatchIsBatch) {
    writeFile(kSettingsFile, GetParam().settings);
    std::string mode = "untouched";
    EXPECT_TRUE(FW::TARNFW().fwApplyMode(mode));
    EXPECT_EQ(mode, GetParam().mode);
    EXPECT_THAT(errors(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Modes, ApplyModeTest, ValuesIn(kModes),
                         [](const auto& one) { return one.param.name; });

class BatchTest : public LibraryTest {
protected:
    BatchTest() {
        platform_.keyValues[kModuleList] = {{"KERNEL_MODULES_CORE", "a.ko"},
                                            {"KERNEL_MODULES_COMMON", "b.ko"},
                                            {"IPV6_MODULES", "c.ko"}};
        platform_.failModInsertOf = "not in any list";
        platform_.failModRemoveOf = "not in any list";
        setLoaded("yes");
        storeProfile("1", profileWithPort("home", "22"));
        storeProfile("2", profileWithPort(".test_home", "99"));
        storeSettings(true, "home");
        choose("batch");
        platform_.clearJournal();
    }

    void TearDown() override {
        EXPECT_THAT(platform_.heldLocks, IsEmpty());
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
        FW::FWRULE other = rule;
        other.portList = {"80"};
        profile.rules["eth0"] = {rule, other};
        profile.rules["global"] = {rule};
        return profile;
    }

    void choose(const std::string& mode) {
        Json::Value member;
        member["apply"] = mode;
        ASSERT_TRUE(FW::TARNFW().configSet(member));
    }

    void setLoaded(const std::string& value) {
        platform_.keyValues[kServiceRecord]["firewall"] = value;
    }

    // The text that a family's tool got; it must have been complete.
    std::string committed(const std::string& name) const {
        for (const FakeRestore::Run& run : tools_.runs()) {
            if (run.name == name + " commit" && run.whole) {
                return run.text;
            }
        }
        return "nothing";
    }

    FakeRestore tools_;
};

TEST_F(BatchTest, MissingSettingsChooseLinesAndStayMissing) {
    std::filesystem::remove(kSettingsFile);
    std::string mode;
    EXPECT_TRUE(FW::TARNFW().fwApplyMode(mode));
    EXPECT_EQ(mode, "lines");
    EXPECT_FALSE(fileExists(kSettingsFile));
}

TEST_F(BatchTest, UnreadableSettingsAreAFailure) {
    writeFile(kSettingsFile, "{");
    std::string mode = "untouched";
    EXPECT_FALSE(FW::TARNFW().fwApplyMode(mode));
    EXPECT_EQ(mode, "untouched");
    EXPECT_THAT(errors(), ElementsAre(kSettingsParseError, "tarnFW: Falied to configGet()"));
}

// ---- Reload ----

TEST_F(BatchTest, ReloadRunsNoLineAndNoPolicy) {
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_EQ(committed("v4"),
              "*filter\n"
              "-F INPUT_FIREWALL\n"
              "-F FORWARD_FIREWALL\n"
              "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
              "-A INPUT_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
              "-A FORWARD_FIREWALL -i lo -j ACCEPT\n"
              "-A FORWARD_FIREWALL -m state --state ESTABLISHED,RELATED -j ACCEPT\n"
              "-A FORWARD_FIREWALL -p tcp --dport 22 -j RETURN\n"
              "-A INPUT_FIREWALL -p tcp --dport 22 -j RETURN\n"
              "-A FORWARD_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN\n"
              "-A INPUT_FIREWALL -i eth0 -p tcp --dport 22 -j RETURN\n"
              "-A FORWARD_FIREWALL -i eth0 -p tcp --dport 80 -j RETURN\n"
              "-A INPUT_FIREWALL -i eth0 -p tcp --dport 80 -j RETURN\n"
              "COMMIT\n");
    EXPECT_THAT(committed("v6"), HasSubstr("-A INPUT_FIREWALL -i eth0 -p tcp --dport 22"));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(BatchTest, ReloadIsUnderTheLockWithModulesLoaded) {
    setLoaded("no");
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    ASSERT_THAT(platform_.journal, Not(IsEmpty()));
    EXPECT_EQ(platform_.journal.front(), "lock " + kExecLock + " 1 30");
    EXPECT_EQ(platform_.journal.back(), "unlock 1000");
    EXPECT_EQ(platform_.keyValues[kServiceRecord]["firewall"], "yes");
}

TEST_F(BatchTest, ReloadWithoutTheFlag) {
    EXPECT_TRUE(FW::TARNFW().fwReload(false));
    EXPECT_THAT(committed("v4"), Not(HasSubstr("ESTABLISHED")));
}

TEST_F(BatchTest, DisabledFirewallStartsNothing) {
    storeSettings(false, "home");
    choose("batch");
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_THAT(tools_.started(), IsEmpty());
}

TEST_F(BatchTest, ReloadThatItsReviewIsAgainstChangesNothing) {
    EXPECT_FALSE(FW::TARNFW().fwReloadReviewed(true, [](const FW::FWPENDINGBATCH& batch) {
        EXPECT_TRUE(batch.commands["v4"].isMember("eth0"));
        return false;
    }));
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(platform_.journal.back(), "unlock 1000");
}

TEST_F(BatchTest, ReloadLineByLineHasNoReview) {
    choose("lines");
    EXPECT_TRUE(FW::TARNFW().fwReloadReviewed(true, [](const FW::FWPENDINGBATCH&) {
        ADD_FAILURE();
        return false;
    }));
}

TEST_F(BatchTest, RouterInterfaceIsAskedForOnceAnAdapter) {
    FW::TARNFW firewall;
    EXPECT_TRUE(firewall.fwReload(true));
    EXPECT_EQ(platform_.journalOf("popen ").size(), 2U);  // "eth0" with two rules, and "global"
    EXPECT_TRUE(firewall.fwReload(true));
    EXPECT_EQ(platform_.journalOf("popen ").size(), 4U);  // each translation anew
}

TEST_F(BatchTest, RulesOfATunnelAreRepeatedForEachRule) {
    platform_.popenOutput["eth0"] = "sit0";
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_THAT(committed("v6"), HasSubstr("-A INPUT_FIREWALL -i sit0 -p tcp --dport 22 "));
    EXPECT_THAT(committed("v6"), HasSubstr("-A INPUT_FIREWALL -i sit0 -p tcp --dport 80 "));
    EXPECT_EQ(platform_.journalOf("popen ").size(), 2U);
}

TEST_F(BatchTest, ProfileThatCannotBeTranslatedChangesNothing) {
    std::filesystem::remove(kProfileDir + "1.json");
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_THAT(tools_.started(), IsEmpty());
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_TRUE(storedSettings()["status"].asBool());
    EXPECT_THAT(errors(), Contains("tarnFW: Failed to fwIptablesRulesEnum()"));
}

TEST_F(BatchTest, SettingsWithoutAProfileChangeNothing) {
    writeFile(kSettingsFile, R"({"status": true, "apply": "batch"})");
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_THAT(tools_.started(), IsEmpty());
    EXPECT_THAT(errors(), ElementsAre("tarnFW: There are no key: profile in config",
                                      "tarnFW: Failed to fwProfileConfigGet()"));
}

TEST_F(BatchTest, RefusalLeavesTheFirewallEnabledWithOneLineInTheLog) {
    const Json::Value before = storedSettings();
    tools_.refuse("v6 commit", "-A INPUT_FIREWALL -p tcp --dport 22 -j RETURN",
                  "Bad argument `x'\nError occurred at line: 19\n", 2);
    EXPECT_FALSE(FW::TARNFW().fwReload(true));
    EXPECT_THAT(tools_.committed(), IsEmpty());
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_EQ(storedSettings(), before);
    EXPECT_THAT(errors(),
                ElementsAre("fwBatch: /sbin/ip6tables-restore refused \"-t filter -A "
                            "INPUT_FIREWALL -p tcp --dport 22 -j RETURN\" of adapter global: Bad "
                            "argument `x'"));
}

TEST_F(BatchTest, EnablingTakesTheSameWayBetweenItsHooks) {
    storeSettings(false, "home");
    choose("batch");
    EXPECT_TRUE(FW::TARNFW().fwEnable());
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 commit", "v6 commit"));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(platform_.journalOf("hook action "), ElementsAre("4", "5"));
    EXPECT_EQ(storedSettings(),
              parseJson(R"({"status": true, "profile": "home", "apply": "batch"})"));
}

TEST_F(BatchTest, MakingAProfileTheActiveOneTakesTheSameWay) {
    storeProfile("3", profileWithPort("away", "99"));
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigSet("away", true));
    EXPECT_THAT(committed("v4"), HasSubstr("--dport 99"));
    EXPECT_THAT(platform_.executed(), IsEmpty());
}

TEST_F(BatchTest, DisablingStaysAsItIs) {
    EXPECT_TRUE(FW::TARNFW().fwDisable());
    EXPECT_THAT(tools_.started(), IsEmpty());
    Lines flushes;
    for (const std::string& line : platform_.executedLines()) {
        flushes.push_back("exec " + line);
    }
    EXPECT_EQ(flushes, kFlush);
}

// ---- Trial ----

TEST_F(BatchTest, TrialTakesTheSameWay) {
    EXPECT_TRUE(FW::TARNFW().TestApplyingProfile("home"));
    EXPECT_THAT(committed("v4"), HasSubstr("--dport 99"));
    EXPECT_THAT(committed("v4"), Not(HasSubstr("ESTABLISHED")));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(platform_.journalOf("lock " + kExecLock), IsEmpty());
    EXPECT_EQ(platform_.journalOf("popen ").size(), 2U);
}

TEST_F(BatchTest, TrialThatCannotBeTranslatedChangesNothing) {
    EXPECT_FALSE(FW::TARNFW().TestApplyingProfile("home", "no address"));
    EXPECT_FALSE(FW::TARNFW().TestApplyingProfile("unknown"));
    EXPECT_THAT(tools_.started(), IsEmpty());
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_TRUE(storedSettings()["status"].asBool());
}

TEST_F(BatchTest, RefusedTrialLeavesTheFirewallEnabled) {
    tools_.refuse("v4 commit", "COMMIT", "four\n");
    EXPECT_FALSE(FW::TARNFW().TestApplyingProfile("home"));
    EXPECT_THAT(tools_.committed(), ElementsAre("v4 put back"));
    EXPECT_TRUE(storedSettings()["status"].asBool());
    EXPECT_THAT(errors(), ElementsAre("fwBatch: Failed to run /sbin/iptables-restore: four"));
}

// ---- Apply mode "lines" beside it ----

TEST_F(BatchTest, OtherwiseLinesAreRun) {
    choose("lines");
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    EXPECT_TRUE(FW::TARNFW().TestApplyingProfile("home"));
    EXPECT_THAT(tools_.started(), IsEmpty());
    EXPECT_EQ(platform_.executedLines().front(), "/sbin/iptables --policy INPUT DROP");
    EXPECT_EQ(platform_.journalOf("popen ").size(), 6U);  // once for each rule
}

TEST_F(BatchTest, AnObjectThatDidABatchRunsLinesAsAnyOther) {
    FW::TARNFW firewall;
    EXPECT_TRUE(firewall.fwReload(true));
    choose("lines");
    platform_.clearJournal();
    EXPECT_TRUE(firewall.fwReload(true));
    EXPECT_EQ(platform_.journalOf("popen ").size(), 3U);  // once for each rule
}

// A trial logs nothing about the settings; the store finds the file, in both of its scans.
TEST_F(BatchTest, TrialWithUnreadableSettingsRunsLines) {
    for (const std::string& settings : {std::string("{"), std::string(5000, '[')}) {
        platform_.clearLog();
        writeFile(kSettingsFile, settings);
        EXPECT_TRUE(FW::TARNFW().TestApplyingProfile("home"));
        EXPECT_THAT(tools_.started(), IsEmpty());
        EXPECT_EQ(platform_.policyOf("INPUT"), "ACCEPT");
        const std::string load = "fwDB: Failed to load json from " + kSettingsFile;
        EXPECT_THAT(errors(), ElementsAre(kSettingsParseError, load, kSettingsParseError, load));
    }
}

// A lock that fails shows only when the profile is read, while the machine is closed.
TEST_F(BatchTest, TrialTakesNoLockToChoose) {
    choose("lines");
    std::filesystem::remove(kLockDir + "firewall_settings.json.lock");
    std::filesystem::create_directories(kLockDir + "firewall_settings.json.lock");
    EXPECT_THROW((void)FW::TARNFW().TestApplyingProfile("home"),
                 boost::interprocess::interprocess_exception);
    EXPECT_EQ(platform_.executedLines().front(), "/sbin/iptables --policy INPUT DROP");
    EXPECT_EQ(platform_.policyOf("INPUT"), "ACCEPT");
}

// Each file that is read asks for the directory of the locks.
TEST_F(BatchTest, ReloadReadsTheSettingsOnceForStatusAndWay) {
    choose("lines");
    platform_.clearJournal();
    EXPECT_TRUE(FW::TARNFW().fwReload(true));
    const Lines& journal = platform_.journal;
    const auto closing = std::find(journal.begin(), journal.end(), kDrop.front());
    ASSERT_NE(closing, journal.end());
    EXPECT_EQ(std::count(journal.begin(), closing, "mkdir " + kLockDir), 1);
}

}  // namespace
