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
    for (
        const char* const text : {
            R"([])",
            R"({"v4": 1})",
            R"({"v4": ["*filter", "COMMIT"]})",
            R"({"v4": "*filter\n"})",
            R"({"v4": "*nat\nCOMMIT\n"})",
            R"({"v4": "*filter\nCOMMIT"})",
            R"({"v4": "*filter\nCOMMIT\n*nat\nCOMMIT\n"})",
            R"({"v4": "*filter\n\nCOMMIT\n"})",
            R"({"v4": "*filter\n:OUTPUT DROP [0:0]\nCOMMIT\n"})",
            R"({"v4": "*filter\n:OTHERS - [0:0]\nCOMMIT\n"})",
            R"({"v4": "*filter\n-A INPUT -j ACCEPT\nCOMMIT\n"})",
            R"({"v4": "*filter\n-A INPUT_FIREWALL -j DROP\nCOMMIT\n"})",
            R"({"v4": "*filter\n:INPUT_FIREWALL - [0:0]\n-F INPUT\nCOMMIT\n"})",
            R"({"v4": "*filter\n:INPUT_FIREWALL - [0:0]\n-A INPUT_FIREWALL -j DROP\u0000\nCOMMIT\n"})",
            R"({"v4": "*filter\n:INPUT_FIREWALL - [0:0]\n-A INPUT_FIREWALL -j DROPCOMMIT\n"})",
        }) {
        EXPECT_THROW((void)SavedRules::from(parsed(text)), Error) << text;
    }
}

}  // namespace
}  // namespace tarnfw
