/// The tests' main: they write to fixed system paths, so they run in script/sandbox or not at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
    ::testing::InitGoogleMock(&argc, argv);
    // The sandbox's own root has this file; a machine has not. Listing the cases is harmless.
    if (!::testing::GTEST_FLAG(list_tests) && access("/.tarn-sandbox", F_OK) != 0) {
        std::fprintf(stderr,
                     "These tests write to system paths. Run them through script/sandbox.\n");
        return 1;
    }
    return RUN_ALL_TESTS();
}
