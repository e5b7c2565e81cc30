// The log of the tool, as LOG_PERROR prints it on a terminal.

#include <syslog.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfirewall/utils.h"

#include "process/heldLog.h"

// What <syslog.h> leads to where the C library is fortified.
extern "C" void __syslog_chk(int priority, int flag, const char* format, ...);  // NOLINT

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

class SystemLogTest : public ::testing::Test {
protected:
    SystemLogTest() {
        openlog("tarnfw", LOG_PERROR, LOG_USER);
        ::testing::internal::CaptureStderr();
    }
    ~SystemLogTest() override { closelog(); }

    static std::string printed() { return ::testing::internal::GetCapturedStderr(); }
};

TEST_F(SystemLogTest, WhatATerminalObeysIsReplaced) {
    syslog(LOG_ERR, "name %s of %d", "\x1b]0;T\x07 C\xc2\x9b B\xe2\x80\xae caf\xc3\xa9 \xff", 3);
    EXPECT_EQ(printed(), "tarnfw: name ?]0;T? C? B? caf\xc3\xa9 ? of 3\n");
}

TEST_F(SystemLogTest, FortifiedCallsToo) {
    __syslog_chk(LOG_ERR, 1, "name %s", "\x1b[31mRED");
    EXPECT_EQ(printed(), "tarnfw: name ?[31mRED\n");
}

TEST_F(SystemLogTest, ALineFeedAtTheEndIsTheLinesOwn) {
    syslog(LOG_ERR, "Failed to open file %s\n", "a\nb");
    EXPECT_EQ(printed(), "tarnfw: Failed to open file a?b\n");
}

TEST_F(SystemLogTest, LongLinesAreWhole) {
    const std::string name(100000, 'n');
    syslog(LOG_ERR, "%s!", name.c_str());
    EXPECT_THAT(printed(), EndsWith("nn!\n"));
}

TEST_F(SystemLogTest, HeldLinesComeWhenAskedForAndOnce) {
    tarnfw::holdLog();
    syslog(LOG_ERR, "File %s", "a\nb");
    syslog(LOG_ERR, "other");
    syslog(LOG_ERR, "File %s", "a\nb");
    EXPECT_EQ(printed(), "");

    ::testing::internal::CaptureStderr();
    tarnfw::printHeldLog();
    tarnfw::printHeldLog();
    EXPECT_EQ(printed(), "tarnfw: File a?b\ntarnfw: other\n");

    ::testing::internal::CaptureStderr();
    syslog(LOG_ERR, "inherited");
    tarnfw::printLogAtOnce(/*withNumber=*/false);
    syslog(LOG_ERR, "at once");
    tarnfw::printHeldLog();
    EXPECT_EQ(printed(), "tarnfw: at once\n");
}

TEST_F(SystemLogTest, HeldLinesHaveThePriorityOfTheMask) {
    tarnfw::holdLog();
    const int before = setlogmask(LOG_UPTO(LOG_WARNING));
    syslog(LOG_USER | LOG_WARNING, "warning");
    syslog(LOG_NOTICE, "notice");
    (void)setlogmask(before);
    tarnfw::printHeldLog();
    tarnfw::printLogAtOnce(/*withNumber=*/false);
    EXPECT_EQ(printed(), "tarnfw: warning\n");
}

// The library is a shared one, and logs names unchanged.
TEST_F(SystemLogTest, LinesOfTheLibraryToo) {
    Json::Value value;
    EXPECT_FALSE(FW::jsonFileLoad(value, "/none/\x1b[31m"));
    EXPECT_THAT(printed(), HasSubstr(" File /none/?[31m does not exist\n"));
}

}  // namespace
