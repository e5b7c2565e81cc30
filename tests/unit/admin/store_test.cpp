// A store that cannot be listed; the names of new profiles; the apply modes: their names, in the
// settings and out of them.
#include "tarnfwadmin/store.h"

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_testing.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

using StoreListingTest = StoreTest;

TEST_F(StoreListingTest, DirectoryThatIsMissingIsEmpty) {
    std::filesystem::remove_all(kProfileDir);
    EXPECT_TRUE(StoreSnapshot().empty());
    EXPECT_FALSE(StoreSnapshot().hasSettings());
}

TEST_F(StoreListingTest, DirectoryThatCannotBeReadIsNotEmpty) {
    const std::string directory = std::string(kProfileDir, std::strlen(kProfileDir) - 1);
    std::filesystem::remove_all(directory);
    writeFile(directory, "");
    const std::optional<Error> error = errorOf([] { (void)StoreSnapshot(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ErrorKind::kSystem);
    EXPECT_EQ(std::string(error->what()),
              std::string("cannot read the directory ") + kProfileDir + ": Not a directory");
}

TEST(ApplyModeTest, EachModeHasOneName) {
    EXPECT_STREQ(applyModeName(ApplyMode::kLines), "lines");
    EXPECT_STREQ(applyModeName(ApplyMode::kBatch), "batch");
    EXPECT_EQ(applyModeFrom("lines"), ApplyMode::kLines);
    EXPECT_EQ(applyModeFrom("batch"), ApplyMode::kBatch);
    EXPECT_THAT(applyModeNames(), testing::ElementsAre("lines", "batch"));
}

TEST(ApplyModeTest, OtherTextsAreNoMode) {
    for (const char* const text : {"", "Lines", "batch ", "line", "lines,batch"}) {
        EXPECT_EQ(applyModeFrom(text), std::nullopt) << text;
    }
}

using ApplyModeInTheStoreTest = StoreTest;

TEST_F(ApplyModeInTheStoreTest, IsLinesWithoutAKnownName) {
    EXPECT_EQ(StoreSnapshot().applyMode(), ApplyMode::kLines);
    for (const char* const apply : {R"("Batch")", R"("")", "null"}) {
        writeFile(kSettingsFile, std::string(R"({"profile": "home", "apply": )") + apply + "}");
        EXPECT_EQ(StoreSnapshot().applyMode(), ApplyMode::kLines) << apply;
        EXPECT_FALSE(StoreSnapshot().chosenApplyMode()) << apply;
    }
    writeFile(kSettingsFile, R"({"profile": "home", "apply": "batch"})");
    EXPECT_EQ(StoreSnapshot().applyMode(), ApplyMode::kBatch);
    writeFile(kSettingsFile, R"({"profile": "home", "apply": "lines"})");
    EXPECT_EQ(StoreSnapshot().chosenApplyMode(), ApplyMode::kLines);
}

using AppliesChangesTest = StoreTest;

TEST_F(AppliesChangesTest, OnlyWhereTheSettingsSayTrue) {
    EXPECT_FALSE(StoreSnapshot().appliesChanges());
    for (const char* const value : {"false", R"("true")", "1", "null", "[true]"}) {
        writeFile(kSettingsFile,
                  std::string(R"({"profile": "home", "applyChanges": )") + value + "}");
        EXPECT_FALSE(StoreSnapshot().appliesChanges()) << value;
    }
    writeFile(kSettingsFile, R"({"applyChanges": true, )");
    EXPECT_FALSE(StoreSnapshot().appliesChanges());

    writeSettings(true);
    StoreSession session(StoreSession::Access::kChange);
    session.setAppliesChanges();
    EXPECT_TRUE(session.snapshot().appliesChanges());
    EXPECT_TRUE(session.snapshot().firewallEnabled());
}

TEST(NewNameTest, IsPrintableAndNoPath) {
    for (const std::string& name :
         {std::string("home"), std::string("two words"), std::string("caf\xc3\xa9"),
          std::string("a.b"), std::string("-x"), std::string(100, 'x')}) {
        EXPECT_EQ(newNameError(name), "");
    }
    for (const std::string& name :
         {std::string(), std::string(".hidden"), std::string(".test_home"), std::string("bad/name"),
          std::string("two\nlines"), std::string("\x1b[31m"), std::string(101, 'x')}) {
        EXPECT_THAT(newNameError(name), testing::HasSubstr(" is not a name for a profile: "))
            << name;
    }
}

TEST_F(ApplyModeInTheStoreTest, IsSetBesideTheOtherSettings) {
    writeSettings(true);
    StoreSession session(StoreSession::Access::kChange);
    for (const ApplyMode mode : {ApplyMode::kBatch, ApplyMode::kLines}) {
        session.setApplyMode(mode);
        EXPECT_EQ(session.snapshot().applyMode(), mode);
        const Json::Value stored = parsed(contentOf(kSettingsFile));
        EXPECT_EQ(stored["apply"].asString(), applyModeName(mode));
        EXPECT_EQ(stored["profile"].asString(), "home");
        EXPECT_TRUE(stored["status"].asBool());
    }
}

}  // namespace
}  // namespace tarnfw
