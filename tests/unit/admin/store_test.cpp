// The apply modes: their names, in the settings and out of them.
#include "tarnfwadmin/store.h"

#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_testing.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

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
