/// Addresses and numbers in the texts of rules, as iptables reads them.
#pragma once

#include <optional>
#include <string>

#include "tarnfirewall/fwMeaning.h"

#include "../fwIntervals.h"

namespace FW {

/// How a text was read.
enum class TextResult {
    kRead,
    kInvalid,     ///< iptables refuses it, or asks a name server
    kTooComplex,  ///< a mask with too many gaps
};

/// A number in the syntax of strtoul() with `base`, 0 for octal, decimal and hexadecimal, up to
/// `max`.
std::optional<unsigned> numberFrom(const std::string& text, unsigned max, int base = 0);

/// What "-s TEXT" matches: addresses with or without a mask or prefix length, joined by commas.
TextResult readAddresses(const std::string& text, FW_FAMILY family, Intervals& addresses);

/// What "--src-range FIRST-LAST" matches: nothing when it runs backwards.
TextResult readRange(const std::string& first, const std::string& last, FW_FAMILY family,
                     Intervals& addresses);

}  // namespace FW
