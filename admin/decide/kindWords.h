/// Kinds of packets in words.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tarnfwadmin/packetGroup.h"

namespace tarnfw {

struct NamedService {
    std::string name;
    std::vector<PacketKind> kinds;
    std::vector<PacketKind> ipv4Only;  ///< those of `kinds` that IPv6 packets of it do not have
};

bool isSameKinds(const std::vector<PacketKind>& one, const std::vector<PacketKind>& other);

/// Whether `all` has every packet of `some`; of kinds with ports of both sides, false.
bool includesKinds(const std::vector<PacketKind>& all, const std::vector<PacketKind>& some);

/// "tcp 22,6000-6010", "service nfs, udp 53", "everything except tcp 22". A service is named where
/// its ports are apart from others; of two with the same ports the first. Of a list at most about
/// `most` entries are named, first those that people look for, such as ssh.
std::string kindsText(const std::vector<PacketKind>& kinds,
                      const std::vector<NamedService>& services, std::size_t most);

}  // namespace tarnfw
