/// Sets of packets evaluated field by field, without the library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

inline bool hasName(const FW::FWINTERFACES* interfaces, const std::string& name) {
    if (interfaces == nullptr) {
        return true;
    }
    // The longest entry decides; a name counts as longer than a beginning.
    std::size_t longest = 0;
    bool isIn = false;
    const auto look = [&](const std::vector<std::string>& entries, bool included) {
        for (const std::string& entry : entries) {
            const bool isBeginning = entry.back() == '+';
            const std::string start = entry.substr(0, entry.size() - (isBeginning ? 1 : 0));
            const bool fits =
                isBeginning ? name.compare(0, start.size(), start) == 0 : name == entry;
            const std::size_t length = 2 * start.size() + (isBeginning ? 1 : 2);
            if (fits && length > longest) {
                longest = length;
                isIn = included;
            }
        }
    };
    look(interfaces->names, true);
    look(interfaces->except, false);
    return isIn;
}

inline bool hasNumber(const FW::FWINTERVALS& intervals, unsigned number) {
    return intervals.empty() ||
           std::any_of(intervals.begin(), intervals.end(), [number](const FW::FWINTERVAL& one) {
               return one.first <= number && number <= one.last;
           });
}

inline bool hasAddress(const FW::FWADDRESSES* addresses, const FW::FWADDRESS& address) {
    const auto isNotAfter = [](const FW::FWADDRESS& a, const FW::FWADDRESS& b) {
        return a.high < b.high || (a.high == b.high && a.low <= b.low);
    };
    return addresses == nullptr ||
           std::any_of(addresses->begin(), addresses->end(), [&](const FW::FWADDRESSINTERVAL& one) {
               return isNotAfter(one.first, address) && isNotAfter(address, one.last);
           });
}

/// Whether a set has a packet, all of whose fields are known.
inline bool hasPacket(const FW::FWPACKETSET& set, const FW::FWPACKET& packet) {
    return (set.chains >> *packet.chain & 1) != 0 && (set.families >> *packet.family & 1) != 0 &&
           hasName(set.in.get(), *packet.in) &&
           (*packet.chain == FW::FW_CHAIN_INPUT || hasName(set.out.get(), *packet.out)) &&
           hasNumber(set.protocols, *packet.protocol) &&
           hasAddress(set.sources.get(), *packet.source) &&
           hasAddress(set.destinations.get(), *packet.destination) &&
           hasNumber(set.sourcePorts, *packet.sourcePort) &&
           hasNumber(set.destinationPorts, *packet.destinationPort) &&
           hasNumber(set.icmpTypes, *packet.icmpType) && (set.states >> *packet.state & 1) != 0;
}
