#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <json/json.h>

#include "library_test.h"
#include "log_lines.h"
#include "tarnfirewall/tarnFW.h"

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

const std::string kHomeFile = kProfileDir + "1.json";
const std::string kAwayFile = kProfileDir + "2.json";

// It keeps a store and nothing else, and no operation is virtual.
static_assert(sizeof(FW::TARNFW_PROFILE) == sizeof(FW::TARNFW_JSON_DB));
static_assert(!std::is_polymorphic_v<FW::TARNFW_PROFILE>);

class ProfileTest : public LibraryTest {
protected:
    // Two profiles, of which "home" is active while the firewall is off.
    ProfileTest() {
        storeEmptyProfile("1", "home");
        storeEmptyProfile("2", "away");
        storeSettings(false, "home");
    }

    std::vector<std::string> log() const { return logLines(platform_); }

    FW::TARNFW_PROFILE profiles_;
};

// ---- Forwarders ----

TEST_F(ProfileTest, EnumOfNamesAppendsTheStoresNames) {
    std::vector<std::string> names = {"present"};
    EXPECT_TRUE(profiles_.profileEnum(names));
    EXPECT_THAT(names, ElementsAre("present", "away", "home"));
}

TEST_F(ProfileTest, EnumOfProfilesFillsTheMap) {
    std::map<std::string, FW::FWPROFILE> found;
    EXPECT_TRUE(profiles_.profileEnum(found));
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found.at("home").name, "home");
    EXPECT_EQ(found.at("away").name, "away");
}

TEST_F(ProfileTest, EnumsFailAsTheStoreDoes) {
    fs::remove_all(kProfileDir);
    const std::vector<std::string> expected = {
        "err fwDB: Fail to read file from /usr/tarn/etc/firewall.d/",
        "err fwDB: Failed to create meta json from /usr/tarn/etc/firewall.d/"};
    std::vector<std::string> names;
    std::map<std::string, FW::FWPROFILE> found;

    EXPECT_FALSE(profiles_.profileEnum(names));
    EXPECT_EQ(log(), expected);
    platform_.clearLog();
    EXPECT_FALSE(profiles_.profileEnum(found));
    EXPECT_EQ(log(), expected);
}

TEST_F(ProfileTest, GetLoadsOneProfile) {
    FW::FWPROFILE stored;
    stored.name = "office";
    stored.rules["eth0"].resize(2);
    stored.rules["eth0"][1].name = "second";
    stored.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    storeProfile("3", stored);
    FW::FWPROFILE found;

    EXPECT_TRUE(profiles_.profileGet("office", found));

    EXPECT_EQ(found.name, "office");
    ASSERT_EQ(found.rules["eth0"].size(), 2u);
    EXPECT_EQ(found.rules["eth0"][1].name, "second");
    EXPECT_EQ(found.adapterPolicyMap, stored.adapterPolicyMap);
}

TEST_F(ProfileTest, GetOfAnUnknownProfileFailsAsTheStoreDoes) {
    FW::FWPROFILE found;
    EXPECT_FALSE(profiles_.profileGet("none", found));
    EXPECT_THAT(log(), ElementsAre("err fwDB: Failed to profileGet none due to not exist"));
}

TEST_F(ProfileTest, SetTakesFileAndContentFromItsTwoArguments) {
    FW::FWPROFILE profile;
    profile.name = "travel";
    profile.rules["eth0"].resize(1);
    EXPECT_TRUE(profiles_.profileSet("away", profile));
    EXPECT_EQ(storedJson(kAwayFile)["name"].asString(), "travel");
    EXPECT_EQ(storedJson(kAwayFile)["adapterPolicyMap"], parseJson(R"({"eth0": 0, "global": 2})"));
    EXPECT_EQ(storedJson(kHomeFile)["name"].asString(), "home");
}

TEST_F(ProfileTest, SetFailsAsTheStoreDoes) {
    const std::string before = readFile(kAwayFile);
    fs::create_directories(kAwayFile + ".tmp");
    EXPECT_FALSE(profiles_.profileSet("away", FW::FWPROFILE()));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to open json file " + kAwayFile + ".tmp",
                                   "err fwDB: Failed to profileDbDump()"));
    EXPECT_EQ(readFile(kAwayFile), before);
}

TEST_F(ProfileTest, ExistTellsStoredNames) {
    EXPECT_TRUE(profiles_.profileExist("home"));
    EXPECT_TRUE(profiles_.profileExist("away"));
    EXPECT_FALSE(profiles_.profileExist("1"));
    EXPECT_FALSE(profiles_.profileExist("Home"));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProfileTest, CreateStoresAnEmptyProfile) {
    EXPECT_TRUE(profiles_.profileCreate("office"));
    FW::FWPROFILE found;
    ASSERT_TRUE(profiles_.profileGet("office", found));
    EXPECT_EQ(found.name, "office");
    EXPECT_THAT(found.rules, IsEmpty());
    EXPECT_EQ(filesIn(kProfileDir).size(), 4u);
}

TEST_F(ProfileTest, CreateOfATakenNameFailsAsTheStoreDoes) {
    EXPECT_FALSE(profiles_.profileCreate("away"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: The profile away already exist"));
    EXPECT_EQ(filesIn(kProfileDir).size(), 3u);
}

TEST_F(ProfileTest, RenameTakesTheOldNameFirst) {
    EXPECT_TRUE(profiles_.profileRename("home", "house"));
    EXPECT_EQ(storedJson(kHomeFile)["name"].asString(), "house");
    EXPECT_EQ(storedSettings()["profile"].asString(), "house");
}

TEST_F(ProfileTest, RenameToATakenNameFailsAsTheStoreDoes) {
    EXPECT_FALSE(profiles_.profileRename("home", "away"));
    EXPECT_THAT(log(), ElementsAre("err fwDB: profile away already exist"));
    EXPECT_EQ(storedJson(kHomeFile)["name"].asString(), "home");
}

// ---- profileDelete ----

TEST_F(ProfileTest, DeleteRemovesAnotherProfileAndItsLockFile) {
    EXPECT_TRUE(profiles_.profileDelete("away"));
    EXPECT_FALSE(fileExists(kAwayFile));
    EXPECT_FALSE(fileExists(kLockDir + "2.json.lock"));
    EXPECT_TRUE(fileExists(kHomeFile));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProfileTest, DeleteOfAnUnknownNameSucceeds) {
    EXPECT_TRUE(profiles_.profileDelete("none"));
    EXPECT_THAT(filesIn(kProfileDir), ElementsAre("1.json", "2.json", "firewall_settings.json"));
}

class ActiveProfileTest : public ProfileTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ActiveProfileTest, IsNotDeleted) {
    storeSettings(GetParam(), "home");
    const std::string settings = readFile(kSettingsFile);
    EXPECT_FALSE(profiles_.profileDelete("home"));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: The profile home is used now so cannot remove"));
    EXPECT_TRUE(fileExists(kHomeFile));
    EXPECT_TRUE(profiles_.profileExist("home"));
    EXPECT_EQ(readFile(kSettingsFile), settings);
}

INSTANTIATE_TEST_SUITE_P(, ActiveProfileTest, ::testing::Bool(), [](const auto& c) {
    return c.param ? "WhileTheFirewallIsEnabled" : "WhileTheFirewallIsDisabled";
});

struct NameCase {
    const char* name;
    std::string stored;  // the name of another profile than the active "home"
};

const NameCase kOtherNames[] = {
    {"OtherCase", "Home"},
    {"Longer", "home "},
    {"Shorter", "hom"},
    {"OtherByte", "h\xc3\xb6me"},
};

class ComparedNameTest : public ProfileTest, public ::testing::WithParamInterface<NameCase> {};

TEST_P(ComparedNameTest, IsAnotherProfileAndIsDeleted) {
    storeEmptyProfile("3", GetParam().stored);
    EXPECT_TRUE(profiles_.profileDelete(GetParam().stored));
    EXPECT_FALSE(fileExists(kProfileDir + "3.json"));
    EXPECT_TRUE(fileExists(kHomeFile));
    EXPECT_THAT(log(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(, ComparedNameTest, ::testing::ValuesIn(kOtherNames),
                         [](const auto& c) { return std::string(c.param.name); });

// Equal only up to its zero byte, so not the active profile; and no profile has that name.
TEST_F(ProfileTest, DeleteComparesTheWholeLengthOfTheName) {
    EXPECT_TRUE(profiles_.profileDelete(std::string("home\0x", 6)));
    EXPECT_TRUE(fileExists(kHomeFile));
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProfileTest, MissingSettingsProtectTheProfileNamedDefault) {
    fs::remove(kSettingsFile);
    storeEmptyProfile("3", "default");
    EXPECT_FALSE(profiles_.profileDelete("default"));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: The profile default is used now so cannot remove"));
    EXPECT_TRUE(fileExists(kProfileDir + "3.json"));
    EXPECT_EQ(storedSettings(), parseJson(R"({"status": false, "profile": "default"})"));
    EXPECT_TRUE(profiles_.profileDelete("home"));
    EXPECT_FALSE(fileExists(kHomeFile));
}

TEST_F(ProfileTest, SettingsWithoutProfileProtectTheEmptyName) {
    writeFile(kSettingsFile, R"({"status": true})");
    storeEmptyProfile("3", "");
    EXPECT_FALSE(profiles_.profileDelete(""));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: The profile  is used now so cannot remove"));
    EXPECT_TRUE(fileExists(kProfileDir + "3.json"));
    EXPECT_TRUE(profiles_.profileDelete("home"));
}

TEST_F(ProfileTest, ActiveProfileThatIsANumberIsComparedAsText) {
    writeFile(kSettingsFile, R"({"profile": 17})");
    storeEmptyProfile("3", "17");
    EXPECT_FALSE(profiles_.profileDelete("17"));
    EXPECT_THAT(log(), ElementsAre("err tarnFW: The profile 17 is used now so cannot remove"));
    EXPECT_TRUE(fileExists(kProfileDir + "3.json"));
}

TEST_F(ProfileTest, UnreadableSettingsDeleteNothing) {
    writeFile(kSettingsFile, "{\"profile\": ");
    EXPECT_FALSE(profiles_.profileDelete("away"));
    EXPECT_THAT(log(), ElementsAre("err utils: Failed to parse Json value of " + kSettingsFile,
                                   "err tarnFW: Falied to config.configGet()"));
    EXPECT_THAT(filesIn(kProfileDir),
                UnorderedElementsAre("1.json", "2.json", "firewall_settings.json"));
    EXPECT_EQ(readFile(kSettingsFile), "{\"profile\": ");
}

TEST_F(ProfileTest, SettingsOfAnotherTypeRaiseTheJsonErrorAndDeleteNothing) {
    writeFile(kSettingsFile, R"({"profile": {"name": "home"}})");
    EXPECT_THROW((void)profiles_.profileDelete("away"), Json::Exception);
    EXPECT_TRUE(fileExists(kAwayFile));
    EXPECT_TRUE(fileExists(kHomeFile));
}

}  // namespace
