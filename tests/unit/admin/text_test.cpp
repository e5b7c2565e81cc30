#include "tarnfwadmin/text.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tarnfw {
namespace {

TEST(NearestTest, FindsTypingErrorsAndNothingElse) {
    const std::vector<std::string> known = {"enable", "disable", "profile", "preview"};
    EXPECT_EQ(nearest("enabel", known), "enable");
    EXPECT_EQ(nearest("profiel", known), "profile");
    EXPECT_EQ(nearest("dissable", known), "disable");
    EXPECT_EQ(nearest("prof", known), "profile");
    EXPECT_EQ(nearest("pr", known), "") << "two begin with it";
    EXPECT_EQ(nearest("firewall", known), "");
    EXPECT_EQ(nearest("", known), "");
    EXPECT_EQ(nearest("enable", {}), "");
}

TEST(NearestAdapterTest, AnotherNumberIsAnotherAdapter) {
    const std::vector<std::string> known = {"enp3s0", "eth0", "global", "pppoe"};
    EXPECT_EQ(nearestAdapter("eht0", known), "eth0");
    EXPECT_EQ(nearestAdapter("ethh0", known), "eth0");
    EXPECT_EQ(nearestAdapter("eth", known), "eth0") << "the number is missing";
    EXPECT_EQ(nearestAdapter("emp3s0", known), "enp3s0");
    EXPECT_EQ(nearestAdapter("gloabl", known), "global");
    for (const char* const other : {"eth1", "eth10", "eth0.7", "enp3s1", "enp13s0"}) {
        EXPECT_EQ(nearestAdapter(other, known), "") << other;
        EXPECT_NE(nearest(other, known), "") << other << ": similar, but for the number";
    }
}

}  // namespace
}  // namespace tarnfw
