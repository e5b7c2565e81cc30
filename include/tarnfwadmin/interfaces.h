/// The machine's interfaces, as profiles name them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnfwadmin/addressRange.h"

namespace tarnfw {

/// An interface as it is now.
struct Interface {
    std::string name;
    bool up = false;
    bool running = false;  ///< up, and the other end is there
    std::vector<Address> addresses;
};

/// All interfaces, "lo" among them, sorted by name.
std::vector<Interface> interfacesNow();

/// The adapters that the library finds on the machine, sorted.
std::vector<std::string> machineAdapters();

/// The interfaces that "pppoe" or "vpn" stands for now; none for any other name.
std::vector<std::string> standsFor(const std::string& adapter);

/// What profiles may call an interface: itself, and "pppoe" or "vpn" where that stands for it.
std::vector<std::string> adapterNamesOf(const std::string& interface);

/// Whether the name is one of "global", "pppoe", "vpn".
bool isPredefined(const std::string& adapter);

/// Refuses an adapter that neither the machine nor one of `others` has, with the nearest right one.
void requireAdapter(const std::string& adapter, const std::vector<std::string>& others);

}  // namespace tarnfw
