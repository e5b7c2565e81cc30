#include "cli/packetJson.h"

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "cli/output.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/meaning.h"

namespace tarnfw {
namespace {

constexpr const char* kChains[] = {"input", "forward"};
constexpr const char* kFamilies[] = {"v4", "v6"};
constexpr const char* kStates[] = {"new", "established", "related", "invalid", "untracked"};

/// The names of the bits of a mask; null for all of them.
template <std::size_t Size>
Json::Value maskJson(unsigned mask, const char* const (&names)[Size]) {
    if (mask == (1U << Size) - 1) {
        return {};
    }
    Json::Value texts(Json::arrayValue);
    for (std::size_t bit = 0; bit < Size; ++bit) {
        if ((mask & (1U << bit)) != 0) {
            texts.append(names[bit]);
        }
    }
    return texts;
}

Json::Value interfacesJson(const std::shared_ptr<const FW::FWINTERFACES>& interfaces) {
    if (interfaces == nullptr) {
        return {};
    }
    Json::Value document;
    document["names"] = textsJson(interfaces->names);
    document["except"] = textsJson(interfaces->except);
    return document;
}

/// Of a set with one family.
Json::Value endsJson(const std::shared_ptr<const FW::FWADDRESSES>& addresses,
                     std::uint8_t families) {
    if (addresses == nullptr) {
        return {};
    }
    return addressesJson(
        *addresses, families == (1U << FW::FW_FAMILY_V6) ? FW::FW_FAMILY_V6 : FW::FW_FAMILY_V4);
}

template <typename Value>
Json::Value valueJson(const std::optional<Value>& value) {
    return value ? Json::Value(*value) : Json::Value();
}

}  // namespace

Json::Value numbersJson(const FW::FWINTERVALS& intervals) {
    if (intervals.empty()) {
        return {};
    }
    Json::Value texts(Json::arrayValue);
    for (const FW::FWINTERVAL& one : intervals) {
        texts.append(std::to_string(one.first) +
                     (one.first == one.last ? "" : "-" + std::to_string(one.last)));
    }
    return texts;
}

Json::Value addressesJson(const FW::FWADDRESSES& addresses, FW::FW_FAMILY family) {
    Json::Value texts(Json::arrayValue);
    for (const FW::FWADDRESSINTERVAL& one : addresses) {
        const auto range =
            rangeFrom(FW::fwAddressText(one.first, family), FW::fwAddressText(one.last, family));
        texts.append(range ? spelled(*range) : "");
    }
    return texts;
}

Json::Value packetsJson(const FW::FWPACKETSET& packets) {
    Json::Value document;
    document["chains"] = maskJson(packets.chains, kChains);
    document["families"] = maskJson(packets.families, kFamilies);
    document["in"] = interfacesJson(packets.in);
    document["out"] = interfacesJson(packets.out);
    document["protocols"] = numbersJson(packets.protocols);
    document["sources"] = endsJson(packets.sources, packets.families);
    document["destinations"] = endsJson(packets.destinations, packets.families);
    document["sourcePorts"] = numbersJson(packets.sourcePorts);
    document["destinationPorts"] = numbersJson(packets.destinationPorts);
    document["icmpTypes"] = numbersJson(packets.icmpTypes);
    document["states"] = maskJson(packets.states, kStates);
    return document;
}

Json::Value packetJson(const FW::FWPACKET& packet) {
    const auto address = [&](const std::optional<FW::FWADDRESS>& one) {
        return one ? Json::Value(FW::fwAddressText(*one, packet.family.value_or(FW::FW_FAMILY_V4)))
                   : Json::Value();
    };
    Json::Value document;
    document["chain"] = packet.chain ? Json::Value(kChains[*packet.chain]) : Json::Value();
    document["family"] = packet.family ? Json::Value(kFamilies[*packet.family]) : Json::Value();
    document["in"] = valueJson(packet.in);
    document["out"] = valueJson(packet.out);
    document["protocol"] = valueJson(packet.protocol);
    document["source"] = address(packet.source);
    document["destination"] = address(packet.destination);
    document["sourcePort"] = valueJson(packet.sourcePort);
    document["destinationPort"] = valueJson(packet.destinationPort);
    document["icmpType"] = valueJson(packet.icmpType);
    document["state"] = packet.state ? Json::Value(kStates[*packet.state]) : Json::Value();
    return document;
}

const char* originWord(FW::FW_ORIGIN origin) {
    switch (origin) {
        case FW::FW_ORIGIN_RULE:
            return "rule";
        case FW::FW_ORIGIN_DEFAULT:
            return "defaultPolicy";
        case FW::FW_ORIGIN_LOOPBACK:
            return "loopback";
        case FW::FW_ORIGIN_NEIGHBOURS:
            return "neighbours";
        case FW::FW_ORIGIN_ESTABLISHED:
            return "established";
        default:
            return kByNothing;
    }
}

Json::Value placeJson(const FW::FWPLACE& place) {
    Json::Value document;
    document["by"] = originWord(place.origin);
    document["adapter"] = Json::Value();
    document["position"] = Json::Value();
    if (const auto rule = rulePlaceOf(place)) {
        document["adapter"] = rule->adapter;
        if (rule->position > 0) {
            document["position"] = static_cast<Json::UInt64>(rule->position);
        }
    }
    return document;
}

}  // namespace tarnfw
