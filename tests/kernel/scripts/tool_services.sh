# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "adapters" and "services", and what changes every profile: "service reserve", "release", "update",
# "adapter rename".
make_links <<'END'
veth eth0 192.168.1.10/24 fd00::10/64 lan 192.168.1.20/24
tun tun0 10.9.0.1/24
END
# Made from the link's own number, so another one each time.
ip -6 address flush dev eth0 scope link
ip -6 address flush dev tun0 scope link

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# has_rules FILE ADAPTER: that profile's list is what is read, a line a rule: its policy and ports.
has_rules() {
    diff -u - <(/usr/bin/python3 - "$kProfileDirectory/$1.json" "$2" <<'END'
import json
import sys

rules = json.load(open(sys.argv[1]))["rules"] or {}
for rule in rules.get(sys.argv[2], []):
    print(("allow", "deny")[rule["policy"]], *rule["portList"])
END
    ) || fail "not the rules of $2 in $1"
}

# refused_whole STATUS PATTERN ARGUMENT...: refused, in one line, and the filter is untouched as well.
refused_whole() {
    keep_listing refusing
    refused "$@"
    complains "$2"
    step 'the filter is untouched' same_listing refusing
}

# --- without any profile ---------------------------------------------------------------------------

for command in 'service reserve ssh allow --adapter eth0' 'service release ssh' 'service update' \
    'adapter rename eth0 eth1'; do
    read -r -a words <<<"$command"
    answers 5 "${words[@]}"
    complains '^tarnfw: there are no profiles; "tarnfw base up" writes a first one$'
done
step 'none came of it' [ -z "$(ls "$kProfileDirectory" 2>/dev/null)" ]
mkdir -p -- "$kProfileDirectory"
printf '{' >"$kProfileDirectory/broken.json"
answers 5 service update
complains "^tarnfw: there are no profiles; 1 file cannot be read: $kProfileDirectory/broken.json (\"tarnfw check FILE\" shows why)$"
rm -r -- "$kProfileDirectory"

# --- what there is ---------------------------------------------------------------------------------

answers 0 base up
rm -- "$kProfileDirectory"/*.json
# A profile of two adapters, of which the machine has one, and one besides it.
cat >"$kProfileDirectory/home.json" <<'END'
{"name": "home",
 "adapterPolicyMap": {"eth0": 1, "eth5": 0, "global": 2},
 "rules": {
   "eth0": [
     {"enable": true, "adapterDirect": 1, "protocol": 1, "policy": 0, "blLog": false,
      "name": "Shell and web", "table": "filter", "labelList": [], "chainList": [], "ipType": 2,
      "ipDirect": 1, "ipGroup": 5, "ipList": [], "portDirect": 0, "portGroup": 0,
      "portList": ["ssh", "http"]},
     {"enable": false, "adapterDirect": 1, "protocol": 1, "policy": 0, "blLog": false,
      "name": "", "table": "filter", "labelList": [], "chainList": [], "ipType": 2,
      "ipDirect": 1, "ipGroup": 5, "ipList": [], "portDirect": 0, "portGroup": 1,
      "portList": ["9000"]}],
   "eth5": [
     {"enable": true, "adapterDirect": 1, "protocol": 1, "policy": 1, "blLog": false,
      "name": "", "table": "filter", "labelList": [], "chainList": [], "ipType": 2,
      "ipDirect": 1, "ipGroup": 5, "ipList": [], "portDirect": 0, "portGroup": 0,
      "portList": ["lost_service"]}]}}
END
printf '{"name": "away", "adapterPolicyMap": {"global": 2, "eth5": 0}, "rules": {}}\n' \
    >"$kProfileDirectory/away.json"
activate home

answers 0 adapters
silent
prints <<'END'
Profile "home" (active)
Adapter  Now                Addresses               Default  Rules      Note
eth0     up                 192.168.1.10, fd00::10  deny     2 (1 off)
eth5     absent                                     allow    1
global   every adapter                              none     0
pppoe    no interface now                           -        0
tun0     up, not connected  10.9.0.1                -        0          open: not in the profile
vpn      tun0                                       -        0
END
answers 0 adapters --json
prints_json <<'END'
{"profile": "home",
 "adapters": [
   {"name": "eth0", "predefined": false, "present": true, "up": true,
    "addresses": ["192.168.1.10", "fd00::10"], "standsFor": [], "policy": "deny", "rules": 2,
    "rulesOff": 1, "inProfile": true, "open": null},
   {"name": "eth5", "predefined": false, "present": false, "up": false, "addresses": [],
    "standsFor": [], "policy": "allow", "rules": 1, "rulesOff": 0, "inProfile": true, "open": null},
   {"name": "global", "predefined": true, "present": true, "up": false, "addresses": [],
    "standsFor": [], "policy": "none", "rules": 0, "rulesOff": 0, "inProfile": true, "open": null},
   {"name": "pppoe", "predefined": true, "present": false, "up": false, "addresses": [],
    "standsFor": [], "policy": "none", "rules": 0, "rulesOff": 0, "inProfile": false, "open": null},
   {"name": "tun0", "predefined": false, "present": true, "up": true, "addresses": ["10.9.0.1"],
    "standsFor": [], "policy": "none", "rules": 0, "rulesOff": 0, "inProfile": false, "open": true},
   {"name": "vpn", "predefined": true, "present": true, "up": false, "addresses": [],
    "standsFor": ["tun0"], "policy": "none", "rules": 0, "rulesOff": 0, "inProfile": false, "open": null}]}
END
ip link set tun0 down
printf 'pppoe_interface="ppp7"\n' >>/etc.defaults/tarninfo.conf
answers 0 adapters
says '^tun0  *down  *10.9.0.1 '
says '^pppoe  *ppp7 '

mkdir -p /usr/tarn/etc/services.d
cat >/usr/tarn/etc/services.d/test.json <<'END'
[{"name": "kept_out", "dst": {"protocol": "tcp", "ports": [1]}},
 {"name": "two_sided", "title": "Two sides", "dst": {"protocol": "tcp/udp", "ports": [53, "60-61"]},
  "src": {"protocol": "udp", "ports": [67]}}]
END
answers 0 services
silent
says '^Service  *Title  *Ports$'
says '^ssh  *Secure shell (SSH)  *tcp 22$'
says '^kept_out  *(kept out of the firewall)  *tcp 1$'
says '^two_sided  *Two sides  *tcp/udp 53,60-61, from udp 67$'
step 'all that the catalogue has' [ "$(tail -n +2 "$out/answer" | wc -l)" = \
    "$(cat /usr/tarn/etc.defaults/services.d/*.json /usr/tarn/etc/services.d/*.json |
        grep --only-matching '"name":' | wc -l)" ]
answers 0 services SIDES
step 'titles count, in any letters' [ "$(tail -n +2 "$out/answer" | cut -d ' ' -f 1)" = two_sided ]
answers 0 services 'k*t_o?t' --json
prints_json <<'END'
{"services": [{"name": "kept_out", "title": "", "protocols": [], "usable": false, "source": null,
               "destination": {"protocol": "tcp", "ports": ["tcp 1"]}}]}
END
answers 0 services two_sided --json
prints_json <<'END'
{"services": [{"name": "two_sided", "title": "Two sides", "protocols": [], "usable": true,
               "destination": {"protocol": "tcp/udp", "ports": ["tcp/udp 53", "tcp/udp 60-61"]},
               "source": {"protocol": "udp", "ports": ["udp 67"]}}]}
END
answers 5 services no_such_thing
complains '^tarnfw: no service of the catalogue matches "no_such_thing" ("tarnfw services" lists them)$'
# Whatever names a service that does not exist ends in the same way.
for words in 'services sshh' 'service reserve sshh --adapter eth0 allow' 'service release sshh' \
    'rule add allow service sshh' 'rule insert 1 allow service http,sshh' 'rule set 1 deny service sshh' \
    'rule delete allow service sshh' 'blocked --service sshh' 'explain --service sshh'; do
    read -r -a arguments <<<"$words"
    answers 5 "${arguments[@]}"
    complains '^tarnfw: .*"sshh"; did you mean "ssh"? ("tarnfw services" lists them)$'
done

# --- service reserve -------------------------------------------------------------------------------

# A service that the catalogue has lost: a profile that was enabled before is still applied.
refused 3 '^tarnfw: rule [0-9]* of [a-z0-9]*: .*; profile "home" has 1 error$' enable
sed -i 's/"status" *: *false/"status": true/' "$kSettings"
answers 0 reload
step 'the error is named' grep --quiet \
    '^tarnfw: rule [0-9]* of [a-z0-9]*: .*; profile "home" has 1 error; "tarnfw check home" lists all$' \
    "$out/complaint"
step 'and the adapter that is left out' grep --quiet \
    '^tarnfw: left out, without an interface now: eth5$' "$out/complaint"
keep_listing enabled
answers 0 service reserve ssh --adapter eth0 deny
silent
prints <<'END'
Service ssh reserved on eth0: deny (changed: away, home)
Once applied: closes service ssh on eth0, for everybody (rule 1 of eth0)
The kernel still has the old rules; "tarnfw reload" applies the new ones
END
step 'the kernel has the old rules' same_listing enabled
has_rules away eth0 <<<'deny ssh'
has_rules home eth0 <<'END'
deny ssh
allow ssh http
allow 9000
END
answers 0 service reserve ssh --adapter eth0 deny --reload
prints <<'END'
Service ssh reserved on eth0: deny (no profile changed)
Profile "home" applied
END
step 'now the kernel has it' grep --quiet -- '-i eth0 .*--dport 22 -j DROP' <(iptables -S)
# The names that no reservation can be for, or that none can be on.
refused_whole 5 '^tarnfw: there is no service "shh"; did you mean "ssh"?' service reserve shh allow --adapter eth0
refused_whole 1 'keeps service "kept_out" out of the firewall' service reserve kept_out allow --adapter eth0
refused_whole 5 '^tarnfw: there is no adapter "eht0"; did you mean "eth0"? (known: eth0, eth5, global, pppoe, tun0, vpn)$' \
    service reserve ssh allow --adapter eht0
for wrong in 'service reserve' 'service reserve ssh' 'service reserve ssh allow' \
    'service reserve ssh maybe --adapter eth0' 'service release' 'service update ssh' service \
    'service steal' 'adapter rename' 'adapter rename eth0' adapter 'adapters more' 'services a b'; do
    read -r -a words <<<"$wrong"
    answers 2 "${words[@]}"
    step 'nothing on standard output' [ ! -s "$out/answer" ]
done

# --- service release -------------------------------------------------------------------------------

# What it releases is what was reserved: a rule that a person has made stays.
refused_whole 5 '^tarnfw: service "ssh" is not reserved on "tun0"$' service release ssh --adapter tun0
refused_whole 5 '^tarnfw: service "http" is not reserved; other rules name it: home; "tarnfw service release http --everywhere" removes it from them$' \
    service release http
refused_whole 5 '^tarnfw: service "http" is not reserved on "eth0"; other rules name it: home; "tarnfw service release http --everywhere --adapter eth0" removes it from them$' \
    service release http --adapter eth0
answers 0 service release ssh
prints <<'END'
Service ssh released (changed: away, home)
Other rules name it: home; "tarnfw service release ssh --everywhere" removes it from them, too
Once applied: opens service ssh on eth0, for everybody (now rule 1 of eth0)
The kernel still has the old rules; "tarnfw reload" applies the new ones
END
has_rules away eth0 </dev/null
has_rules home eth0 <<'END'
allow ssh http
allow 9000
END
refused_whole 5 '^tarnfw: there is no service "htpp"; did you mean "http"?' service release htpp
refused_whole 5 '^tarnfw: there is no adapter "eht0"' service release ssh --adapter eht0

# Reserving and releasing leave each byte as it was, whatever was there.
documents() {
    (cd -- "$kProfileDirectory" && tail -n +1 -- *.json)
}
without_policy() {
    jq "del(.adapterPolicyMap.$1)" "$kProfileDirectory"/*.json
}
round_trip() {
    documents >/tmp/documents_before
    answers 0 service reserve "$@"
    refuses 'it is reserved' cmp --silent /tmp/documents_before <(documents)
    answers 0 service release "$1" --adapter "$4"
    step 'as before' diff -u /tmp/documents_before <(documents)
}
round_trip ssh allow --adapter eth0
round_trip ssh deny --adapter global
# For a new adapter, the library adds the default policy "allow", which is what there is without one.
without_policy tun0 >/tmp/without_policy
answers 0 service reserve smb allow --adapter tun0
refuses 'it is reserved' cmp --silent /tmp/without_policy <(without_policy tun0)
answers 0 service release smb
step 'as before' diff -u /tmp/without_policy <(without_policy tun0)
step 'allow' [ "$(jq .adapterPolicyMap.tun0 "$kProfileDirectory/home.json")" = 0 ]
round_trip smb allow --adapter tun0
answers 0 service reserve nfs allow --adapter eth0
round_trip ssh allow --adapter eth0 # into the rule that is there
round_trip ssh deny --adapter eth0  # into a new one before it
answers 0 service release nfs
has_rules home eth0 <<'END'
allow ssh http
allow 9000
END

# From rules made by a person only when asked for, and after a question.
answers 0 service reserve ssh allow --adapter global
keep_files everywhere
answers 1 service release ssh --everywhere
complains '^tarnfw: these rules would change; nothing was changed (--yes goes on anyway)$'
prints_rules() {
    grep '^  ' "$out/answer" | diff -u - "$1" || fail 'not the rules that would change'
}
cat >/tmp/rules_that_change <<'END'
  away: - rule 1 of global: allow service ssh from anywhere  "Service", reserved
  home: - rule 1 of eth0: allow service ssh,http from anywhere  "Shell and web"
  home: + rule 1 of eth0: allow service http from anywhere  "Shell and web"
  home: - rule 1 of global: allow service ssh from anywhere  "Service", reserved
END
prints_rules /tmp/rules_that_change
answers 1 service release ssh --everywhere --json
step 'the remedy has its own member' [ "$(jq --raw-output .error.remedy "$out/answer")" = '--yes goes on anyway' ]
asked 1 'tarnfw: these rules would change. Go on? [y/N] ' n service release ssh --everywhere
step 'no file has changed' same_files everywhere
asked 0 'tarnfw: these rules would change. Go on? [y/N] ' y service release ssh --everywhere --adapter global
says '^Service ssh removed from all rules on global (changed: away, home)'
answers 0 service release ssh --everywhere --yes
says '^Service ssh removed from all rules (changed: home)$'
has_rules home eth0 <<'END'
allow http
allow 9000
END
answers 0 service release ssh --everywhere
prints <<<'No rule names service ssh'
answers 0 service release ssh --everywhere --adapter eth0
prints <<<'No rule of eth0 names service ssh'
# One that the catalogue has lost can still be released; its rule names nothing else and goes.
answers 0 service release lost_service --everywhere --yes
says '^Service lost_service removed from all rules (changed: home)$'
has_rules home eth5 </dev/null

# --- service update --------------------------------------------------------------------------------

sed -i 's/"http"/"http", "lost_service"/' "$kProfileDirectory/home.json"
has_rules home eth0 <<'END'
allow http lost_service
allow 9000
END
answers 0 service update --reload
prints <<'END'
Rules updated from the service catalogue (changed: home)
Profile "home" applied
END
has_rules home eth0 <<'END'
allow http
allow 9000
END
answers 0 service update
prints <<<'Rules updated from the service catalogue (no profile changed)'

# --- adapter rename --------------------------------------------------------------------------------

refused_whole 1 '^tarnfw: both names are "eth0"$' adapter rename eth0 eth0
refused_whole 5 '^tarnfw: no profile has rules or a default policy for adapter "eht0"; did you mean "eth0"? (known: eth0, eth5, global, tun0)$' \
    adapter rename eht0 eth1
refused_whole 1 '^tarnfw: "global" is every adapter' adapter rename global eth1
refused_whole 1 '^tarnfw: "global" is every adapter' adapter rename eth0 global
refused_whole 1 'rules and default policies of "ppp0" are never applied; use "pppoe"' adapter rename eth0 ppp0
refused 2 'is not the name of an adapter$' adapter rename eth0 'eth 1'
refused 2 'is not the name of an adapter$' adapter rename eth0 a_name_of_16_char
refused 2 'is not the name of an adapter$' service reserve ssh allow --adapter 'eth 1'
refused 2 'is not the name of an adapter$' service release ssh --adapter 'eth 1'
# What a check would reject: the profile could not be applied any more.
refused 2 '^tarnfw: NEW: "!x" is not the name of an adapter$' adapter rename eth0 '!x'
refused 2 '^tarnfw: NEW: "-x" is not the name of an adapter$' adapter rename eth0 -- -x
# Their default policies differ: one of them would be lost.
refused_whole 1 '^tarnfw: the rules and default policy of "eth5" in home would be replaced; nothing was changed (--yes goes on' \
    adapter rename eth0 eth5
readonly kQuestion='the rules and default policy of "eth5" in home would be replaced. Go on? [y/N] '
keep_files asked
for answer in n '' nonsense; do
    asked 1 "$kQuestion" "$answer" adapter rename eth0 eth5
done
step 'no file has changed' same_files asked
asked 0 "$kQuestion" y adapter rename eth0 eth5
has_rules home eth0 </dev/null
has_rules home eth5 <<'END'
allow http
allow 9000
END
answers 0 adapters
says '^eth0 .* -  *0  *open: not in the profile$'
says '^eth5  *absent  *deny  *2 (1 off)$'
answers 0 adapter rename eth5 eth0 --reload
silent
prints <<'END'
Rules and default policy of eth5 are now those of eth0 (changed: away, home)
Profile "home" applied
END
answers 0 adapter rename eth0 eth6
says '^Rules and default policy of eth0 are now those of eth6 (changed: away, home)$'
says '^The kernel still has the old rules'
complains '^tarnfw: the machine has no interface "eth6" now; until it has one, these rules have no effect$'
answers 0 adapter rename eth6 eth7 --reload
complains '^tarnfw: left out, without an interface now: eth7$'
answers 0 adapter rename eth7 eth6

# Without the base filter nothing would be applied: nothing is changed either.
iptables -D INPUT -j INPUT_FIREWALL
for words in 'service reserve http allow --adapter eth0' 'service release ssh' 'service update' \
    'adapter rename eth0 eth5 --yes'; do
    read -r -a words <<<"$words"
    refused_whole 1 'IPv4 lacks jumps INPUT -> INPUT_FIREWALL' "${words[@]}" --reload
done
