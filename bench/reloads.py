"""Whole reloads, and new connections meanwhile, on a real packet filter."""

import os
import statistics
import subprocess
import time

import peers
from rows import Row

# Rules, and how often each reload is run.
SIZES = {10: 9, 100: 7, 1000: 3, 5000: 1}
BATCH_SIZES = {10: 15, 100: 15, 1000: 9, 5000: 5, 50000: 3}
PEER_RUNS = {10: 5, 100: 5, 1000: 3, 5000: 1, 50000: 1}  # some take minutes
QUICK = (10, 100)
CONNECTION_SIZES = (1000, 5000)
QUICK_CONNECTION_SIZES = (100,)
# How often a short reload is watched: the machine and the kernel stall connections by themselves.
WATCHED_RUNS = 15
WATCHED_PEER_RUNS = 5

FLOORS = {'lines': 'floor', 'restore': 'floor'}  # sides of bench_reload that are floors
OPEN_PORT, DENIED_PORT = 443, 22


def tool(options, name):
    return os.path.join(options.build, 'bench', name)


def run(*words, **keywords):
    return subprocess.run(words, check=True, text=True, **keywords)


def prepare(options):
    """A machine with one network, and the base filter."""
    run('ip', 'netns', 'add', 'lan')
    run('ip', 'link', 'add', 'eth0', 'type', 'veth', 'peer', 'name', 'far0', 'netns', 'lan')
    run('ip', 'address', 'add', '192.168.1.10/24', 'dev', 'eth0')
    run('ip', 'link', 'set', 'eth0', 'up')
    for words in (
        'address add 192.168.1.20/24 dev far0',
        'link set far0 up',
    ):
        run('ip', '-n', 'lan', *words.split())
    base(options, 'up')


def base(options, word):
    tarnfw = os.path.join(options.build, 'tools/tarnfw/tarnfw')
    run(tarnfw, 'base', word, stdout=subprocess.DEVNULL)


def store(options, size, mode):
    run(tool(options, 'bench_reload'), 'store', str(size), mode)


def reload_sides(options, *sides):
    """Runs each side once: side -> seconds of the clock, and of the processors; the peak in KiB."""
    environment = dict(os.environ, TARNFW=os.path.join(options.build, 'tools/tarnfw/tarnfw'))
    told = run(
        tool(options, 'bench_reload'), 'run', *sides, stdout=subprocess.PIPE, env=environment
    ).stdout
    *lines, peak = told.splitlines()
    times = {}
    for line in lines:
        side, wall, processor = line.rsplit(maxsplit=2)
        times[side] = float(wall), float(processor)
    return times, int(peak.split()[1])


def measure_library(case, mode, sides, sizes, options):
    rows = {}
    for size, runs in sizes.items():
        store(options, size, mode)
        # The next reload replaces these rules.
        _, peak = reload_sides(options, 'library')
        for _ in range(runs):
            times, _ = reload_sides(options, 'library', *sides)
            for side, (wall, processor) in times.items():
                key = size, FLOORS.get(side, side)
                row = rows.setdefault(key, Row('reload', case, key[1], size, []))
                row.times.append(wall)
                row.processor.append(processor)
        if size == max(sizes):
            rows[size, 'library'].peak_kib = peak
    return list(rows.values())


def started_peers(options):
    """Each peer that can run here, and a row for each that cannot."""
    peers.lay_over(os.path.abspath(options.peers))
    for kind in peers.PEERS:
        try:
            yield kind, kind(options.variant), None
        except (peers.CannotRun, OSError) as reason:
            yield kind, None, reason


def check_rules(peer, size):
    found = peer.rule_count()
    if found < size:
        raise peers.CannotRun(f'{found} of {size} rules are in place after the reload')


def measure_peer(peer, case, sizes):
    for size in sizes:
        if size > peer.largest:
            continue
        peer.write(size)
        peer.reload()
        check_rules(peer, size)
        row = Row('reload', case, peer.name, size, [])
        for _ in range(PEER_RUNS[size]):
            start = time.monotonic()
            peer.reload()
            row.times.append(time.monotonic() - start)
        yield row


def measure_peers(case, sizes, options):
    rows = []
    for kind, peer, reason in started_peers(options):
        if peer is not None:
            try:
                rows += measure_peer(peer, case, sizes)
                peer.stop()
            except (peers.CannotRun, subprocess.TimeoutExpired, OSError) as failure:
                reason = failure
        if reason is not None:
            rows.append(Row('reload', case, kind.name, 0, [], note=f'not measured: {reason}'))
    return rows


def pick(sizes, options, quick):
    return {s: r for s, r in sizes.items() if s in quick} if options.quick else sizes


def reload(_, options):
    prepare(options)
    lines = pick(SIZES, options, QUICK)
    batch = pick(BATCH_SIZES, options, QUICK)
    rows = measure_library(
        f'lines {options.variant}', 'lines', ('lines', 'lines+tool'), lines, options
    )
    sides = 'restore', 'apply', 'program', 'tarnfw reload'
    rows += measure_library(f'batch {options.variant}', 'batch', sides, batch, options)
    base(options, 'down')
    rows += measure_peers(f'batch {options.variant}', batch, options)
    return rows


# ---- New connections meanwhile ------------------------------------------------------------------


class Connections:
    """The server on this machine, and clients one after the other."""

    def __init__(self, options):
        self.program = tool(options, 'bench_connections')
        self.server = subprocess.Popen(
            [self.program, 'serve', str(OPEN_PORT), str(DENIED_PORT)],
            stdout=subprocess.PIPE,
            text=True,
        )
        if self.server.stdout.readline() != 'ready\n':
            raise RuntimeError('no server')

    def during(self, work):
        """What a client finds while `work` runs: name -> value, and the time that it took."""
        client = subprocess.Popen(
            ['ip', 'netns', 'exec', 'lan', self.program, 'probe', '192.168.1.10']
            + [str(OPEN_PORT), str(DENIED_PORT)],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
        )
        time.sleep(0.5)  # some attempts before the work begins
        start = time.monotonic()
        work()
        seconds = time.monotonic() - start
        time.sleep(0.5)
        told, _ = client.communicate()
        found = dict(line.split() for line in told.splitlines())
        return {name: float(value) for name, value in found.items()}, seconds

    def rows(self, case, size, works, runs=1):
        """A row for each side of `works`, which run in turn. Attempts, failures and connections of
        the denied port are those of all runs; `stall` is the median of the runs, `longest` the
        longest of any."""
        seen = {side: [] for side in works}
        for _ in range(runs):
            for side, work in works.items():
                seen[side].append(self.during(work))
        rows = []
        for side, pairs in seen.items():
            found = [counters for counters, _ in pairs]
            stalls = [counters.pop('stall') for counters in found]
            counters = {name: sum(f[name] for f in found) for name in found[0]}
            counters |= {'stall': statistics.median(stalls), 'longest': max(stalls)}
            rows.append(Row('connections', case, side, size, [s for _, s in pairs], counters))
        return rows

    def stop(self):
        self.server.kill()
        self.server.wait()


def connections(_, options):
    prepare(options)
    sizes = QUICK_CONNECTION_SIZES if options.quick else CONNECTION_SIZES
    watched = Connections(options)
    rows = []
    for size in sizes:
        store(options, size, 'lines')
        reload_sides(options, 'library')
        rows += watched.rows(
            options.variant, size, {'library lines': lambda: reload_sides(options, 'library')}
        )
        store(options, size, 'batch')
        reload_sides(options, 'library')
        rows += watched.rows(
            options.variant,
            size,
            {
                'nothing': lambda: time.sleep(0.5),
                'library batch': lambda: reload_sides(options, 'library'),
                'iptables-restore': lambda: reload_sides(options, 'restore'),
            },
            WATCHED_RUNS,
        )
    base(options, 'down')
    for kind, peer, reason in started_peers(options):
        if peer is not None:
            try:
                for size in sizes:
                    peer.write(size)
                    peer.reload()
                    check_rules(peer, size)
                    rows += watched.rows(
                        options.variant, size, {peer.name: peer.reload}, WATCHED_PEER_RUNS
                    )
                peer.stop()
            except (peers.CannotRun, subprocess.TimeoutExpired, OSError) as failure:
                reason = failure
        if reason is not None:
            rows.append(
                Row('connections', options.variant, kind.name, 0, [], note=f'not measured: {reason}')
            )
    watched.stop()
    return rows


GROUPS = {'reload': reload, 'connections': connections}
