/// Profiles to check, and a machine to check them on, for the tests of the check.
#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/profileCheck.h"

namespace tarnfw {

inline void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

inline Json::Value parsed(const std::string& text) {
    Json::Value value;
    std::string errors;
    const Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors))
        << text << errors;
    return value;
}

/// The members of `changes` put into `value`; a null takes the member away.
inline Json::Value changed(Json::Value value, const std::string& changes) {
    const Json::Value members = parsed(changes);
    for (const std::string& name : members.getMemberNames()) {
        if (members[name].isNull()) {
            value.removeMember(name);
        } else {
            value[name] = members[name];
        }
    }
    return value;
}

inline Json::Value rule(const std::string& changes = "{}") {
    return changed(parsed(R"({"adapterDirect": 1, "blLog": false,
        "chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL"], "enable": true, "ipDirect": 1,
        "ipGroup": 5, "ipList": [], "ipType": 2, "labelList": [], "name": "", "policy": 0,
        "portDirect": 0, "portGroup": 1, "portList": ["22"], "protocol": 1, "ruleIndex": 0,
        "table": "filter"})"),
                   changes);
}

/// A profile with these rules for "global".
inline Json::Value profile(const std::vector<Json::Value>& rules) {
    Json::Value document = parsed(R"({"name": "home", "adapterPolicyMap": {"global": 2}})");
    for (const Json::Value& one : rules) {
        document["rules"]["global"].append(one);
    }
    if (rules.empty()) {
        document["rules"] = Json::Value();
    }
    return document;
}

inline std::vector<std::string> linesOf(const Json::Value& document) {
    Machine machine;
    std::vector<std::string> lines;
    for (const Finding& finding : checkProfile(document, machine)) {
        lines.push_back(lineOf("home.json", finding));
    }
    return lines;
}

class ProfileCheckTest : public testing::Test {
protected:
    void SetUp() override {
        writeFile("/usr/tarn/etc.defaults/services.d/test.json",
                  R"([{"name": "ssh", "title": "SSH", "dst": {"protocol": "tcp", "ports": ["22"]}},
                      {"name": "nfs", "title": "NFS",
                       "dst": {"protocol": "tcp/udp", "ports": ["111", "2049"]}},
                      {"name": "vpn_server_pptp", "title": "PPTP",
                       "dst": {"protocol": "tcp", "ports": ["1723"]}},
                      {"name": "inner", "dst": {"protocol": "tcp", "ports": ["9"]}}])");
        // An adapter that is there without an interface: "wlan0", on a machine with wireless.
        writeFile("/etc.defaults/tarninfo.conf", "support_wireless=\"yes\"\n");
        writeFile("/usr/share/xt_geoip/DE.iv4", std::string(16, '\1'));
        writeFile("/usr/share/xt_geoip/DE.iv6", std::string(32, '\1'));
        writeFile("/usr/share/xt_geoip/FR.iv4", std::string(16, '\2'));
    }
};

}  // namespace tarnfw
