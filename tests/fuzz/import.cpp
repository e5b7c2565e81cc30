// Documents to import: what the check finds no error in can be stored, passes the check again as it
// is stored, and has no NUL in any text.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "tarnfirewall/fwDB.h"
#include "tarnfirewall/fwTypes.h"

#include "property.h"
#include "tarnfwadmin/documentFile.h"
#include "tarnfwadmin/exportCheck.h"
#include "tarnfwadmin/finding.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/profileCheck.h"
#include "tarnfwadmin/store.h"

namespace {

constexpr char kCatalogueDir[] = "/usr/tarn/etc/services.d/";

/// Whether a text or a key in the value holds a NUL.
bool holdsNul(const Json::Value& value) {
    if (value.isString()) {
        return value.asString().find('\0') != std::string::npos;
    }
    if (value.isObject()) {
        for (const std::string& name : value.getMemberNames()) {
            if (name.find('\0') != std::string::npos || holdsNul(value[name])) {
                return true;
            }
        }
    } else if (value.isArray()) {
        for (const Json::Value& entry : value) {
            if (holdsNul(entry)) {
                return true;
            }
        }
    }
    return false;
}

void checkStored(const Json::Value& document, tarnfw::Machine& machine) {
    FW::FWPROFILE profile;
    Json::Value stored;
    try {
        FW::TARNFW_JSON_DB().jsonToProfile(document, profile);
        FW::TARNFW_JSON_DB().profileToJson(profile, stored);
    } catch (const Json::Exception& error) {
        require(false, "a profile without errors can be stored", error.what());
    }
    for (const tarnfw::Finding& finding : tarnfw::checkProfile(stored, machine)) {
        require(!finding.isError, "what is stored has no errors either", finding.text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    std::filesystem::create_directories(kCatalogueDir);
    const std::string path = std::string(kCatalogueDir) + "some.json";
    std::ofstream(path) << R"([{"name": "ssh", "title": "SSH",
        "dst": {"protocol": "tcp", "ports": ["22"]}}])";
    (void)chmod(path.c_str(), S_IRUSR | S_IWUSR);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static tarnfw::Machine machine;
    const std::string text(reinterpret_cast<const char*>(data), size);
    Json::Value document;
    if (tarnfw::countErrors(tarnfw::parseDocument(text, document)) != 0) {
        return 0;
    }
    const tarnfw::ExportFindings findings = tarnfw::checkExport(document, machine);
    for (const auto* list : {&findings.document, &findings.profiles}) {
        for (const tarnfw::Finding& finding : *list) {
            require(!finding.text.empty(), "a finding has a text");
        }
    }
    if (tarnfw::countErrors(findings.document) != 0 ||
        tarnfw::countErrors(findings.profiles) != 0) {
        return 0;
    }
    const Json::Value& profiles = document[tarnfw::kConfigProfiles];
    require(!holdsNul(profiles), "no NUL in a profile that is imported", text);
    for (const std::string& file : profiles.getMemberNames()) {
        checkStored(profiles[file], machine);
    }
    return 0;
}
