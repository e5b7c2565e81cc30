/// Sets of packets, single packets and the rules that decide about them, as "--json" prints them.
#pragma once

#include <json/json.h>

#include "tarnfirewall/fwMeaning.h"

namespace tarnfw {

/// Every member is an array of texts, or null for any value; see docs/tarnfw-json.md.
Json::Value packetsJson(const FW::FWPACKETSET& packets);

/// "10.0.0.0/8", "10.0.0.1-10.0.0.3", one text for each interval.
Json::Value addressesJson(const FW::FWADDRESSES& addresses, FW::FW_FAMILY family);

/// Members that are not known, or that the packet does not have, are null.
Json::Value packetJson(const FW::FWPACKET& packet);

/// "by", and of a rule or a default policy where it is.
Json::Value placeJson(const FW::FWPLACE& place);

}  // namespace tarnfw
