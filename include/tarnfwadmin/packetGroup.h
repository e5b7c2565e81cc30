/// Sets of packets in the form in which people think of them: kinds of packets, ways through the
/// machine, and peers. Nothing here throws.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The number in PacketKind::protocols of ICMP for IPv4 packets and of ICMPv6 for those of IPv6.
inline constexpr std::uint16_t kIcmpOfFamily = 256;

/// As in FW::FWPACKETSET: an empty list is any value.
struct PacketKind {
    FW::FWINTERVALS protocols;  ///< numbers up to 255, or kIcmpOfFamily
    FW::FWINTERVALS sourcePorts;
    FW::FWINTERVALS destinationPorts;
    FW::FWINTERVALS icmpTypes;
};

struct PacketWay {
    std::uint8_t chains = FW::FW_BOTH_CHAINS;     ///< mask of FW_CHAIN
    std::shared_ptr<const FW::FWINTERFACES> in;   ///< null: any
    std::shared_ptr<const FW::FWINTERFACES> out;  ///< null: any
};

struct PacketPeers {
    FW::FW_FAMILY family = FW::FW_FAMILY_V4;
    std::shared_ptr<const FW::FWADDRESSES> sources;       ///< null: any of the family
    std::shared_ptr<const FW::FWADDRESSES> destinations;  ///< null: any of the family
};

/// The packets that are of one of the kinds, come one of the ways, are between one of the peers and
/// have one of the states. The members of each list have no packet in common.
struct PacketGroup {
    std::vector<PacketKind> kinds;
    std::vector<PacketWay> ways;
    std::vector<PacketPeers> peers;
    std::uint8_t states = FW::FW_ALL_STATES;
};

/// The packets of all the sets as few groups, in the order of the sets. ICMP in IPv6 packets and
/// ICMPv6 in those of IPv4, which have no use, are left out where there is anything else.
std::vector<PacketGroup> packetGroups(const std::vector<FW::FWPACKETSET>& sets);

/// The group as sets of packets, which have no packet in common.
std::vector<FW::FWPACKETSET> packetSets(const PacketGroup& group);

}  // namespace tarnfw
