#include "tarnfwadmin/catalogue.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>

#include <json/json.h>

#include "tarncore.h"
#include "tarnserviceconf.h"

#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/text.h"

namespace tarnfw {
namespace {

// The platform finds a service by its name but cannot list services. The names come from the
// catalogue's files; the services, and whether a file is trusted, from the platform.
constexpr const char* kCataloguePatterns[] = {
    "/usr/tarn/etc.defaults/services.d/*.json",
    "/usr/tarn/etc/services.d/*.json",
};

// What the platform reads of a file at most.
constexpr off_t kMostFileBytes = 16 * 1024 * 1024;

void addNames(const Json::Value& document, std::set<std::string>& names) {
    if (document.isArray()) {
        for (const Json::Value& entry : document) {
            addNames(entry, names);
        }
    } else if (document.isObject() && document["name"].isString()) {
        names.insert(document["name"].asString());
    }
}

/// The document in a file; null, with a reason, when it cannot be read.
Json::Value documentIn(const std::string& path, std::string& reason) {
    std::ifstream file(path);
    if (!file) {
        reason = std::strerror(errno);
        return {};
    }
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    Json::Value document;
    try {
        if (Json::parseFromStream(builder, file, &document, &reason)) {
            return document;
        }
    } catch (const Json::Exception&) {  // too deeply nested
    }
    reason = "it is not valid JSON";
    return {};
}

void forEachFile(const std::function<void(const std::string&)>& use) {
    for (const char* const pattern : kCataloguePatterns) {
        glob_t found{};
        if (glob(pattern, 0, nullptr, &found) == 0) {
            for (std::size_t i = 0; i < found.gl_pathc; ++i) {
                use(found.gl_pathv[i]);
            }
        }
        globfree(&found);
    }
}

std::set<std::string> namesInFiles() {
    std::set<std::string> names;
    forEachFile([&](const std::string& path) {
        std::string reason;
        addNames(documentIn(path, reason), names);
    });
    return names;
}

/// Why the platform refuses a file, whatever it contains; empty when it does not.
std::string refusalOf(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        return std::strerror(errno);
    }
    if (S_ISLNK(info.st_mode)) {
        return "it is a symbolic link";
    }
    if (!S_ISREG(info.st_mode)) {
        return "it is no regular file";
    }
    if (info.st_uid != 0 && info.st_uid != geteuid()) {
        return "it belongs to user " + std::to_string(info.st_uid);
    }
    if ((info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "group or others may write it";
    }
    return info.st_size > kMostFileBytes ? "it is larger than 16 MiB" : "";
}

ServiceSide sideOf(int protocol, const TLIBCSZLIST* list) {
    ServiceSide side;
    side.protocol = protocol;
    for (int i = 0; list != nullptr && i < list->nItem; ++i) {
        if (const char* const port = TLIBCSzListGet(list, i)) {
            side.ports.emplace_back(port);
        }
    }
    return side;
}

}  // namespace

std::string textOf(const CatalogueError& error) {
    return printable(error.path.empty() ? error.text : error.path + ": " + error.text);
}

Catalogue::Catalogue() {
    TARNFW_SERVICE_LIST* list = nullptr;
    const int count = TARNFwServiceEnum(&list);
    const Shared loaded(list, TARNFwServiceFree);
    if (count >= 1) {
        list_ = loaded;
    }
}

Catalogue::Catalogue(const TARNFW_SERVICE_LIST* list) : list_(Shared(), list) {}

std::vector<CatalogueError> Catalogue::errors() const {
    std::vector<CatalogueError> errors;
    if (readable()) {
        return errors;
    }
    std::set<std::string> names;
    forEachFile([&](const std::string& path) {
        std::string reason = refusalOf(path);
        if (reason.empty()) {
            addNames(documentIn(path, reason), names);
        }
        if (!reason.empty()) {
            errors.push_back({path, reason});
        }
    });
    if (errors.empty() && !names.empty()) {
        errors.push_back({"", "a file has an invalid service; the log names it"});
    }
    return errors;
}

std::optional<Service> Catalogue::find(const std::string& name) const {
    const TARNFW_SERVICE* const record =
        readable() ? TARNFWServiceFind(list_.get(), name.c_str()) : nullptr;
    if (record == nullptr) {
        return std::nullopt;
    }
    return Service{record->name, record->title, sideOf(record->dstProtocol, record->dstPorts),
                   sideOf(record->srcProtocol, record->srcPorts)};
}

std::vector<Service> Catalogue::services() const {
    if (!names_) {
        names_ = namesInFiles();
    }
    std::vector<Service> services;
    for (const std::string& name : *names_) {
        if (std::optional<Service> service = find(name)) {
            services.push_back(std::move(*service));
        }
    }
    return services;
}

std::vector<Service> Catalogue::usableServices() const {
    std::vector<Service> usable = services();
    usable.erase(std::remove_if(usable.begin(), usable.end(),
                                [](const Service& service) { return !service.usable(); }),
                 usable.end());
    return usable;
}

Service Catalogue::require(const std::string& name) const {
    const std::optional<Service> service = find(name);
    if (service && service->usable()) {
        return *service;
    }
    if (service) {
        throw Error(ErrorKind::kUnusable, "the catalogue keeps service " + inQuotes(name) +
                                              " out of the firewall: it has no title");
    }
    std::vector<std::string> names;
    for (const Service& other : services()) {
        names.push_back(other.name);
    }
    const std::string meant = nearest(name, names);
    throw Error(ErrorKind::kNotFound, "there is no service " + inQuotes(name) + didYouMean(meant),
                {}, Remedy::kListServices);
}

std::vector<FW::PortCompareST> portsOf(const Service& service) {
    std::vector<FW::PortCompareST> ports;
    for (const std::string& port : service.source.ports) {
        ports.push_back({FW::FW_PORT_DIRECT_SOURCE, service.source.protocol, port});
    }
    for (const std::string& port : service.destination.ports) {
        ports.push_back({FW::FW_PORT_DIRECT_DESTINATION, service.destination.protocol, port});
    }
    return ports;
}

std::vector<std::uint16_t> protocolsOf(const Service& service) {
    std::vector<std::uint16_t> numbers;
    for (const FW::FWPACKETSET& packets : FW::fwServicePackets(service.name, {})) {
        numbers.push_back(packets.protocols.front().first);
    }
    return numbers;
}

}  // namespace tarnfw
