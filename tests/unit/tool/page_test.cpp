// The report's page: names that would be markup, its policy, its parts.
#include "report/page.h"

#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "report/facts.h"
#include "report/pageParts.h"
#include "tarnfwadmin/ruleSyntax.h"

namespace tarnfw {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kHostile[] =
    R"(</script><script>alert(1)</script>"'><img src=x onerror=a>{{rules}})";

std::size_t countOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// Of a profile that has the text wherever a profile can have any.
std::string pageWith(const std::string& text) {
    FW::FWPROFILE profile;
    profile.name = text;
    FW::FWRULE rule = ruleFrom({"allow tcp 8080"}, {}, {});
    rule.name = text;
    rule.labelList = {text};
    profile.rules["eth0"] = {rule};
    profile.rules[text] = {rule, rule};
    profile.adapterPolicyMap[text] = FW::FW_POLICY_DENY;
    rule.portList = {text};
    profile.rules["eth1"] = {rule};
    rule.portList = {"1"};
    rule.ipGroup = FW::FW_IP_GROUP_SINGLE;
    rule.ipList = {text};
    profile.rules["eth1"].push_back(rule);
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const Meaning meaning(profile, environment);
    Json::Value facts = reportFacts(meaning);
    facts["changes"] = changeFacts(text, meaning, meaning);
    facts["changes"]["texts"].append(text);
    facts["changes"]["same"] = false;
    facts["findings"].append(text);
    facts["machine"] = text;
    facts["active"] = true;
    facts["enabled"] = true;
    facts["time"] = text;
    return reportPage(facts);
}

TEST(PageTest, TextsOfTheProfileAreNoMarkup) {
    const std::string page = pageWith(kHostile);
    EXPECT_EQ(countOf(page, "<script"), 1U);
    EXPECT_EQ(countOf(page, "</script"), 1U);
    EXPECT_EQ(countOf(page, "<img"), 0U);
    EXPECT_THAT(page, Not(HasSubstr("\"'>")));
    EXPECT_THAT(page,
                HasSubstr("&lt;/script&gt;&lt;script&gt;alert(1)&lt;/script&gt;&quot;&#39;&gt;"
                          "&lt;img src=x onerror=a&gt;{{rules}}"));
    // Each part of the page is there once.
    EXPECT_EQ(countOf(page, "id=\"rules\""), 1U);
}

TEST(PageTest, ALineOfEveryProfileMayShadowARule) {
    FW::FWPROFILE profile;
    profile.rules["lo"] = {ruleFrom({"deny tcp 22"}, {}, {})};
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow({"lo"}, "");
    Json::Value facts = reportFacts(Meaning(profile, environment));
    EXPECT_EQ(facts["rules"][0]["because"][0]["by"], "loopback");
    facts["machine"] = facts["time"] = "";
    facts["active"] = facts["enabled"] = Json::Value();
    EXPECT_THAT(reportPage(facts),
                HasSubstr("never takes effect: shadowed by a line of every profile<"));
}

TEST(PageTest, WhatATerminalWouldObeyIsReplaced) {
    const std::string page = pageWith("a\x1b[2J\x01\xffz");
    EXPECT_EQ(page.find('\x1b'), std::string::npos);
    EXPECT_EQ(page.find('\x01'), std::string::npos);
    EXPECT_EQ(page.find('\xff'), std::string::npos);
}

TEST(PageTest, NothingComesFromElsewhere) {
    const std::string page = pageWith("home");
    for (const char* const text :
         {"http:", "https:", "//cdn", "src=", "@import", "url(", "<link"}) {
        EXPECT_EQ(page.find(text), std::string::npos) << text;
    }
    EXPECT_THAT(page, HasSubstr("default-src 'none'; style-src 'sha256-"));
    EXPECT_EQ(page.find("unsafe"), std::string::npos);
    EXPECT_EQ(page.find(" style="), std::string::npos);
    EXPECT_EQ(page.find(" onclick="), std::string::npos);
}

TEST(PageTest, ThePartsDoNotEndTheirElements) {
    EXPECT_EQ(std::string(kPageStyle).find("</"), std::string::npos);
    EXPECT_EQ(std::string(kPageScript).find("</"), std::string::npos);
    EXPECT_EQ(std::string(kPageScript).find("<!--"), std::string::npos);
}

TEST(PageTest, RulesWithoutEffectNameThoseThatCoverThem) {
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.rules["eth0"] = {ruleFrom({"allow tcp 80-90"}, {}, {}),
                             ruleFrom({"deny tcp 85"}, {}, {})};
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::string page = reportPage(reportFacts(Meaning(profile, environment)));
    EXPECT_THAT(page, HasSubstr("never takes effect: shadowed by <a href=\"#rule-0-1\">rule 1 of "
                                "eth0</a>"));
    EXPECT_EQ(countOf(page, "id=\"rule-0-1\""), 1U);
    EXPECT_THAT(page, HasSubstr("2, 1 of them without effect"));
    EXPECT_EQ(page.find("id=\"changes\""), std::string::npos);
}

TEST(PageTest, DecidersThatSayTheSameAreOne) {
    FW::FWPROFILE profile;
    profile.name = "home";
    for (const char* const adapter : {"eth0", "eth1"}) {
        profile.rules[adapter] = {ruleFrom({"allow tcp 80"}, {}, {})};
        profile.adapterPolicyMap[adapter] = FW::FW_POLICY_DENY;
    }
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::string page = reportPage(reportFacts(Meaning(profile, environment)));
    EXPECT_THAT(page, HasSubstr("<ol><li><a href=\"#rule-0-1\">rule 1 of eth0</a>, "
                                "<a href=\"#rule-1-1\">rule 1 of eth1</a>"
                                "<span class=\"says\">: allow tcp 80"));
    EXPECT_EQ(countOf(page, "<h3>eth0 and eth1</h3>"), 1U);
}

TEST(PageTest, ListsRulesInTheOrderInWhichTheyAreTried) {
    FW::FWPROFILE profile;
    profile.name = "home";
    for (const char* const adapter : {"eth1", "global", "Wlan0"}) {
        profile.rules[adapter] = {ruleFrom({"allow tcp 80"}, {}, {})};
    }
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;  // has no rules
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::string page = reportPage(reportFacts(Meaning(profile, environment)));
    std::size_t before = 0;
    for (const char* const adapter : {"global", "Wlan0", "eth0", "eth1"}) {
        const std::size_t at = page.find("aria-label=\"Rules of " + std::string(adapter) + "\"");
        ASSERT_NE(at, std::string::npos) << adapter;
        EXPECT_LT(before, at) << adapter;
        before = at;
    }
}

TEST(PageTest, OfManyDecidersTheLastIsNamed) {
    FW::FWPROFILE profile;
    profile.name = "home";
    for (int i = 0; i < 12; ++i) {
        profile.rules["eth0"].push_back(
            ruleFrom({"allow tcp 80 to 10.0.0." + std::to_string(i)}, {}, {}));
    }
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::string page = reportPage(reportFacts(Meaning(profile, environment)));
    EXPECT_THAT(page, HasSubstr("rule 9 of eth0</a><span class=\"says\">: allow tcp 80 to 10.0.0.8 "
                                "(IPv4)</span></li><li>and others</li><li><a href=\"#rule-0-0\">"
                                "the default policy of eth0</a><span class=\"says\">: deny</span>"
                                "</li></ol>"));
}

/// As many rules as given, for networks and ports of their own.
FW::FWPROFILE mixedProfile(int rules) {
    FW::FWPROFILE profile;
    profile.name = "home";
    for (int i = 0; i < rules; ++i) {
        const std::string n = std::to_string(i % 250);
        const std::string words = std::string(i % 3 == 0 ? "deny" : "allow") +
                                  (i % 2 == 0 ? " tcp " : " udp ") + std::to_string(i * 7 + 1) +
                                  " from " + std::to_string(10 + i % 7) + "." + n + ".0.0/" +
                                  (i % 4 == 0 ? "16" : "24");
        profile.rules["eth0"].push_back(ruleFrom({words}, {}, {}));
    }
    profile.adapterPolicyMap["eth0"] = FW::FW_POLICY_DENY;
    return profile;
}

TEST(PageTest, ManyRulesMakeAPageThatATelephoneShows) {
    FW::FWPROFILE profile = mixedProfile(1500);
    profile.rules["eth0"].push_back(profile.rules["eth0"].front());  // has no effect
    profile.rules["eth1"] = profile.rules["eth0"];
    profile.adapterPolicyMap["eth1"] = FW::FW_POLICY_ALLOW;
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::string page = reportPage(reportFacts(Meaning(profile, environment)));
    EXPECT_LT(page.size(), 2000000U);
    EXPECT_GT(page.size(), 1000000U);  // as much as there may be
    EXPECT_THAT(page, HasSubstr("<p class=\"note left-out\">Left out of this page: "));
    EXPECT_THAT(page, HasSubstr(" rows and 48 smaller sets of senders. “tarnfw report --json” has "
                                "them."));
    EXPECT_THAT(page, HasSubstr(" rules. “tarnfw report --json” has them."));
    EXPECT_THAT(page, HasSubstr(">everything else</th>"));
    // Every link has its rule.
    std::set<std::string> missing;
    const std::string link = "href=\"#rule-";
    for (std::size_t at = page.find(link); at != std::string::npos; at = page.find(link, at + 1)) {
        const std::size_t id = at + link.size() - 5;
        missing.insert(page.substr(id, page.find('"', id) - id));
    }
    const std::string rule = " id=\"rule-";
    for (std::size_t at = page.find(rule); at != std::string::npos; at = page.find(rule, at + 1)) {
        const std::size_t id = at + rule.size() - 5;
        missing.erase(page.substr(id, page.find('"', id) - id));
    }
    EXPECT_EQ(missing, std::set<std::string>());
}

TEST(PageTest, OfFewRulesNothingIsLeftOut) {
    const FW::FWPROFILE profile = mixedProfile(11);
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    EXPECT_EQ(countOf(reportPage(reportFacts(Meaning(profile, environment))), "Left out"), 0U);
}

TEST(PageTest, RulesWithoutALineAndAbsentAdaptersAreNamed) {
    FW::FWPROFILE profile;
    profile.name = "home";
    profile.rules["eth0"] = {ruleFrom({"allow tcp 80"}, {}, {}),
                             ruleFrom({"allow tcp 81"}, {}, {})};
    profile.rules["eth0"][1].policy = FW::FW_POLICY_NONE;
    profile.rules["eth9"] = {ruleFrom({"allow tcp 82"}, {}, {})};
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_DENY}, {"eth9", FW::FW_POLICY_DENY}};
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersByName(profile, "");
    const std::string page = reportPage(reportFacts(Meaning(profile, environment), {}, {"eth9"}));
    EXPECT_THAT(page, HasSubstr("never takes effect<br>no line for the packet filter"));
    EXPECT_THAT(page, HasSubstr("3, 1 of them without effect"));
    EXPECT_THAT(page, HasSubstr("<p class=\"note\">eth9 has no interface now"));
    EXPECT_THAT(page, HasSubstr("<p class=\"note\">No interface now: eth9."));
    EXPECT_EQ(page.find("eth0 has no interface now"), std::string::npos);
}

}  // namespace
}  // namespace tarnfw
