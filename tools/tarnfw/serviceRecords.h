/// The platform's service catalogue.
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
    std::string title;  ///< empty: the firewall does not use the service
    ServiceSide destination;
    ServiceSide source;
};

/// The catalogue as it is when the object is made.
class ServiceRecords {
public:
    /// Throws CommandFailed when the catalogue is empty or cannot be read.
    ServiceRecords();

    std::optional<Service> find(const std::string& name) const;

    /// All services, sorted by name.
    std::vector<Service> services() const;

    /// The record of a service that the firewall can use; refuses any other name, with the nearest
    /// right one.
    Service require(const std::string& name) const;

private:
    struct Release {
        void operator()(TARNFW_SERVICE_LIST* list) const;
    };
    std::unique_ptr<TARNFW_SERVICE_LIST, Release> list_;
};

/// "tcp", "udp", "tcp/udp", "icmp", "igmp", or "protocol 7".
std::string protocolName(std::int32_t protocol);

/// The question of a blocked check for each port of a service, as the library asks them.
std::vector<FW::PortCompareST> portsOf(const Service& service);

}  // namespace tarnfw
