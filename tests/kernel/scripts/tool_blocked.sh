# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "blocked" and "explain": the table of verdicts, the reasons, and the one rule that decides for a
# sender, compared with real packets.
make_links <<'END'
veth eth0 192.168.1.10/24 192.168.1.11/24 fd00::10/64 lan 192.168.1.20/24 192.168.1.21/24 192.168.1.30/24 192.168.1.41/24 fd00::20/64 fd00::21/64
END

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# --- a firewall that is off ------------------------------------------------------------------------

answers 0 base up
answers 0 blocked --port tcp/22
silent
prints <<<'Firewall disabled: nothing is blocked'
answers 0 explain --service ssh --from 192.168.1.20
prints <<<'Firewall disabled: nothing is blocked'
for ports in 'tcp/443' 'tcp 443' '443/tcp'; do
    read -r -a words <<<"$ports"
    answers 0 blocked --port "${words[@]}" --json
    step 'the ports are those' [ "$(jq -c .ports "$out/answer")" = '["tcp 443"]' ]
    answers 0 explain --port "${words[@]}" --from 192.168.1.20
done
answers 2 blocked --port tcp 443 444
step 'all words are said' grep --quiet '"443 444" is not a port' "$out/complaint"
answers 2 explain --port tcp eth0
step 'so is a word that is no port' grep --quiet '^tarnfw: --port: "eth0" is not a port' "$out/complaint"
answers 0 blocked --service ssh --json
prints_json <<'END'
{"enabled": false, "profile": "default", "service": "ssh", "ports": ["tcp 22"], "adapters": [],
 "allowed": true, "holds": true, "notCounted": [], "complaints": [], "redirects": []}
END
answers 5 blocked --port tcp/22 --adapter eht0
complains '^tarnfw: there is no adapter "eht0"; did you mean "eth0"? (known: eth0, global, pppoe, vpn)$'

# --- verdicts and their reasons --------------------------------------------------------------------

use_profile deny_by_default
answers 0 enable
keep_listing enabled

answers 10 blocked --port tcp/22
silent
prints <<'END'
Profile "deny_by_default", tcp 22
Adapter  Verdict
global   undecided  left to the adapters
eth0     mixed      allowed from some addresses, blocked from others
eth1     allowed    absent
END
answers 10 blocked --port tcp/22 --json
prints_json <<'END'
{"enabled": true, "profile": "deny_by_default", "ports": ["tcp 22"], "allowed": false,
 "holds": true, "notCounted": [], "complaints": [], "redirects": [],
 "adapters": [{"name": "global", "present": true, "inProfile": true, "verdict": "undecided", "acceptedBefore": [], "droppedBy": []}, {"name": "eth0", "present": true, "inProfile": true, "verdict": "mixed", "acceptedBefore": [], "droppedBy": []},
              {"name": "eth1", "present": false, "inProfile": true, "verdict": "allowed", "acceptedBefore": [], "droppedBy": []}]}
END
answers 0 blocked --service https --adapter eth0
prints <<'END'
Profile "deny_by_default", service https (tcp 443)
Adapter  Verdict
global   undecided  left to the adapters
eth0     allowed
END
answers 10 blocked --port tcp/443-444 --adapter eth0
says '^eth0  *mixed  *allowed for some of the packets, blocked for others$'
answers 10 blocked --port tcp+udp/443 --adapter eth0
says '^Profile "deny_by_default", tcp/udp 443$'
for port in both/443 443/both 'tcp/udp 443' TCP,UDP/443; do
    answers 10 blocked --port "$port" --adapter eth0
    says '^Profile "deny_by_default", tcp/udp 443$'
done
says '^eth0  *mixed  *allowed for some of the packets, blocked for others$'
# The machine has it, the profile knows nothing of it.
ip tuntap add eth9 mode tun
answers 0 blocked --port udp/5000-5010 --adapter eth9
says '^eth9  *allowed  *not in the profile$'
answers 0 blocked --port udp/5000-5010 --adapter eth9 --json
step 'the profile has nothing for it' jq --exit-status '.adapters[1] | .present and .inProfile == false' "$out/answer"
answers 0 explain --port tcp/22 --adapter eth9 --from 192.168.1.20
says '^eth9  *tcp 22  *allowed  *no rule and no default policy matches; not in the profile$'
ip tuntap del eth9 mode tun

# Nothing covers the name: there is nothing to answer.
readonly kNothing='^tarnfw: the machine has no interface for "vpn" now, and the profile has nothing for it$'
for question in blocked explain 'explain --from 192.168.1.20'; do
    # shellcheck disable=SC2086  # it is several words
    answers 5 $question --port tcp/22 --adapter vpn
    complains "$kNothing"
done
answers 5 blocked --port tcp/22 --adapter pppoe

answers 10 explain --port tcp/22
silent
prints <<'END'
Profile "deny_by_default", tcp 22

eth0: mixed
  allowed for 192.168.1.20    rule 2 of eth0: allow tcp 22 from 192.168.1.20 (IPv4)  "SSH from the admin station"
  blocked for everybody else  the default policy of eth0: deny

eth1 (absent): allowed
  allowed for everybody  the default policy of eth1: allow
END
answers 0 explain --service https --adapter eth0 --json
readonly kEverybody='"v4": ["0.0.0.0/0"], "v6": ["::/0"]'
prints_json <<END
{"enabled": true, "profile": "deny_by_default", "service": "https", "ports": ["tcp 443"],
 "allowed": true, "holds": true, "notCounted": [], "complaints": [], "redirects": [],
 "adapters": [
   {"name": "global", "present": true, "inProfile": true, "verdict": "undecided", "acceptedBefore": [], "droppedBy": [],
    "ports": [{"port": "tcp 443", "verdict": "undecided", "tooComplex": false,
               "steps": [{"by": "nothing", "allowed": null, $kEverybody}]}]},
   {"name": "eth0", "present": true, "inProfile": true, "verdict": "allowed", "acceptedBefore": [], "droppedBy": [],
    "ports": [{"port": "tcp 443", "verdict": "allowed", "tooComplex": false,
               "steps": [{"by": "rule", "adapter": "eth0", "position": 1, "allowed": true, $kEverybody,
                          "text": "allow service http,https from anywhere  \"Web\""}]}]}]}
END

# What "global" does not decide about is left to the adapters.
cat >"$kProfileDirectory/some.json" <<'END'
{"name": "some", "adapterPolicyMap": {"eth0": 0}, "rules": {}}
END
activate some
answers 0 rule add deny --v4
answers 0 enable
answers 10 blocked --port tcp/5 --adapter eth0
says '^global  *mixed  *blocked for some packets, the others left to the adapters$'
says '^eth0  *mixed  *allowed from some addresses, blocked from others$'
answers 0 rule add --first allow tcp 5 from 10.0.0.0/8 --reload
answers 10 blocked --port tcp/5 --adapter eth0
says '^global  *mixed  *allowed for some packets, blocked for some, the others left to the adapters$'

# A rule that is not counted may match, and do the opposite of the others.
answers 0 rule delete 1
answers 0 rule delete 1
answers 0 rule add --adapter eth0 deny tcp 83 from 0.0.0.20/0.0.0.255 --reload
answers 10 blocked --port tcp/83 --adapter eth0
says '^eth0  *mixed  *allowed, but rule 1 of eth0 may block some and is too complex to be counted$'
step 'it is named' grep --quiet '^tarnfw: rule 1 of eth0 is not counted: ' "$out/complaint"
answers 10 blocked --port tcp/83 --adapter eth0 --json
step 'that is not allowed' jq --exit-status '.allowed == false and .adapters[1].verdict == "mixed"' "$out/answer"
answers 10 explain --port tcp/83 --adapter eth0
says '^eth0: mixed$'
says '^  or blocked, where this matches  *rule 1 of eth0: deny tcp 83 .*, which is too complex to be counted$'
answers 10 explain --port tcp/83 --adapter eth0 --json
step 'with its place' jq --exit-status '.adapters[1].ports[0].unless | map(.position) == [1]' "$out/answer"
answers 0 blocked --port tcp/84 --adapter eth0
answers 0 explain --port udp/83 --adapter eth0
rm -- "$kProfileDirectory/some.json"

# A service needs its further protocols as well.
cat >"$kProfileDirectory/some.json" <<'END'
{"name": "some", "adapterPolicyMap": {"eth0": 1}, "rules": {}}
END
activate some
answers 0 rule add allow tcp 1723 --adapter eth0
answers 0 enable
answers 10 blocked --service vpn_server_pptp --adapter eth0
prints <<'END'
Profile "some", service vpn_server_pptp (tcp 1723, protocol 47)
Adapter  Verdict
global   undecided  left to the adapters
eth0     blocked
END
answers 10 explain --service vpn_server_pptp --adapter eth0 --from 192.168.1.20
says '^eth0  *tcp 1723  *allowed  *rule 1 of eth0: '
says '^eth0  *protocol 47 (IPv4)  *blocked  *the default policy of eth0: deny$'
answers 10 explain --service vpn_server_pptp --adapter eth0
says '^  protocol 47  *blocked$'
answers 0 rule set 1 allow service vpn_server_pptp --adapter eth0 --reload
answers 0 blocked --service vpn_server_pptp --adapter eth0
rm -- "$kProfileDirectory/some.json"

# The rules of "global" decide for every adapter; a service has several ports.
use_profile global_rules_first
answers 0 enable
answers 10 explain --port tcp/8080 --adapter eth0
prints <<'END'
Profile "global_rules_first", tcp 8080

eth0: blocked
  blocked for everybody  rule 1 of global: deny tcp 8080 from anywhere  "Closed everywhere"
END
ip tuntap add eth9 mode tun
answers 10 explain --port tcp/8080
says '^eth0, eth9 (not in the profile): blocked$'
step 'once for all' [ "$(grep --count 'rule 1 of global' "$out/answer")" -eq 1 ]
ip tuntap del eth9 mode tun
answers 10 explain --port tcp/8080 --adapter global
says '^global: blocked$'
answers 10 explain --service smb --adapter eth0
prints <<'END'
Profile "global_rules_first", service smb (tcp 139, tcp 445)

eth0: mixed
  allowed for 192.168.1.30    rule 2 of global: allow everything from 192.168.1.30 (IPv4)  "The admin station may do all"
  blocked for everybody else  the default policy of eth0: deny
END
answers 10 blocked --port tcp/8080
says '^global  *blocked  *for every adapter$'

# "global" allows some; the others are the adapters'.
cat >"$kProfileDirectory/some.json" <<'END'
{"name": "some", "adapterPolicyMap": {"eth0": 1, "vpn": 1}, "rules": {}}
END
activate some
answers 0 rule add allow tcp 22 from 10.0.0.0/8
answers 0 rule add allow tcp 22 from 192.168.0.0/16
answers 0 rule add allow tcp 22 from fd00::/8
answers 0 enable
ip tuntap add eth9 mode tun
answers 10 explain --port tcp/22
prints <<'END'
Profile "some", tcp 22

eth0: mixed
  allowed for 10.0.0.0/8      rule 1 of global: allow tcp 22 from 10.0.0.0/8 (IPv4)
  allowed for 192.168.0.0/16  rule 2 of global: allow tcp 22 from 192.168.0.0/16 (IPv4)
  allowed for fd00::/8        rule 3 of global: allow tcp 22 from fd00::/8 (IPv6)
  blocked for everybody else  the default policy of eth0: deny

eth9 (not in the profile): allowed
  allowed for 10.0.0.0/8      rule 1 of global: allow tcp 22 from 10.0.0.0/8 (IPv4)
  allowed for 192.168.0.0/16  rule 2 of global: allow tcp 22 from 192.168.0.0/16 (IPv4)
  allowed for fd00::/8        rule 3 of global: allow tcp 22 from fd00::/8 (IPv6)
  allowed for everybody else  no rule and no default policy matches

vpn (absent): mixed
  allowed for 10.0.0.0/8      rule 1 of global: allow tcp 22 from 10.0.0.0/8 (IPv4)
  allowed for 192.168.0.0/16  rule 2 of global: allow tcp 22 from 192.168.0.0/16 (IPv4)
  allowed for fd00::/8        rule 3 of global: allow tcp 22 from fd00::/8 (IPv6)
  blocked for everybody else  the default policy of vpn: deny
END
answers 0 explain --port tcp/22 --adapter global
says '^  undecided for everybody else  *no rule of global matches: left to the adapters$'
ip tuntap del eth9 mode tun
answers 10 explain --port tcp/22 --from 198.51.100.1 --adapter vpn
says '^vpn  *tcp 22  *blocked  *the default policy of vpn: deny; absent$'
use_profile global_rules_first
answers 0 enable

# --- questions that are none -----------------------------------------------------------------------

answers 5 blocked --service shh
complains '^tarnfw: there is no service "shh"; did you mean "ssh"?'
answers 5 explain --port tcp/22 --adapter eht0
complains '^tarnfw: there is no adapter "eht0"; did you mean "eth0"?'
mkdir -p /usr/tarn/etc/services.d
printf '[{"name": "hidden", "dst": {"protocol": "tcp", "ports": [1]}}, {"name": "bare", "title": "Bare"}]' \
    >/usr/tarn/etc/services.d/test.json
answers 1 blocked --service hidden
complains 'keeps service "hidden" out of the firewall'
answers 1 blocked --service bare
complains '^tarnfw: service "bare" has no ports$'
rm -- /usr/tarn/etc/services.d/test.json
for wrong in '' '--port' '--port 22' '--port tcp/99999' '--port tcp/20-10' '--port icmp/0' \
    '--port tcp/22 --service ssh' '--port tcp/22 more'; do
    read -r -a words <<<"$wrong"
    for command in blocked explain; do
        answers 2 "$command" "${words[@]}"
        step 'nothing on standard output' [ ! -s "$out/answer" ]
    done
done
answers 2 blocked --port tcp/22 --from 192.168.1.20
answers 2 explain --port tcp/22 --from 192.168.1
answers 2 explain --port tcp/22 --to 192.168.1.10
answers 2 explain --port tcp/22 --from 192.168.1.20 --to fd00::10

# --- what decides for a sender, and what its packets meet ------------------------------------------

# Rules of many kinds; the reader takes what is missing as 0, false or empty.
/usr/bin/python3 - >"$kProfileDirectory/mixture.json" <<'END'
import json

def rule(policy, **fields):
    made = {"enable": True, "adapterDirect": 1, "policy": policy, "table": "filter", "ipType": 2,
            "ipDirect": 1, "ipGroup": 5, "ipList": [], "portDirect": 0, "portGroup": 1,
            "protocol": 1, "portList": []}
    made.update(fields)
    return made

print(json.dumps({
    "name": "mixture",
    "adapterPolicyMap": {"global": 2, "eth0": 1},
    "rules": {
        "global": [
            rule(1, portList=["7001"], ipGroup=0, ipList=["192.168.1.21"], ipType=0),
            rule(0, portList=["7001-7002"], adapterDirect=0),
        ],
        "eth0": [
            rule(0, portList=["7003"], enable=False),
            rule(0, portList=["7003"], adapterDirect=0),
            rule(0, portList=["7004", "7006-7008"], protocol=3, ipGroup=4, ipType=0,
                 ipList=["192.168.1.15", "192.168.1.25"]),
            rule(1, portList=["7005-7009"], ipGroup=1, ipType=0,
                 ipList=["192.0.1.20", "255.0.255.255"]),
            rule(0, portList=["7005-7009"], ipGroup=1, ipType=0, ipList=["192.168.1.1", "255.255.255.1"]),
            rule(0, portList=["7010"], ipDirect=0, ipGroup=0, ipType=0, ipList=["192.168.1.11"]),
            rule(0, portList=["ssh"], portGroup=0),
            rule(1, portGroup=3, ipGroup=1, ipType=1, ipList=["fd00::20", "128"]),
            rule(0, portList=["7011"], ipGroup=1, ipType=1, ipList=["fd00::", "64"]),
            rule(0, portList=["7012", "99999"]),
        ],
    },
}))
END
# A profile with a port that is none is not enabled, nor reloaded by the tool.
tarnfw enable 2>"$out/complaint"
sed -i 's/"global_rules_first"/"mixture"/' "$kSettings"
rules_probe reload 2>"$out/complaint"

ports=(22 7001 7002 7003 7004 7005 7006 7007 7008 7009 7010 7011 7012)
serve "${ports[@]/#/tcp/}" udp/7004 udp/7006 udp/7010
: >"$out/packets"

# decide PROTOCOL PORT SOURCE DESTINATION: writes the probe, with the decision of "explain".
decide() {
    local family=4 status=0 outcome
    [[ $3 != *:* ]] || family=6
    tarnfw explain --port "$1/$2" --adapter eth0 --from "$3" --to "$4" --json >"$out/answer" ||
        status=$?
    ((status == 11)) || fail "explain ends with $status" # one line is not in force
    outcome=$(jq -r 'if .allowed then "open" else "blocked" end' "$out/answer")
    printf '%s%s %s %s %s %s\n' "$1" "$family" "$4" "$2" "$outcome" "$3" >>"$out/packets"
}

for port in "${ports[@]}"; do
    for source in 20 21 30 41; do
        decide tcp "$port" "192.168.1.$source" 192.168.1.10
    done
    for source in 20 21; do
        decide tcp "$port" "fd00::$source" fd00::10
    done
done
for port in 7004 7006 7010; do
    decide udp "$port" 192.168.1.20 192.168.1.10
    decide udp "$port" 192.168.1.30 192.168.1.10
done
decide tcp 7010 192.168.1.20 192.168.1.11
for outcome in open blocked; do
    step "some are $outcome" grep --quiet " $outcome " "$out/packets"
done
sort "$out/packets"
step 'packets meet what was told' check_packets <"$out/packets"

# The kernel has not taken the last rule's line, and each answer says so.
readonly kDiffers='the rules in force for IPv4 and IPv6 are not those of the profile; "tarnfw diff" shows how they differ, "tarnfw reload" applies the profile or shows why not'

# One answer for the whole range, cut where the rules' ports begin and end.
answers 11 explain --port tcp/7001-7010 --adapter eth0 --from 192.168.1.20
silent
prints <<END
The kernel does not do this: $kDiffers
Profile "mixture", tcp 7001-7010
Adapter  Port           Verdict  Decided by
eth0     tcp 7001-7002  allowed  rule 2 of global: allow tcp 7001-7002 from anywhere, outgoing
eth0     tcp 7003       blocked  the default policy of eth0: deny
eth0     tcp 7004       allowed  rule 3 of eth0: allow tcp/udp 7004,7006-7008 from 192.168.1.15-192.168.1.25 (IPv4)
eth0     tcp 7005       blocked  rule 4 of eth0: deny tcp 7005-7009 from 192.0.1.20/255.0.255.255 (IPv4)
eth0     tcp 7006-7008  allowed  rule 3 of eth0: allow tcp/udp 7004,7006-7008 from 192.168.1.15-192.168.1.25 (IPv4)
eth0     tcp 7009       blocked  rule 4 of eth0: deny tcp 7005-7009 from 192.0.1.20/255.0.255.255 (IPv4)
eth0     tcp 7010       mixed    the default policy of eth0: deny; unless this matches: rule 6 of eth0: allow tcp 7010 to 192.168.1.11 (IPv4)
END
answers 11 explain --port both/7010 --from 192.168.1.20 --json
prints_json <<END
{"enabled": true, "profile": "mixture", "ports": ["tcp/udp 7010"], "from": "192.168.1.20",
 "allowed": false, "holds": false, "notCounted": [], "complaints": [$(jq -Rn --arg text "$kDiffers" '$text')], "redirects": [],
 "adapters": [
   {"name": "eth0", "present": true, "inProfile": true, "acceptedBefore": [], "droppedBy": [],
    "decisions": [
      {"port": "tcp 7010", "by": "defaultPolicy", "adapter": "eth0", "allowed": false,
       "unless": [{"by": "rule", "adapter": "eth0", "position": 6,
                   "text": "allow tcp 7010 to 192.168.1.11 (IPv4)"}]},
      {"port": "udp 7010", "by": "defaultPolicy", "adapter": "eth0", "allowed": false,
       "unless": []}]}]}
END
answers 11 explain --port tcp/7010 --from 192.168.1.20 --to 192.168.1.11 --json
prints_json <<END
{"enabled": true, "profile": "mixture", "ports": ["tcp 7010"], "from": "192.168.1.20",
 "to": "192.168.1.11", "allowed": true, "holds": false, "notCounted": [], "complaints": [$(jq -Rn --arg text "$kDiffers" '$text')], "redirects": [],
 "adapters": [
   {"name": "eth0", "present": true, "inProfile": true, "acceptedBefore": [], "droppedBy": [],
    "decisions": [
      {"port": "tcp 7010", "by": "rule", "adapter": "eth0", "position": 6, "allowed": true,
       "text": "allow tcp 7010 to 192.168.1.11 (IPv4)", "unless": []}]}]}
END
answers 11 explain --service ssh --from fd00::21 --adapter eth0
says '^eth0  *tcp 22  *allowed  *rule 7 of eth0: allow service ssh from anywhere$'

# --- packets that are known in part, or forwarded; protocols without ports; other profiles -----------

cat >"$kProfileDirectory/ways.json" <<'END'
{"name": "ways", "adapterPolicyMap": {"eth0": 1, "eth1": 0}, "rules": {}}
END
answers 0 rule add --profile ways --adapter eth0 allow tcp 80 to 10.0.0.5
answers 0 rule add --profile ways --adapter eth0 allow tcp 80 from 192.168.1.20
answers 0 rule add --profile ways --adapter eth0 allow icmp
answers 0 explain --profile ways --port tcp/80 --adapter eth0 --out eth1 --to 10.0.0.5
prints <<'END'
Not in force: another profile is active
Profile "ways", tcp 80, forwarded out through eth1

eth0: allowed
  allowed for everybody (IPv4)  rule 1 of eth0: allow tcp 80 to 10.0.0.5 (IPv4)
END
answers 10 explain --profile ways --port tcp/80 --adapter eth0 --out eth1
says '^  allowed for packets to 10.0.0.5  *rule 1 of eth0: '
says '^  blocked for all other packets  *the default policy of eth0: deny$'
answers 10 explain --profile ways --port tcp/80 --adapter eth0 --out eth1 --to 10.0.0.6 --json
step 'as data' jq --exit-status '.out == "eth1" and .to == "10.0.0.6" and
    [.adapters[1].ports[0].steps[] | [.by, .v4 == null]] ==
    [["rule", false], ["defaultPolicy", false]]' "$out/answer"
answers 10 explain --profile ways --port tcp/80 --adapter eth0 --out eth1 --to 10.0.0.6 --from 192.168.1.21 --json
step 'as data' jq --exit-status '.profile == "ways" and .out == "eth1" and .holds == null and
    .adapters[0].decisions == [{"port": "tcp 80", "by": "defaultPolicy", "adapter": "eth0",
                                "allowed": false, "unless": []}]' "$out/answer"
answers 0 explain --profile ways --protocol icmp/8 --adapter eth0 --from 192.168.1.20
prints <<'END'
Not in force: another profile is active
Profile "ways", icmp type 8
Adapter  Protocol            Verdict  Decided by
eth0     icmp type 8 (IPv4)  allowed  rule 3 of eth0: allow icmp from anywhere
END
answers 0 explain --profile ways --protocol icmp/8 --adapter eth0
says '^Profile "ways", icmp type 8$'
says '^  allowed for everybody  *rule 3 of eth0: allow icmp from anywhere$'
answers 10 explain --profile ways --protocol 47 --adapter eth0 --json
step 'in both families' jq --exit-status '.protocol == "47" and .ports == ["protocol 47"] and
    (.adapters[1] | .verdict == "blocked" and (.ports[0] | .port == "protocol 47" and
     [.steps[] | [.by, .v4, .v6]] == [["defaultPolicy", ["0.0.0.0/0"], ["::/0"]]]))' "$out/answer"
answers 0 explain --profile ways --protocol icmp --adapter eth0 --from ::ffff:192.168.1.20
says '^eth0  *icmp (IPv4)  *allowed  '
answers 10 explain --profile ways --port tcp/79-80 --adapter eth0
prints <<'END'
Not in force: another profile is active
Profile "ways", tcp 79-80

eth0: mixed
  allowed for tcp 80 to 10.0.0.5                                            rule 1 of eth0: allow tcp 80 to 10.0.0.5 (IPv4)
  allowed for tcp 80 from 192.168.1.20 to anywhere (IPv4, except 10.0.0.5)  rule 2 of eth0: allow tcp 80 from 192.168.1.20 (IPv4)
  blocked for all other packets                                             the default policy of eth0: deny
END
answers 10 explain --profile ways --port tcp/80 --adapter eth0 --json
step 'with the packets where more than the sender matters' jq --exit-status '
    [.adapters[1].ports[0].steps[] | [.by, .position, .v4, .v6 == [], (.packets | length)]] ==
    [["rule", 1, null, true, 1], ["rule", 2, null, true, 1], ["defaultPolicy", null, null, false, 2]] and
    .adapters[1].ports[0].steps[0].packets[0].destinations == ["10.0.0.5"]' "$out/answer"
cp -- "$kProfileDirectory/ways.json" "$out/ways.json"
answers 0 policy vpn deny --profile ways
answers 10 explain --profile ways --port tcp/80 --adapter eth0 --out vpn --json
step 'with interfaces as the kernel has them' jq --exit-status '
    [.adapters[].ports[].steps[].packets // empty | .[] | [.in.names, .out.names]] | unique ==
    [[["eth0"], ["ppp+", "tun+"]]]' "$out/answer"
answers 10 explain --profile ways --port tcp/80 --adapter vpn --out eth0 --json
cp -- "$out/ways.json" "$kProfileDirectory/ways.json"
answers 10 explain --profile ways --protocol tcp --adapter eth0 --json
step 'by name as by number' jq --exit-status '.protocol == "tcp" and .ports == ["tcp"]' "$out/answer"
for wrong in --protocol\ {tpc,icmp/256,256,gre} '--protocol igmp --port tcp/22' \
    '--port tcp/22 --out global'; do
    read -r -a words <<<"$wrong"
    answers 2 explain "${words[@]}"
done
answers 5 explain --profile nothing --port tcp/22
answers 5 explain --port tcp/22 --out eht0

# What may be dropped is not allowed, also where the source port decides; what differs is said.
activate ways
answers 0 rule add --adapter eth0 --first deny both source port 53
answers 0 rule add --adapter eth0 allow tcp 81
answers 0 rule add --adapter eth0 allow tcp 82 from 10.0.0.0/8
answers 0 enable
answers 10 explain --port tcp/81 --adapter eth0 --from 192.168.1.20
says '^eth0  *tcp 81  *mixed  *rule 5 of eth0: allow tcp 81 from anywhere; unless this matches: rule 1 of eth0: '
answers 10 blocked --port tcp/81 --adapter eth0
says '^eth0  *mixed  *it depends on the source port$'
answers 10 blocked --port tcp/82 --adapter eth0
says '^eth0  *mixed  *it depends on the sender and the source port$'
answers 10 blocked --port tcp/80 --adapter eth0
says '^eth0  *mixed  *it depends on the sender, the source port and the destination address$'

# A mask with too many gaps for a list of addresses: it is known for one sender.
answers 0 rule add --adapter eth0 --first deny tcp 83 from 0.0.0.20/0.0.0.255
answers 0 rule add --adapter eth0 allow tcp 83
answers 0 reload
answers 10 blocked --port tcp/83 --adapter eth0 --json
step 'it is not counted' jq --exit-status '.notCounted | length == 1 and
    (.[0] | startswith("rule 1 of eth0 is not counted: "))' "$out/answer"
answers 10 explain --port tcp/83 --adapter eth0 --from 192.168.1.20 --json
step 'it is counted' jq --exit-status '.notCounted == [] and .adapters[0].decisions[0].position == 1 and
    .adapters[0].decisions[0].text == "deny tcp 83 from 0.0.0.20/0.0.0.255 (IPv4)"' "$out/answer"
answers 10 explain --port tcp/83 --adapter eth0 --from 192.168.1.21
says '^eth0  *tcp 83  *mixed  *rule 8 of eth0: allow tcp 83 from anywhere; unless this matches: rule 2 of eth0: '
for position in 8 7 6 2 1; do
    answers 0 rule delete --adapter eth0 "$position"
done
answers 0 disable
activate other

# Ports of a service about which others decide are apart; of many services of a rule, two are named.
answers 0 rule add --profile ways --adapter eth0 allow service http,ssh,ftp,nfs,rsync from 10.0.0.0/8
answers 0 rule add --profile ways --adapter eth0 allow tcp 139
answers 10 explain --profile ways --service smb --adapter eth0
says '^  tcp 139  *allowed$'
says '^  allowed for everybody  *rule 5 of eth0: allow tcp 139 from anywhere$'
says '^  tcp 445  *blocked$'
says '^  blocked for everybody  *the default policy of eth0: deny$'
answers 10 explain --profile ways --service nfs --adapter eth0
says '^  allowed for 10.0.0.0/8  *rule 4 of eth0: allow service http,nfs,... from 10.0.0.0/8 (IPv4)$'
step 'all ports together' [ "$(grep --count '^  ' "$out/answer")" -eq 2 ]
answers 0 rule delete --profile ways --adapter eth0 5
answers 0 rule delete --profile ways --adapter eth0 4

# Also while the firewall is disabled, of the active profile too when it is named.
activate ways
answers 0 disable
answers 10 explain --profile ways --port tcp/23 --adapter eth0 --from 192.168.1.20
says '^Not in force: the firewall is disabled$'
says '^eth0  *tcp 23  *blocked  *the default policy of eth0: deny$'
answers 0 explain --port tcp/23 --adapter eth0 --from 192.168.1.20
prints <<<'Firewall disabled: nothing is blocked'

# A mask with more gaps than can be counted is said.
answers 0 rule add --profile ways --adapter eth0 deny tcp 81 from 192.0.1.1/255.0.255.1
tarnfw explain --profile ways --port tcp/81 --adapter eth0 >"$out/answer" 2>"$out/complaint" || true
step 'the rule is not counted' grep --quiet '^tarnfw: rule 4 of eth0 is not counted: ' "$out/complaint"

# --- nothing of all this changes anything ----------------------------------------------------------

keep_listing asked
keep_files asked
for question in '--port tcp/22' '--service ssh --json' '--port both/7000-7020'; do
    read -r -a words <<<"$question"
    for command in blocked explain 'explain --from 192.168.1.20'; do
        # shellcheck disable=SC2086  # it is several words
        tarnfw $command "${words[@]}" >"$out/answer" || (($? == 11))
    done
done
step 'the filter is untouched' same_listing asked
step 'no file was written' same_files asked
