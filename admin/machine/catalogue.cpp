#include "tarnfwadmin/catalogue.h"

#include <glob.h>

#include <algorithm>
#include <fstream>
#include <set>

#include <json/json.h>

#include "tarncore.h"
#include "tarnserviceconf.h"

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

void addNames(const Json::Value& document, std::set<std::string>& names) {
    if (document.isArray()) {
        for (const Json::Value& entry : document) {
            addNames(entry, names);
        }
    } else if (document.isObject() && document["name"].isString()) {
        names.insert(document["name"].asString());
    }
}

/// The document in a file; null when it cannot be read, which the platform has logged.
Json::Value documentIn(const char* path) {
    std::ifstream file(path);
    Json::Value document;
    std::string reason;
    try {
        if (Json::parseFromStream(Json::CharReaderBuilder(), file, &document, &reason)) {
            return document;
        }
    } catch (const Json::Exception&) {  // too deeply nested
    }
    return {};
}

std::set<std::string> namesInFiles() {
    std::set<std::string> names;
    for (const char* const pattern : kCataloguePatterns) {
        glob_t found{};
        if (glob(pattern, 0, nullptr, &found) == 0) {
            for (std::size_t i = 0; i < found.gl_pathc; ++i) {
                addNames(documentIn(found.gl_pathv[i]), names);
            }
        }
        globfree(&found);
    }
    return names;
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

Catalogue::Catalogue() {
    TARNFW_SERVICE_LIST* list = nullptr;
    const int count = TARNFwServiceEnum(&list);
    const Shared loaded(list, TARNFwServiceFree);
    if (count >= 1) {
        list_ = loaded;
    }
}

Catalogue::Catalogue(const TARNFW_SERVICE_LIST* list) : list_(Shared(), list) {}

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

}  // namespace tarnfw
