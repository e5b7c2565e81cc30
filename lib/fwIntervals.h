/// Sets of numbers as lists of intervals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

namespace FW {

/// Large enough for an IPv6 address.
__extension__ typedef unsigned __int128 Number;

constexpr Number kMaxNumber = ~Number(0);

/// Both ends included.
struct Interval {
    Number first;
    Number last;
};

inline bool operator==(const Interval& a, const Interval& b) {
    return a.first == b.first && a.last == b.last;
}

/// A set: sorted intervals, disjoint and not adjacent. All functions keep it so.
using Intervals = std::vector<Interval>;

// ---- Addresses as numbers ----

inline Number numberOf(const FWADDRESS& address) {
    return Number(address.high) << 64 | address.low;
}
inline FWADDRESS addressOf(Number number) {
    return {static_cast<std::uint64_t>(number >> 64), static_cast<std::uint64_t>(number)};
}

/// A list of addresses has an interval in this form.
inline Interval intervalOf(const FWADDRESSINTERVAL& addresses) {
    return {numberOf(addresses.first), numberOf(addresses.last)};
}

// In an IPv4 number, the bits that are no part of the address.
constexpr Number kBelowIpv4 = kMaxNumber >> 32;

/// The number of an IPv4 address, the first one of its interval.
inline Number ipv4Number(std::uint32_t address) {
    return Number(address) << 96;
}

/// The last number of the interval that begins with an address.
inline Number lastOf(Number address, FW_FAMILY family) {
    return family == FW_FAMILY_V4 ? address | kBelowIpv4 : address;
}

// ---- Sets ----

/// A set wherever its intervals are kept: as numbers, or in a list of addresses, which is not
/// copied for it. Valid as long as they are.
class IntervalView {
public:
    IntervalView(const Interval& one) : data_(&one), size_(1) {}
    IntervalView(const Intervals& set) : IntervalView(set.data(), set.size(), false) {}
    IntervalView(const FWADDRESSES& list) : IntervalView(list.data(), list.size(), true) {}

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    Interval operator[](std::size_t index) const {
        return isAddresses_ ? intervalOf(static_cast<const FWADDRESSINTERVAL*>(data_)[index])
                            : static_cast<const Interval*>(data_)[index];
    }
    Interval front() const { return (*this)[0]; }
    Interval back() const { return (*this)[size_ - 1]; }

    /// What a loop over the intervals needs.
    class Iterator {
    public:
        Iterator(const IntervalView& view, std::size_t index) : view_(&view), index_(index) {}
        Interval operator*() const { return (*view_)[index_]; }
        Iterator& operator++() {
            ++index_;
            return *this;
        }
        bool operator!=(const Iterator& other) const { return index_ != other.index_; }

    private:
        const IntervalView* view_;
        std::size_t index_;
    };
    Iterator begin() const { return {*this, 0}; }
    Iterator end() const { return {*this, size_}; }

protected:
    bool isOfAddresses() const { return isAddresses_; }

private:
    IntervalView(const void* data, std::size_t size, bool isAddresses)
        : data_(data), size_(static_cast<std::uint32_t>(size)), isAddresses_(isAddresses) {}

    // No longer than two words, so that calls pass it in registers.
    const void* data_;
    std::uint32_t size_;
    bool isAddresses_ = false;
};

/// Whether the sets are the same.
bool operator==(IntervalView a, IntervalView b);

/// The same as a list of addresses.
FWADDRESSES addressesOf(IntervalView set);

/// Makes a set of any intervals; those with `last` before `first` are left out.
void normalize(Intervals& intervals);

bool contains(IntervalView set, Number number);

/// overlaps() of lists of any length. Adds to `looked` how many intervals of the shorter one it has
/// looked at.
bool overlapsAny(IntervalView a, IntervalView b, std::size_t& looked);

/// Whether the sets have a number in common.
inline bool overlaps(IntervalView a, IntervalView b) {
    // What most sets are.
    if (a.size() == 1 && b.size() == 1) {
        const Interval one = a.front();
        const Interval other = b.front();
        return one.first <= other.last && other.first <= one.last;
    }
    std::size_t looked = 0;
    return overlapsAny(a, b, looked);
}

/// includes() of lists of any length.
bool includesAll(IntervalView set, IntervalView other);

/// Whether `set` contains all numbers of `other`.
inline bool includes(IntervalView set, IntervalView other) {
    if (set.size() == 1 && other.size() == 1) {
        const Interval all = set.front();
        const Interval one = other.front();
        return all.first <= one.first && one.last <= all.last;
    }
    return includesAll(set, other);
}

Intervals intersected(IntervalView a, IntervalView b);
Intervals united(IntervalView a, IntervalView b);

/// The numbers of `set` that are not in `other`.
Intervals without(IntervalView set, IntervalView other);

/// A hash with one more number in it.
inline std::uint64_t mixedHash(std::uint64_t hash, std::uint64_t number) {
    hash = (hash ^ number) * 0x9e3779b97f4a7c15U;
    return hash ^ hash >> 29;
}

}  // namespace FW
