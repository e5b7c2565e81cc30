#include "catalogue.h"

#include <glob.h>

#include <fstream>
#include <set>
#include <vector>

#include <json/json.h>

namespace tarnfw {
namespace {

// The catalogue finds a service by its name and lists none. These are the files that it comes from;
// what they name and it does not know is left out.
constexpr const char* kFiles[] = {
    "/usr/tarn/etc.defaults/services.d/*.json",
    "/usr/tarn/etc/services.d/*.json",
};

void addName(const Json::Value& entry, std::set<std::string>& names) {
    if (entry.isObject() && entry["name"].isString()) {
        names.insert(entry["name"].asString());
    }
}

void addNamesOf(const char* path, std::set<std::string>& names) {
    std::ifstream file(path, std::ios::in | std::ios::binary);
    Json::Value document;
    try {
        if (!Json::Reader().parse(file, document, /*collectComments=*/false)) {
            return;  // the catalogue has said so when it was loaded
        }
    } catch (const Json::Exception&) {
        return;  // nested too deeply
    }
    if (document.isArray()) {
        for (const Json::Value& entry : document) {
            addName(entry, names);
        }
    } else {
        addName(document, names);
    }
}

std::set<std::string> writtenNames() {
    std::set<std::string> names;
    for (const char* const pattern : kFiles) {
        glob_t found{};
        if (glob(pattern, 0, nullptr, &found) == 0) {
            for (std::size_t i = 0; i < found.gl_pathc; ++i) {
                addNamesOf(found.gl_pathv[i], names);
            }
        }
        globfree(&found);
    }
    return names;
}

}  // namespace

Catalogue::Catalogue() {
    TARNFW_SERVICE_LIST* list = nullptr;
    const int count = TARNFwServiceEnum(&list);
    list_.reset(list);
    if (count < 1) {
        return;
    }
    for (const std::string& name : writtenNames()) {
        const TARNFW_SERVICE* const service = TARNFWServiceFind(list, name.c_str());
        if (service != nullptr && service->title[0] != '\0') {
            services_[name] = service;
        }
    }
}

}  // namespace tarnfw
