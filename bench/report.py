"""Rows as a table, as JSON and CSV, and as input of gnuplot:

    report.py DIRECTORY     of the rows in DIRECTORY/*.rows
"""

import csv
import glob
import json
import math
import os
import sys

from rows import growth, load, processor_ratio, ratio

# The other sides of a case are compared with the side of this name.
FLOOR = 'floor'

# A fit over noisy times may exceed that of n log n by this much.
GROWTH_TOLERANCE = 0.1


def duration(seconds):
    if math.isnan(seconds):
        return '-'
    for unit, factor in (('s', 1.0), ('ms', 1e-3), ('us', 1e-6)):
        if seconds >= factor:
            return f'{seconds / factor:.3g} {unit}'
    return f'{seconds / 1e-9:.3g} ns'


def floor_of(row, rows):
    for other in rows:
        if (other.group, other.case, other.size, other.side) == (
            row.group,
            row.case,
            row.size,
            FLOOR,
        ):
            return other
    return None


def details(row, floor):
    texts = []
    of_processor = processor_ratio(row, floor)
    if not math.isnan(of_processor) and row is not floor:
        texts.append(f'x{of_processor:.2f} of the processor')
    if 'lines' in row.counters and row.times:
        texts.append(f'{row.counters["lines"] / row.median / 1e6:.2f} M lines/s')
    if 'bytes_per_line' in row.counters:
        texts.append(f'{row.counters["bytes_per_line"]:.0f} B/line')
    for name, value in row.counters.items():
        if name not in ('lines', 'bytes_per_line'):
            texts.append(f'{name} {value:.4g}')
    if row.peak_kib:
        texts.append(f'peak {row.peak_kib / 1024:.0f} MiB')
    if row.note:
        texts.append(row.note)
    return ', '.join(texts)


HEAD = ('what', 'size', 'side', 'time', '+-', 'x floor', 'more')


def table_lines(rows):
    lines = [HEAD]
    for row in rows:
        floor = floor_of(row, rows)
        times_floor = '' if row.side == FLOOR else f'{ratio(row, floor):.2f}'
        lines.append(
            (
                f'{row.group} {row.case}',
                str(row.size),
                row.side,
                duration(row.median),
                '' if math.isnan(row.spread) else f'{row.spread:.0%}',
                times_floor.replace('nan', ''),
                details(row, floor),
            )
        )
    return lines


def growth_lines(rows):
    lines = []
    found = growth(rows)
    for (group, case, side), (k, limit) in found.items():
        floor, _ = found.get((group, case, FLOOR), (limit, limit))
        verdict = ''
        if k > limit + GROWTH_TOLERANCE:
            verdict = ', as its floor does' if k <= floor + GROWTH_TOLERANCE else ', AND MORE'
        lines.append(
            f'{group} {case}, {side}: n^{k:.2f} (n log n would be n^{limit:.2f}{verdict})'
        )
    return lines


def print_table(lines):
    widths = [max(len(line[i]) for line in lines) for i in range(len(HEAD))]
    for line in lines:
        print('  '.join(text.ljust(width) for text, width in zip(line, widths)).rstrip())


def write_markdown(rows, path):
    with open(path, 'w', encoding='utf-8') as file:
        for number, line in enumerate(table_lines(rows)):
            file.write('| ' + ' | '.join(line) + ' |\n')
            if number == 0:
                file.write('|' + '---|' * len(HEAD) + '\n')
        file.write('\nGrowth, time against size as a power:\n\n')
        for line in growth_lines(rows):
            file.write(f'- {line}\n')


# The table of README: its columns, by the sides of this case, at these sizes.
SPEED_CASE = 'batch nft'
SPEED_SIZES = (1000, 5000)
SPEED_SIDES = {
    'tarnfw reload': '`tarnfw reload`',
    'library': "the library's part",
    FLOOR: 'bare `iptables-restore`',
    'ferm': 'ferm',
    'firewalld': 'firewalld',
}


def speed_lines(rows):
    """A line for each size; none when the case was not measured."""
    times = {
        (row.size, row.side): row.median
        for row in rows
        if (row.group, row.case) == ('reload', SPEED_CASE) and row.times
    }
    sides = [side for side in SPEED_SIDES if all((size, side) in times for size in SPEED_SIZES)]
    if not sides:
        return []
    lines = [
        '| rules | ' + ' | '.join(SPEED_SIDES[side] for side in sides) + ' |',
        '|---|' + '---|' * len(sides),
    ]
    for size in SPEED_SIZES:
        cells = (f'{times[size, side]:.2g} s' for side in sides)
        lines.append(f'| {size:,} | ' + ' | '.join(cells) + ' |')
    return lines


def write_speed(rows, path):
    lines = speed_lines(rows)
    if lines:
        with open(path, 'w', encoding='utf-8') as file:
            file.writelines(f'{line}\n' for line in lines)


def write_csv(rows, path):
    with open(path, 'w', encoding='utf-8', newline='') as file:
        writer = csv.writer(file)
        writer.writerow(('group', 'case', 'side', 'size', 'seconds', 'spread', 'x_floor', 'x_floor_processor', 'peak_kib'))
        for row in rows:
            writer.writerow(
                (
                    row.group,
                    row.case,
                    row.side,
                    row.size,
                    f'{row.median:.9f}',
                    f'{row.spread:.3f}',
                    f'{ratio(row, floor_of(row, rows)):.3f}',
                    f'{processor_ratio(row, floor_of(row, rows)):.3f}',
                    row.peak_kib,
                )
            )


def write_json(rows, path):
    document = {
        'rows': [
            {
                'group': row.group,
                'case': row.case,
                'side': row.side,
                'size': row.size,
                'times': row.times,
                'processor': row.processor,
                'counters': row.counters,
                'peak_kib': row.peak_kib,
                'note': row.note,
            }
            for row in rows
        ],
        'growth': [
            {'group': g, 'case': c, 'side': s, 'exponent': k, 'n_log_n': limit}
            for (g, c, s), (k, limit) in growth(rows).items()
        ],
    }
    with open(path, 'w', encoding='utf-8') as file:
        json.dump(document, file, indent=1)


def write_plots(rows, out):
    """A data file and a gnuplot script for each group; `script/bench` draws them."""
    for group in dict.fromkeys(row.group for row in rows):
        curves = {}
        for row in rows:
            if row.group == group and row.times:
                curves.setdefault((row.case, row.side), []).append(
                    (row.size, row.median, min(row.times), max(row.times))
                )
        curves = {key: points for key, points in curves.items() if len(points) > 1}
        if not curves:
            continue
        with open(os.path.join(out, f'{group}.dat'), 'w', encoding='utf-8') as file:
            for points in curves.values():
                for point in points:
                    file.write(' '.join(f'{number:.9g}' for number in point) + '\n')
                file.write('\n\n')
        colours = {case: i + 1 for i, case in enumerate(dict.fromkeys(c for c, _ in curves))}
        dashes = {side: i + 1 for i, side in enumerate(dict.fromkeys(s for _, s in curves))}
        parts = [
            f'"{group}.dat" index {i} using 1:2 with linespoints title "{case} {side}" '
            f'linecolor {colours[case]} dashtype {dashes[side]} pointtype {colours[case]}'
            for i, (case, side) in enumerate(curves)
        ]
        with open(os.path.join(out, f'{group}.gp'), 'w', encoding='utf-8') as file:
            file.write(
                'set terminal svg size 900,600 noenhanced background "white"\n'
                f'set output "{group}.svg"\n'
                f'set title "{group}: time against size, medians"\n'
                'set logscale xy\nset xlabel "size"\nset ylabel "seconds"\n'
                'set format y "10^{%L}"\nset grid\nset key outside right top\n'
                'plot ' + ', \\\n  '.join(parts) + '\n'
            )


def main():
    out = sys.argv[1]
    rows = [row for path in sorted(glob.glob(os.path.join(out, '*.rows'))) for row in load(path)]
    lines = table_lines(rows)
    print_table(lines)
    print('\nGrowth, time against size as a power:')
    for line in growth_lines(rows):
        print(f'  {line}')
    write_json(rows, os.path.join(out, 'results.json'))
    write_csv(rows, os.path.join(out, 'results.csv'))
    write_markdown(rows, os.path.join(out, 'results.md'))
    write_speed(rows, os.path.join(out, 'speed.md'))
    write_plots(rows, out)


if __name__ == '__main__':
    main()
