"""Runs the commands of tarnfw. Inside the sandbox, see tests/kernel/scripts/coming_from.sh."""

import subprocess
import sys

import coming_from

# What the page says of some of them.
SAYS = [
    ("tarnfw rule add --adapter wg0 allow udp 51820", "there is no adapter \"wg0\" now"),
    ("tarnfw rule add allow tcp 8080", "already"),
    ("tarnfw rule delete allow tcp 8080", "^Deleted rule "),
    ("tarnfw adapters", "^eth1 .* deny "),
    ("tarnfw open", "Open to"),
    ("tarnfw log-denied on", "^Denied packets are logged: eth0, eth1"),
    ("tarnfw rule add --first deny from 203.0.113.9", "^Rule 1 of global: "),
    ("tarnfw rule add allow service ssh from 198.51.100.0/24", "^Opens service ssh .* for 198"),
    ("tarnfw rule add allow tcp 8443 --v6", r"^Opens .* for everybody \(IPv6\)$"),
    ("tarnfw undo", "allow tcp 22 from 192.168.1.20"),
    ("tarnfw enable", "^After a restart: in force again, by tarnfw.service$"),
    ("tarnfw status", "^After a restart: +in force again, by tarnfw.service$"),
    ("tarnfw profile show", "^ *1 "),
    ("tarnfw explain --port tcp/22 --from 192.168.1.20", "allow"),
]


def state(number, command):
    """The kernel has what is stored; before the first "enable" and after "disable" that is nothing."""
    done = subprocess.run(
        ["tarnfw", "status"], check=False, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
    )
    if done.returncode == 0 or not enabled(command):
        return []
    return [f"line {number}: after {command}: {done.stdout}"]


def enabled(command):
    if command == "tarnfw enable":
        enabled.now = True
    return enabled.now


enabled.now = False

sys.exit(0 if coming_from.run_all("tarnfw", SAYS, state) else 1)
