/// What the lines of a rule match on this machine, for the search for shadowed rules.
#pragma once

#include <array>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

#include "base/iptablesAddress.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/machine.h"
#include "tarnfwadmin/portEntry.h"

namespace tarnfw {

/// The addresses of one family that a rule matches, on one side of a packet. Without countries,
/// ranges and masked addresses, every address.
struct AddressMatch {
    bool source = true;  ///< the sender's; else the machine's own
    std::vector<AddressRange> ranges;
    std::vector<MaskedAddress> masked;  ///< those whose mask has gaps
    std::set<std::string> countries;    ///< codes, those that have data

    bool any() const { return ranges.empty() && masked.empty() && countries.empty(); }

    /// Whether it surely contains all of `other`; countries are compared by their codes.
    bool contains(const AddressMatch& other) const;
};

/// The packets of a protocol that a rule matches.
struct PortMatch {
    std::string protocol;           ///< as in the line: "tcp", "udp", "icmp", "47"; empty: any
    std::optional<PortSpan> ports;  ///< none: all its packets
    bool source = false;            ///< the ports are the sender's
};

/// Whether a rule can have lines: it is enabled, and its policy is allow or deny.
bool hasLine(const FW::FWRULE& rule);

/// The lists whose lines a packet of `adapters` passes, in the kernel's order: "global", then its
/// adapters by their bytes.
std::vector<std::string> listsOf(const std::vector<std::string>& adapters);

/// What a rule's lines match in a family; nothing when it has no line there, or one
/// that the kernel refuses.
std::optional<AddressMatch> addressMatchOf(const FW::FWRULE& rule, bool ipv6, Machine& machine);

/// Whether a rule for IPv4 addresses is one for all of IPv6 where it is repeated for a 6in4 tunnel:
/// ip6tables takes "10.0.0.0/0" for every address.
bool isTakenForAllOfIpv6(const FW::FWRULE& rule);

/// What a rule's lines match; a packet has to fit one entry. A line that the kernel refuses, since
/// one of its ports is none, has no entries. Nothing when the rule names services and the
/// catalogue cannot be read.
std::optional<std::vector<PortMatch>> portMatchesOf(const FW::FWRULE& rule, Machine& machine);

}  // namespace tarnfw
