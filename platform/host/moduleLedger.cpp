#include "moduleLedger.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include <json/json.h>

#include "hostLog.h"

namespace host {

namespace {

constexpr char kSource[] = "tarnkm";
constexpr char kSuffix[] = ".ko";

// The document has two levels and a list.
constexpr int kMostLevels = 8;

std::vector<std::string> namesOf(const std::vector<std::string>& fileNames) {
    std::vector<std::string> names;
    for (const std::string& fileName : fileNames) {
        std::string name = moduleName(fileName);
        if (!name.empty()) {
            names.push_back(std::move(name));
        }
    }
    return names;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// Removes a module without users from the kernel and from the ledger. 0 or an errno.
int release(const ModuleKernel& kernel, ModuleLedger& ledger, ModuleLedger::iterator entry) {
    const std::string& name = entry->first;
    if (entry->second.inserted && kernel.state(name) == ModuleState::Present) {
        const int error = kernel.remove(name);
        if (error == EWOULDBLOCK || error == EBUSY) {
            // Its entry stays too: the module was still inserted through here.
            HOST_LOG_NOTICE("The module %s is in use and stays", name.c_str());
            return 0;
        }
        if (error != 0 && error != ENOENT) {
            HOST_LOG_ERR("Cannot remove the module %s: %s", name.c_str(), strerror(error));
            return error;
        }
    }
    ledger.erase(entry);
    return 0;
}

bool parseUse(const Json::Value& value, ModuleUse& use) {
    if (!value.isObject() || !value["inserted"].isBool() || !value["services"].isArray()) {
        return false;
    }
    use.inserted = value["inserted"].asBool();
    for (const Json::Value& service : value["services"]) {
        if (!service.isString()) {
            return false;
        }
        use.services.insert(service.asString());
    }
    return true;
}

}  // namespace

std::string moduleName(const std::string& fileName) {
    std::string name = fileName;
    const std::size_t suffix = sizeof kSuffix - 1;
    if (name.size() >= suffix && name.compare(name.size() - suffix, suffix, kSuffix) == 0) {
        name.erase(name.size() - suffix);
    }
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

int insertModules(const ModuleKernel& kernel, const std::string& service,
                  const std::vector<std::string>& fileNames, ModuleLedger& ledger) {
    const std::vector<std::string> names = namesOf(fileNames);
    // Queried before anything is inserted: a module that is inserted as a dependency of another one
    // was inserted through here as well.
    std::map<std::string, ModuleState> before;
    for (const std::string& name : names) {
        before.emplace(name, kernel.state(name));
    }
    std::vector<std::string> unknown;
    int error = 0;
    for (const std::string& name : names) {
        ModuleState& state = before[name];
        if (state == ModuleState::Unknown) {
            unknown.push_back(name);
            continue;
        }
        if (state == ModuleState::BuiltIn) {
            continue;
        }
        if (state == ModuleState::Absent) {
            error = kernel.insert(name);
            if (error != 0) {
                HOST_LOG_ERR("Cannot load the module %s for %s: %s", name.c_str(), service.c_str(),
                             strerror(error));
                break;
            }
        }
        ModuleUse& use = ledger[name];
        use.inserted = use.inserted || state == ModuleState::Absent;
        use.services.insert(service);
        state = ModuleState::Present;
    }
    if (!unknown.empty()) {
        HOST_LOG_WARNING("This kernel does not have the modules: %s", joined(unknown).c_str());
    }
    return error;
}

int removeModules(const ModuleKernel& kernel, const std::string& service,
                  const std::vector<std::string>& fileNames, ModuleLedger& ledger) {
    int firstError = 0;
    for (const std::string& name : namesOf(fileNames)) {
        const auto entry = ledger.find(name);
        if (entry == ledger.end()) {
            continue;
        }
        entry->second.services.erase(service);
        if (!entry->second.services.empty()) {
            continue;
        }
        const int error = release(kernel, ledger, entry);
        if (firstError == 0) {
            firstError = error;
        }
    }
    return firstError;
}

std::string ledgerText(const ModuleLedger& ledger) {
    Json::Value document(Json::objectValue);
    for (const auto& [name, use] : ledger) {
        Json::Value& entry = document[name];
        entry["inserted"] = use.inserted;
        entry["services"] = Json::Value(Json::arrayValue);
        for (const std::string& service : use.services) {
            entry["services"].append(service);
        }
    }
    return Json::writeString(Json::StreamWriterBuilder(), document) + "\n";
}

std::optional<ModuleLedger> parseLedger(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMostLevels;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value document;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &document, nullptr)) {
            return std::nullopt;
        }
    } catch (const Json::Exception&) {  // too deeply nested
        return std::nullopt;
    }
    if (!document.isObject()) {
        return std::nullopt;
    }
    ModuleLedger ledger;
    for (const std::string& name : document.getMemberNames()) {
        if (!parseUse(document[name], ledger[name])) {
            return std::nullopt;
        }
    }
    return ledger;
}

}  // namespace host
