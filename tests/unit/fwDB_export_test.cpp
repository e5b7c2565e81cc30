// The whole configuration as one document: what an export contains, what an import replaces, and
// what each failure leaves.

#include <dlfcn.h>
#include <glob.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>
#include <boost/interprocess/exceptions.hpp>

#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/fwDB.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Called after each scan of the profile directory. A file that the scan could not load is
// in no index, so a file that is to fail later must be damaged at that moment.
std::function<void()>& scanDone() {
    static std::function<void()> action;
    return action;
}

}  // namespace

extern "C" void globfree(glob_t* result) noexcept {
    reinterpret_cast<void (*)(glob_t*)>(dlsym(RTLD_NEXT, "globfree"))(result);
    if (const auto action = std::exchange(scanDone(), nullptr)) {
        action();
    }
}

namespace {

using Lines = std::vector<std::string>;

const std::string kNoFiles = "err fwDB: Fail to read file from /usr/tarn/etc/firewall.d/";
const std::string kNoIndex = "err fwDB: Failed to create meta json from /usr/tarn/etc/firewall.d/";

std::string fileOf(const std::string& stem) {
    return kProfileDir + stem + ".json";
}

std::string lockOf(const std::string& stem) {
    return kLockDir + stem + ".json.lock";
}

std::string notParsed(const std::string& path) {
    return "err utils: Failed to parse Json value of " + path;
}

std::string notOpened(const std::string& path) {
    return "err utils: Failed to open json file " + path + ".tmp";
}

class ConfigurationTest : public LibraryTest {
protected:
    ConfigurationTest() {
        writeFile(fileOf("1700000042"), kHome);
        writeFile(fileOf("17"), kAway);
        storeSettings(true, "home");
    }
    ~ConfigurationTest() override { scanDone() = nullptr; }

    Lines log() const { return logLines(platform_); }

    // After the next scan, `path` is not JSON any more.
    static void breakAfterScan(const std::vector<std::string>& paths) {
        scanDone() = [paths] {
            for (const std::string& path : paths) {
                writeFile(path, "{\"name\"");
            }
        };
    }

    // Makes every write of the file at `path` fail.
    static void blockWrite(const std::string& path) { fs::create_directories(path + ".tmp"); }

    // Documents that the store never writes in this form.
    const std::string kHome = R"({"name": "home", "rules": {"eth0": [{"policy": 9}]}, "own": [1]})";
    const std::string kAway = R"({"name": "away", "adapterPolicyMap": {"global": 1}})";

    FW::TARNFW_JSON_DB store_;
};

// ---- exportConfig ----

using ExportTest = ConfigurationTest;

TEST_F(ExportTest, HoldsProfilesByFileNameSettingsAndVersion) {
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out.getMemberNames(),
              (std::vector<std::string>{"config_firewall_settings", "config_profiles",
                                        "config_version"}));
    EXPECT_EQ(out["config_profiles"].getMemberNames(),
              (std::vector<std::string>{"17.json", "1700000042.json"}));
    EXPECT_EQ(out["config_profiles"]["1700000042.json"], parseJson(kHome));
    EXPECT_EQ(out["config_profiles"]["17.json"], parseJson(kAway));
    EXPECT_EQ(out["config_firewall_settings"], parseJson(R"({"status": true, "profile": "home"})"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ExportTest, VersionIsTheUnsignedNumberOne) {
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_version"].type(), Json::uintValue);
    EXPECT_EQ(out["config_version"].asUInt(), 1u);
}

TEST_F(ExportTest, ChangesNoFile) {
    const std::string settings = readFile(kSettingsFile);
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_THAT(filesIn(kProfileDir),
                ElementsAre("17.json", "1700000042.json", "firewall_settings.json"));
    EXPECT_EQ(readFile(fileOf("1700000042")), kHome);
    EXPECT_EQ(readFile(fileOf("17")), kAway);
    EXPECT_EQ(readFile(kSettingsFile), settings);
}

TEST_F(ExportTest, DropsWhatTheDocumentHeldBefore) {
    for (const char* before :
         {R"({"config_profiles": {"0.json": {}}, "other": 1})", "[1, 2]", "\"text\"", "null"}) {
        SCOPED_TRACE(before);
        Json::Value fresh;
        EXPECT_TRUE(store_.exportConfig(fresh));
        Json::Value out = parseJson(before);
        EXPECT_TRUE(store_.exportConfig(out));
        EXPECT_EQ(out, fresh);
    }
}

TEST_F(ExportTest, KeyIsTheFileNameWithAllItsDots) {
    writeFile(fileOf("a.b"), R"({"name": "dotted"})");
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_profiles"]["a.b.json"], parseJson(R"({"name": "dotted"})"));
}

TEST_F(ExportTest, OfTwoFilesWithOneNameOnlyTheFirstIsExported) {
    writeFile(fileOf("18"), R"({"name": "away", "second": true})");
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_profiles"].getMemberNames(),
              (std::vector<std::string>{"17.json", "1700000042.json"}));
}

TEST_F(ExportTest, FilesWithoutANameAreNoProfiles) {
    writeFile(fileOf("18"), R"({"rules": null})");
    writeFile(kProfileDir + "19.txt", R"({"name": "text"})");
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_profiles"].getMemberNames(),
              (std::vector<std::string>{"17.json", "1700000042.json"}));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ExportTest, StoreWithoutProfilesHasAnEmptyObjectOfThem) {
    fs::remove(fileOf("17"));
    fs::remove(fileOf("1700000042"));
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_profiles"], Json::Value(Json::objectValue));
    EXPECT_EQ(out["config_version"].asUInt(), 1u);
}

struct SettingsCase {
    const char* name;
    const char* settings;
};

// Reading the active profile's name out of them adds no member.
const SettingsCase kSettings[] = {
    {"WithMoreMembers", R"({"status": false, "profile": "away", "more": {"a": [1, null]}})"},
    {"WithoutProfile", R"({"status": true})"},
    {"WithoutStatus", R"({"profile": "home"})"},
    {"Empty", "{}"},
    {"Null", "null"},
    {"ProfileIsANumber", R"({"profile": 17})"},
    {"ProfileDoesNotExist", R"({"profile": "none"})"},
};

class ExportedSettingsTest : public ConfigurationTest,
                             public ::testing::WithParamInterface<SettingsCase> {};

TEST_P(ExportedSettingsTest, AreExactlyThoseOfTheFile) {
    writeFile(kSettingsFile, GetParam().settings);
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_firewall_settings"], parseJson(GetParam().settings));
    EXPECT_EQ(out["config_profiles"].size(), 2u);
    EXPECT_EQ(readFile(kSettingsFile), GetParam().settings);
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, ExportedSettingsTest, ::testing::ValuesIn(kSettings),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ExportTest, MissingSettingsAreExportedAsTheDefaultsAndWritten) {
    fs::remove(kSettingsFile);
    const Json::Value defaults = parseJson(R"({"status": false, "profile": "default"})");
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_EQ(out["config_firewall_settings"], defaults);
    EXPECT_EQ(storedSettings(), defaults);
}

TEST_F(ExportTest, EmptyDirectoryIsAFailureThatWritesNothing) {
    for (const std::string& file : filesIn(kProfileDir)) {
        fs::remove(kProfileDir + file);
    }
    Json::Value out = parseJson(R"({"before": 1})");
    EXPECT_FALSE(store_.exportConfig(out));
    EXPECT_THAT(log(), ElementsAre(kNoFiles, kNoIndex));
    EXPECT_EQ(out, parseJson(R"({"config_profiles": {}})"));
    EXPECT_THAT(filesIn(kProfileDir), IsEmpty());
}

TEST_F(ExportTest, UnreadableSettingsAreAFailure) {
    writeFile(kSettingsFile, "{\"status\": ");
    Json::Value out = parseJson(R"({"before": 1})");
    EXPECT_FALSE(store_.exportConfig(out));
    // The first two lines are those of the scan, which meets the settings file as well.
    EXPECT_THAT(
        log(),
        ElementsAre(notParsed(kSettingsFile), "err fwDB: Failed to load json from " + kSettingsFile,
                    notParsed(kSettingsFile), "err fwDB: Falied to get firewall settings."));
    EXPECT_EQ(out, parseJson(R"({"config_profiles": {}})"));
    EXPECT_EQ(readFile(kSettingsFile), "{\"status\": ");
}

TEST_F(ExportTest, UnreadableOtherProfileIsLeftOutAndLoggedWithAFullStop) {
    breakAfterScan({fileOf("17")});
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_THAT(log(),
                ElementsAre(notParsed(fileOf("17")), "err fwDB: Failed to load json from [" +
                                                         fileOf("17") + "] for profile [away]."));
    EXPECT_EQ(out["config_profiles"].getMemberNames(),
              (std::vector<std::string>{"1700000042.json"}));
    EXPECT_EQ(out["config_profiles"]["1700000042.json"], parseJson(kHome));
    EXPECT_EQ(out["config_firewall_settings"]["profile"].asString(), "home");
    EXPECT_EQ(out["config_version"].asUInt(), 1u);
}

TEST_F(ExportTest, EveryUnreadableOtherProfileIsLoggedInTheOrderOfTheNames) {
    writeFile(fileOf("1"), R"({"name": "zoo"})");
    breakAfterScan({fileOf("1"), fileOf("17")});
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_THAT(
        log(),
        ElementsAre(notParsed(fileOf("17")),
                    "err fwDB: Failed to load json from [" + fileOf("17") + "] for profile [away].",
                    notParsed(fileOf("1")),
                    "err fwDB: Failed to load json from [" + fileOf("1") + "] for profile [zoo]."));
    EXPECT_EQ(out["config_profiles"].size(), 1u);
}

TEST_F(ExportTest, UnreadableActiveProfileEndsItAndIsLoggedAsTheCurrentOne) {
    writeFile(fileOf("1"), R"({"name": "zoo"})");
    breakAfterScan({fileOf("1"), fileOf("1700000042")});
    Json::Value out;
    EXPECT_FALSE(store_.exportConfig(out));
    EXPECT_THAT(log(), ElementsAre(notParsed(fileOf("1700000042")),
                                   "err fwDB: Failed to load json from [" + fileOf("1700000042") +
                                       "] for profile [home] which is the current one."));
    EXPECT_EQ(out["config_profiles"].getMemberNames(), (std::vector<std::string>{"17.json"}));
    EXPECT_EQ(out["config_firewall_settings"]["profile"].asString(), "home");
    EXPECT_EQ(out["config_version"].asUInt(), 1u);
}

TEST_F(ExportTest, VanishedProfileCountsAsUnreadable) {
    scanDone() = [] { fs::remove(fileOf("17")); };
    Json::Value out;
    EXPECT_TRUE(store_.exportConfig(out));
    EXPECT_THAT(log(), ElementsAre("err utils: File " + fileOf("17") + " does not exist",
                                   "err fwDB: Failed to load json from [" + fileOf("17") +
                                       "] for profile [away]."));
    EXPECT_EQ(out["config_profiles"].size(), 1u);
}

TEST_F(ExportTest, SettingsWithoutAProfileMakeTheNamelessOneTheActiveOne) {
    writeFile(kSettingsFile, "{}");
    writeFile(fileOf("1"), R"({"name": ""})");
    breakAfterScan({fileOf("1")});
    Json::Value out;
    EXPECT_FALSE(store_.exportConfig(out));
    EXPECT_THAT(log(), ElementsAre(notParsed(fileOf("1")),
                                   "err fwDB: Failed to load json from [" + fileOf("1") +
                                       "] for profile [] which is the current one."));
}

// It is not in the index, so its profile is unknown.
TEST_F(ExportTest, FileThatTheScanCannotLoadIsLeftOutWithTheScansMessage) {
    for (const std::string stem : {"17", "1700000042"}) {
        SCOPED_TRACE(stem);
        const std::string before = readFile(fileOf(stem));
        writeFile(fileOf(stem), "{");
        platform_.clearLog();
        Json::Value out;
        EXPECT_TRUE(store_.exportConfig(out));
        EXPECT_THAT(log(), ElementsAre(notParsed(fileOf(stem)),
                                       "err fwDB: Failed to load json from " + fileOf(stem)));
        EXPECT_EQ(out["config_profiles"].size(), 1u);
        EXPECT_FALSE(out["config_profiles"].isMember(stem + ".json"));
        writeFile(fileOf(stem), before);
    }
}

TEST_F(ExportTest, SettingsOfAnotherTypeRaiseTheJsonError) {
    writeFile(kSettingsFile, R"({"profile": {"name": "home"}})");
    Json::Value out;
    EXPECT_THROW((void)store_.exportConfig(out), Json::Exception);
}

// ---- importConfig ----

class ImportTest : public ConfigurationTest {
protected:
    static Json::Value configuration() {
        return parseJson(R"({
            "config_profiles": {"3.json": {"name": "office", "own": {"a": [1.5, null]}},
                                "17.json": {"name": "travel"}},
            "config_firewall_settings": {"status": false, "profile": "office"},
            "config_version": 1})");
    }
};

TEST_F(ImportTest, DocumentOfAnotherShapeRaisesBeforeAnythingIsDeleted) {
    storeEmptyProfile("1", "home");
    for (const char* const text :
         {"[1]", R"({"config_profiles": []})", R"({"config_profiles": "x"})"}) {
        EXPECT_THROW(FW::TARNFW_JSON_DB().importConfig(parseJson(text)), Json::Exception) << text;
        EXPECT_TRUE(FW::TARNFW_JSON_DB().profileExist("home")) << text;
    }
}

TEST_F(ImportTest, ReplacesProfilesAndSettings) {
    EXPECT_TRUE(store_.importConfig(configuration()));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("17.json", "3.json", "firewall_settings.json"));
    EXPECT_EQ(storedJson(fileOf("3")), configuration()["config_profiles"]["3.json"]);
    EXPECT_EQ(storedJson(fileOf("17")), configuration()["config_profiles"]["17.json"]);
    EXPECT_EQ(storedSettings(), configuration()["config_firewall_settings"]);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ImportTest, WritesDocumentsAsStyledText) {
    EXPECT_TRUE(store_.importConfig(configuration()));
    EXPECT_EQ(readFile(fileOf("17")), "{\n   \"name\" : \"travel\"\n}\n");
}

TEST_F(ImportTest, OldProfilesGoWithTheirLockFilesTheActiveOneIncluded) {
    std::vector<std::string> names;
    ASSERT_TRUE(store_.profileEnum(names));
    ASSERT_TRUE(fileExists(lockOf("1700000042")));
    ASSERT_TRUE(fileExists(lockOf("17")));
    EXPECT_TRUE(
        store_.importConfig(parseJson(R"({"config_profiles": {"3.json": {"name": "x"}}})")));
    EXPECT_FALSE(fileExists(fileOf("1700000042")));
    EXPECT_FALSE(fileExists(fileOf("17")));
    EXPECT_FALSE(fileExists(lockOf("1700000042")));
    EXPECT_FALSE(fileExists(lockOf("17")));
    EXPECT_TRUE(fileExists(fileOf("3")));
}

TEST_F(ImportTest, DocumentWithoutProfilesDeletesAllAndStillWritesTheSettings) {
    EXPECT_TRUE(store_.importConfig(
        parseJson(R"({"config_firewall_settings": {"status": false, "profile": "x"}})")));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("firewall_settings.json"));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "x"})"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ImportTest, DocumentWithoutAnythingDeletesAllProfilesAndKeepsTheSettings) {
    for (const char* nothing : {"{}", "null"}) {
        SCOPED_TRACE(nothing);
        writeFile(fileOf("17"), kAway);
        EXPECT_TRUE(store_.importConfig(parseJson(nothing)));
        EXPECT_THAT(filesIn(kProfileDir), ElementsAre("firewall_settings.json"));
        EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "home"})"));
    }
}

TEST_F(ImportTest, AnyVersionIsTaken) {
    for (const char* version : {"0", "2", "-1", "\"1\"", "null", "{}"}) {
        SCOPED_TRACE(version);
        Json::Value in = configuration();
        in["config_version"] = parseJson(version);
        in["config_profiles"]["3.json"]["version"] = version;
        EXPECT_TRUE(store_.importConfig(in));
        EXPECT_EQ(storedJson(fileOf("3"))["version"].asString(), version);
    }
}

TEST_F(ImportTest, SettingsAreMergedIntoThoseOfTheMachine) {
    writeFile(kSettingsFile, R"({"status": true, "profile": "home", "own": [1]})");
    EXPECT_TRUE(store_.importConfig(
        parseJson(R"({"config_firewall_settings": {"profile": "x", "new": 2}})")));
    EXPECT_EQ(storedSettings(),
              parseJson(R"({"status": true, "profile": "x", "own": [1], "new": 2})"));
}

TEST_F(ImportTest, MissingSettingsStartFromTheDefaults) {
    fs::remove(kSettingsFile);
    EXPECT_TRUE(
        store_.importConfig(parseJson(R"({"config_firewall_settings": {"status": true}})")));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "default"})"));
}

TEST_F(ImportTest, EmptyDirectoryIsLoggedAndNoFailure) {
    for (const std::string& file : filesIn(kProfileDir)) {
        fs::remove(kProfileDir + file);
    }
    EXPECT_TRUE(store_.importConfig(configuration()));
    EXPECT_THAT(log(), ElementsAre(kNoFiles, kNoIndex));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("17.json", "3.json", "firewall_settings.json"));
    EXPECT_EQ(storedSettings(), configuration()["config_firewall_settings"]);
}

// Deletion is by the profile's name: a later one would find the new file first.
TEST_F(ImportTest, OldProfilesAreDeletedBeforeNewOnesAreWritten) {
    EXPECT_TRUE(store_.importConfig(
        parseJson(R"({"config_profiles": {"0.json": {"name": "away", "new": true}}})")));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("0.json", "firewall_settings.json"));
    EXPECT_EQ(storedJson(fileOf("0")), parseJson(R"({"name": "away", "new": true})"));
}

// Only a profile written over the settings file shows it, since the settings are then merged into
// it.
TEST_F(ImportTest, SettingsAreWrittenAfterTheProfiles) {
    EXPECT_TRUE(store_.importConfig(parseJson(R"({
        "config_profiles": {"firewall_settings.json": {"status": true, "own": 1}},
        "config_firewall_settings": {"status": false, "profile": "x"}})")));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "x", "own": 1})"));
}

TEST_F(ImportTest, KeyWithoutExtensionIsWrittenAndInvisibleToTheStore) {
    EXPECT_TRUE(
        store_.importConfig(parseJson(R"({"config_profiles": {"plain": {"name": "hidden"}}})")));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("firewall_settings.json", "plain"));
    EXPECT_EQ(storedJson(kProfileDir + "plain"), parseJson(R"({"name": "hidden"})"));
    EXPECT_FALSE(store_.profileExist("hidden"));
    std::vector<std::string> names;
    EXPECT_TRUE(store_.profileEnum(names));
    EXPECT_THAT(names, IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

struct KeyCase {
    const char* name;
    const char* key;
    std::string path;
};

// A key is part of the path, unchanged.
const KeyCase kKeys[] = {
    {"Number", "1700000042.json", "/usr/tarn/etc/firewall.d/1700000042.json"},
    {"Text", "my profile.json", "/usr/tarn/etc/firewall.d/my profile.json"},
    {"TwoExtensions", "a.json.json", "/usr/tarn/etc/firewall.d/a.json.json"},
    {"OtherExtension", "1.JSON", "/usr/tarn/etc/firewall.d/1.JSON"},
    {"Hidden", ".test_home", "/usr/tarn/etc/firewall.d/.test_home"},
    {"Below", "below/1.json", "/usr/tarn/etc/firewall.d/below/1.json"},
    {"Above", "../1.json", "/usr/tarn/etc/1.json"},
    {"Bytes", "h\xc3\xb6me.json", "/usr/tarn/etc/firewall.d/h\xc3\xb6me.json"},
};

class ImportedKeyTest : public ConfigurationTest, public ::testing::WithParamInterface<KeyCase> {};

TEST_P(ImportedKeyTest, IsTheFileName) {
    fs::create_directories(kProfileDir + "below");
    Json::Value in;
    in["config_profiles"][GetParam().key] = parseJson(R"({"name": "p"})");
    EXPECT_TRUE(store_.importConfig(in));
    EXPECT_EQ(storedJson(GetParam().path), parseJson(R"({"name": "p"})"));
    EXPECT_THAT(log(), IsEmpty());
    fs::remove(GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(, ImportedKeyTest, ::testing::ValuesIn(kKeys),
                         [](const auto& c) { return std::string(c.param.name); });

TEST_F(ImportTest, DocumentsAreWrittenWhateverTheyAre) {
    for (const char* document : {"[1]", "null", "\"text\"", "5", R"({"name": 1, "rules": 2})"}) {
        SCOPED_TRACE(document);
        Json::Value in;
        in["config_profiles"]["3.json"] = parseJson(document);
        EXPECT_TRUE(store_.importConfig(in));
        EXPECT_EQ(storedJson(fileOf("3")), parseJson(document));
    }
}

TEST_F(ImportTest, ProfileThatCannotBeWrittenIsLoggedAndTheOthersAre) {
    blockWrite(fileOf("3"));
    Json::Value in = configuration();
    in["config_profiles"]["none/5.json"] = parseJson(R"({"name": "x"})");
    in["config_profiles"]["zoo.json"] = parseJson(R"({"name": "zoo"})");
    EXPECT_TRUE(store_.importConfig(in));
    EXPECT_THAT(log(),
                ElementsAre(notOpened(fileOf("3")), "err fwDB: Failed to jsonFileDump [3.json].",
                            notOpened(kProfileDir + "none/5.json"),
                            "err fwDB: Failed to jsonFileDump [none/5.json]."));
    EXPECT_THAT(filesIn(kProfileDir),
                ElementsAre("17.json", "3.json.tmp", "firewall_settings.json", "zoo.json"));
    EXPECT_EQ(storedJson(fileOf("17")), parseJson(R"({"name": "travel"})"));
    EXPECT_EQ(storedSettings(), in["config_firewall_settings"]);
}

TEST_F(ImportTest, ProfileThatCannotBeRenamedIntoPlaceIsLoggedAndTheOthersAreWritten) {
    fs::create_directories(kProfileDir + "plain");
    EXPECT_TRUE(store_.importConfig(
        parseJson(R"({"config_profiles": {"plain": {}, "zoo.json": {"name": "zoo"}}})")));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to rename to " + kProfileDir + "plain",
                                   "err fwDB: Failed to jsonFileDump [plain]."));
    EXPECT_EQ(storedJson(fileOf("zoo")), parseJson(R"({"name": "zoo"})"));
}

TEST_F(ImportTest, SettingsThatCannotBeWrittenAreTheFailure) {
    blockWrite(kSettingsFile);
    EXPECT_FALSE(store_.importConfig(configuration()));
    EXPECT_THAT(
        log(), ElementsAre(notOpened(kSettingsFile), "err fwDB: Falied to set firewall settings."));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": true, "profile": "home"})"));
    EXPECT_EQ(storedJson(fileOf("3")), configuration()["config_profiles"]["3.json"]);
    EXPECT_FALSE(fileExists(fileOf("1700000042")));
}

TEST_F(ImportTest, UnreadableSettingsAreTheFailureAndStay) {
    writeFile(kSettingsFile, "{");
    EXPECT_FALSE(store_.importConfig(configuration()));
    const Lines lines = log();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(Lines(lines.end() - 3, lines.end()),
              (Lines{notParsed(kSettingsFile), "err tarnFW: Falied to config.configGet()",
                     "err fwDB: Falied to set firewall settings."}));
    EXPECT_EQ(readFile(kSettingsFile), "{");
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("17.json", "3.json", "firewall_settings.json"));
}

TEST_F(ImportTest, FailedProfileAndFailedSettingsAreBothLogged) {
    blockWrite(fileOf("3"));
    blockWrite(kSettingsFile);
    EXPECT_FALSE(store_.importConfig(configuration()));
    EXPECT_THAT(
        log(), ElementsAre(notOpened(fileOf("3")), "err fwDB: Failed to jsonFileDump [3.json].",
                           notOpened(kSettingsFile), "err fwDB: Falied to set firewall settings."));
}

// The index lists one file for a name, and only what it lists is deleted.
TEST_F(ImportTest, FilesThatTheIndexDoesNotListStay) {
    writeFile(fileOf("18"), R"({"name": "away", "second": true})");
    writeFile(fileOf("19"), R"({"rules": null})");
    EXPECT_TRUE(store_.importConfig(Json::Value()));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("18.json", "19.json", "firewall_settings.json"));
}

TEST_F(ImportTest, NothingIsApplied) {
    EXPECT_TRUE(store_.importConfig(configuration()));
    EXPECT_THAT(platform_.executed(), IsEmpty());
    EXPECT_THAT(platform_.journalOf("insmod "), IsEmpty());
    EXPECT_THAT(platform_.journalOf("hook "), IsEmpty());
}

TEST_F(ImportTest, LockFileThatCannotBeOpenedRaisesTheLockError) {
    fs::create_directories(lockOf("3"));
    EXPECT_THROW((void)store_.importConfig(configuration()),
                 boost::interprocess::interprocess_exception);
    EXPECT_FALSE(fileExists(fileOf("1700000042")));
}

// ---- Export, then import ----

TEST_F(ImportTest, OfAnExportReproducesFileNamesAndContents) {
    writeFile(fileOf("a.b"), R"({"name": "dotted", "x": [true, -1, "\u00e4"]})");
    Json::Value exported;
    ASSERT_TRUE(store_.exportConfig(exported));
    const std::vector<std::string> files = filesIn(kProfileDir);
    std::vector<Json::Value> documents;
    for (const std::string& file : files) {
        documents.push_back(storedJson(kProfileDir + file));
    }

    // On the machine itself, and on one that has been configured differently since.
    for (const bool reconfigured : {false, true}) {
        SCOPED_TRACE(reconfigured);
        if (reconfigured) {
            fs::remove(fileOf("17"));
            writeFile(fileOf("5"), R"({"name": "office"})");
            writeFile(fileOf("a.b"), R"({"name": "renamed"})");
            storeSettings(false, "renamed");
        }
        EXPECT_TRUE(store_.importConfig(exported));
        EXPECT_EQ(filesIn(kProfileDir), files);
        for (std::size_t i = 0; i < files.size(); ++i) {
            EXPECT_EQ(storedJson(kProfileDir + files[i]), documents[i]) << files[i];
        }
    }
    EXPECT_THAT(log(), IsEmpty());

    Json::Value again;
    EXPECT_TRUE(store_.exportConfig(again));
    EXPECT_EQ(again, exported);
}

}  // namespace
