/// The addresses in a rule as iptables and ip6tables read them, which is more than addressFrom()
/// does: "10.1", "010.0.0.1", "10.0.0.0/0x8", "fe80::/ffff:ffff::", "10.0.0.1,10.0.0.9". Names of
/// hosts and networks, which they look up at each reload, are not read. Nothing here throws.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarnfwadmin/addressRange.h"

namespace tarnfw {

/// All addresses that agree with `base` in the bits of `mask`. The other bits of `base` are 0.
struct MaskedAddress {
    Address base;
    Address mask;

    /// The same as a range; nothing when the mask has a gap.
    std::optional<AddressRange> range() const;

    /// The lowest of the addresses and the highest.
    AddressRange hull() const;
};

/// What "-s" and "-d" match. Nothing for a text that the program of the family refuses.
std::optional<std::vector<MaskedAddress>> addressesRead(const std::string& text, bool ipv6);

/// The mask that a text after "/" is: "8", "0x8", "010" (which is 8), "255.0.255.0", "ffff::".
/// Nothing when the program of the family refuses it.
std::optional<Address> maskRead(const std::string& text, bool ipv6);

/// The ends of "--src-range" and "--dst-range". They may run backwards: no address matches then.
/// Nothing when the program of the family refuses one of them.
std::optional<std::pair<Address, Address>> endsRead(const std::string& first,
                                                    const std::string& last, bool ipv6);

/// "10.0.0.1", "10.0.0.0/8", "10.0.0.0/255.0.255.0".
std::string spelled(const MaskedAddress& addresses);

}  // namespace tarnfw
