#include "library_test.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tarnfirewall/fwDB.h"

namespace fs = std::filesystem;

bool fileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
    ASSERT_TRUE(file.flush()) << path;
}

std::vector<std::string> filesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

Json::Value parseJson(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::istringstream stream(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors))
        << errors << text;
    return value;
}

Json::Value storedJson(const std::string& path) {
    return parseJson(readFile(path));
}

LibraryTest::LibraryTest() {
    for (const std::string& directory : {kProfileDir, kGeoipDir}) {
        fs::create_directories(directory);
        for (const auto& entry : fs::directory_iterator(directory)) {
            fs::remove_all(entry.path());
        }
    }
    fs::remove_all(kLockDir);
    // Not whole trees: the checkout may be below /tmp.
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        std::error_code notEmpty;
        fs::remove(entry.path(), notEmpty);
    }
}

void LibraryTest::storeEmptyProfile(const std::string& stem, const std::string& name) {
    FW::FWPROFILE profile;
    profile.name = name;
    storeProfile(stem, profile);
}

void LibraryTest::storeProfile(const std::string& stem, const FW::FWPROFILE& profile) {
    Json::Value document;
    FW::TARNFW_JSON_DB().profileToJson(profile, document);
    writeFile(kProfileDir + stem + ".json", Json::StyledWriter().write(document));
}

void LibraryTest::storeSettings(bool status, const std::string& profile) {
    Json::Value settings;
    settings["status"] = status;
    settings["profile"] = profile;
    writeFile(kSettingsFile, Json::StyledWriter().write(settings));
}

std::vector<std::string> LibraryTest::errors() const {
    std::vector<std::string> texts;
    for (const LoggedLine& entry : platform_.log()) {
        std::string text = entry.source + ": " + entry.text;
        if (entry.priority != LOG_ERR || entry.line <= 0) {
            text += " [priority " + std::to_string(entry.priority) + ", line " +
                    std::to_string(entry.line) + "]";
        }
        texts.push_back(text);
    }
    return texts;
}
