// A store that cannot be listed; the apply modes: their names, in the settings and out of them.
#include "tarnfwadmin/store.h"

#include <sys/resource.h>
#include <unistd.h>

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
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const int next = dup(STDERR_FILENO);
    ASSERT_EQ(close(next), 0);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(next);  // no descriptor is left
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::optional<Error> error = errorOf([] { (void)StoreSnapshot(); });
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ErrorKind::kSystem);
    EXPECT_EQ(std::string(error->what()),
              std::string("cannot read the directory ") + kProfileDir + ": Too many open files");
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
    }
    writeFile(kSettingsFile, R"({"profile": "home", "apply": "batch"})");
    EXPECT_EQ(StoreSnapshot().applyMode(), ApplyMode::kBatch);
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
