# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Rules of other programs that packets meet before the firewall's: status, diff, blocked and explain name
# them, and real packets confirm what they say.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

make_links <<'END'
router
veth eth0 192.168.1.10/24 fd00::10/64 lan 192.168.1.20/24 192.168.1.21/24 fd00::20/64
veth docker0 172.17.0.1/16 container 172.17.0.2/16
END

answers 0 base up
use_profile deny_by_default
answers 0 enable
serve tcp/22 tcp/23 tcp/80 tcp/443

# as_stored: no command has anything to say about the kernel.
as_stored() {
    answers 0 status
    says '^Firewall: *enabled$'
    answers 0 diff
    answers 10 blocked --port tcp/22 --adapter eth0
    says '^eth0  *mixed  *allowed from some addresses, blocked from others$'
    answers 0 blocked --port tcp/80 --adapter eth0
}

as_stored

# --- everything is accepted before the firewall ------------------------------------------------------

readonly kAhead='"tarnfw reload" puts the firewall'"'"'s first$'
iptables -I INPUT 1 -j ACCEPT
step 'the port is open' check_packets <<<'tcp4 192.168.1.10 22 open 192.168.1.21'
answers 11 status
says "^Firewall: *enabled, but other programs' rules in INPUT (IPv4) may accept packets before the firewall's; $kAhead"
says '^Accepts before: *IPv4 -A INPUT -j ACCEPT$'
answers 11 status --json
step 'as a document' [ "$(jq -c '[.asStored, .kernel.v4.acceptedBefore, .kernel.v6.acceptedBefore]' \
    "$out/answer")" = '[false,["-A INPUT -j ACCEPT"],[]]' ]
answers 10 diff
prints <<'DIFF'
--- profile "deny_by_default"
+++ kernel
IPv4, chain INPUT
+ -A INPUT -j ACCEPT
DIFF
answers 11 blocked --port tcp/22 --adapter eth0
prints <<'END'
Profile "deny_by_default", tcp 22
Adapter  Verdict
global   undecided  left to the adapters
eth0     mixed      allowed from some addresses, blocked from others; but accepted before it by: -A INPUT -j ACCEPT (IPv4)
END
answers 11 blocked --port tcp/22 --adapter eth0 --json
step 'as a document' [ "$(jq -c '[.holds, .allowed, .adapters[1].acceptedBefore]' "$out/answer")" = \
    '[false,false,[{"certain":true,"family":"v4","rules":["-A INPUT -j ACCEPT"]}]]' ]
answers 11 explain --port tcp/23 --adapter eth0
prints <<'END'
Profile "deny_by_default", tcp 23

eth0: blocked
  blocked for everybody  the default policy of eth0: deny
  but accepted before it by: -A INPUT -j ACCEPT (IPv4)
END
answers 11 explain --port tcp/23 --adapter eth0 --from 192.168.1.21
says 'the default policy of eth0: deny; but accepted before it by: -A INPUT -j ACCEPT (IPv4)$'
answers 11 explain --port tcp/23 --adapter eth0 --from 192.168.1.21 --json
# IPv6 has no such rule, and what the firewall allows is allowed.
answers 10 explain --port tcp/23 --adapter eth0 --from fd00::20
answers 0 blocked --port tcp/80 --adapter eth0
iptables -D INPUT 1
as_stored

# --- rules that are for some packets ---------------------------------------------------------------

ip6tables -I INPUT 1 -i eth0 -p tcp --dport 23 -j ACCEPT
step 'the port is open' check_packets <<<'tcp6 fd00::10 23 open fd00::20'
answers 11 blocked --port tcp/23 --adapter eth0
says 'blocked  *but accepted before it by: -A INPUT -i eth0 -p tcp -m tcp --dport 23 -j ACCEPT (IPv6)$'
answers 11 blocked --port tcp/20-25 --adapter eth0
says 'but may be accepted before it by: -A INPUT -i eth0 '
answers 10 blocked --port tcp/22 --adapter eth0
answers 10 blocked --port udp/23 --adapter eth0
ip6tables -D INPUT 1

iptables -N FRIENDS
iptables -I INPUT 1 -s 192.168.1.20/31 -j FRIENDS
iptables -A FRIENDS -s 192.168.1.20 -j RETURN
iptables -A FRIENDS -p tcp --dport 23 -j ACCEPT
answers 11 blocked --port tcp/23 --adapter eth0
says 'but may be accepted before it by: -A INPUT -s 192.168.1.20/31 -j FRIENDS, -A FRIENDS -p tcp -m tcp --dport 23 -j ACCEPT (IPv4)$'
answers 11 explain --port tcp/23 --adapter eth0 --from 192.168.1.21
says 'deny; but accepted before it by: -A INPUT -s 192.168.1.20/31 -j FRIENDS'
answers 10 explain --port tcp/23 --adapter eth0 --from 192.168.1.20
answers 10 explain --port tcp/23 --adapter eth0 --from 192.168.1.22
step 'and so do packets' check_packets <<'END'
tcp4 192.168.1.10 23 open 192.168.1.21
tcp4 192.168.1.10 23 blocked 192.168.1.20
END
iptables -D INPUT 1

# What drops elsewhere, logs, or is for established connections, invalid packets or loopback, changes nothing.
iptables -I INPUT 1 -i lo -j ACCEPT
iptables -I INPUT 1 -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT
iptables -I INPUT 1 -i eth7 -j DROP
iptables -I INPUT 1 -d 172.17.0.2 -j DROP
iptables -I INPUT 1 -m conntrack --ctstate INVALID -j DROP
iptables -I INPUT 1 -p tcp ! --syn -m conntrack --ctstate NEW -j DROP
iptables -I INPUT 1 -j LOG
iptables -t mangle -A PREROUTING -j ACCEPT
iptables -t raw -A PREROUTING -j ACCEPT
as_stored
for _ in {1..7}; do
    iptables -D INPUT 1
done
iptables -t mangle -F
iptables -t raw -F

# --- a host of containers --------------------------------------------------------------------------

iptables -t nat -N DOCKER
iptables -t nat -A PREROUTING -m addrtype --dst-type LOCAL -j DOCKER
iptables -t nat -A DOCKER -i docker0 -j RETURN
iptables -t nat -A DOCKER ! -i docker0 -p tcp --dport 8080 -j DNAT --to-destination 172.17.0.2:23
iptables -N DOCKER
iptables -A DOCKER -d 172.17.0.2/32 ! -i docker0 -o docker0 -p tcp --dport 23 -j ACCEPT

# The firewall's jump comes first: the port of the container decides, and it is named.
iptables -A FORWARD -o docker0 -j DOCKER
step 'the container is closed' check_packets <<<'tcp4 192.168.1.10 8080 blocked 192.168.1.21'
answers 0 status
says '^Redirects: *IPv4 -A DOCKER ! -i docker0 -p tcp -m tcp --dport 8080 -j DNAT --to-destination 172.17.0.2:23$'
answers 0 status --json
step 'as a document' [ "$(jq -c '.kernel.v4.redirects | length' "$out/answer")" = 1 ]
answers 0 diff
readonly kHanded='tcp 8080 is handed to 172.17.0.2:23 (IPv4: -A PREROUTING -m addrtype --dst-type LOCAL -j DOCKER, -A DOCKER ! -i docker0 -p tcp -m tcp --dport 8080 -j DNAT --to-destination 172.17.0.2:23); the rules of FORWARD_FIREWALL see port 23'
answers 11 blocked --port tcp/8080 --adapter eth0
says "^$kHanded: eth0 blocked\$"
answers 11 explain --port tcp/8080 --adapter eth0 --from 192.168.1.21
says "^$kHanded: eth0 blocked (the default policy of eth0: deny)\$"
answers 11 blocked --port tcp/8080 --adapter eth0 --json
step 'as a document' [ "$(jq -c '.redirects | map([.port, .target, .chain, .seenPort, .certain])' \
    "$out/answer")" = '[["tcp 8080","172.17.0.2:23","FORWARD_FIREWALL","tcp 23",true]]' ]
step 'with the verdict' [ "$(jq -c '.redirects[0].verdicts' "$out/answer")" = \
    '[{"adapter":"eth0","verdict":"blocked"}]' ]
answers 11 blocked --port tcp/8000-8100 --adapter eth0
says '^tcp 8080 may be handed to 172.17.0.2:23 '
answers 10 blocked --port tcp/8081 --adapter eth0
answers 0 rule add allow tcp 8080 --adapter eth0 --profile deny_by_default --reload
step 'allowing the published port does not open it' \
    check_packets <<<'tcp4 192.168.1.10 8080 blocked 192.168.1.21'
answers 11 blocked --port tcp/8080 --adapter eth0
says '^eth0  *allowed$'
says "^$kHanded: eth0 blocked\$"
answers 0 rule add allow tcp 23 --adapter eth0 --profile deny_by_default --reload
step "allowing the container's port does" check_packets <<<'tcp4 192.168.1.10 8080 open 192.168.1.21'
answers 11 explain --port tcp/8080 --adapter eth0 --from 192.168.1.21
says "^$kHanded: eth0 allowed (rule 4 of eth0: allow tcp 23 from anywhere)\$"
answers 0 rule delete 4 --adapter eth0 --profile deny_by_default --reload

# That host's jump comes first: the container is open, whatever the profile says.
iptables -D FORWARD -o docker0 -j DOCKER
iptables -I FORWARD -o docker0 -j DOCKER
step 'the container is open' check_packets <<<'tcp4 192.168.1.10 8080 open 192.168.1.21'
answers 11 status
says "^Firewall: *enabled, but other programs' rules in FORWARD (IPv4) may accept packets "
says '^Accepts before: *IPv4 -A FORWARD -o docker0 -j DOCKER$'
answers 10 diff
says '^+ -A FORWARD -o docker0 -j DOCKER$'
answers 11 blocked --port tcp/23 --adapter eth0
says '^eth0  *blocked  *but may be accepted before it by: -A FORWARD -o docker0 -j DOCKER, -A DOCKER '
answers 10 blocked --port tcp/22 --adapter eth0
answers 0 rule delete 3 --adapter eth0 --profile deny_by_default
answers 11 explain --port tcp/8080 --adapter eth0 --from 192.168.1.21
says 'the default policy of eth0: deny; but may be accepted before it by: -A FORWARD -o docker0 -j DOCKER'

# A port of the machine itself.
iptables -t nat -F DOCKER
iptables -t nat -I PREROUTING -i eth0 -p tcp --dport 81 -j REDIRECT --to-ports 80
step 'the profile sees the other port' check_packets <<<'tcp4 192.168.1.10 81 open 192.168.1.21'
answers 11 blocked --port tcp/81 --adapter eth0
says '^tcp 81 is handed to port 80 (IPv4: .*); the rules of INPUT_FIREWALL see port 80: eth0 allowed$'
iptables -t nat -F PREROUTING
iptables -D FORWARD -o docker0 -j DOCKER
answers 0 reload
as_stored

# --- in the firewall's own chain -------------------------------------------------------------------

iptables -A FIREWALL_RELOADING -p tcp --dport 23 -j ACCEPT
step 'the port is open' check_packets <<<'tcp4 192.168.1.10 23 open 192.168.1.21'
answers 11 status
says "^Firewall: *enabled, but other programs' rules in FIREWALL_RELOADING (IPv4) may accept packets "
says '"tarnfw reload" puts the firewall.s first and empties FIREWALL_RELOADING$'
says '^Accepts before: *IPv4 -A FIREWALL_RELOADING -p tcp -m tcp --dport 23 -j ACCEPT$'
answers 11 blocked --port tcp/23 --adapter eth0
says 'blocked  *but accepted before it by: -A FIREWALL_RELOADING -p tcp -m tcp --dport 23 -j ACCEPT (IPv4)'
answers 10 diff
says '^+ -A FIREWALL_RELOADING -p tcp -m tcp --dport 23 -j ACCEPT$'
answers 0 reload
step 'the port is closed' check_packets <<<'tcp4 192.168.1.10 23 blocked 192.168.1.21'
answers 0 status

# --- of the other variant of iptables --------------------------------------------------------------

# Both are in force at once, and each lists only its own.
[[ $variant == nft ]] && other=legacy || other=nft
"iptables-$other" -t nat -A PREROUTING -p tcp --dport 8080 -j REDIRECT --to-ports 22
"ip6tables-$other" -t nat -A PREROUTING -p tcp --dport 8081 -j REDIRECT --to-ports 80
step 'packets are redirected' check_packets <<'END'
tcp4 192.168.1.10 8080 open 192.168.1.20
tcp4 192.168.1.10 8080 blocked 192.168.1.21
tcp6 fd00::10 8081 open fd00::20
END
answers 0 status
says "^Redirects: *IPv4 iptables-$other -t nat -A PREROUTING -p tcp -m tcp --dport 8080 -j REDIRECT --to-ports 22\$"
says "^Redirects: *IPv6 ip6tables-$other -t nat -A PREROUTING -p tcp -m tcp --dport 8081 -j REDIRECT --to-ports 80\$"
answers 11 blocked --port tcp/8080 --adapter eth0
says "^tcp 8080 is handed to port 22 (IPv4: iptables-$other -t nat -A PREROUTING .*); the rules of INPUT_FIREWALL see port 22: eth0 mixed\$"
answers 11 explain --port tcp/8080 --adapter eth0 --from 192.168.1.20
says 'see port 22: eth0 allowed (rule 2 of eth0: '
answers 11 explain --port tcp/8081 --adapter eth0 --from fd00::20
says "^tcp 8081 is handed to port 80 (IPv6: ip6tables-$other -t nat .*); the rules of INPUT_FIREWALL see port 80: eth0 allowed "
"iptables-$other" -t nat -F
"ip6tables-$other" -t nat -F
as_stored

# --- what drops ------------------------------------------------------------------------------------

# dropped RULE: packets to tcp 80, which the profile allows, are dropped, and the answers name the rule.
dropped() {
    step 'the port is closed' check_packets <<<'tcp4 192.168.1.10 80 blocked 192.168.1.21'
    answers 10 blocked --port tcp/80 --adapter eth0
    says "^eth0  *allowed  *but dropped by: $1 (IPv4)\$"
    answers 10 explain --port tcp/80 --adapter eth0
    says "^  but dropped by: $1 (IPv4)\$"
    answers 10 explain --port tcp/80 --adapter eth0 --from 192.168.1.21
    says "^eth0  *tcp 80  *allowed  *rule .*; but dropped by: $1 (IPv4)\$"
    answers 0 explain --port tcp/80 --adapter eth0 --from fd00::20
    answers 0 blocked --port tcp/443 --adapter eth0
}

# Before the firewall.
iptables -I INPUT 1 -p tcp --dport 80 -j DROP
dropped '-A INPUT -p tcp -m tcp --dport 80 -j DROP'
answers 10 blocked --port tcp/80 --adapter eth0 --json
step 'as a document' [ "$(jq -c '[.holds, .allowed, .adapters[1].verdict, .adapters[1].droppedBy]' "$out/answer")" = \
    '[true,false,"allowed",[{"certain":true,"family":"v4","rules":["-A INPUT -p tcp -m tcp --dport 80 -j DROP"]}]]' ]
answers 10 explain --port tcp/80 --adapter eth0 --from 192.168.1.21 --json
step 'as a document' [ "$(jq -c '[.allowed, (.adapters[0].droppedBy | length)]' "$out/answer")" = '[false,1]' ]
# Of what is blocked anyway, or accepted before, nothing is said.
answers 10 blocked --port tcp/81 --adapter eth0
says '^eth0  *blocked$'
iptables -I INPUT 1 -p tcp --dport 80 -j ACCEPT
step 'the port is open' check_packets <<<'tcp4 192.168.1.10 80 open 192.168.1.21'
answers 0 blocked --port tcp/80 --adapter eth0
iptables -D INPUT 1
iptables -D INPUT 1

# After it: what the firewall allows goes on.
iptables -A INPUT -p tcp --dport 80 -j DROP
dropped '-A INPUT -p tcp -m tcp --dport 80 -j DROP'
iptables -D INPUT -p tcp --dport 80 -j DROP
iptables -A INPUT -p tcp --dport 443 -j ACCEPT
iptables -P INPUT DROP
dropped '-P INPUT DROP'
iptables -P INPUT ACCEPT
iptables -D INPUT -p tcp --dport 443 -j ACCEPT

# In another table.
iptables -t mangle -A PREROUTING -i eth0 -p tcp --dport 80 -j DROP
dropped '-t mangle -A PREROUTING -i eth0 -p tcp -m tcp --dport 80 -j DROP'
iptables -t mangle -F

# For some senders.
iptables -I INPUT 1 -s 192.168.1.21 -p tcp -j DROP
step 'one is dropped' check_packets <<'END'
tcp4 192.168.1.10 80 blocked 192.168.1.21
tcp4 192.168.1.10 80 open 192.168.1.20
END
answers 10 blocked --port tcp/80 --adapter eth0
says '^eth0  *allowed  *but may be dropped by: -A INPUT -s 192.168.1.21/32 -p tcp -j DROP (IPv4)$'
answers 10 explain --port tcp/80 --adapter eth0 --from 192.168.1.21
says '; but dropped by: -A INPUT -s 192.168.1.21/32 -p tcp -j DROP (IPv4)$'
answers 0 explain --port tcp/80 --adapter eth0 --from 192.168.1.20
iptables -D INPUT 1

# By the other variant of iptables, which also decides what this one accepts before the firewall.
"iptables-$other" -A INPUT -p tcp --dport 80 -j DROP
"iptables-$other" -A INPUT -p tcp --dport 23 -j DROP
dropped "iptables-$other -t filter -A INPUT -p tcp -m tcp --dport 80 -j DROP"
iptables -I INPUT 1 -j ACCEPT
step 'what is accepted is dropped all the same' check_packets <<'END'
tcp4 192.168.1.10 80 blocked 192.168.1.21
tcp4 192.168.1.10 23 blocked 192.168.1.21
END
answers 10 blocked --port tcp/23 --adapter eth0
says '^eth0  *blocked$'
answers 10 blocked --port tcp/80 --adapter eth0
iptables -D INPUT 1
"iptables-$other" -F INPUT
as_stored

# --- in a table of nftables ------------------------------------------------------------------------

"$checkout/tests/kernel/nft_chain.py" inet others pre nat prerouting -100 accept 8443 redirect 23
answers 0 rule add allow tcp 23 --adapter eth0 --profile deny_by_default --reload
step 'packets are redirected' check_packets <<<'tcp6 fd00::10 8443 open fd00::20'
answers 0 rule delete 3 --adapter eth0 --profile deny_by_default --reload
readonly kNft=/usr/sbin/nft
if [[ ! -e $kNft ]]; then
    answers 0 status
    says "^Redirects: *table inet others of nftables cannot be listed: there is no $kNft\$"
    answers 10 blocked --port tcp/8443 --adapter eth0
    says "^It may be redirected or dropped: table inet others of nftables cannot be listed: there is no $kNft\$"
fi

# As nft prints that table.
mkdir /tmp/sbin
cp --archive -- /usr/sbin/. /tmp/sbin/
cat >/tmp/sbin/nft <<'END'
#!/bin/sh
echo "$*" >>/tmp/nft_runs
if [ "$6" = early ]; then
    printf 'table ip early {\n\tchain in {\n\t\ttype filter hook input priority -5; policy drop;\n'
    printf '\t\ttcp dport 80 drop\n\t}\n}\n'
    exit
fi
printf 'table inet others {\n\tchain pre {\n\t\ttype nat hook prerouting priority -100; policy accept;\n'
printf '\t\ttcp dport 8443 counter packets 3 bytes 180 redirect to :23\n\t}\n}\n'
END
chmod +x /tmp/sbin/nft
mount --bind /tmp/sbin /usr/sbin
answers 0 status
says '^Redirects: *IPv4 table inet others chain pre: tcp dport 8443 redirect to :23$'
says '^Redirects: *IPv6 table inet others chain pre: tcp dport 8443 redirect to :23$'
step 'no other table is listed' [ "$(cat /tmp/nft_runs)" = '-t -n list table inet others' ]
answers 11 blocked --port tcp/8443 --adapter eth0
says '^tcp 8443 is handed to port 23 (IPv4: table inet others chain pre: tcp dport 8443 redirect to :23); the rules of INPUT_FIREWALL see port 23: eth0 blocked$'
answers 11 explain --port tcp/8443 --adapter eth0 --from fd00::20
says 'see port 23: eth0 blocked (the default policy of eth0: deny)$'
"$checkout/tests/kernel/nft_chain.py" ip early in filter input -5 drop 80 drop
step 'the ports are closed' check_packets <<'END'
tcp4 192.168.1.10 80 blocked 192.168.1.21
tcp4 192.168.1.10 443 blocked 192.168.1.21
tcp6 fd00::10 443 open fd00::20
END
answers 10 blocked --port tcp/80 --adapter eth0
says '^eth0  *allowed  *but dropped by: table ip early chain in: tcp dport 80 drop (IPv4)$'
answers 10 blocked --port tcp/443 --adapter eth0
says '^eth0  *allowed  *but dropped by: table ip early chain in: policy drop (IPv4)$'
answers 0 explain --port tcp/443 --adapter eth0 --from fd00::20
printf '#!/bin/sh\necho "Error: no rights" >&2\nexit 1\n' >/tmp/sbin/nft
answers 0 status
says '^Redirects: *table inet others of nftables cannot be listed: /usr/sbin/nft fails: Error: no rights$'
answers 0 blocked --port tcp/80 --adapter eth0
says '^It may be redirected or dropped: table ip early of nftables cannot be listed: '
