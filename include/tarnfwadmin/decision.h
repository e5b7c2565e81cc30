/// The decision for a packet: the first rule that matches, in the order of the lines of
/// INPUT_FIREWALL, or of FORWARD_FIREWALL for a forwarded packet. A blocked check has a verdict for
/// all addresses; this decides for one.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/place.h"
#include "tarnfwadmin/portEntry.h"
#include "tarnfwadmin/store.h"

namespace TARNFW_EXPORT_ALL tarnfw {

class Machine;
struct AddressMatch;

/// A packet for this machine or forwarded by it, or several that differ only in the port.
struct Packet {
    /// The adapters that include the interface: {"eth0"}, or {"tun0", "vpn"}.
    std::vector<std::string> adapters;
    Address source;
    std::optional<Address> destination;  ///< the machine's own address, if known
    FW::FW_PORT_PROTOCOL protocol = FW::FW_PORT_PROTOCOL_TCP;  ///< TCP or UDP
    PortSpan ports;                                            ///< of the destination
    std::optional<PortSpan> sourcePorts;                       ///< if known
    bool established = false;  ///< it belongs to an established connection

    /// Of a forwarded packet: the adapters that include the interface it leaves through, as far as
    /// known. Its destination is where it is forwarded to.
    std::optional<std::vector<std::string>> forwardedTo;
};

/// A packet for one port of this machine, or a span: from "10.0.0.5", to "tcp/445" or
/// "udp/6000-6010", by the interface "eth0". Reads the machine's interfaces. Throws Error: kInvalid
/// for a text that is no address or no port, kSystem.
Packet packetFrom(const std::string& address, const std::string& port,
                  const std::string& interface);

/// What decides for a packet.
enum class DecidedBy {
    kRule,
    kDefaultPolicy,  ///< of an adapter
    kNothing,        ///< neither: the packet is allowed
    kLoopback,       ///< the line for packets of the machine to itself
    kEstablished,    ///< the line for established connections
};

/// The decision for some of the queried ports.
struct Decision {
    PortSpan ports;
    DecidedBy by = DecidedBy::kNothing;
    RulePlace place;  ///< the rule or default policy; else without an adapter
    bool denied = false;

    /// The interface of the 6in4 tunnel for which the rule or policy is repeated, where that and
    /// not its own line decides.
    std::string tunnel;

    /// Earlier rules with the other outcome that match some of these packets, depending on the
    /// source port or on the machine's own address, which the packet leaves open.
    std::vector<RulePlace> unless;
};

/// Decides by one profile, as if every queried adapter existed. Country rules count as in a
/// kernel with the "geoip" match. Rules whose line the kernel refuses, and those for "ppp0",
/// which get no line, decide nothing. IPv6 packets through a 6in4 tunnel of an adapter that exists
/// meet the rules of that adapter as well, as the translation repeats them in the apply mode.
/// Asks `machine`, which outlives this object, for services and countries when a rule needs them.
/// For one thread; changes nothing.
class Decider {
public:
    Decider(FW::FWPROFILE profile, Machine& machine, ApplyMode mode);

    const FW::FWPROFILE& profile() const { return profile_; }

    /// The decisions for the ports of `packet`, in ascending order, without gaps; neighbours
    /// differ. Throws Error, kSystem, when a rule names services and the catalogue cannot be read.
    std::vector<Decision> decide(const Packet& packet);

    /// The adapters, besides `interface` itself, whose rules and default policies IPv6 packets
    /// through it meet, since it is the interface of their 6in4 tunnel.
    std::vector<std::string> tunnelOwners(const std::string& interface);

    /// The addresses, of the family of the source of `packet`, from which all packets like it are
    /// allowed: in ascending order, with gaps between them. Nothing when that cannot be said by the
    /// address alone, or depends on a country or on a mask with gaps.
    std::optional<std::vector<AddressRange>> allowedSenders(const Packet& packet);

    /// What is decided for packets like `packet` from any address of the family of its source:
    /// allowed, denied, or mixed when it depends on the address or the port; nothing when that
    /// cannot be said of all addresses at once.
    std::optional<FW::FW_POLICY> verdictForAll(const Packet& packet);

    /// The rule at a place of a decision of this profile; else throws std::out_of_range.
    const FW::FWRULE& ruleAt(const RulePlace& place) const;

    /// In words: "rule 3 of eth0: allow tcp 22 from 192.168.1.0/24 (IPv4)", "the default policy of
    /// eth0: deny", "... (repeated for the 6in4 tunnel six)", "no rule and no default policy
    /// matches", ... Not made printable.
    std::string reason(const Decision& decision) const;

private:
    struct List;

    /// Whether packets like `packet` are denied, by their sender: what a sender has is for all up
    /// to the next one. Both where that depends on the port; nothing as for allowedSenders().
    std::optional<std::map<Address, std::set<bool>>> deniedBySender(Packet packet);

    std::vector<List> listsFor(const Packet& packet);
    std::optional<AddressMatch> matchOf(const List& list, const FW::FWRULE& rule,
                                        const Packet& packet);

    FW::FWPROFILE profile_;
    Machine& machine_;
    ApplyMode mode_;
};

}  // namespace tarnfw
