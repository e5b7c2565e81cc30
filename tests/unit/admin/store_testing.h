/// A store with the profile "home", for tests of what reads and changes it.
#pragma once

#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

#include <json/json.h>

#include "profileCheck_testing.h"
#include "tarnfwadmin/error.h"
#include "tarnfwadmin/store.h"

namespace tarnfw {

inline const std::string kHomeFile = std::string(kProfileDir) + "home.json";

inline void writeDocument(const std::string& path, const Json::Value& document) {
    writeFile(path, Json::writeString(Json::StreamWriterBuilder(), document));
}

inline std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Settings with "home" as the active profile.
inline void writeSettings(bool enabled) {
    Json::Value settings;
    settings["profile"] = "home";
    settings["status"] = enabled;
    writeDocument(kSettingsFile, settings);
}

/// What `step` throws; nothing when it throws no Error.
inline std::optional<Error> errorOf(const std::function<void()>& step) {
    try {
        step();
    } catch (const Error& error) {
        return error;
    }
    return std::nullopt;
}

/// Expects `step` to fail with this kind and text.
inline void expectError(ErrorKind kind, const std::string& text,
                        const std::function<void()>& step) {
    const std::optional<Error> error = errorOf(step);
    ASSERT_TRUE(error) << "expected: " << text;
    EXPECT_EQ(error->kind(), kind) << error->what();
    EXPECT_EQ(std::string(error->what()), text);
}

/// A store with a valid profile "home" of two rules, which is active, and the firewall disabled.
class StoreTest : public ProfileCheckTest {
protected:
    void SetUp() override {
        ProfileCheckTest::SetUp();
        writeDocument(kHomeFile, profile({rule(), rule(R"({"portList": ["23"]})")}));
        writeSettings(false);
    }
};

}  // namespace tarnfw
