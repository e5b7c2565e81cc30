/// The platform's service catalogue: what services there are, and their ports. The platform reads
/// it from "/usr/tarn/etc.defaults/services.d/" and "/usr/tarn/etc/services.d/".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

struct TARNFW_SERVICE_LIST;

namespace TARNFW_EXPORT_ALL tarnfw {

/// Ports of a service on one side of a connection.
struct ServiceSide {
    std::int32_t protocol = 0;       ///< FW_PORT_PROTOCOL code
    std::vector<std::string> ports;  ///< "80" or "6000-6010"; none: the service has no such side
};

/// A service of the catalogue.
struct Service {
    std::string name;         ///< as rules name it: "ssh"
    std::string title;        ///< for people: "SSH service"; empty: see usable()
    ServiceSide destination;  ///< the ports that it answers on
    ServiceSide source;       ///< the ports that it sends from, where that matters

    /// Whether rules can name the service: one without a title is kept out of the firewall.
    bool usable() const { return !title.empty(); }
};

/// A file that keeps the platform from reading the catalogue.
struct CatalogueError {
    std::string path;  ///< the file; empty when only the log names it
    std::string text;  ///< "group or others may write it"
};

/// "/usr/tarn/etc/services.d/a.json: group or others may write it". Printable.
std::string textOf(const CatalogueError& error);

/// The catalogue, as the platform read it when this was made. For one thread; it can be moved.
class Catalogue {
public:
    /// Reads the catalogue. One that cannot be read has no services; the platform logs why, and
    /// errors() says it.
    Catalogue();

    /// One that the platform has read; `list`, null for none, is not released and outlives this
    /// object.
    explicit Catalogue(const TARNFW_SERVICE_LIST* list);

    /// Whether the catalogue has services.
    bool readable() const { return list_ != nullptr; }

    /// Why it is not readable(), by file; none for a catalogue that is empty. The platform refuses
    /// the whole catalogue for one bad file: its services would seem to be gone.
    std::vector<CatalogueError> errors() const;

    /// The service of this name, usable or not.
    std::optional<Service> find(const std::string& name) const;

    /// All services, sorted by name. The first call reads their names from the files.
    std::vector<Service> services() const;

    /// Those that rules can name, sorted by name.
    std::vector<Service> usableServices() const;

    /// The service of this name. Throws Error: kNotFound, with the nearest right name, when there
    /// is none; kUnusable for one that is not usable().
    Service require(const std::string& name) const;

private:
    using Shared = std::shared_ptr<const TARNFW_SERVICE_LIST>;

    Shared list_;
    mutable std::optional<std::set<std::string>> names_;
};

/// One question for a blocked check for each port of a service: its source ports, then its
/// destination ports, as the library's own check of a service asks them.
std::vector<FW::PortCompareST> portsOf(const Service& service);

/// The numbers of the IP protocols that a service needs besides ports.
std::vector<std::uint16_t> protocolsOf(const Service& service);

}  // namespace tarnfw
