"""Runs the commands of one of the other programs: coming_from_peers.py ufw|firewall-cmd UNPACKED

Inside the sandbox. Its packages are unpacked in UNPACKED.
"""

import pathlib
import subprocess
import sys

import coming_from

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))
import peers  # noqa: E402

# What the page says of some of them.
SAYS = {
    "ufw": [
        ("ufw allow 8080/tcp", "^Skipping adding existing rule$"),
        ("ufw enable", "active and enabled on system startup"),
        ("ufw status numbered", r"^\[ 1\]"),
        ("ufw delete allow 80/tcp", "^Rule deleted$"),
        ("ufw status", "^Status: active$"),
    ],
    "firewall-cmd": [
        ("firewall-cmd --permanent --add-port=8080/tcp", "ALREADY_ENABLED"),
        ("firewall-cmd --check-config", "^success$"),
        ("firewall-cmd --state", "^running$"),
    ],
}


def main():
    program, unpacked = sys.argv[1:]
    peers.lay_over(unpacked)
    for link in ("eth0", "eth1"):
        subprocess.run(["ip", "tuntap", "add", link, "mode", "tun"], check=True)
    peer = peers.Ufw("nft") if program == "ufw" else peers.Firewalld("nft")
    if program == "firewall-cmd":
        # Its own configuration; in a namespace it cannot write the sysctl of rpfilter.
        peers.write("/etc/firewalld/firewalld.conf", ["IPv6_rpfilter=no"])
        peer.start()
    try:
        passed = coming_from.run_all(program, SAYS[program])
    finally:
        peer.stop()
    sys.exit(0 if passed else 1)


if __name__ == "__main__":
    main()
