#include <filesystem>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include <json/json.h>
#include <boost/interprocess/exceptions.hpp>

#include "file_lock_testing.h"
#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using LockError = boost::interprocess::interprocess_exception;

const std::string kSettingsLock = kLockDir + "firewall_settings.json.lock";
const std::string kSettingsTemporary = kSettingsFile + ".tmp";

static_assert(std::is_base_of_v<FW::TARNFW_IPTABLES_RULES, FW::TARNFW>);
static_assert(sizeof(FW::TARNFW) == sizeof(FW::TARNFW_IPTABLES_RULES), "it adds no data");
static_assert(!std::is_polymorphic_v<FW::TARNFW>);

class SettingsTest : public LibraryTest {
protected:
    std::vector<std::string> log() const { return logLines(platform_); }

    static Json::Value defaults() {
        return parseJson(R"({"status": false, "profile": "default"})");
    }
};

// ---- initJconfig ----

TEST_F(SettingsTest, DefaultsAreExactlyTwoMembers) {
    Json::Value config;
    FW::TARNFW().initJconfig(config);
    EXPECT_EQ(config, defaults());
    EXPECT_EQ(config["status"].type(), Json::booleanValue);
}

TEST_F(SettingsTest, DefaultsLeaveOtherMembersAlone) {
    Json::Value config = parseJson(R"({"status": true, "profile": "home", "other": [1]})");
    FW::TARNFW().initJconfig(config);
    EXPECT_EQ(config, parseJson(R"({"status": false, "profile": "default", "other": [1]})"));
    EXPECT_FALSE(fileExists(kSettingsFile));
}

// ---- configGet ----

TEST_F(SettingsTest, MissingFileReadsAsTheDefaultsAndIsWritten) {
    Json::Value config;
    EXPECT_TRUE(FW::TARNFW().configGet(config));
    EXPECT_EQ(config, defaults());
    EXPECT_EQ(readFile(kSettingsFile),
              "{\n   \"profile\" : \"default\",\n   \"status\" : false\n}\n");
    EXPECT_TRUE(fileExists(kSettingsLock));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(SettingsTest, FileThatCannotBeLookedAtIsNotTakenForMissing) {
    fs::create_directories(fs::path(kSettingsFile).parent_path());
    fs::create_symlink(kSettingsFile, kSettingsFile);  // to itself
    Json::Value config;
    EXPECT_FALSE(FW::TARNFW().configGet(config));
    EXPECT_FALSE(FW::TARNFW().configSet(defaults()));
    EXPECT_TRUE(fs::is_symlink(kSettingsFile));
}

TEST_F(SettingsTest, MissingFileIsWrittenWithWhatTheCallerHadInTheDocument) {
    Json::Value config = parseJson(R"({"other": 3, "status": true})");
    EXPECT_TRUE(FW::TARNFW().configGet(config));
    EXPECT_EQ(config, parseJson(R"({"other": 3, "status": false, "profile": "default"})"));
    EXPECT_EQ(storedSettings(), config);
}

TEST_F(SettingsTest, MissingFileThatCannotBeWrittenIsNoFailure) {
    fs::create_directories(kSettingsTemporary);
    Json::Value config;
    EXPECT_TRUE(FW::TARNFW().configGet(config));
    EXPECT_EQ(config, defaults());
    EXPECT_FALSE(fileExists(kSettingsFile));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kSettingsTemporary));
}

TEST_F(SettingsTest, ExistingFileIsReadAsItIs) {
    const std::string text = "{\"profile\":\"home\",\"more\":{\"a\":1}}";
    writeFile(kSettingsFile, text);
    Json::Value config;
    EXPECT_TRUE(FW::TARNFW().configGet(config));
    EXPECT_EQ(config, parseJson(text));
    EXPECT_EQ(readFile(kSettingsFile), text);
}

// ---- configSet ----

TEST_F(SettingsTest, SetChangesOnlyTheGivenMembers) {
    writeFile(kSettingsFile, R"({"status": false, "profile": "home", "unknown": {"a": [1, 2]}})");
    EXPECT_TRUE(FW::TARNFW().configSet(parseJson(R"({"status": true})")));
    EXPECT_EQ(storedSettings(),
              parseJson(R"({"status": true, "profile": "home", "unknown": {"a": [1, 2]}})"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(SettingsTest, SetAddsUnknownMembersAndReplacesWholeValues) {
    writeFile(kSettingsFile, R"({"status": true, "profile": "home", "o": {"a": 1, "b": 2}})");
    EXPECT_TRUE(FW::TARNFW().configSet(parseJson(R"({"new": [3], "o": {"c": 3}, "": null})")));
    EXPECT_EQ(
        storedSettings(),
        parseJson(R"({"status": true, "profile": "home", "o": {"c": 3}, "new": [3], "": null})"));
}

TEST_F(SettingsTest, SetOfNothingKeepsEverything) {
    for (const char* nothing : {"{}", "null"}) {
        SCOPED_TRACE(nothing);
        writeFile(kSettingsFile, R"({"status": true, "profile": "home", "unknown": 1})");
        EXPECT_TRUE(FW::TARNFW().configSet(parseJson(nothing)));
        EXPECT_EQ(storedSettings(),
                  parseJson(R"({"status": true, "profile": "home", "unknown": 1})"));
    }
}

TEST_F(SettingsTest, SetWithoutAFileStartsFromTheDefaults) {
    EXPECT_TRUE(FW::TARNFW().configSet(parseJson(R"({"profile": "home", "x": 1})")));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "home", "x": 1})"));
}

TEST_F(SettingsTest, SetFailsWhenTheFileCannotBeWritten) {
    storeSettings(false, "home");
    const std::string before = readFile(kSettingsFile);
    fs::create_directories(kSettingsTemporary);
    EXPECT_FALSE(FW::TARNFW().configSet(parseJson(R"({"status": true})")));
    EXPECT_EQ(readFile(kSettingsFile), before);
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kSettingsTemporary));
}

// ---- fwStatus ----

TEST_F(SettingsTest, StatusWithoutAFileIsDisabledAndWritesTheDefaults) {
    bool enabled = true;
    EXPECT_TRUE(FW::TARNFW().fwStatus(enabled));
    EXPECT_FALSE(enabled);
    EXPECT_EQ(storedSettings(), defaults());
}

struct StatusCase {
    const char* name;
    const char* settings;
    bool enabled;
};

const StatusCase kStatuses[] = {
    {"True", R"({"status": true})", true},
    {"False", R"({"status": false})", false},
    {"Missing", R"({"profile": "home"})", false},
    {"EmptyObject", "{}", false},
    {"NullDocument", "null", false},
    {"NullStatus", R"({"status": null})", false},
    {"One", R"({"status": 1})", true},
    {"NegativeNumber", R"({"status": -2})", true},
    {"Zero", R"({"status": 0})", false},
    {"Fraction", R"({"status": 0.5})", true},
    {"ZeroFraction", R"({"status": 0.0})", false},
};

class StatusTest : public SettingsTest, public ::testing::WithParamInterface<StatusCase> {};

TEST_P(StatusTest, IsTheBooleanConversionOfTheMember) {
    writeFile(kSettingsFile, GetParam().settings);
    bool enabled = !GetParam().enabled;
    EXPECT_TRUE(FW::TARNFW().fwStatus(enabled));
    EXPECT_EQ(enabled, GetParam().enabled);
    EXPECT_EQ(readFile(kSettingsFile), GetParam().settings);
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, StatusTest, ::testing::ValuesIn(kStatuses),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- fwProfileConfigGet ----

TEST_F(SettingsTest, ActiveProfileIsTheMemberAsText) {
    storeSettings(true, "my profile");
    std::string profile = "old";
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigGet(profile));
    EXPECT_EQ(profile, "my profile");
}

TEST_F(SettingsTest, ActiveProfileWithoutAFileIsTheDefault) {
    std::string profile;
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigGet(profile));
    EXPECT_EQ(profile, "default");
    EXPECT_EQ(storedSettings(), defaults());
}

TEST_F(SettingsTest, ActiveProfileThatIsANumberIsItsText) {
    writeFile(kSettingsFile, R"({"profile": 17})");
    std::string profile;
    EXPECT_TRUE(FW::TARNFW().fwProfileConfigGet(profile));
    EXPECT_EQ(profile, "17");
}

TEST_F(SettingsTest, SettingsWithoutProfileHaveNoActiveProfile) {
    writeFile(kSettingsFile, R"({"status": true})");
    std::string profile = "old";
    EXPECT_FALSE(FW::TARNFW().fwProfileConfigGet(profile));
    EXPECT_EQ(profile, "old");
    EXPECT_THAT(log(), ElementsAre("err tarnFW: There are no key: profile in config"));
}

// ---- Failures of the file ----

// Each operation, its result, and what it logs of its own when the file cannot be read.
struct Operation {
    const char* name;
    std::function<bool(FW::TARNFW&)> run;
    std::vector<std::string> ownLog;
};

const Operation kOperations[] = {
    {"ConfigGet",
     [](FW::TARNFW& firewall) {
         Json::Value config;
         return firewall.configGet(config);
     },
     {}},
    {"ConfigSet",
     [](FW::TARNFW& firewall) { return firewall.configSet(parseJson(R"({"status": true})")); },
     {"err tarnFW: Falied to config.configGet()"}},
    {"Status",
     [](FW::TARNFW& firewall) {
         bool enabled = true;
         const bool result = firewall.fwStatus(enabled);
         EXPECT_TRUE(enabled) << "touched by a failure";
         return result;
     },
     {"err tarnFW: Falied to configGet()"}},
    {"ActiveProfile",
     [](FW::TARNFW& firewall) {
         std::string profile = "old";
         const bool result = firewall.fwProfileConfigGet(profile);
         EXPECT_EQ(profile, "old");
         return result;
     },
     {"err tarnFW: Falied to configGet()"}},
};

class UnreadableSettingsTest : public SettingsTest,
                               public ::testing::WithParamInterface<Operation> {
protected:
    // The operation fails with `first` logged before its own line, and the file stays as it is.
    void expectFailure(const std::string& first) {
        const std::string before = readFile(kSettingsFile);
        FW::TARNFW firewall;
        EXPECT_FALSE(GetParam().run(firewall));
        std::vector<std::string> expected = {first};
        expected.insert(expected.end(), GetParam().ownLog.begin(), GetParam().ownLog.end());
        EXPECT_EQ(log(), expected);
        EXPECT_EQ(readFile(kSettingsFile), before);
        EXPECT_FALSE(fileExists(kSettingsTemporary));
    }
};

TEST_P(UnreadableSettingsTest, InvalidJsonMakesItFailAndIsNotOverwritten) {
    writeFile(kSettingsFile, "{\"status\": tru");
    expectFailure("err utils: Failed to parse Json value of " + kSettingsFile);
}

TEST_P(UnreadableSettingsTest, EmptyFileMakesItFailAndIsNotOverwritten) {
    writeFile(kSettingsFile, "");
    expectFailure("err utils: Failed to parse Json value of " + kSettingsFile);
}

TEST_P(UnreadableSettingsTest, LockTimeoutMakesItFail) {
    storeSettings(false, "home");
    const LockHolder holder(kSettingsLock);
    JumpingClock clock(kLockWait);
    expectFailure("err utils: Failed to get lock timeout");
    EXPECT_LT(clock.readings(), JumpingClock::kTooMany);
}

TEST_P(UnreadableSettingsTest, LockErrorIsRaised) {
    storeSettings(false, "home");
    fs::create_directories(kSettingsLock);
    const std::string before = readFile(kSettingsFile);
    FW::TARNFW firewall;
    EXPECT_THROW((void)GetParam().run(firewall), LockError);
    EXPECT_EQ(readFile(kSettingsFile), before);
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, UnreadableSettingsTest, ::testing::ValuesIn(kOperations),
                         [](const auto& c) { return std::string(c.param.name); });

// ---- Types that do not convert ----

struct MismatchCase {
    const char* name;
    const char* settings;
    std::function<void(FW::TARNFW&)> run;
};

void askStatus(FW::TARNFW& firewall) {
    bool enabled = false;
    (void)firewall.fwStatus(enabled);
}

void askProfile(FW::TARNFW& firewall) {
    std::string profile;
    (void)firewall.fwProfileConfigGet(profile);
}

void setStatus(FW::TARNFW& firewall) {
    (void)firewall.configSet(parseJson(R"({"status": true})"));
}

const MismatchCase kMismatches[] = {
    {"StatusIsText", R"({"status": "true"})", askStatus},
    {"StatusIsAnObject", R"({"status": {}})", askStatus},
    {"StatusIsAList", R"({"status": [true]})", askStatus},
    {"StatusOfAList", R"([{"status": true}])", askStatus},
    {"ProfileIsAnObject", R"({"profile": {"name": "home"}})", askProfile},
    {"ProfileIsAList", R"({"profile": ["home"]})", askProfile},
    {"ProfileOfAList", R"(["profile"])", askProfile},
    {"SetIntoAList", R"([1, 2])", setStatus},
    {"SetIntoANumber", "7", setStatus},
};

class SettingsMismatchTest : public SettingsTest,
                             public ::testing::WithParamInterface<MismatchCase> {};

TEST_P(SettingsMismatchTest, RaisesTheJsonErrorAndKeepsTheFile) {
    writeFile(kSettingsFile, GetParam().settings);
    FW::TARNFW firewall;
    EXPECT_THROW(GetParam().run(firewall), Json::Exception);
    EXPECT_EQ(readFile(kSettingsFile), GetParam().settings);
    EXPECT_TRUE(lockIsFree(kSettingsLock));
}

INSTANTIATE_TEST_SUITE_P(, SettingsMismatchTest, ::testing::ValuesIn(kMismatches),
                         [](const auto& c) { return std::string(c.param.name); });

// The lock is not held from the reading to the writing: what another process writes in between is
// overwritten, but neither waits for the other.
TEST_F(SettingsTest, SetTakesTheLockForEachStepAndLeavesItFree) {
    storeSettings(false, "home");
    platform_.clearJournal();
    EXPECT_TRUE(FW::TARNFW().configSet(parseJson(R"({"status": true})")));
    EXPECT_THAT(platform_.journalOf("mkdir "), ElementsAre(kLockDir, kLockDir));
    EXPECT_TRUE(lockIsFree(kSettingsLock));
}

}  // namespace
