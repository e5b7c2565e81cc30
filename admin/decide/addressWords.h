/// Addresses in words.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "fwIntervals.h"

namespace tarnfw {

/// Addresses of one family as numbers, those of IPv4 in the upper 32 bits.
FW::Intervals numbersOf(const FW::FWADDRESSES& addresses);

/// The same; null is any address.
FW::Intervals numbersOf(const std::shared_ptr<const FW::FWADDRESSES>& addresses);

FW::FWADDRESSES addressesOf(const FW::Intervals& numbers);

/// Whether these are all addresses of a family.
bool isEveryAddress(const FW::Intervals& addresses);

/// Addresses that profiles have a name for, of one family.
struct NamedAddresses {
    std::string name;  ///< of a country its code
    FW::Intervals addresses;
};

struct AddressNames {
    std::vector<NamedAddresses> countries;  ///< the largest first
    std::vector<NamedAddresses> lists;      ///< of other rules with more than one interval
    FW::Intervals networks;                 ///< of rules with one interval, in ascending order
};

/// The addresses of both families: "10.0.0.0/8 except 10.3.0.0/16", "country CN (IPv4)"; or
/// `everybody` or `nobody`. Of a list at most about `most` entries are named. `names` are by
/// family. An exception is at the end, where it belongs to one entry alone, or in brackets after
/// its entry: "10.0.0.0/8 (except 10.3.0.0/16), fc00::/7 (except fc01::/16)"; in brackets in any
/// case if `bracketed`, for a text that goes on.
std::string addressesText(const std::array<FW::Intervals, 2>& addresses,
                          const std::array<AddressNames, 2>& names, const std::string& everybody,
                          const std::string& nobody, std::size_t most, bool bracketed = false);

}  // namespace tarnfw
