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

}  // namespace
}  // namespace tarnfw
