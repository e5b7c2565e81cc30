#include "fwInterfaces.h"

#include <string.h>

#include <algorithm>
#include <array>

#include "tarncore.h"
#include "tarnnetsdk.h"

namespace FW {
namespace {

constexpr int kInterfaceCapacity = 32;
constexpr int kInterfaceSelector = 8;

constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";
constexpr char kWirelessKey[] = "support_wireless";
constexpr char kWirelessInterface[] = "wlan0";

bool modelHasWireless() {
    return TLIBCSupportGet(kWirelessKey) != 0 &&
           TLIBCFileCheckKeyValue(kModelFile, kWirelessKey, "yes", 0) != 0;
}

}  // namespace

int interfacesEnum(std::vector<std::string>& names) {
    std::array<TLIBNET_INTERFACE, kInterfaceCapacity> table{};
    int extra = 0;
    const int count =
        TLIBNetGetInterfaceInfo(table.data(), kInterfaceCapacity, kInterfaceSelector, &extra);
    if (count < 0) {
        return count;
    }
    const int filled = std::min(count, kInterfaceCapacity);
    for (int i = 0; i < filled; ++i) {
        const TLIBNET_INTERFACE& interface = table[static_cast<std::size_t>(i)];
        names.emplace_back(interface.name, strnlen(interface.name, sizeof(interface.name)));
    }
    if (modelHasWireless()) {
        // Even while the driver is not loaded: rules for it may exist before the interface does.
        names.emplace_back(kWirelessInterface);
    }
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return filled;
}

}  // namespace FW
