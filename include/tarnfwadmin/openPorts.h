/// Which ports are open, to whom, through which interfaces.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetAnswers.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Some of the packets of senders are allowed: those with these source ports, to these addresses.
struct OpenPartly {
    FW::FWADDRESSES senders;
    bool areAllOthers = false;    ///< they are everybody but those whose packets are all allowed
    FW::FWINTERVALS sourcePorts;  ///< empty: any
    std::shared_ptr<const FW::FWADDRESSES> destinations;  ///< null: any
};

/// Whose packets to a port are allowed, of one family.
struct OpenTo {
    FW::FWADDRESSES always;          ///< all of theirs
    std::vector<OpenPartly> partly;  ///< some of theirs
    bool tooComplex = false;         ///< there may be more

    bool isNobody() const { return always.empty() && partly.empty() && !tooComplex; }
};

/// By FW_FAMILY; nothing where a family is left out.
using OpenFamilies = std::array<std::optional<OpenTo>, 2>;

/// Ports that are open to the same senders through the same interfaces.
struct OpenRow {
    std::vector<std::string> interfaces;
    FW::FWINTERVALS tcp;
    FW::FWINTERVALS udp;
    bool isSpan = false;  ///< so many ports that those which are in use are among them
    OpenFamilies to;
};

/// The ports of a protocol and family that are in use on an interface.
using PortsInUse = std::function<std::set<std::uint16_t>(
    const std::string& interface, FW::FW_FAMILY family, FW::FW_PORT_PROTOCOL protocol)>;

/// What new connections to this machine are allowed. For one thread.
class OpenPorts {
public:
    /// With a sender, of its packets alone.
    explicit OpenPorts(const Meaning& meaning, const std::optional<Address>& from = std::nullopt);
    ~OpenPorts();

    /// To a port, and with `address` to this address of the machine.
    OpenTo to(const std::string& interface, FW::FW_FAMILY family, FW::FW_PORT_PROTOCOL protocol,
              std::uint16_t port, const std::optional<FW::FWADDRESS>& address);

    /// All ports that are open through these interfaces and not in use, by their numbers, tcp
    /// before udp; spans last. Each port of a protocol is in one row for an interface.
    std::vector<OpenRow> rows(const std::vector<std::string>& interfaces, const PortsInUse& inUse);

private:
    class Answers;
    std::unique_ptr<Answers> answers_;
};

}  // namespace tarnfw
