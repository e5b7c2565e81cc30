/// Sets of packets, single packets and the rules that decide about them, as "--json" prints them.
#pragma once

#include <json/json.h>

#include "tarnfirewall/fwMeaning.h"

namespace tarnfw {

/// "6" and "6000-6010"; null for any value.
Json::Value numbersJson(const FW::FWINTERVALS& intervals);

/// "10.0.0.5", "10.0.0.0/8" and "10.0.0.5-10.0.0.9".
Json::Value addressesJson(const FW::FWADDRESSES& addresses, FW::FW_FAMILY family);

/// Every member is an array of texts, or null for any value; see docs/tarnfw-json.md.
Json::Value packetsJson(const FW::FWPACKETSET& packets);

/// Members that are not known, or that the packet does not have, are null.
Json::Value packetJson(const FW::FWPACKET& packet);

/// The word where no rule matches.
inline constexpr char kByNothing[] = "nothing";

/// What decides: "rule", "defaultPolicy", "established".
const char* originWord(FW::FW_ORIGIN origin);

/// That word, "by", and of a rule or a default policy where it is.
Json::Value placeJson(const FW::FWPLACE& place);

}  // namespace tarnfw
