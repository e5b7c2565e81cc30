/// The machine's interfaces, and the adapters for them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"

#include "tarnfwadmin/addressRange.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// An interface and its present state.
struct Interface {
    std::string name;
    bool up = false;
    bool running = false;            ///< up, and the other end is there
    std::vector<Address> addresses;  ///< of both families, in the kernel's order
};

/// All interfaces of the kernel, "lo" among them, sorted by name, from getifaddrs(). Throws Error,
/// kSystem, when they cannot be listed.
std::vector<Interface> interfacesNow();

/// What kind of device an interface is.
struct InterfaceKind {
    std::string name;
    std::string kind;    ///< the kernel's word: "bridge", "veth", "tun"; empty for hardware
    std::string portOf;  ///< the bridge, bond or VRF that it is in; empty without one
};

/// The kinds of all interfaces of the kernel, "lo" among them, sorted by name. Throws Error,
/// kSystem, when they cannot be listed.
std::vector<InterfaceKind> interfaceKindsNow();

/// The interface that packets to `peer` leave through, which is the one that its packets come in
/// through unless the routes of the two directions differ; "lo" for an address of the machine
/// itself. `local` is the machine's own end, which its policy routing may depend on. Asks the
/// kernel's routing table; nothing without a route.
std::optional<std::string> interfaceTowards(const Address& peer,
                                            const std::optional<Address>& local = {});

/// The adapters that the library finds on the machine (TARNFW::fwAdapterEnum()), sorted. Throws
/// Error, kSystem, when they cannot be listed.
std::vector<std::string> machineAdapters();

/// The adapters that rules can be for on this machine, sorted: machineAdapters() and the predefined
/// ones, but for "ppp0". Throws Error as machineAdapters().
std::vector<std::string> usableAdapters();

/// The interfaces that "pppoe" or "vpn" is now; none for any other name, nor where the library
/// finds none, as when it cannot list them. Throws Error, kSystem, when they go meanwhile.
std::vector<std::string> interfacesOf(const std::string& adapter);

/// What profiles may call an interface: its own name, then "pppoe" or "vpn" where it is one of
/// interfacesOf() that. Throws Error as that does.
std::vector<std::string> adapterNamesOf(const std::string& interface);

/// Whether the name is one of "global", "pppoe", "vpn".
bool isPredefined(const std::string& adapter);

/// Whether rules and default policies for this name are never applied: those for "ppp0", whose
/// connection is filtered as "pppoe", and for "lo".
bool isNeverApplied(const std::string& adapter);

/// Whether the name is that of the loopback interface. The first line of every profile accepts what
/// comes in through it.
bool isLoopback(const std::string& adapter);

/// Whether profiles can have rules for an adapter of this name: at most 15 bytes, the kernel's
/// limit for an interface; one word (isWord()); without '/' and ':'; not "." or "..". It need not
/// exist.
bool isAdapterName(const std::string& name);

/// Why no rules can be for the adapter "ppp0".
inline constexpr char kPppoeInterfaceText[] =
    "rules and default policies of \"ppp0\" are never applied; use \"pppoe\"";

/// What there is to say about rules for "lo".
inline constexpr char kLoopbackText[] =
    "\"lo\" is never filtered: its rules and default policy have no effect";

/// Throws Error, kUnusable, unless profiles can have rules for `adapter`, which need not exist: for
/// a name that isAdapterName() rejects, and for "ppp0", whose rules are never applied, unless it is
/// one of `others` (those of a profile).
void requireAdapterName(const std::string& adapter, const std::vector<std::string>& others);

/// Throws Error unless something is known of `adapter`: unless it is an interface of the machine
/// that the library finds, a predefined adapter, or one of `others` (those of a profile).
/// kNotFound, with the nearest name, for an unknown one; kUnusable for one of `others` that
/// isAdapterName() rejects, and for "ppp0" as requireAdapterName(); kSystem when the interfaces
/// cannot be listed.
void requireAdapter(const std::string& adapter, const std::vector<std::string>& others);

/// The same, for a question about what holds for `adapter`: throws Error, kNotFound, also for
/// "pppoe" and "vpn" when no interface is one now and it is none of `others`.
void requireCoveredAdapter(const std::string& adapter, const std::vector<std::string>& others);

}  // namespace tarnfw
