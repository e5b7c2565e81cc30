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
};

/// "tcp 22,6000-6010", "service nfs, udp 53", "everything except tcp 22". A service is named where
/// its ports are apart from others; of two with the same ports the first. Of a list at most about
/// `most` entries are named.
std::string kindsText(const std::vector<PacketKind>& kinds,
                      const std::vector<NamedService>& services, std::size_t most);

}  // namespace tarnfw
