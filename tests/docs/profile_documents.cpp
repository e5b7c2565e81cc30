/// Writes profile files through the library, and reports which files it reads as a profile, for
/// profile_schema_test.
///
///   profile_documents write DIRECTORY   fills the store, and DIRECTORY with what the store never
///                                       makes of its own accord
///   profile_documents read FILE...      one line a file, "read" or "refused"; each of them is the
///                                       store's only one meanwhile, and read as profile "home"
#include <json/json.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "fake_platform.h"
#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/tarnFW.h"
#include "tarnfirewall/utils.h"

namespace fs = std::filesystem;

namespace {

const std::string kStore = "/usr/tarn/etc/firewall.d/";

void require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

/// Every field other than in a fresh rule.
FW::FWRULE unlikeFreshRule() {
    FW::FWRULE rule;
    rule.ruleID = 17;
    rule.enable = false;
    rule.adapterDirect = 0;
    rule.policy = FW::FW_POLICY_DENY;
    rule.blLog = true;
    rule.labelList = {"guests", "Gäste \"zweite\""};
    rule.name = "guests\tand\nothers";
    rule.table = "mangle";
    rule.chainList = {"INPUT_FIREWALL"};
    rule.ipType = 2;
    rule.ipDirect = 0;
    rule.ipGroup = 4;
    rule.ipList = {"10.0.0.1", "10.0.0.9"};
    rule.portDirect = 1;
    rule.portGroup = 1;
    rule.protocol = FW::FW_PORT_PROTOCOL_TCP_UDP;
    rule.portList = {"80", "6000-6010"};
    return rule;
}

/// One rule for each value of each code, and one without chains.
FW::FWPROFILE fullProfile() {
    FW::FWPROFILE profile;
    profile.name = "full";
    auto& list = profile.rules["eth0"];
    list.emplace_back();
    list.push_back(unlikeFreshRule());
    for (const std::int32_t ipGroup : {0, 1, 2, 3, 4, 5}) {
        list.emplace_back();
        list.back().ipGroup = ipGroup;
    }
    for (const std::int32_t portGroup : {0, 1, 2, 3}) {
        list.emplace_back();
        list.back().portGroup = portGroup;
    }
    for (const std::int32_t protocol : {1, 2, 3, 4, 32}) {
        list.emplace_back();
        list.back().protocol = protocol;
    }
    for (const std::int32_t ipType : {0, 1, 2}) {
        list.emplace_back();
        list.back().ipType = ipType;
    }
    list.emplace_back();
    list.back().policy = FW::FW_POLICY_NONE;
    list.emplace_back();
    list.back().chainList.clear();
    profile.rules["global"] = {FW::FWRULE()};
    profile.rules["vpn"];  // without rules: stored with a policy alone
    profile.adapterPolicyMap = {{"eth0", FW::FW_POLICY_DENY}, {"pppoe", FW::FW_POLICY_NONE}};
    return profile;
}

/// The store makes no first profile, so its file comes from outside, as on a new machine.
void writeFirstProfile() {
    FW::FWPROFILE profile;
    profile.name = "default";
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    require(FW::jsonFileDump(document, kStore + "1.json"), "cannot write the first profile");
}

void write(const std::string& directory) {
    fs::create_directories(kStore);
    writeFirstProfile();

    FW::TARNFW_PROFILE store;
    const FW::FWPROFILE full = fullProfile();
    require(store.profileCreate("empty"), "cannot create a profile");
    require(store.profileSet("full", full), "cannot store a profile");
    require(store.CreateTestProfile("full", full), "cannot store a test profile");
    require(store.profileAddServToReserve("global", "ssh", FW::FW_POLICY_ALLOW, false),
            "cannot reserve a service");
    require(store.profileCreate("old"), "cannot create another profile");
    require(store.profileRename("old", "new"), "cannot rename a profile");

    // As the conversion alone writes them: no rules, and no policies either.
    FW::FWPROFILE bare;
    bare.name = "bare";
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(bare, document);
    require(FW::jsonFileDump(document, directory + "/bare.json"), "cannot write a document");
}

bool readsAlone(const std::string& file) {
    fs::remove_all(kStore);
    fs::create_directories(kStore);
    fs::copy_file(file, kStore + "1.json");
    FW::FWPROFILE profile;
    return FW::TARNFW_JSON_DB().profileGet("home", profile);
}

int run(int argc, char** argv) {
    const FakePlatform platform;
    if (argc == 3 && std::strcmp(argv[1], "write") == 0) {
        write(argv[2]);
        return 0;
    }
    if (argc > 2 && std::strcmp(argv[1], "read") == 0) {
        for (int i = 2; i < argc; ++i) {
            std::puts(readsAlone(argv[i]) ? "read" : "refused");
        }
        return 0;
    }
    std::fprintf(stderr, "usage: profile_documents write DIRECTORY | read FILE...\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (access("/.tarn-sandbox", F_OK) != 0) {
        std::fprintf(stderr, "This writes to system paths. Run it through script/sandbox.\n");
        return 1;
    }
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "profile_documents: %s\n", error.what());
        return 1;
    }
}
