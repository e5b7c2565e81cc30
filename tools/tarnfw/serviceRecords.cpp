#include "serviceRecords.h"

#include <glob.h>

#include <fstream>
#include <set>

#include <json/json.h>

#include "tarncore.h"
#include "tarnserviceconf.h"

#include "command.h"
#include "output.h"
#include "usage.h"

namespace tarnfw {
namespace {

// The platform finds a service by its name and lists none. The names are those of the catalogue's
// files; what a service is, and whether a file is to be believed, the platform says.
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

constexpr struct {
    std::int32_t code;
    const char* name;
} kProtocolNames[] = {
    {FW::FW_PORT_PROTOCOL_TCP, "tcp"},         {FW::FW_PORT_PROTOCOL_UDP, "udp"},
    {FW::FW_PORT_PROTOCOL_TCP_UDP, "tcp/udp"}, {FW::FW_PORT_PROTOCOL_ICMP, "icmp"},
    {FW::FW_PORT_PROTOCOL_IGMP, "igmp"},
};

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

void ServiceRecords::Release::operator()(TARNFW_SERVICE_LIST* list) const {
    TARNFwServiceFree(list);
}

ServiceRecords::ServiceRecords() {
    TARNFW_SERVICE_LIST* list = nullptr;
    const int count = TARNFwServiceEnum(&list);
    list_.reset(list);
    if (count < 1) {
        throw CommandFailed("the service catalogue is empty or cannot be read");
    }
}

std::optional<Service> ServiceRecords::find(const std::string& name) const {
    const TARNFW_SERVICE* const record = TARNFWServiceFind(list_.get(), name.c_str());
    if (record == nullptr) {
        return std::nullopt;
    }
    return Service{record->name, record->title, sideOf(record->dstProtocol, record->dstPorts),
                   sideOf(record->srcProtocol, record->srcPorts)};
}

std::vector<Service> ServiceRecords::services() const {
    std::vector<Service> services;
    for (const std::string& name : namesInFiles()) {
        if (std::optional<Service> service = find(name)) {
            services.push_back(std::move(*service));
        }
    }
    return services;
}

Service ServiceRecords::require(const std::string& name) const {
    const std::optional<Service> service = find(name);
    if (service && !service->title.empty()) {
        return *service;
    }
    if (service) {
        throw CommandFailed("the catalogue keeps service \"" + printable(name) +
                            "\" out of the firewall: it has no title");
    }
    std::vector<std::string> names;
    for (const Service& other : services()) {
        names.push_back(other.name);
    }
    const std::string meant = nearest(name, names);
    throw CommandFailed("there is no service \"" + printable(name) + "\"" +
                        (meant.empty() ? "" : "; did you mean \"" + printable(meant) + "\"?") +
                        " (\"tarnfw services\" lists them)");
}

std::string protocolName(std::int32_t protocol) {
    for (const auto& known : kProtocolNames) {
        if (known.code == protocol) {
            return known.name;
        }
    }
    return "protocol " + std::to_string(protocol);
}

std::vector<FW::PortCompareST> portsOf(const Service& service) {
    std::vector<FW::PortCompareST> ports;
    for (const std::string& port : service.source.ports) {
        ports.push_back({1, service.source.protocol, port});
    }
    for (const std::string& port : service.destination.ports) {
        ports.push_back({0, service.destination.protocol, port});
    }
    return ports;
}

}  // namespace tarnfw
