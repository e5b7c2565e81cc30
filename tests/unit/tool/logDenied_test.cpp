// Which rules are the log of what a default policy denies.
#include "commands/logDenied.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

FW::FWRULE ruleOf(const std::string& words, const std::string& name = "log denied") {
    RuleOptions options;
    options.name = name;
    return ruleFrom({words}, options, {});
}

TEST(LogDeniedTest, ARuleForLessIsSomebodysOwn) {
    EXPECT_TRUE(isLogOfDenied(ruleOf("deny everything from anywhere, logged")));
    EXPECT_FALSE(isLogOfDenied(ruleOf("deny, logged", "denied")));
    for (const char* const words :
         {"allow, logged", "deny", "deny tcp 23, logged", "deny from 10.0.0.0/8, logged",
          "deny to 10.0.0.1, logged", "deny, outgoing, logged", "deny, logged (IPv6)"}) {
        EXPECT_FALSE(isLogOfDenied(ruleOf(words))) << words;
    }
}

TEST(LogDeniedTest, OnlyTheLogIsRemoved) {
    std::vector<FW::FWRULE> rules = {ruleOf("deny tcp 23 from 10.0.0.0/8, logged"),
                                     ruleOf("deny, logged")};
    EXPECT_THAT(positionsOfLogOfDenied(rules), testing::ElementsAre(2));
    EXPECT_EQ(lastPositionForNew(rules), 2U);
    EXPECT_TRUE(removeLogOfDenied(rules));
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(rules[0].ipGroup, FW::FW_IP_GROUP_NETWORK);
    EXPECT_FALSE(removeLogOfDenied(rules));
    EXPECT_EQ(lastPositionForNew(rules), 2U);
}

}  // namespace
}  // namespace tarnfw
