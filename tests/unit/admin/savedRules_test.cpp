// SavedRules as texts; tests/kernel/scripts/saved_rules_go_back.sh has them in a kernel.
#include "tarnfwadmin/savedRules.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

SavedRules example() {
    FamilyRules v4;
    v4.policies = {{"FORWARD", "DROP"}, {"INPUT", "ACCEPT"}};
    v4.chains["INPUT_FIREWALL"] = {"-A INPUT_FIREWALL -i lo -j ACCEPT",
                                   "-A INPUT_FIREWALL -j LOG --log-prefix \"a b\""};
    v4.chains["FIREWALL_RELOADING"];
    return SavedRules({{"v4", v4}});
}

Json::Value parsed(const std::string& text) {
    Json::Value document;
    EXPECT_TRUE(parseAsStored(text, document));
    return document;
}

TEST(SavedRules, TextReplacesChainsAndSetsPolicies) {
    EXPECT_EQ(example().restoreText("v4"),
              "*filter\n"
              ":FORWARD DROP [0:0]\n"
              ":INPUT ACCEPT [0:0]\n"
              ":FIREWALL_RELOADING - [0:0]\n"
              ":INPUT_FIREWALL - [0:0]\n"
              "-A INPUT_FIREWALL -i lo -j ACCEPT\n"
              "-A INPUT_FIREWALL -j LOG --log-prefix \"a b\"\n"
              "COMMIT\n");
    EXPECT_EQ(example().restoreText("v6"), "");
}

TEST(SavedRules, TextWithoutPoliciesLeavesThemAlone) {
    EXPECT_THAT(example().withoutPolicies().restoreText("v4"),
                testing::Not(testing::HasSubstr("DROP")));
}

TEST(SavedRules, DocumentGivesTheSameRules) {
    EXPECT_EQ(SavedRules::from(parsed(documentText(example().document()))), example());
}

TEST(SavedRules, DocumentOfAnotherShapeIsRefused) {
    for (const char* const text : {
             "[]",
             R"({"v4": 1})",
             R"({"v4": ["*filter"]})",
             R"({"v4": ["*nat", "COMMIT"]})",
             R"({"v4": ["*filter", "COMMIT", "*nat", "COMMIT"]})",
             R"({"v4": ["*filter", ":OUTPUT DROP [0:0]", "COMMIT"]})",
             R"({"v4": ["*filter", ":OTHERS - [0:0]", "COMMIT"]})",
             R"({"v4": ["*filter", "-A INPUT -j ACCEPT", "COMMIT"]})",
             R"({"v4": ["*filter", "-A INPUT_FIREWALL -j DROP", "COMMIT"]})",
             R"({"v4": ["*filter", ":INPUT_FIREWALL - [0:0]", "-F INPUT", "COMMIT"]})",
             R"({"v4": ["*filter", ":INPUT_FIREWALL - [0:0]",
                        "-A INPUT_FIREWALL -j DROP\n-F INPUT", "COMMIT"]})",
         }) {
        EXPECT_THROW((void)SavedRules::from(parsed(text)), Error) << text;
    }
}

}  // namespace
}  // namespace tarnfw
