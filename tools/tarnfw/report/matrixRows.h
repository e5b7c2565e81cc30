/// The rows of tables: packets of which every rule matches all or none, whatever their addresses
/// and interfaces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
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
    bool isRest = false;      ///< no rule and no service is about its packets alone
    bool isService = false;   ///< a service is, which may name it
    bool isBySource = false;  ///< a rule for its source ports is
};

/// How many rows there are for a person to read.
inline constexpr std::size_t kMostRows = 300;

struct RowSeeds {
    std::vector<RowSeed> rows;
    std::size_t others = 0;  ///< rows that are left out; no more than this
};

/// The services that these rules of a profile name.
std::set<std::string> servicesOf(const std::vector<FW::FWRESOLVEDRULE>& rules,
                                 const FW::FWPROFILE& profile);

/// Of the profile's rules for a table, with `services`, in a family: without cells. Sorted as
/// people look for them: services by name, ports by number, those that depend on source ports, the
/// rest. Of more than kMostRows, the first ones and the rest.
RowSeeds rowsOf(const std::vector<FW::FWRESOLVEDRULE>& rules, const std::set<std::string>& services,
                const Meaning& meaning, FW::FW_FAMILY family, const PacketWords& words);

}  // namespace tarnfw
