// The lines of a profile with the rules that they come from: together exactly its translation.
#include "tarnfwadmin/translation.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/algorithm/string/replace.hpp>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwIptables.h"

#include "tarnfwadmin/error.h"

namespace tarnfw {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

void writeFile(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

class TranslationTest : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories("/usr/tarn/etc.defaults");
        fs::copy(TARN_CHECKOUT "/platform/host/data/services.d",
                 "/usr/tarn/etc.defaults/services.d",
                 fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        // The one adapter that is there without an interface, and IPv6 for it through a tunnel.
        writeFile("/etc.defaults/tarninfo.conf", "support_wireless=\"yes\"\n");
        writeFile("/usr/tarn/sbin/tarnnetdtool",
                  "#!/bin/sh\n[ \"$2\" = wlan0 ] && set -- \"$1\" tun6in4\nprintf %s \"$2\"\n");
        ASSERT_EQ(chmod("/usr/tarn/sbin/tarnnetdtool", 0755), 0);
    }

    /// A profile document; "eth0" in it is the adapter that is there.
    static FW::FWPROFILE profileFrom(std::string text) {
        boost::replace_all(text, "\"eth0\"", "\"wlan0\"");
        Json::Value document;
        const Json::CharReaderBuilder builder;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &document, nullptr));
        FW::FWPROFILE profile;
        FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
        return profile;
    }

    static FW::FWPROFILE profileAt(const fs::path& path) {
        std::ifstream file(path, std::ios::binary);
        return profileFrom({std::istreambuf_iterator<char>(file), {}});
    }
};

std::vector<std::string> withFamilies(const std::vector<TracedLine>& traced) {
    std::vector<std::string> lines;
    for (const TracedLine& line : traced) {
        lines.push_back(line.family + " " + line.line);
    }
    return lines;
}

void append(const char* family, const Json::Value& list, std::vector<std::string>& lines) {
    for (const Json::Value& line : list) {
        lines.push_back(std::string(family) + " " + line.asString());
    }
}

/// The whole translation at once, in the order of running.
std::vector<std::string> translated(const FW::FWPROFILE& profile,
                                    ApplyMode mode = ApplyMode::kLines) {
    Json::Value commands;
    FW::TARNFW_IPTABLES_RULES translator;
    EXPECT_TRUE(mode == ApplyMode::kBatch
                    ? translator.fwRulesToBatchRules(true, profile.rules, profile.adapterPolicyMap,
                                                     commands, "")
                    : translator.fwRulesToIptablesRules(true, profile.rules,
                                                        profile.adapterPolicyMap, commands));
    std::vector<std::string> lines;
    for (const char* const family : {"v4", "v6"}) {
        append(family, commands[family]["global"], lines);
        for (const std::string& adapter : commands[family].getMemberNames()) {
            if (adapter != "global") {
                append(family, commands[family][adapter], lines);
            }
        }
    }
    return lines;
}

TEST_F(TranslationTest, AllLinesTogetherAreTheTranslation) {
    std::vector<fs::path> paths = {TARN_CHECKOUT
                                   "/tools/tarnfw/data/firewall_default_profile.json"};
    for (const auto& entry :
         fs::recursive_directory_iterator(TARN_CHECKOUT "/tests/kernel/cases")) {
        if (entry.path().filename() == "profile.json") {
            paths.push_back(entry.path());
        }
    }
    for (const auto& entry : fs::directory_iterator(TARN_CHECKOUT "/examples")) {
        if (entry.path().extension() == ".json") {
            paths.push_back(entry.path());
        }
    }
    EXPECT_GT(paths.size(), 20U);
    for (const fs::path& path : paths) {
        const FW::FWPROFILE profile = profileAt(path);
        EXPECT_EQ(withFamilies(tracedLines(profile)), translated(profile)) << path;
        EXPECT_EQ(withFamilies(tracedLines(profile, ApplyMode::kBatch)),
                  translated(profile, ApplyMode::kBatch))
            << path;
    }
}

// One rule more for every code, and adapters that sort around that of the tunnel.
constexpr char kProfile[] = R"({"name": "home", "adapterPolicyMap": {"eth0": 1, "global": 2},
    "rules": {
        "global": [{"enable": true, "table": "filter", "policy": 1, "ipType": 0, "ipGroup": 5,
                    "portGroup": 1, "portList": ["1"], "protocol": 1}],
        "eth0": [{"enable": false, "table": "filter", "ipType": 0, "ipGroup": 5, "portGroup": 3},
                 {"enable": true, "table": "filter", "policy": 0, "ipType": 1, "ipGroup": 5,
                  "portGroup": 1, "portList": ["2"], "protocol": 1, "adapterDirect": 1,
                  "blLog": true}]}})";

TEST_F(TranslationTest, EachLineNamesItsRule) {
    std::vector<std::string> found;
    for (const TracedLine& line : tracedLines(profileFrom(kProfile))) {
        if (line.line.find("INPUT_FIREWALL") != std::string::npos && !line.place.adapter.empty()) {
            found.push_back(line.family + " " + placeText(line.place) + ": " + line.line);
        }
    }
    const std::string start = "-t filter -A INPUT_FIREWALL ";
    EXPECT_THAT(
        found, ElementsAre("v4 rule 1 of global: " + start + "-p tcp --dport 1 -j DROP",
                           "v4 the default policy of wlan0: " + start + "-i wlan0 -j DROP",
                           "v6 rule 2 of wlan0: " + start + "-i tun6in4 -p tcp --dport 2 -j LOG",
                           "v6 rule 2 of wlan0: " + start + "-i tun6in4 -p tcp --dport 2 -j RETURN",
                           "v6 the default policy of wlan0: " + start + "-i tun6in4 -j DROP",
                           "v6 rule 2 of wlan0: " + start + "-i wlan0 -p tcp --dport 2 -j LOG",
                           "v6 rule 2 of wlan0: " + start + "-i wlan0 -p tcp --dport 2 -j RETURN",
                           "v6 the default policy of wlan0: " + start + "-i wlan0 -j DROP"));
    EXPECT_EQ(withFamilies(tracedLines(profileFrom(kProfile))), translated(profileFrom(kProfile)));
}

TEST_F(TranslationTest, ARuleThatCannotBeTranslatedIsNamed) {
    FW::FWPROFILE profile = profileFrom(kProfile);
    profile.rules["wlan0"][1].policy = static_cast<FW::FW_POLICY>(7);
    try {
        (void)tracedLines(profile);
        FAIL() << "no failure";
    } catch (const Error& failure) {
        EXPECT_STREQ(failure.what(),
                     "rule 2 of wlan0 cannot be translated, and with it the whole profile");
    }
}

TEST(ChainOfALine, HasTheTableFilterWhereTheLineNamesNone) {
    EXPECT_EQ(chainOf("-A INPUT_FIREWALL -i lo -j ACCEPT"),
              TableAndChain("filter", "INPUT_FIREWALL"));
    EXPECT_EQ(chainOf("-t mangle -A PREROUTING -j DROP"), TableAndChain("mangle", "PREROUTING"));
    EXPECT_TRUE(isFirewallChain({"filter", "FORWARD_FIREWALL"}));
    EXPECT_FALSE(isFirewallChain({"filter", "INPUT"}));
    EXPECT_FALSE(isFirewallChain({"mangle", "INPUT_FIREWALL"}));
}

}  // namespace
}  // namespace tarnfw
