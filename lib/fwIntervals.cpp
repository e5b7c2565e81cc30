#include "fwIntervals.h"

#include <algorithm>
#include <cstddef>

namespace FW {
namespace {

/// Of the intervals from `begin` to before `end`, the first one that ends at or after `number`.
std::size_t endingFrom(IntervalView set, std::size_t begin, std::size_t end, Number number) {
    while (begin < end) {
        const std::size_t middle = begin + (end - begin) / 2;
        if (set[middle].last < number) {
            begin = middle + 1;
        } else {
            end = middle;
        }
    }
    return begin;
}

/// The same, in a set that is walked from `start` on: near it in few steps, far away by doubling
/// them.
std::size_t endingFrom(IntervalView set, std::size_t start, Number number) {
    std::size_t step = 1;
    std::size_t begin = start;
    while (set.size() - begin > step && set[begin + step].last < number) {
        begin += step;
        step *= 2;
    }
    return endingFrom(set, begin, std::min(begin + step, set.size()), number);
}

/// Whether `b` follows `a` without a gap, or overlaps it; `a` begins first.
bool joins(const Interval& a, const Interval& b) {
    return a.last == kMaxNumber || b.first <= a.last + 1;
}

}  // namespace

void normalize(Intervals& intervals) {
    intervals.erase(std::remove_if(intervals.begin(), intervals.end(),
                                   [](const Interval& one) { return one.last < one.first; }),
                    intervals.end());
    if (intervals.size() < 2) {
        return;
    }
    const auto byFirst = [](const Interval& a, const Interval& b) { return a.first < b.first; };
    if (!std::is_sorted(intervals.begin(), intervals.end(), byFirst)) {
        std::sort(intervals.begin(), intervals.end(), byFirst);
    }
    std::size_t count = 1;
    for (std::size_t i = 1; i < intervals.size(); ++i) {
        Interval& previous = intervals[count - 1];
        if (joins(previous, intervals[i])) {
            previous.last = std::max(previous.last, intervals[i].last);
        } else {
            intervals[count++] = intervals[i];
        }
    }
    intervals.resize(count);
}

FWADDRESSES addressesOf(IntervalView set) {
    FWADDRESSES addresses;
    addresses.reserve(set.size());
    for (const Interval& one : set) {
        addresses.push_back({addressOf(one.first), addressOf(one.last)});
    }
    return addresses;
}

bool operator==(IntervalView a, IntervalView b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!(a[i] == b[i])) {
            return false;
        }
    }
    return true;
}

bool contains(IntervalView set, Number number) {
    const std::size_t found = endingFrom(set, 0, set.size(), number);
    return found != set.size() && set[found].first <= number;
}

bool overlapsAny(IntervalView a, IntervalView b, std::size_t& looked) {
    const IntervalView few = a.size() <= b.size() ? a : b;
    const IntervalView many = a.size() <= b.size() ? b : a;
    std::size_t found = 0;
    for (const Interval& one : few) {
        ++looked;
        found = endingFrom(many, found, one.first);
        if (found == many.size()) {
            return false;
        }
        if (many[found].first <= one.last) {
            return true;
        }
    }
    return false;
}

bool includesAll(IntervalView set, IntervalView other) {
    std::size_t found = 0;
    for (const Interval& one : other) {
        found = endingFrom(set, found, one.first);
        if (found == set.size() || one.first < set[found].first || set[found].last < one.last) {
            return false;
        }
    }
    return true;
}

Intervals intersected(IntervalView a, IntervalView b) {
    const IntervalView few = a.size() <= b.size() ? a : b;
    const IntervalView many = a.size() <= b.size() ? b : a;
    Intervals common;
    std::size_t first = 0;
    for (const Interval& one : few) {
        first = endingFrom(many, first, one.first);
        for (std::size_t i = first; i < many.size() && many[i].first <= one.last; ++i) {
            common.push_back(
                {std::max(one.first, many[i].first), std::min(one.last, many[i].last)});
        }
    }
    return common;
}

Intervals united(IntervalView a, IntervalView b) {
    Intervals all;
    all.reserve(a.size() + b.size());
    for (const IntervalView set : {a, b}) {
        for (const Interval& one : set) {
            all.push_back(one);
        }
    }
    normalize(all);
    return all;
}

Intervals without(IntervalView set, IntervalView other) {
    Intervals rest;
    std::size_t firstHole = 0;
    for (const Interval& one : set) {
        Number first = one.first;
        bool ended = false;
        firstHole = endingFrom(other, firstHole, one.first);
        for (std::size_t i = firstHole; i < other.size() && !ended; ++i) {
            const Interval hole = other[i];
            if (one.last < hole.first) {
                break;
            }
            if (first < hole.first) {
                rest.push_back({first, hole.first - 1});
            }
            ended = one.last <= hole.last;
            if (!ended) {
                first = hole.last + 1;
            }
        }
        if (!ended) {
            rest.push_back({first, one.last});
        }
    }
    return rest;
}

}  // namespace FW
