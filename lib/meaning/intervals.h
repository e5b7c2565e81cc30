/// Sets of numbers as lists of intervals.
#pragma once

#include <vector>

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

/// Makes a set of any intervals; those with `last` before `first` are left out.
void normalize(Intervals& intervals);

bool contains(const Intervals& set, Number number);

/// overlaps() of lists of any length.
bool overlapsAny(const Intervals& a, const Intervals& b);

/// Whether the sets have a number in common.
inline bool overlaps(const Intervals& a, const Intervals& b) {
    // What most sets are.
    return a.size() == 1 && b.size() == 1
               ? a.front().first <= b.front().last && b.front().first <= a.front().last
               : overlapsAny(a, b);
}

/// Whether `set` contains all numbers of `other`.
bool includes(const Intervals& set, const Intervals& other);

Intervals intersected(const Intervals& a, const Intervals& b);
Intervals united(const Intervals& a, const Intervals& b);

/// The numbers of `set` that are not in `other`.
Intervals without(const Intervals& set, const Intervals& other);

}  // namespace FW
