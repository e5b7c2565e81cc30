# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The commands of tarnfw on docs/coming-from.md: each runs, ends with the status that the page says, says what
# the page says of it, and leaves the kernel with what is stored.
make_links <<'END_OF_LINKS'
veth eth0 192.168.1.10/24 fd00:1::10/64 lan 192.168.1.20/24 fd00:1::20/64
veth eth1 192.168.2.10/24 lan 192.168.2.20/24
END_OF_LINKS
export PATH=$build/tools/tarnfw:$PATH LC_ALL=C.UTF-8
unset SSH_CONNECTION
serve tcp/22
pretend_systemd
enable_service
rm -f -- "$kProfileDirectory"/*.json
# Data of a country: one range.
/usr/bin/python3 -c 'import struct, sys
sys.stdout.buffer.write(struct.pack("=II", 0xcb007100, 0xcb0071ff))' >/usr/share/xt_geoip/DE.iv4
cd /root
cp -- "$checkout/examples/lan-only.json" home.json
keep_listing before
step 'the page' /usr/bin/python3 -B "$checkout/tests/docs/coming_from_tarnfw.py"
tarnfw disable >/dev/null
tarnfw base down
step 'nothing is left in the packet filter' same_listing before
