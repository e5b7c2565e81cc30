// Changes of a stored profile: what is stored, and that nothing is when a step fails.
#include "tarnfwadmin/ruleChange.h"

#include <string>

#include <gtest/gtest.h>

#include "store_testing.h"
#include "tarnfwadmin/machine.h"

namespace tarnfw {
namespace {

FW::FWRULE portRule(const std::string& port) {
    FW::FWRULE rule;
    rule.enable = true;
    rule.ipGroup = FW::FW_IP_GROUP_ANY;
    rule.ipType = FW::FW_IP_TYPE_BOTH;
    rule.portGroup = FW::FW_PORT_GROUP_PORTS;
    rule.protocol = FW::FW_PORT_PROTOCOL_TCP;
    rule.portList = {port};
    return rule;
}

void acceptAll(const FW::FWPROFILE& /*profile*/) {}

void editNothing(FW::FWPROFILE& /*profile*/) {}

class RuleChangeTest : public StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        before_ = contentOf(kHomeFile);
    }

    /// The ports of the stored rules of an adapter: "22 23".
    static std::string storedPorts(const std::string& adapter) {
        std::string ports;
        const Json::Value stored = parsed(contentOf(StoreSnapshot().pathOf("home")));
        for (const Json::Value& rule : stored["rules"][adapter]) {
            ports += (ports.empty() ? "" : " ") + rule["portList"][0].asString();
        }
        return ports;
    }

    std::string before_;
};

// ---- changeProfile() ----------------------------------------------------------------------------

TEST_F(RuleChangeTest, StoresWhatTheEditMade) {
    StoreSession session(StoreSession::Access::kChange);
    std::size_t accepted = 0;
    const FW::FWPROFILE changed = changeProfile(
        session, "home", "wlan0",
        [](FW::FWPROFILE& profile) { profile.rules["wlan0"] = {portRule("80")}; },
        [&](const FW::FWPROFILE& profile) {
            accepted = profile.rules.at("wlan0").size();
            EXPECT_EQ(contentOf(kHomeFile), before_) << "stored before it was accepted";
        });
    EXPECT_EQ(accepted, 1U);
    EXPECT_EQ(changed.rules.at("wlan0").size(), 1U);
    EXPECT_EQ(storedPorts("wlan0"), "80");
    EXPECT_EQ(storedPorts("global"), "22 23");
    EXPECT_EQ(session.snapshot().profile("home").rules.count("wlan0"), 1U);
}

TEST_F(RuleChangeTest, AnEmptyNameIsTheActiveProfile) {
    StoreSession session(StoreSession::Access::kChange);
    const auto removeFirst = [](FW::FWPROFILE& profile) {
        profile.rules["global"].erase(profile.rules["global"].begin());
    };
    EXPECT_EQ(changeProfile(session, "", "global", removeFirst, acceptAll).name, "home");
    EXPECT_EQ(storedPorts("global"), "23");
}

TEST_F(RuleChangeTest, WhatAStepThrowsLeavesTheStore) {
    StoreSession session(StoreSession::Access::kChange);
    const auto edit = [](FW::FWPROFILE& profile) { profile.rules["global"].clear(); };
    expectError(ErrorKind::kDeclined, "no", [&] {
        changeProfile(session, "home", "global", edit,
                      [&](const FW::FWPROFILE&) { throw Error(ErrorKind::kDeclined, "no"); });
    });
    bool asked = false;
    expectError(ErrorKind::kDeclined, "no", [&] {
        changeProfile(
            session, "home", "global",
            [&](FW::FWPROFILE&) { throw Error(ErrorKind::kDeclined, "no"); },
            [&](const FW::FWPROFILE&) { asked = true; });
    });
    EXPECT_FALSE(asked);
    EXPECT_EQ(contentOf(kHomeFile), before_);
    EXPECT_EQ(session.snapshot().profile("home").rules.at("global").size(), 2U);
}

TEST_F(RuleChangeTest, NeedsAProfileAndANameOfAnAdapter) {
    Json::Value document = profile({rule()});
    document["rules"]["eth7"].append(rule());
    document["rules"]["a/b"].append(rule());
    writeDocument(kHomeFile, document);
    StoreSession session(StoreSession::Access::kChange);
    bool edited = false;
    const auto changed = [&](const char* name, const char* adapter) {
        return errorOf([&] {
            changeProfile(
                session, name, adapter, [&](FW::FWPROFILE&) { edited = true; }, acceptAll);
        });
    };
    EXPECT_EQ(changed("away", "global")->kind(), ErrorKind::kNotFound);
    EXPECT_EQ(changed("home", "ppp0")->kind(), ErrorKind::kUnusable);
    EXPECT_EQ(changed("home", "a/b")->kind(), ErrorKind::kUnusable);
    EXPECT_FALSE(edited);
    EXPECT_FALSE(changed("home", "eth7")) << "the profile has it";
    EXPECT_TRUE(edited);
    EXPECT_FALSE(changed("home", "eth6")) << "it may come later";
    EXPECT_FALSE(changed("home", "lo")) << "it has no effect, which check says";
}

TEST_F(RuleChangeTest, WhatIsNotFoundOnAnUnknownAdapterIsTheAdapter) {
    StoreSession session(StoreSession::Access::kChange);
    const auto findNothing = [](FW::FWPROFILE&) {
        throw Error(ErrorKind::kNotFound, "there is no rule 1");
    };
    const auto change = [&](const char* adapter) {
        return std::string(errorOf([&] {
                               changeProfile(session, "home", adapter, findNothing, acceptAll);
                           })->what());
    };
    EXPECT_EQ(change("global"), "there is no rule 1");
    EXPECT_EQ(change("gobal").rfind("there is no adapter \"gobal\"; did you mean \"global\"?", 0),
              0U);
}

TEST_F(RuleChangeTest, NeedsASessionThatFindsTheProfileWhole) {
    writeFile(kHomeFile, "{\"name\": \"home\"");
    StoreSession session(StoreSession::Access::kChange);
    EXPECT_EQ(
        errorOf([&] { changeProfile(session, "home", "global", editNothing, acceptAll); })->kind(),
        ErrorKind::kNotFound);
    EXPECT_EQ(contentOf(kHomeFile), "{\"name\": \"home\"");
}

// ---- addRule() ----------------------------------------------------------------------------------

TEST_F(RuleChangeTest, AddsTheRuleAsTheLast) {
    StoreSession session(StoreSession::Access::kChange);
    Machine machine;
    EXPECT_EQ(placeText(addRule(session, "home", "global", portRule("80"), machine)),
              "rule 3 of global");
    EXPECT_EQ(placeText(addRule(session, "", "wlan0", portRule("81"), machine)), "rule 1 of wlan0");
    EXPECT_EQ(storedPorts("global"), "22 23 80");
    EXPECT_EQ(storedPorts("wlan0"), "81");
}

TEST_F(RuleChangeTest, AnInvalidRuleIsNotStored) {
    StoreSession session(StoreSession::Access::kChange);
    Machine machine;
    const auto error =
        errorOf([&] { addRule(session, "home", "global", portRule("99999"), machine); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ErrorKind::kInvalid);
    EXPECT_EQ(std::string(error->what()),
              "rule 3 of global: portList entry 1: \"99999\" is not a port (0-65535) or a range of "
              "ports (6000-6010); profile \"home\" has 1 error");
    ASSERT_TRUE(error->place().rule);
    EXPECT_EQ(placeText(*error->place().rule), "rule 3 of global");
    EXPECT_EQ(contentOf(kHomeFile), before_);
}

TEST_F(RuleChangeTest, AnErrorThatWasThereBeforeStopsItToo) {
    writeDocument(kHomeFile,
                  profile({rule(R"({"portList": ["x"]})"), rule(R"({"portList": ["y"]})")}));
    const std::string before = contentOf(kHomeFile);
    StoreSession session(StoreSession::Access::kChange);
    Machine machine;
    expectError(ErrorKind::kInvalid,
                "rule 1 of global: portList entry 1: \"x\" is not a port (0-65535) or a range of "
                "ports (6000-6010); profile \"home\" has 2 errors, this is the first",
                [&] { addRule(session, "home", "global", portRule("80"), machine); });
    EXPECT_EQ(contentOf(kHomeFile), before);
}

}  // namespace
}  // namespace tarnfw
