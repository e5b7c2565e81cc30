/// The platform's service catalogue, as the commands look into it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

struct TARNFW_SERVICE_LIST;

namespace tarnfw {

/// Ports of a service on one side of a connection.
struct ServiceSide {
    std::int32_t protocol = 0;       ///< FW_PORT_PROTOCOL code
    std::vector<std::string> ports;  ///< "80" or "6000-6010"; none: the service has no such side
};

struct Service {
    std::string name;
    std::string title;
    ServiceSide destination;
    ServiceSide source;

    /// Whether the firewall uses the service: one without a title is kept out of it.
    bool usable() const { return !title.empty(); }
};

/// The catalogue as it is when the object is made.
class Catalogue {
public:
    /// Without a catalogue that can be read there are no services.
    Catalogue();

    /// Whether there is a catalogue, and not an empty one.
    bool readable() const { return list_ != nullptr; }

    std::optional<Service> find(const std::string& name) const;

    /// All services, sorted by name.
    std::vector<Service> services() const;

    /// Those that the firewall uses, likewise.
    std::vector<Service> usableServices() const;

    /// The record of a service that the firewall uses; refuses any other name, with the nearest
    /// right one.
    Service require(const std::string& name) const;

private:
    struct Release {
        void operator()(TARNFW_SERVICE_LIST* list) const;
    };
    std::unique_ptr<TARNFW_SERVICE_LIST, Release> list_;
};

/// The catalogue; throws Error when it is empty or cannot be read.
Catalogue requireCatalogue();

/// The question of a blocked check for each port of a service, as the library asks them.
std::vector<FW::PortCompareST> portsOf(const Service& service);

}  // namespace tarnfw
