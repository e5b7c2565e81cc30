"""Runs groups of measurements and reports them: script/bench calls it in the sandbox."""

import argparse
import os
import sys

import programs
import report

# Group -> what runs it: a function of the group's name and the options that returns rows.
GROUPS = {name: programs.run for name in programs.GROUPS}


def main():
    parser = argparse.ArgumentParser(prog='script/bench')
    parser.add_argument('--build', required=True)
    parser.add_argument('--out', required=True)
    parser.add_argument('--quick', action='store_true', help='fewer runs, smaller sizes')
    parser.add_argument('--runs', type=int, default=7, help='runs of each measurement')
    parser.add_argument('groups', nargs='*', metavar='GROUP', help=', '.join(GROUPS))
    options = parser.parse_args()
    unknown = [group for group in options.groups if group not in GROUPS]
    if unknown:
        parser.error(f'no such group: {", ".join(unknown)}; there are {", ".join(GROUPS)}')

    os.makedirs(options.out, exist_ok=True)
    rows = []
    for group in options.groups or GROUPS:
        print(f'Measuring: {group}', file=sys.stderr, flush=True)
        rows += GROUPS[group](group, options)
    report.write(rows, options.out)


if __name__ == '__main__':
    main()
