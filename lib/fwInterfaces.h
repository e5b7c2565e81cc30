/// The machine's interfaces, for both the translation and the control class.
#pragma once

#include <string>
#include <vector>

#include "fwText.h"

namespace FW {

/// Appends the interface names in the platform's order, and "wlan0" on a model with wireless; then
/// merges equal neighbours in `names`. Of more than 32 interfaces, the first 32. Returns how many
/// the platform named, at most 32 and without "wlan0"; or a negative platform error, with the error
/// state set, when they cannot be listed. The caller logs that, under its own source name,
/// with FW_LOG_INTERFACES_FAILURE.
int interfacesEnum(std::vector<std::string>& names);

/// A "tun" interface that belongs to the system, not to a VPN.
inline constexpr char kSystemTunnel[] = "tun1000";

/// Whether an interface belongs to the adapter "vpn": "ppp..." other than the PPPoE interface, and
/// "tun..." other than the system's.
inline bool isVpnInterface(const std::string& name, const std::string& pppoe) {
    return (startsWith(name, "ppp") && name != pppoe) ||
           (startsWith(name, "tun") && name != kSystemTunnel);
}

}  // namespace FW

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): the line must be the caller's
#define FW_LOG_INTERFACES_FAILURE(result)                                        \
    FW_LOG_ERR("Failed to TLIBNetGetInterfaceInfo(%d) [0x%04X %s:%d]", (result), \
               static_cast<unsigned>(TLIBCErrGet()), TLIBCErrorGetFile(), TLIBCErrorGetLine())
