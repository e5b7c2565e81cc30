"""The groups that need no packet filter: programs that use Google Benchmark."""

import json
import os
import re
import subprocess

from rows import Row

# Group -> the program, the greatest size of a quick run, and the clock. Google's
# processor time does not count other processes; that program counts them itself.
GROUPS = {
    'translation': ('bench_translation', 1000, 'cpu_time'),
    'store': ('bench_store', 1000, 'cpu_time'),
    'blocked': ('bench_blocked', 1000, 'cpu_time'),
    'geoip': ('bench_geoip', 10000, 'cpu_time'),
    'meaning': ('bench_meaning', 1000, 'cpu_time'),
    'spawn': ('bench_spawn', 1, 'real_time'),
}

# What programs count besides the time.
COUNTERS = (
    'lines',
    'bytes_per_line',
    'bytes_per_rule',
    'with_countries',
    'meaning_alone',
    'found',
    'too_complex',
)

UNITS = {'ns': 1e-9, 'us': 1e-6, 'ms': 1e-3, 's': 1.0}


def parts(name):
    """"translation/plain/library/1000" -> ("translation", "plain", "library", 1000)."""
    *subject, side, size = name.removesuffix('/manual_time').split('/')
    return subject[0], '/'.join(subject[1:]), side, int(size)


def listed_sizes(program):
    names = subprocess.run(
        [program, '--benchmark_list_tests'], check=True, capture_output=True, text=True
    ).stdout.split()
    return {parts(name)[3] for name in names}


def peak_of(program, name):
    """The peak resident size in KiB of a process that does this one measurement."""
    told = subprocess.run(
        [program, f'--benchmark_filter=^{name}(/manual_time)?$', '--benchmark_min_time=0.001'],
        check=True,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
    ).stderr
    return int(re.search(r'^peak: (\d+) KiB$', told, re.MULTILINE).group(1))


def run(group, options):
    """Runs one group; several runs of all its measurements, in random order."""
    name, quick_size, clock = GROUPS[group]
    program = os.path.join(options.build, 'bench', name)
    sizes = {size for size in listed_sizes(program) if not options.quick or size <= quick_size}
    result_file = os.path.join(os.path.dirname(options.out), f'{name}.json')
    subprocess.run(
        [
            program,
            f'--benchmark_filter=/({"|".join(map(str, sizes))})(/manual_time)?$',
            f'--benchmark_repetitions={3 if options.quick else options.runs}',
            f'--benchmark_min_time={0.01 if options.quick else 0.05}',
            '--benchmark_enable_random_interleaving=true',
            f'--benchmark_out={result_file}',
            '--benchmark_out_format=json',
        ],
        check=True,
        stdout=subprocess.DEVNULL,
        stderr=subprocess.DEVNULL,
    )
    with open(result_file, encoding='utf-8') as file:
        measured = json.load(file)['benchmarks']
    rows = {}
    for entry in measured:
        if entry['run_type'] != 'iteration':
            continue
        if entry.get('error_occurred'):
            raise RuntimeError(f'{entry["name"]}: {entry["error_message"]}')
        key = parts(entry['run_name'])
        row = rows.setdefault(key, Row(*key[:3], key[3], []))
        row.times.append(entry[clock] * UNITS[entry['time_unit']])
        for counter in COUNTERS:
            if counter in entry:
                row.counters[counter] = entry[counter]
    for row in rows.values():
        if row.size == max(r.size for r in rows.values() if r.case == row.case):
            row.peak_kib = peak_of(program, f'{row.group}/{row.case}/{row.side}/{row.size}')
    return sorted(rows.values(), key=lambda r: (r.group, r.case, r.size, r.side))
