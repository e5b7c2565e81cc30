/// What a profile does with packets: who decides about one, and the verdict on many.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"
#include "tarnfirewall/fwTypes.h"

#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/portEntry.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The number of an address, for FW::FWPACKET.
FW::FWADDRESS addressNumber(const Address& address);

/// This address alone.
FW::FWADDRESSES onlyAddress(const Address& address);

/// The address of packets: an IPv4 address in IPv6 form ("::ffff:192.0.2.7") is that IPv4 address,
/// since so the packet filter sees them. Nothing for a text that is no address.
std::optional<Address> packetAddressFrom(const std::string& text);

FW::FW_FAMILY familyOf(const Address& address);

/// The name of an interface that packets of an adapter come in through: of "vpn" one that has no
/// rules of its own, of "global" one that no other adapter has.
std::string interfaceFor(const Meaning& meaning, const std::string& adapter);

/// Whether an interface is one of these.
bool isAmong(const FW::FWINTERFACES& interfaces, const std::string& name);

/// The adapters whose rules and default policies are repeated for IPv6 packets through this
/// interface, since it is the one of their 6in4 tunnel.
std::vector<std::string> tunnelOwners(const Meaning& meaning, const std::string& interface);

/// Rules that are in the kernel but not in the meaning, since they are too complex: "rule 3 of eth0
/// is not counted: ...", one each.
std::vector<std::string> notCounted(const Meaning& meaning);

// ---- One packet ----

/// A packet, or several that differ in the destination port alone.
struct PortPackets {
    FW::FWPACKET packet;            ///< a field that is not known has no value
    std::optional<PortSpan> ports;  ///< of the destination; without: as `packet` has it
};

/// The first packet of a connection from "10.0.0.5" that comes in through an interface, to a port
/// of this machine, "tcp/445", or to several, "udp/6000-6010". Throws Error, kInvalid, for a text
/// that is no address or no port.
PortPackets packetsFrom(const std::string& address, const std::string& port,
                        const std::string& interface);

/// Who decides about some of the packets. Rules are numbered as in Meaning::answers().
struct PortDecision {
    std::optional<PortSpan> ports;    ///< as in the question
    std::size_t by = 0;               ///< decides unless one of the others matches
    bool denied = false;              ///< by this one
    std::vector<std::size_t> unless;  ///< earlier ones with the other outcome: whether they match
                                      ///< depends on what is not known of the packet; one a place
    std::vector<UncountedRule> uncounted;  ///< with the other outcome: may match, too
    bool tooComplex = false;               ///< some of `unless` may be unable to match

    /// Whether it depends on more than what is known.
    bool isDoubtful() const { return !unless.empty() || !uncounted.empty(); }
};

/// In ascending order of the ports, without gaps; neighbours differ.
std::vector<PortDecision> decisionsFor(const Meaning& meaning, const PortPackets& packets);

/// What a number is about, in words: "rule 3 of eth0: allow tcp 22 from 192.168.1.0/24 (IPv4)",
/// "the default policy of eth0: deny", "... (repeated for the 6in4 tunnel six)", "no rule and no
/// default policy matches". Not made printable.
std::string reasonText(const Meaning& meaning, std::size_t number);

/// The same of a rule that is not counted: "rule 3 of eth0: deny tcp 22 ..., which is too complex
/// to be counted".
std::string reasonText(const Meaning& meaning, const UncountedRule& rule);

/// The place of that rule.
FW::FWPLACE placeOf(const Meaning& meaning, std::size_t number);

/// The interface of the 6in4 tunnel that the rule or default policy is repeated for; else empty.
std::string tunnelOf(const Meaning& meaning, std::size_t number);

// ---- Many packets ----

/// What happens to packets.
struct PacketOutcomes {
    bool denied = false;
    bool allowed = false;     ///< by a rule, a default policy, or a line of every profile
    bool undecided = false;   ///< nothing decides about them, which allows them
    bool tooComplex = false;  ///< there may be more

    void add(const PacketOutcomes& others);

    /// "mixed" also when it is too complex; "undecided" when nothing decides about any of them.
    FW::FW_POLICY verdict() const;

    /// Of a list whose undecided packets are left to other lists: "undecided" when it denies none
    /// and there is such a packet.
    FW::FW_POLICY verdictOfPart() const;
};

/// Who may send packets, by family.
struct PacketSenders {
    FW::FWADDRESSES allowed;  ///< all of their packets are allowed
    FW::FWADDRESSES depends;  ///< some of them are
    bool tooComplex = false;  ///< there may be more
};

/// Packets, by what happens to them. Those of each list have none in common.
struct PacketParts {
    std::vector<FW::FWPACKETSET> allowed;  ///< also what nothing decides about
    std::vector<FW::FWPACKETSET> denied;
    bool tooComplex = false;  ///< there may be more

    /// Those that are for a port, and an address if there is one.
    PacketParts to(std::uint16_t port, const std::optional<FW::FWADDRESS>& address) const;

    /// Of packets of one family.
    PacketSenders senders() const;
};

/// A meaning, for questions about sets of packets. For one thread.
class PacketAnswers {
public:
    explicit PacketAnswers(const Meaning& meaning);

    /// By the rules and the default policy of one adapter alone.
    PacketAnswers(const Meaning& meaning, const std::string& adapter);

    PacketOutcomes outcomes(const FW::FWPACKETSET& packets) const;
    PacketParts parts(const FW::FWPACKETSET& packets) const;

private:
    enum Filter { kDenied, kAllowed, kUndecided, kPassed, kFilters };

    /// Lets the packets with an outcome through, and no others; kPassed: what is not denied.
    const FW::FW_MEANING& filter(Filter filter) const;

    std::vector<FW::FWRESOLVEDRULE> rules_;
    mutable std::array<std::optional<FW::FW_MEANING>, kFilters> filters_;  // made when needed
};

/// New connections to this machine through an interface, of both families; in the chain
/// FW_CHAIN_INPUT.
FW::FWPACKETSET newConnections(const std::string& interface);

}  // namespace tarnfw
