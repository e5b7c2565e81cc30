#include "files.h"

#include <json/json.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tarnfirewall/fwDB.h"

#include "profiles.h"

namespace fs = std::filesystem;

void requireSandbox() {
    if (access("/.tarn-sandbox", F_OK) != 0) {
        std::fprintf(stderr, "This writes to system paths. Run it through script/sandbox.\n");
        std::exit(1);
    }
}

void writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file.flush()) {
        std::fprintf(stderr, "Cannot write %s\n", path.c_str());
        std::exit(1);
    }
}

void letFilesAge() {
    timespec tick{};
    (void)clock_getres(CLOCK_REALTIME_COARSE, &tick);
    tick.tv_nsec *= 2;
    (void)nanosleep(&tick, nullptr);
}

std::vector<std::string> storeProfiles(int profiles, int rules) {
    fs::create_directories(kProfileDir);
    for (const auto& entry : fs::directory_iterator(kProfileDir)) {
        fs::remove_all(entry.path());
    }
    std::vector<std::string> texts;
    Json::Value settings;
    settings["status"] = true;
    settings["profile"] = "p0";
    texts.push_back(Json::StyledWriter().write(settings));
    writeFile(kSettingsFile, texts.back());
    for (int i = 0; i < profiles; ++i) {
        const std::string number = std::to_string(i);
        Json::Value document;
        FW::TARNFW_JSON_DB().profileToJson(makeProfile("p" + number, RuleKind::Plain, rules),
                                           document);
        texts.push_back(Json::StyledWriter().write(document));
        writeFile(kProfileDir + std::to_string(1700000000 + i) + ".json", texts.back());
    }
    letFilesAge();
    return texts;
}

void storeCountry(const std::string& country, int ranges) {
    std::string records;
    for (int i = 0; i < ranges; ++i) {
        const std::uint32_t first = static_cast<std::uint32_t>(i) << 12;
        const std::uint32_t last = first + 4095;
        records.append(reinterpret_cast<const char*>(&first), sizeof(first));
        records.append(reinterpret_cast<const char*>(&last), sizeof(last));
    }
    writeFile(kGeoipDir + country + ".iv4", records);
}
