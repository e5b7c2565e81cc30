/// What the meaning of a profile depends on besides its text: this machine's services, interfaces
/// and country data.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwIptables.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/catalogue.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The countries of the database, sorted, each once; none without a database.
std::vector<std::string> machineCountries();

/// The addresses of a country in a family, read from the database; none without data.
std::vector<AddressRange> readCountryRanges(const std::string& code, bool ipv6);

/// Asks the platform and the library once for each thing, and keeps the answer: make one for a task
/// and pass it on. Nothing is asked before it is needed, and nothing changed. For one thread.
class Machine {
public:
    /// The service catalogue; one that cannot be read has no services.
    const Catalogue& catalogue();

    /// The same. Throws Error, kSystem, when it is empty or cannot be read.
    const Catalogue& requireCatalogue();

    /// Whether rules for `adapter` are applied now: "vpn" and "pppoe" need an interface as well.
    bool hasAdapter(const std::string& adapter);

    /// That there is no interface for `adapter` now, with the nearest name: "there is no adapter
    /// "eth7" now: ...". Of "lo" that it is never filtered. Empty where there is one, and for
    /// "ppp0". Throws Error, kSystem, when the interfaces cannot be listed.
    std::string absenceOf(const std::string& adapter);

    /// The interface of the 6in4 tunnel that routes IPv6 for `adapter`, for which its rules are
    /// repeated; empty without one, and for an adapter that is not there.
    const std::string& tunnelOf(const std::string& adapter);

    /// The usable adapter whose name is most like `adapter`, see nearestAdapter(); empty when none
    /// is. Throws Error, kSystem, when the interfaces cannot be listed.
    std::string nearestAdapter(const std::string& adapter);

    /// Whether the service catalogue can be read. Without it no profile with services is applied.
    bool hasCatalogue();

    /// Whether the firewall can use the service.
    bool hasService(const std::string& name);

    /// The usable service whose name is most like `name`; empty when none is.
    std::string nearestService(const std::string& name);

    /// Whether there are data of a country for a family.
    bool hasCountry(const std::string& code, bool ipv6);

private:
    FW::TARNFW_IPTABLES_RULES translation_;
    std::map<std::string, bool> adapters_;
    std::map<std::string, std::string> tunnels_;
    std::map<std::pair<std::string, bool>, bool> countries_;
    std::optional<Catalogue> catalogue_;  // of the translation, which reads it as well
    std::optional<std::vector<std::string>> serviceNames_;
    std::optional<std::vector<std::string>> adapterNames_;
};

}  // namespace tarnfw
