"""Rows, the results of every group of measurements, and values computed from several rows."""

import dataclasses
import json
import math
import statistics


@dataclasses.dataclass
class Row:
    """One side of one case at one size. The times are seconds."""

    group: str
    case: str
    side: str
    size: int
    times: list
    counters: dict = dataclasses.field(default_factory=dict)
    processor: list = dataclasses.field(default_factory=list)  # of the same runs, where it is known
    peak_kib: int = 0  # of a process that did nothing else
    note: str = ''  # why there is no time

    @property
    def median(self):
        return statistics.median(self.times) if self.times else math.nan

    @property
    def spread(self):
        """Half the range from the lowest to the highest time, as a part of the median."""
        return (max(self.times) - min(self.times)) / 2 / self.median if self.times else math.nan


def ratio(row, floor):
    """The median of the ratios within one run each: what slows one run down slows both sides."""
    if not row.times or floor is None or not floor.times:
        return math.nan
    return statistics.median(a / b for a, b in zip(row.times, floor.times))


def processor_ratio(row, floor):
    """The same for the processors' time, which others on the machine disturb less."""
    if not row.processor or floor is None or not floor.processor:
        return math.nan
    return statistics.median(a / b for a, b in zip(row.processor, floor.processor))


def exponent(points):
    """The k of the power n^k that fits (n, time) best; NaN for fewer than three sizes."""
    points = [(math.log(n), math.log(t)) for n, t in points if n > 0 and t > 0]
    if len(points) < 3:
        return math.nan
    mean_x = statistics.fmean(x for x, _ in points)
    mean_y = statistics.fmean(y for _, y in points)
    return sum((x - mean_x) * (y - mean_y) for x, y in points) / sum(
        (x - mean_x) ** 2 for x, _ in points
    )


def exponent_of_n_log_n(sizes):
    return exponent([(n, n * math.log(n)) for n in sizes if n > 1])


def growth(rows):
    """The exponents of every case and side: (group, case, side) -> (k, k of n log n)."""
    found = {}
    for key in dict.fromkeys((r.group, r.case, r.side) for r in rows):
        points = sorted(
            (r.size, r.median) for r in rows if (r.group, r.case, r.side) == key and r.times
        )
        # Below 100, costs that do not depend on the size hide the growth.
        points = [(n, t) for n, t in points if n >= 100 or n in [m for m, _ in points[-3:]]]
        k = exponent(points)
        if not math.isnan(k):
            found[key] = (k, exponent_of_n_log_n([n for n, _ in points]))
    return found


def save(rows, path):
    with open(path, 'w', encoding='utf-8') as file:
        json.dump([dataclasses.asdict(row) for row in rows], file, indent=1)


def load(path):
    with open(path, encoding='utf-8') as file:
        return [Row(**row) for row in json.load(file)]
