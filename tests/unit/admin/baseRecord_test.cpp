// The record of "base up"; tests/kernel/scripts/base_filter_puts_policies_back.sh has its use.
#include "tarnfwadmin/baseRecord.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store_testing.h"

namespace tarnfw {
namespace {

using testing::IsEmpty;
using testing::StartsWith;

class BaseRecordTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        std::filesystem::create_directories("/run/tarn");
    }
    void TearDown() override { std::filesystem::remove_all(kBaseRecordFile); }
};

BaseRecord example() {
    BaseRecord record;
    record["v4"].added = {{"INPUT_FIREWALL"}, {{"INPUT", "INPUT_FIREWALL"}}};
    record["v4"].policies = {{"FORWARD", "DROP"}, {"INPUT", "ACCEPT"}};
    record["v6"];
    return record;
}

TEST_F(BaseRecordTest, LoadGivesWhatWasStored) {
    storeBaseRecord(example());

    EXPECT_EQ(loadBaseRecord(), example());
    struct stat status {};
    ASSERT_EQ(stat(kBaseRecordFile, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(BaseRecordTest, RecordOfAnEarlierReleaseIsRead) {
    writeFile(kBaseRecordFile,
              R"({"v4": {"chains": ["INPUT_FIREWALL"], "jumps": [["INPUT", "INPUT_FIREWALL"]],
                         "policies": {"FORWARD": "DROP", "INPUT": "ACCEPT"}},
                  "v6": null})");

    EXPECT_EQ(loadBaseRecord(), example());
}

TEST_F(BaseRecordTest, PartsAreAddedOnce) {
    FamilyBaseRecord family = example()["v4"];

    family.add({{"INPUT_FIREWALL", "FORWARD_FIREWALL"}, {{"INPUT", "INPUT_FIREWALL"}}});

    EXPECT_EQ(describe(family.added),
              "chains INPUT_FIREWALL, FORWARD_FIREWALL; jumps INPUT -> INPUT_FIREWALL");
}

TEST_F(BaseRecordTest, WithoutAFileItIsEmpty) {
    EXPECT_THAT(loadBaseRecord(), IsEmpty());
    ASSERT_EQ(rmdir("/run/tarn"), 0);
    EXPECT_THAT(loadBaseRecord(), IsEmpty());
}

// Not empty: whoever took it for that would replace it.
TEST_F(BaseRecordTest, FileThatCannotBeReadIsAnError) {
    const std::string cannot = std::string("cannot read ") + kBaseRecordFile + ": ";

    std::filesystem::create_symlink(kBaseRecordFile, kBaseRecordFile);
    expectError(ErrorKind::kSystem, cannot + "Too many levels of symbolic links",
                [] { (void)loadBaseRecord(); });
    std::filesystem::remove(kBaseRecordFile);

    std::filesystem::create_directory(kBaseRecordFile);
    expectError(ErrorKind::kSystem, cannot + "Is a directory", [] { (void)loadBaseRecord(); });
    std::filesystem::remove(kBaseRecordFile);

    ASSERT_EQ(rmdir("/run/tarn"), 0);
    writeFile("/run/tarn", "");
    expectError(ErrorKind::kSystem, cannot + "Not a directory", [] { (void)loadBaseRecord(); });
    std::filesystem::remove("/run/tarn");
    std::filesystem::create_directory("/run/tarn");
}

TEST_F(BaseRecordTest, DamagedFileIsAnError) {
    for (const char* const text : {
             "",
             "{",
             "[]",
             R"({"v4": 1})",
             R"({"v4": {"chains": "INPUT_FIREWALL"}})",
             R"({"v4": {"chains": [1]}})",
             R"({"v4": {"jumps": [["INPUT"]]}})",
             R"({"v4": {"jumps": ["INPUT"]}})",
             R"({"v4": {"policies": ["DROP"]}})",
             R"({"v4": {"policies": {"INPUT": true}}})",
         }) {
        writeFile(kBaseRecordFile, text);
        const std::optional<Error> error = errorOf([] { (void)loadBaseRecord(); });
        ASSERT_TRUE(error) << text;
        EXPECT_EQ(error->kind(), ErrorKind::kSystem) << text;
        EXPECT_THAT(error->what(), StartsWith(std::string("cannot read ") + kBaseRecordFile));
    }
}

// They only look, and a reload is not refused for it.
TEST_F(BaseRecordTest, PoliciesOfARecordThatCannotBeReadAreNotOpened) {
    RuleListing listing;
    listing.policies = {{"FORWARD", "ACCEPT"}, {"INPUT", "ACCEPT"}};
    storeBaseRecord(example());
    EXPECT_THAT(openedPolicies("v4", listing), testing::ElementsAre("FORWARD"));
    EXPECT_THAT(openedPolicies("v6", listing), IsEmpty());

    writeFile(kBaseRecordFile, "{");
    EXPECT_THAT(openedPolicies("v4", listing), IsEmpty());
}

}  // namespace
}  // namespace tarnfw
