"""Runs groups of measurements in the sandbox and writes their rows: script/bench calls it.

    run.py --build BUILD --out FILE [--quick] [--runs N] [--variant nft|legacy --peers TREE] GROUP...
    run.py --list | --list-kernel
"""

import argparse
import sys

import programs
import reloads
import rows

# Group -> what runs it: a function of the group's name and the options that returns rows.
PROGRAM_GROUPS = {name: programs.run for name in programs.GROUPS}
KERNEL_GROUPS = reloads.GROUPS  # each in a sandbox of its own, once for each variant of iptables
GROUPS = {**PROGRAM_GROUPS, **KERNEL_GROUPS}


def main():
    parser = argparse.ArgumentParser(prog='script/bench')
    parser.add_argument('--build')
    parser.add_argument('--out')
    parser.add_argument('--quick', action='store_true')
    parser.add_argument('--runs', type=int, default=7)
    parser.add_argument('--variant', choices=('nft', 'legacy'))
    parser.add_argument('--peers')
    parser.add_argument('--list', action='store_true')
    parser.add_argument('--list-kernel', action='store_true')
    parser.add_argument('groups', nargs='*', choices=[[], *GROUPS])
    options = parser.parse_args()
    if options.list or options.list_kernel:
        print('\n'.join(PROGRAM_GROUPS if options.list else KERNEL_GROUPS))
        return
    found = []
    for group in options.groups:
        where = f' ({options.variant})' if options.variant else ''
        print(f'Measuring: {group}{where}', file=sys.stderr, flush=True)
        found += GROUPS[group](group, options)
    rows.save(found, options.out)


if __name__ == '__main__':
    main()
