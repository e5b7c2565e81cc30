// Cases that fail in three ways, and one that is left out. unit.sandbox_main_test.failures runs
// them and expects each to be named: a case that fails must not pass, or stop the cases after it.
#include <gtest/gtest.h>

#include <cstdlib>

TEST(FailureTest, Fails) {
    EXPECT_EQ(1, 2);
}

TEST(FailureTest, Exits) {
    std::exit(3);
}

TEST(FailureTest, Dies) {
    std::abort();
}

TEST(FailureTest, IsLeftOut) {
    GTEST_SKIP();
}

TEST(FailureTest, PassesAfterThem) {
    EXPECT_EQ(1, 1);
}
