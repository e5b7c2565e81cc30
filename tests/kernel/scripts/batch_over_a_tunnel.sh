# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A rule with an IPv4 address on an adapter with a 6in4 tunnel: in "lines" it is repeated for the tunnel
# and refused there. A batch does not make that line; preview and diff agree with it, and so do the answers
# for packets through the tunnel.
make_links <<'END'
veth eth0 192.168.1.10/24 lan 192.168.1.20/24
veth six fd00::10/64 lan fd00::20/64
END
# Not every kernel has 6in4 tunnels, so the platform's program names one.
cat >/tmp/tool <<'END'
#!/bin/sh
[ "$2" != eth0 ] || set -- "$1" six
printf %s "$2"
END
chmod +x /tmp/tool
mount --bind /tmp/tool /usr/tarn/sbin/tarnnetdtool

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

answers 0 base up
use_profile single_address
readonly kRefused='-i six -s [0-9.]* '
answers 0 preview --family v6
says "$kRefused"
answers 0 preview --format restore --family v6
says '-i six '
step 'no line that ip6tables refuses' [ "$(grep --count -- "$kRefused" "$out/answer")" = 0 ]
cp -- "$out/answer" "$out/restore"
step 'ip6tables takes it' ip6tables-restore --noflush --test "$out/restore"

choose_apply batch
answers 0 enable
answers 0 diff
silent
prints <<<'The kernel agrees with profile "single_address"'
keep_listing batch
step 'what was previewed changes nothing' ip6tables-restore --noflush "$out/restore"
step 'the rules are the same' same_listing batch

# Line by line the kernel says no to one line, which is left out.
answers 0 apply-mode lines
answers 0 reload
answers 0 diff
step 'diff reports the refused line' grep --quiet 'this kernel refuses' "$out/complaint"
step 'the rules are the same' same_listing batch

# A network written as one text is no IPv6 line either.
/usr/bin/python3 - "$kProfileDirectory/single_address.json" <<'END'
import json
import sys

with open(sys.argv[1]) as file:
    profile = json.load(file)
rule = profile["rules"]["eth0"][0]
profile["rules"]["eth0"] = [dict(rule, ipGroup=0, ipList=[network])
                            for network in ("10.0.0.0/24", "0.0.0.0/0")]
with open(sys.argv[1], "w") as file:
    json.dump(profile, file)
END
choose_apply batch
answers 0 reload
step 'the networks are in force' [ "$(iptables -S INPUT_FIREWALL | grep --count 10.0.0.0/24)" = 1 ]
step 'and open nothing to all of IPv6' [ -z "$(ip6tables -S INPUT_FIREWALL | grep -- '-i six -p tcp')" ]

# The answers for packets through the tunnel.
serve tcp/22
/usr/bin/python3 - "$kProfileDirectory/single_address.json" <<'END'
import json
import sys

with open(sys.argv[1]) as file:
    profile = json.load(file)
rules = profile["rules"]["eth0"]
profile["rules"]["eth0"] = [dict(rules[1], portList=["22"])]
profile["adapterPolicyMap"]["eth0"] = 1
with open(sys.argv[1], "w") as file:
    json.dump(profile, file)
END
answers 0 reload
step 'closed in a batch' check_packets <<<'tcp6 fd00::10 22 blocked fd00::20'
answers 10 explain --port tcp/22 --adapter six --from fd00::20
says 'blocked  *the default policy of eth0: deny (repeated for the 6in4 tunnel six)$'
answers 10 blocked --port tcp/22 --adapter six
says '^six .*IPv6 through this tunnel of eth0, where eth0.s rules apply too: blocked$'
answers 10 explain --port tcp/22 --adapter six
says '^  IPv6 through this tunnel of eth0, where eth0.s rules apply too: blocked$'
answers 0 apply-mode lines
answers 0 reload
step 'open line by line' check_packets <<<'tcp6 fd00::10 22 open fd00::20'
answers 0 explain --port tcp/22 --adapter six --from fd00::20
says 'allowed  *rule 1 of eth0: allow tcp 22 from 0.0.0.0/0 (IPv4).* (repeated for the 6in4 tunnel six), where "/0" is all of IPv6$'
answers 0 explain --port tcp/22 --adapter six --from fd00::20 --json
step 'as a document' [ "$(jq -r '.adapters[0].decisions[0] | [.adapter, .position, .tunnel] | join(" ")' \
    "$out/answer")" = 'eth0 1 six' ]
answers 0 blocked --port tcp/22 --adapter six --json
step 'as a document' [ "$(jq -c '.adapters[1] | [.tunnelOf, .v6Verdict]' "$out/answer")" = '[["eth0"],"allowed"]' ]
answers 10 explain --port tcp/23 --adapter six --from fd00::20
answers 0 check
says '"/0" is every address: in apply mode "lines" it opens a 6in4 tunnel of the adapter to all of IPv6 as well'
