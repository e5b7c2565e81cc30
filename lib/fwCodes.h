/// The codes of a rule's fields that have no enumeration of their own in fwTypes.h, and the adapter
/// names with a meaning. Shared with tools/tarnfw.
#pragma once

#include <cstdint>

namespace FW {

/// FWRULE::ipType.
enum IpType : std::int32_t { kIpV4Only = 0, kIpV6Only = 1, kIpBoth = 2 };

/// FWRULE::ipGroup.
enum IpGroup : std::int32_t {
    kIpSingle = 0,
    kIpNetwork = 1,
    kIpNone = 2,
    kIpCountries = 3,
    kIpRange = 4,
    kIpAny = 5,
};

/// FWRULE::portGroup. The two codes of services differ in who keeps the rule: with kIpAny, the
/// second one marks the rules that the system keeps.
enum PortGroup : std::int32_t {
    kPortServices = 0,
    kPortCustom = 1,
    kPortServicesReserved = 2,
    kPortAny = 3,
};

inline constexpr char kGlobalAdapter[] = "global";
inline constexpr char kPppoeAdapter[] = "pppoe";
inline constexpr char kVpnAdapter[] = "vpn";

/// Never an adapter of its own: rules for it are those of "pppoe", or of "vpn" where PPPoE runs
/// over another interface.
inline constexpr char kPppoeUsualInterface[] = "ppp0";

}  // namespace FW
