# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "open": what listens, and who may reach it, compared with packets that arrive or do not.
make_links <<'END'
veth eth0 192.168.1.10/24 fd00::10/64 lan 192.168.1.20/24 10.9.0.20/24 fd00::20/64
veth eth1 192.168.2.10/24 wan 192.168.2.20/24
END
ip address add 10.9.0.10/24 dev eth0

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# listen: one socket of each sort, until the test ends.
listen() {
    local ready
    exec {ready}< <(exec /usr/bin/python3 -c '
import socket, time
def take(family, kind, address, port, only6=0):
    taken = socket.socket(family, kind)
    if family == socket.AF_INET6:
        taken.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, only6)
    taken.bind((address, port))
    if kind == socket.SOCK_STREAM:
        taken.listen()
    return taken
V4, V6, TCP, UDP = socket.AF_INET, socket.AF_INET6, socket.SOCK_STREAM, socket.SOCK_DGRAM
kept = [
    take(V4, TCP, "127.0.0.1", 3306), take(V6, TCP, "::", 8000), take(V6, TCP, "::", 8443, 1),
    take(V4, TCP, "192.168.2.10", 9000), take(V4, UDP, "0.0.0.0", 5353),
    take(V6, TCP, "::ffff:127.0.0.1", 3307), take(V6, TCP, "::ffff:192.168.1.10", 9001),
]
own = take(V4, UDP, "0.0.0.0", 7000)
own.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"eth1")
print("ready", flush=True)
time.sleep(600)')
    [[ $(head -n 1 <&"$ready") == ready ]] || fail 'cannot listen'
}

# shows: like prints, without the numbers of processes and with two blanks between columns.
shows() {
    sed --in-place -e 's/ ([0-9]*)//' -e 's/   */  /g' -e 's/ *$//' "$out/answer"
    prints
}

answers 0 base up
answers 0 open
prints <<'END'
Firewall disabled: nothing is blocked
Nothing listens for others
END
serve tcp/22 tcp/8080
listen
answers 0 open
shows <<'END'
Firewall disabled: nothing is blocked

Open and listening
  Port  Program  Adapter  Open to
  tcp 22  packet_probe  eth0, eth1  everybody
  tcp 8000  python3  eth0, eth1  everybody
  tcp 8080  packet_probe  eth0, eth1  everybody
  tcp 8443  python3  eth0, eth1  everybody (IPv6)
  tcp 9000  python3  eth0, eth1  everybody (IPv4)
  tcp 9001  python3  eth0, eth1  everybody (IPv4)
  udp 5353  python3  eth0, eth1  everybody (IPv4)
  udp 7000  python3  eth1  everybody (IPv4)

Listening for this machine alone
  Port  Program  Adapter  Open to
  tcp 3306  python3  lo  this machine alone
  tcp 3307  python3  lo  this machine alone
END

cat >"$kProfileDirectory/some.json" <<'END'
{"name": "some", "adapterPolicyMap": {"eth0": 1, "eth1": 1}, "rules": {}}
END
activate some
answers 0 rule add --adapter eth0 --profile some deny from 192.168.1.77
answers 0 rule add --adapter eth0 --profile some allow tcp 22 from 192.168.1.0/24
answers 0 rule add --adapter eth0 --profile some allow tcp 22 from fd00::/64
answers 0 rule add --adapter eth0 --profile some allow tcp 8080
answers 0 rule add --adapter eth1 --profile some allow tcp 9000 from 192.168.2.20
answers 0 rule add --adapter eth0 --profile some allow tcp 9998-9999 from 10.0.0.0/8
answers 0 rule add --adapter eth1 --profile some allow udp 7000-7001
answers 0 enable

answers 0 open
shows <<'END'
Profile "some"

Open and listening
  Port  Program  Adapter  Open to
  tcp 22  packet_probe  eth0  fd00::/64, and 192.168.1.0/24 except 192.168.1.77
  tcp 8080  packet_probe  eth0  everybody except 192.168.1.77
  tcp 9000  python3  eth1  192.168.2.20 (IPv4)
  udp 7000  python3  eth1  everybody (IPv4)

Open, nothing listens
  Port  Adapter  Open to
  tcp 9998-9999  eth0  10.0.0.0/8
  udp 7000  eth1  everybody (IPv6)
  udp 7001  eth1  everybody

Listening, but closed
  Port  Program  Adapter  Open to
  tcp 22  packet_probe  eth1  nobody
  tcp 8000  python3  eth0, eth1  nobody
  tcp 8080  packet_probe  eth1  nobody
  tcp 8443  python3  eth0, eth1  nobody (IPv6)
  tcp 9000  python3  eth0  nobody (IPv4)
  tcp 9001  python3  eth0, eth1  nobody (IPv4)
  udp 5353  python3  eth0, eth1  nobody (IPv4)

Listening for this machine alone
  Port  Program  Adapter  Open to
  tcp 3306  python3  lo  this machine alone
  tcp 3307  python3  lo  this machine alone
END

answers 0 open --from 192.168.1.20 --adapter eth0
says '^  Port  *Program  *Adapter  *From 192\.168\.1\.20$'
says '^  tcp 22 .* open$'
says '^  tcp 9000 .* closed$'
answers 0 open --from 10.9.0.20 --adapter eth0
says '^  tcp 22 .* closed$'
says '^  tcp 8080 .* open$'
step 'packets agree' check_packets <<'END'
tcp4 192.168.1.10 22 open
tcp4 10.9.0.10 22 blocked 10.9.0.20
tcp4 10.9.0.10 8080 open 10.9.0.20
tcp6 fd00::10 22 open
tcp6 fd00::10 8080 open
END

answers 0 open --adapter eth1 --json
step 'the ranges as data' jq --exit-status '
    [.ports[] | select(.port == "tcp 9000") | .adapters[]] ==
    [{"name": "eth1", "v4": ["192.168.2.20"], "state": "open", "partly": [], "acceptedBefore": [], "droppedBy": [],
      "redirects": []}]' "$out/answer"

step 'what nothing listens on as data' jq --exit-status '
    .unused == [
      {"packets": ["udp 7000"], "others": false, "adapters": ["eth1"], "v4": [],
       "v6": ["::/0"], "partly": []},
      {"packets": ["udp 7001"], "others": false, "adapters": ["eth1"], "v4": ["0.0.0.0/0"],
       "v6": ["::/0"], "partly": []}]' \
    "$out/answer"
answers 0 open --from 10.1.2.3 --adapter eth0
says '^  tcp 9998-9999  *eth0  *open$'
answers 0 open --from 192.168.1.20 --adapter eth0
step 'not for others' bash -c "! grep --quiet '^Open, nothing listens' '$out/answer'"

# Of many ports, those that lie apart are named, and what listens on them is left out.
answers 0 rule add --adapter eth0 allow tcp 8081,8443,30000-50000 --reload
answers 0 open --adapter eth0
says '^  tcp 8081  *eth0  *everybody except 192.168.1.77$'
says '^  tcp 8443  *eth0  *everybody except 192.168.1.77 (IPv4)$'
says '^  tcp 30000-50000  *eth0  *everybody except 192.168.1.77$'
answers 0 rule delete --adapter eth0 6
# The family is said once.
answers 0 rule add --adapter eth1 --first allow udp source port 9090
answers 0 rule add --adapter eth1 --first deny from 203.0.113.0/24 --reload
answers 0 open --adapter eth1
says '^  udp 5353 .* everybody except 203.0.113.0/24 from source port 9090 (IPv4)$'
answers 0 rule delete --adapter eth1 1
answers 0 rule delete --adapter eth1 1 --reload

# Ports that are handed to another one are named, though nothing listens on them.
iptables -t nat -A PREROUTING -i eth0 -p tcp --dport 8444 -j REDIRECT --to-ports 8080
answers 0 open
says '^tcp 8444 is handed to port 8080 (IPv4: .*--to-ports 8080); the rules of INPUT_FIREWALL see port 8080: eth0 mixed$'
answers 0 open --json
step 'as data' jq --exit-status '.redirects | map([.port, .seenPort, .verdicts[].verdict]) ==
    [["tcp 8444", "tcp 8080", "mixed"]]' "$out/answer"
iptables -t nat -D PREROUTING -i eth0 -p tcp --dport 8444 -j REDIRECT --to-ports 8080

# Sockets that a sender cannot reach in its family are left out.
answers 0 open --from fd00::20 --adapter eth0
step 'those of IPv4 are left out' bash -c "! grep --quiet -e 'tcp 900[01]' -e 'udp 5353' '$out/answer'"
says '^  tcp 8443 .* closed$'
answers 0 open --from ::ffff:192.168.1.20 --adapter eth0
says '^  tcp 22 .* open$'
step 'as the IPv4 address' bash -c "! grep --quiet 'tcp 8443' '$out/answer'"

# More than the sender may decide: each port says for whom, and what of the others.
cp -- "$kProfileDirectory/some.json" "$out/some.json"
answers 0 rule add --adapter eth0 --first allow both source port 53 --reload
answers 0 rule add --adapter eth0 allow tcp 81 to 192.168.1.10 --reload
answers 0 rule add --adapter eth0 --first deny tcp 8080 from 0.0.0.20/0.0.0.255 --reload
answers 0 open --adapter eth0
says '^  tcp 22 .* fd00::/64, and 192\.168\.1\.0/24 except 192\.168\.1\.77; others from source port 53$'
says '^  tcp 8000 .* packets from source port 53$'
answers 0 open --adapter eth0 --from 192.168.2.9
says '^  tcp 8000 .* open from source port 53$'
says '^  tcp 81  *eth0  *open to 192.168.1.10; from source port 53$'
step 'a mask is compared with the sender' grep --quiet '^  tcp 8080 .* open$' "$out/answer"
answers 0 open --adapter eth0 --from 192.168.2.20
says '^  tcp 8080 .* closed$'
answers 0 open --adapter eth0 --json
step 'as data' jq --exit-status '(.notCounted | length == 1) and
    ([.ports[] | select(.port == "tcp 22") | .adapters[0]][0] |
     .v4 == ["192.168.1.0-192.168.1.76", "192.168.1.78-192.168.1.255"] and
     (.partly[0] | .families == ["v4"] and .sourcePorts == ["53"] and .destinations == null)) and
    ([.unused[] | select(.packets == ["tcp 81"]) | .partly[] | .destinations // empty] ==
     [["192.168.1.10"]])' "$out/answer"
cp -- "$out/some.json" "$kProfileDirectory/some.json"
answers 0 reload

# Many rules are a bounded table.
/usr/bin/python3 - "$kProfileDirectory/some.json" <<'END'
import json
import sys

profile = json.load(open(sys.argv[1]))
rules = profile["rules"]["eth1"]
for i in range(100):
    rules.append({**rules[0], "ipList": [f"10.0.0.{i}"], "portList": [str(20000 + 2 * i)]})
json.dump(profile, open(sys.argv[1], "w"))
END
answers 0 reload
answers 0 open --adapter eth1
says '^  \.\.\. and [0-9]* more; --json has all$'
step 'bounded' [ "$(grep --count '^  tcp 20' "$out/answer")" -eq 30 ]
answers 0 open --adapter eth1 --json
step 'all as data' jq --exit-status '[.unused[].packets[] | select(startswith("tcp 20"))] | length == 100' "$out/answer"
cp -- "$out/some.json" "$kProfileDirectory/some.json"
answers 0 reload

# What others do, and what is not in force, is said.
iptables -I INPUT -p tcp --dport 8000 -j ACCEPT
iptables -I INPUT -p tcp --dport 8080 -j DROP
answers 11 open --adapter eth0
says '^  tcp 8000 .*nobody; but accepted before it by: -A INPUT -p tcp -m tcp --dport 8000 -j ACCEPT (IPv4)'
says '^  tcp 8080 .*but .*dropped by: -A INPUT -p tcp -m tcp --dport 8080 -j DROP (IPv4)'
iptables -D INPUT -p tcp --dport 8000 -j ACCEPT
iptables -D INPUT -p tcp --dport 8080 -j DROP
iptables -F INPUT_FIREWALL
answers 11 open
says '^The kernel does not do this: '

answers 5 open --adapter eth7
complains '"eth7"'
answers 2 open --from nowhere
answers 2 open --adapter global
step 'what to do' grep --quiet -F '"global" is no interface that packets come in through; leave --adapter out' "$out/complaint"
answers 2 open --adapter lo
answers 0 reload

# An adapter that the machine does not have now, and one of other names.
answers 5 open --adapter vpn
complains '^tarnfw: the machine has no interface for "vpn" now, and the profile has nothing for it$'
answers 0 policy wg0 deny
answers 0 open --adapter wg0
prints <<'END'
Profile "some"
"wg0" is absent now: no packets come in through it
END
answers 0 open --adapter wg0 --json
step 'absent' jq --exit-status '.adapter == "wg0" and .present == false and
    ([.ports[].adapters // [] | length] | add) == 0' "$out/answer"
answers 0 open
says '^Absent now, so no packets come in through it: wg0$'
answers 0 open --json
step 'absent as data' jq --exit-status '.absent == ["wg0"]' "$out/answer"
ip tuntap add tun0 mode tun
ip link set tun0 up
answers 0 open --adapter vpn
says '^  tcp 8000 .* tun0 *everybody$'
says '^  other ports of tcp/udp  *tun0  *everybody$'
answers 0 policy vpn deny --reload
answers 0 open --adapter vpn
says '^  tcp 8000 .* tun0 *nobody$'
answers 0 open --adapter vpn --json
step 'present' jq --exit-status '.adapter == "vpn" and .present' "$out/answer"
