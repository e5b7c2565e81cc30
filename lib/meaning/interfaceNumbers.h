/// Interfaces as numbers.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

#include "../fwIntervals.h"

namespace FW {

/// The entry that every name fits.
inline constexpr char kEveryName[] = "+";

/// Numbers the interfaces that rules name. Each entry of their sets has a number, for the names
/// that no longer entry fits. A beginning of names comes directly before the entries that begin
/// with it, so every set is a few intervals.
class InterfaceNumbers {
public:
    explicit InterfaceNumbers(std::vector<std::string> entries);

    const std::vector<std::string>& entries() const { return entries_; }

    bool hasAll(const FWINTERFACES& interfaces) const;
    Number numberOf(const std::string& name) const;
    Intervals numbersOf(const FWINTERFACES& interfaces) const;
    FWINTERFACES interfacesOf(IntervalView numbers) const;

    /// A name with this number.
    std::string exampleOf(Number number) const;

    Number greatest() const { return entries_.size() - 1; }

private:
    std::size_t indexOf(const std::string& entry) const;

    std::vector<std::string> entries_;  // sorted; the first is "+"
    std::vector<std::size_t> ends_;     // by entry: one past those that begin with it
};

}  // namespace FW
