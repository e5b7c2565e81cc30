"""Other programs with the same rules, each reloaded by its own means.

They come from Debian packages that are unpacked, not installed (script/bench), and are laid over the
sandbox's /usr and /etc. Each peer writes its configuration for a list of rules and runs its reload.
"""

import os
import subprocess
import time

QUIET = {'stdout': subprocess.DEVNULL, 'stderr': subprocess.PIPE, 'stdin': subprocess.DEVNULL}


class CannotRun(Exception):
    """Why a peer cannot run here."""


def command(*words, timeout=600):
    done = subprocess.run(words, check=False, text=True, timeout=timeout, **QUIET)
    if done.returncode != 0:
        raise CannotRun(f'{" ".join(words[:3])}: {done.stderr.strip().splitlines()[-1:]}')


def rules(count):
    """(address, port, allowed) as bench/support/profiles.cpp makes them."""
    for i in range(count):
        yield f'10.{i >> 16 & 255}.{i >> 8 & 255}.{i & 255}', 1024 + i % 60000, i % 2 == 0


def write(path, lines):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, 'w', encoding='utf-8') as file:
        file.writelines(line + '\n' for line in lines)


def lay_over(unpacked):
    """Lays the unpacked packages over /usr and /etc, and keeps the sandbox's own mounts below."""
    for path in ('tarn', 'share/xt_geoip'):
        os.makedirs(f'/tmp/keep/{path}')
        command('mount', '--bind', f'/usr/{path}', f'/tmp/keep/{path}')
    # /lib is a link into /usr.
    command(
        'mount', '-t', 'overlay', 'overlay', '-o',
        f'ro,lowerdir={unpacked}/usr:/usr', '/usr',
    )
    for path in ('tarn', 'share/xt_geoip'):
        command('mount', '--bind', f'/tmp/keep/{path}', f'/usr/{path}')
    os.makedirs('/tmp/etc/work')
    os.makedirs('/tmp/etc/upper')
    command(
        'mount', '-t', 'overlay', 'overlay', '-o',
        f'lowerdir={unpacked}/etc:/etc,upperdir=/tmp/etc/upper,workdir=/tmp/etc/work', '/etc',
    )


class Nft:
    """nft with one file."""

    name = 'nft -f'
    largest = 50000

    def __init__(self, variant):
        if variant != 'nft':
            raise CannotRun('has no legacy variant')

    def write(self, count):
        def chain(name, hook):
            yield f'  chain {name} {{'
            yield f'    type filter hook {hook} priority 0; policy accept;'
            yield '    iifname "lo" accept'
            yield '    ct state established,related accept'
            yield '    iifname "eth0" tcp dport 443 accept'
            for address, port, allowed in rules(count):
                verdict = 'accept' if allowed else 'drop'
                yield f'    iifname "eth0" ip saddr {address} tcp dport {port} {verdict}'
            yield '    iifname "eth0" drop'
            yield '  }'

        write(
            '/tmp/peer.nft',
            ['table ip bench', 'delete table ip bench', 'table ip bench {']
            + list(chain('input', 'input'))
            + list(chain('forward', 'forward'))
            + ['}'],
        )

    def reload(self):
        command('nft', '-f', '/tmp/peer.nft')

    def rule_count(self):
        return nft_count('10.')

    def stop(self):
        command('nft', 'flush', 'ruleset')


class Ferm:
    """ferm, which feeds iptables-restore."""

    name = 'ferm'
    largest = 50000

    def __init__(self, variant):
        if variant == 'nft':
            # It prefers the programs of the legacy variant where they can run.
            command('mount', '--bind', '/dev/null', '/usr/sbin/xtables-legacy-multi')

    def write(self, count):
        def chain(name):
            yield f'  chain {name} {{'
            yield '    policy ACCEPT;'
            yield '    interface lo ACCEPT;'
            yield '    mod state state (ESTABLISHED RELATED) ACCEPT;'
            yield '    interface eth0 proto tcp dport 443 ACCEPT;'
            for address, port, allowed in rules(count):
                verdict = 'ACCEPT' if allowed else 'DROP'
                yield f'    interface eth0 saddr {address} proto tcp dport {port} {verdict};'
            yield '    interface eth0 DROP;'
            yield '  }'

        write(
            '/tmp/peer.ferm',
            ['domain ip table filter {']
            + list(chain('INPUT'))
            + list(chain('FORWARD'))
            + ['}'],
        )

    def reload(self):
        command('/usr/sbin/ferm', '/tmp/peer.ferm')

    def rule_count(self):
        return saved_count('-s 10.')

    def stop(self):
        command('/usr/sbin/ferm', '--flush', '/tmp/peer.ferm')


class Ufw:
    """ufw; its rules are of incoming packets alone, so it has half as many as the others."""

    name = 'ufw'
    largest = 5000
    enabled = False

    def __init__(self, variant):
        for name in ('before', 'after', 'user'):
            for six in ('', '6'):
                command(
                    'cp', f'/usr/share/ufw/iptables/{name}{six}.rules', f'/etc/ufw/{name}{six}.rules'
                )
        for name in ('before.init', 'after.init'):
            command('install', '-m', '640', f'/usr/share/ufw/{name}', f'/etc/ufw/{name}')
        command('cp', '/usr/share/ufw/ufw.conf', '/etc/ufw/ufw.conf')
        # It insists on writable sysctls and on modules, which a namespace does not have.
        self.set_default('IPT_SYSCTL', '')
        self.set_default('IPT_MODULES', '')

    @staticmethod
    def set_default(name, value):
        with open('/etc/default/ufw', encoding='utf-8') as file:
            lines = [line.rstrip('\n') for line in file if not line.startswith(f'{name}=')]
        write('/etc/default/ufw', lines + [f'{name}="{value}"'])

    def write(self, count):
        lines = [
            '*filter',
            ':ufw-user-input - [0:0]',
            ':ufw-user-output - [0:0]',
            ':ufw-user-forward - [0:0]',
            ':ufw-user-limit - [0:0]',
            ':ufw-user-limit-accept - [0:0]',
            '### RULES ###',
            '',
            '### tuple ### allow tcp 443 0.0.0.0/0 any 0.0.0.0/0 in',
            '-A ufw-user-input -p tcp --dport 443 -j ACCEPT',
        ]
        for address, port, allowed in rules(count):
            word, target = ('allow', 'ACCEPT') if allowed else ('deny', 'DROP')
            lines += [
                '',
                f'### tuple ### {word} tcp {port} 0.0.0.0/0 any {address} in',
                f'-A ufw-user-input -p tcp --dport {port} -s {address} -j {target}',
            ]
        lines += [
            '',
            '### END RULES ###',
            '-A ufw-user-limit -m limit --limit 3/minute -j LOG --log-prefix "[UFW LIMIT BLOCK] "',
            '-A ufw-user-limit -j REJECT',
            '-A ufw-user-limit-accept -j ACCEPT',
            'COMMIT',
        ]
        write('/etc/ufw/user.rules', lines)
        if not self.enabled:
            command('/usr/sbin/ufw', '--force', 'enable')
            self.enabled = True

    def reload(self):
        command('/usr/sbin/ufw', 'reload')

    def rule_count(self):
        return saved_count('-s 10.')

    def stop(self):
        command('/usr/sbin/ufw', 'disable')
        command('/usr/sbin/ufw', '--force', 'reset')


class Firewalld:
    """firewalld with rich rules, on a message bus of its own; rules of incoming packets alone."""

    name = 'firewalld'
    largest = 5000

    def __init__(self, variant):
        backend = 'nftables' if variant == 'nft' else 'iptables'
        write(
            '/etc/firewalld/firewalld.conf',
            ['DefaultZone=bench', f'FirewallBackend={backend}', 'IPv6_rpfilter=no', 'LogDenied=off'],
        )
        os.makedirs('/run/dbus', exist_ok=True)
        self.processes = [
            subprocess.Popen(['dbus-daemon', '--system', '--nofork', '--nopidfile'], **QUIET)
        ]
        self.started = False

    def write(self, count):
        def rich(address, port, verdict):
            source = f'<source address="{address}"/>' if address else ''
            return (
                f'<rule family="ipv4">{source}'
                f'<port port="{port}" protocol="tcp"/><{verdict}/></rule>'
            )

        write(
            '/etc/firewalld/zones/bench.xml',
            [
                '<?xml version="1.0" encoding="utf-8"?>',
                '<zone target="DROP"><short>bench</short>',
                rich('', 443, 'accept'),
            ]
            + [
                rich(address, port, 'accept' if allowed else 'drop')
                for address, port, allowed in rules(count)
            ]
            + ['</zone>'],
        )
        if not self.started:
            self.start()

    def start(self):
        self.processes.append(
            subprocess.Popen(['/usr/sbin/firewalld', '--nofork', '--nopid'], **QUIET)
        )
        self.await_running()
        self.started = True

    def await_running(self):
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            if self.processes[-1].poll() is not None:
                raise CannotRun(f'firewalld ended: {self.processes[-1].stderr.read()[-200:]}')
            done = subprocess.run(
                ['/usr/bin/firewall-cmd', '--state'], check=False, capture_output=True, text=True
            )
            if done.returncode == 0:
                return
            time.sleep(0.1)
        raise CannotRun('firewalld did not come up within a minute')

    def reload(self):
        command('/usr/bin/firewall-cmd', '--reload')

    def rule_count(self):
        return max(nft_count('10.'), saved_count('-s 10.'))

    def stop(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait()


def nft_count(text):
    listed = subprocess.run(
        ['nft', 'list', 'ruleset'], check=False, capture_output=True, text=True
    ).stdout
    return sum(f'saddr {text}' in line for line in listed.splitlines())


def saved_count(text):
    listed = subprocess.run(['iptables-save'], check=False, capture_output=True, text=True).stdout
    return sum(text in line for line in listed.splitlines())


PEERS = (Nft, Ferm, Ufw, Firewalld)
