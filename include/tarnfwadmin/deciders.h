/// Who decides about many packets: rules, default policies or nothing, each with its packets.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// A rule, a default policy or nothing, with the packets that it decides about.
struct Decider {
    std::size_t by = 0;  ///< numbered as in Meaning::answers(): its first step that decides
    bool denied = false;
    std::vector<FW::FWPACKETSET> packets;  ///< each of one family; none in common

    /// By FW_FAMILY: those whose packets these are, all that are asked about; nothing when it
    /// depends on more than the sender who decides about some of them.
    std::array<std::optional<FW::FWADDRESSES>, 2> senders;

    /// Whether who decides depends on the sender alone.
    bool isBySender() const { return senders[0] && senders[1]; }
};

struct Deciders {
    std::vector<Decider> all;  ///< in the order of the rules, each place once; none is without
                               ///< packets. The last one decides about all that the others leave.
    bool tooComplex = false;   ///< there may be more of them, and more packets of each
};

/// Those that decide about some of the packets, if these are from or to their addresses: in the
/// order of the rules. Packets and `adapter` as of decidersOf().
std::vector<UncountedRule> uncountedFor(const Meaning& meaning,
                                        const std::vector<FW::FWPACKETSET>& packets,
                                        const std::string& adapter = "");

/// Who decides about packets: sets with one interface, one chain and one protocol, and at most one
/// interval of ports on each side, such as packetsFor() makes. With `adapter`, by
/// the rules and the default policy of that one alone.
Deciders decidersOf(const Meaning& meaning, const std::vector<FW::FWPACKETSET>& packets,
                    const std::string& adapter = "");

}  // namespace tarnfw
