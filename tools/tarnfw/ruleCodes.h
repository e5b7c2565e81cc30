/// The codes of a rule's members that the library's headers give as numbers (see FWRULE), and the
/// adapter that none is.
#pragma once

#include <cstdint>

namespace tarnfw {

enum IpType : std::int32_t { kIpV4Only = 0, kIpV6Only = 1, kIpBoth = 2 };

enum IpGroup : std::int32_t {
    kIpSingle = 0,
    kIpNetwork = 1,
    kIpNone = 2,
    kIpCountries = 3,
    kIpRange = 4,
    kIpAny = 5,
};

enum PortGroup : std::int32_t {
    kPortServices = 0,
    kPortCustom = 1,
    kPortServicesReserved = 2,
    kPortAny = 3,
};

inline constexpr char kGlobalAdapter[] = "global";

/// Rules and policies for it are never applied: those for "pppoe" or "vpn" are.
inline constexpr char kPppoeUsualInterface[] = "ppp0";

}  // namespace tarnfw
