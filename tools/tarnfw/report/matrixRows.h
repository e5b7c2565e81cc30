/// The rows of tables: packets of which every rule of a profile matches all or none, whatever their
/// addresses and interfaces.
#pragma once

#include <cstdint>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "report/matrix.h"
#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetWords.h"

namespace tarnfw {

/// One packet, as far as its kind goes.
struct KindPoint {
    std::uint16_t protocol = 0;
    std::uint16_t sourcePort = 0;
    std::uint16_t destinationPort = 0;
    std::uint16_t icmpType = 0;
};

/// A row with one of its packets.
struct RowSeed {
    MatrixRow row;
    KindPoint point;
    bool isRest = false;  ///< no list has its packets
};

/// Of these rules, which are those of the profile, in a family: without cells. Sorted as people
/// look for them: services by name, ports by number, the rest.
std::vector<RowSeed> rowsOf(const std::vector<FW::FWRESOLVEDRULE>& rules, const Meaning& meaning,
                            FW::FW_FAMILY family, const PacketWords& words);

bool isSame(const FW::FWPLACE& a, const FW::FWPLACE& b);

}  // namespace tarnfw
