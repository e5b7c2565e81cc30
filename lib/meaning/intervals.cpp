#include "intervals.h"

#include <algorithm>
#include <cstddef>

namespace FW {
namespace {

/// The first interval that ends at or after `number`.
Intervals::const_iterator endingFrom(const Intervals& set, Number number) {
    return std::lower_bound(
        set.begin(), set.end(), number,
        [](const Interval& interval, Number wanted) { return interval.last < wanted; });
}

/// The same, in a set that is walked from `start` on: near it in few steps, far away by doubling
/// them.
Intervals::const_iterator endingFrom(const Intervals& set, Intervals::const_iterator start,
                                     Number number) {
    std::ptrdiff_t step = 1;
    auto begin = start;
    while (set.end() - begin > step && (begin + step)->last < number) {
        begin += step;
        step *= 2;
    }
    const auto end = set.end() - begin > step ? begin + step : set.end();
    return std::lower_bound(begin, end, number, [](const Interval& interval, Number wanted) {
        return interval.last < wanted;
    });
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

bool contains(const Intervals& set, Number number) {
    const auto found = endingFrom(set, number);
    return found != set.end() && found->first <= number;
}

bool overlapsAny(const Intervals& a, const Intervals& b) {
    const Intervals& few = a.size() <= b.size() ? a : b;
    const Intervals& many = a.size() <= b.size() ? b : a;
    auto found = many.begin();
    return std::any_of(few.begin(), few.end(), [&](const Interval& one) {
        found = endingFrom(many, found, one.first);
        return found != many.end() && found->first <= one.last;
    });
}

bool includes(const Intervals& set, const Intervals& other) {
    auto found = set.begin();
    return std::all_of(other.begin(), other.end(), [&](const Interval& one) {
        found = endingFrom(set, found, one.first);
        return found != set.end() && found->first <= one.first && one.last <= found->last;
    });
}

Intervals intersected(const Intervals& a, const Intervals& b) {
    const Intervals& few = a.size() <= b.size() ? a : b;
    const Intervals& many = a.size() <= b.size() ? b : a;
    Intervals common;
    auto first = many.begin();
    for (const Interval& one : few) {
        first = endingFrom(many, first, one.first);
        for (auto other = first; other != many.end() && other->first <= one.last; ++other) {
            common.push_back({std::max(one.first, other->first), std::min(one.last, other->last)});
        }
    }
    return common;
}

Intervals united(const Intervals& a, const Intervals& b) {
    Intervals all = a;
    all.insert(all.end(), b.begin(), b.end());
    normalize(all);
    return all;
}

Intervals without(const Intervals& set, const Intervals& other) {
    Intervals rest;
    auto firstHole = other.begin();
    for (const Interval& one : set) {
        Number first = one.first;
        bool ended = false;
        firstHole = endingFrom(other, firstHole, one.first);
        for (auto hole = firstHole; hole != other.end() && !ended; ++hole) {
            if (one.last < hole->first) {
                break;
            }
            if (first < hole->first) {
                rest.push_back({first, hole->first - 1});
            }
            ended = one.last <= hole->last;
            if (!ended) {
                first = hole->last + 1;
            }
        }
        if (!ended) {
            rest.push_back({first, one.last});
        }
    }
    return rest;
}

}  // namespace FW
