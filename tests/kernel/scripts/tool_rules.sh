# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw rule and policy: what is stored, what is rejected, and what a reload
# makes of it.
make_links <<'END'
veth eth0 192.168.1.10/24 lan 192.168.1.20/24
veth eth1 10.20.0.10/24 lan 10.20.0.20/24
END

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

rule() {
    answers 0 rule "$1" --adapter eth0 "${@:2}"
}

# rules_of ADAPTER: those of the profile, as a list of JSON objects.
rules_of() {
    tarnfw profile show lab --json |
        /usr/bin/python3 -c 'import json, sys
print(json.dumps((json.load(sys.stdin)["rules"] or {}).get(sys.argv[1])))' "$1"
}

# names_of ADAPTER: the names of its rules, in order.
names_of() {
    rules_of "$1" | /usr/bin/python3 -c 'import json, sys
print(" ".join(rule["name"] for rule in json.load(sys.stdin)))'
}

# warns NUMBER PATTERN: so many lines of complaints, and one is like this.
warns() {
    if [[ $(wc -l <"$out/complaint") != "$1" ]] || ! grep --quiet -- "$2" "$out/complaint"; then
        cat -- "$out/complaint"
        fail "not $1 lines with this one: $2"
    fi
}

step 'base up' tarnfw base up
answers 0 profile create lab --empty
answers 0 profile use lab
keep_listing base

# --- add -------------------------------------------------------------------------------------------

mkdir -p /usr/share/xt_geoip
rm -rf -- /usr/share/xt_geoip/*
refused 5 '^tarnfw: there is no country data on this machine' \
    rule add --adapter eth0 deny from country CN
for country in CN.iv4 DE.iv4; do
    printf '\1\2\3\4\5\6\7\10' >"/usr/share/xt_geoip/$country"
done
printf '\0\0\0\12\7\0\0\12' >/usr/share/xt_geoip/RU.iv4
head -c 32 /dev/zero >/usr/share/xt_geoip/DE.iv6

# Nothing is closed yet, which is said with each rule that allows something.
rule add allow tcp 22,80,6000-6010 from 192.168.1.0/24 --log --name office
complains '^tarnfw: eth0 has the default policy "allow": everything else is open on it, too; "tarnfw policy eth0 deny" closes it$'
prints <<'END'
Rule 1 of eth0: allow tcp 22,80,6000-6010 from 192.168.1.0/24, logged (IPv4)  "office"
Once the firewall is enabled: logs tcp 22,80,6000-6010 on eth0, for 192.168.1.0/24
END
rule add deny from country cn,RU --name abroad --label one --label 'two words'
prints <<'END'
Rule 2 of eth0: deny everything from country CN,RU  "abroad"
Once the firewall is enabled: closes everything on eth0, for country CN,RU (IPv4)
END
rule add allow service smb from 10.0.0.5-10.0.0.9
prints <<'END'
Rule 3 of eth0: allow service smb from 10.0.0.5-10.0.0.9 (IPv4)
Already open: service smb on eth0, for 10.0.0.8/31
END
complains '^tarnfw: eth0 has the default policy "allow": what no rule denies is open on it, too; '
rule add --disabled --out --source-port --family v6 deny udp 123
prints <<<'Rule 4 of eth0: [off] deny udp source port 123 from anywhere, outgoing (IPv6)'
# Without an adapter it is "global".
answers 0 rule add allow icmp to 2001:db8::/64
says '^Rule 1 of global: allow icmp to 2001:db8::/64 (IPv6)$'
answers 0 rule add --adapter vpn --profile lab allow
says '^Rule 1 of vpn: allow everything from anywhere$'

rules_of eth0 >"$out/answer"
prints_json <<'END'
[{"ruleIndex": 0, "enable": true, "adapterDirect": 1, "protocol": 1, "policy": "allow", "blLog": true,
  "name": "office", "table": "filter", "labelList": [],
  "chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL"], "ipType": 0, "ipDirect": 1, "ipGroup": 1,
  "ipList": ["192.168.1.0", "255.255.255.0"], "portDirect": 0, "portGroup": 1,
  "portList": ["22", "80", "6000-6010"]},
 {"ruleIndex": 1, "enable": true, "adapterDirect": 1, "protocol": 1, "policy": "deny", "blLog": false,
  "name": "abroad", "table": "filter", "labelList": ["one", "two words"],
  "chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL"], "ipType": 2, "ipDirect": 1, "ipGroup": 3,
  "ipList": ["CN", "RU"], "portDirect": 0, "portGroup": 3, "portList": []},
 {"ruleIndex": 2, "enable": true, "adapterDirect": 1, "protocol": 1, "policy": "allow", "blLog": false,
  "name": "", "table": "filter", "labelList": [],
  "chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL"], "ipType": 0, "ipDirect": 1, "ipGroup": 4,
  "ipList": ["10.0.0.5", "10.0.0.9"], "portDirect": 0, "portGroup": 0, "portList": ["smb"]},
 {"ruleIndex": 3, "enable": false, "adapterDirect": 0, "protocol": 2, "policy": "deny", "blLog": false,
  "name": "", "table": "filter", "labelList": [],
  "chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL"], "ipType": 1, "ipDirect": 1, "ipGroup": 5,
  "ipList": [], "portDirect": 1, "portGroup": 1, "portList": ["123"]}]
END

answers 0 policy eth0 deny
prints <<'END'
Default policy of eth0: deny
Once the firewall is enabled: closes everything on eth0, for everybody, that no rule before it decides (the default policy of eth0)
END
answers 0 policy eth1 none
prints <<<'Default policy of eth1: none'
answers 0 profile show
silent
prints <<'END'
Profile lab (active)

global
  #  Action  What  Address           Family  Notes
  1  allow   icmp  to 2001:db8::/64  IPv6
  default policy: none (the adapters decide)

eth0
  #  Action  What                 Address                 Family  Notes
  1  allow   tcp 22,80,6000-6010  from 192.168.1.0/24     IPv4    logged "office"
  2  deny    everything           from country CN,RU      both    "abroad" [one] [two words]
  3  allow   service smb          from 10.0.0.5-10.0.0.9  IPv4
  4  deny    udp source port 123  from anywhere           IPv6    off, outgoing
  default policy: deny

eth1
  default policy: none

vpn
  #  Action  What        Address        Family  Notes
  1  allow   everything  from anywhere  both
  default policy: allow
END

# --- wrong words -----------------------------------------------------------------------------------

refused 2 '^tarnfw: unexpected "22": expected .* did you mean "tcp 22"?$' rule add --adapter eth0 allow 22
refused 5 '^tarnfw: there is no service "smbd"; did you mean "smb"? ("tarnfw services" lists them)$' \
    rule add --adapter eth0 allow service smbd
refused 2 '^tarnfw: unexpected "on": .* did you mean "--adapter"?$' rule add --adapter eth0 allow on eth0
refused 2 '^tarnfw: "99999" is not a port (0-65535)' rule add --adapter eth0 allow tcp 99999
refused 5 '^tarnfw: "XX" is not a country with data' rule add --adapter eth0 deny from country XX
refused 5 '^tarnfw: "CN" is not a country with IPv6 data (two letters, such as DE)$' \
    rule add --adapter eth0 deny from country CN --v6
refused 2 '^tarnfw: "10.0.0.1" is an IPv4 address, but the rule is for IPv6 only$' \
    rule add --adapter eth0 deny from 10.0.0.1 --v6
refused 2 '^tarnfw: a rule.s words are missing: expected allow or deny$' rule add --adapter eth0
refused 2 '^tarnfw: .*--v[46] and --v[46] exclude each other' rule add --adapter eth0 deny --v4 --v6
refused 2 '^tarnfw: ' rule insert --adapter eth0 deny any
refused 2 '^tarnfw: ' rule delete --adapter eth0
refused 2 '^tarnfw: unexpected "first": expected allow or deny$' rule delete first --adapter eth0
refused 2 '^tarnfw: expected positions (2-4,7) or --name$' rule off --adapter eth0
refused 2 '^tarnfw: "allow" is no position and no range of positions (2-4,7)$' rule on allow --adapter eth0
refused 2 '^tarnfw: the range of positions "3-1" runs backwards$' rule delete 3-1 --adapter eth0
refused 2 '^tarnfw: positions and --name exclude each other$' rule delete 1 --name office --adapter eth0
refused 2 '^tarnfw: ' rule move 1 --adapter eth0
refused 2 '^tarnfw: ' policy eth0
refused 2 '^tarnfw: .*dany' policy eth0 dany
for word in DROP reject Deny; do
    refused 2 "^tarnfw: \"$word\" is not one of allow, deny, none; did you mean \"deny\"?\$" policy eth0 "$word"
done
refused 2 '; did you mean "allow"?$' policy eth0 ACCEPT
for word in 0 allow; do
    refused 2 "\"$word\" is not a number from 1 to 1000000\$" rule insert "$word" --adapter eth0 tcp 22
done
answers 0 rule delete --help
says '^  --log  *With words: the rule logs matching packets$'
refuses 'not as for a new one' grep --quiet 'Also log' "$out/answer"
refused 2 '^tarnfw: "tarnfw rule add" does not take "--lgo"$' rule add --adapter eth0 deny any --lgo
step 'and names the right one' grep --quiet 'Did you mean "tarnfw rule add --log"?' "$out/complaint"

# --- what is not there -----------------------------------------------------------------------------

refused 5 '^tarnfw: there is no adapter "eht0"; did you mean "eth0"? (known: eth0, eth1, global, pppoe, vpn)$' \
    rule delete 1 --adapter eht0
refused 2 '^tarnfw: --adapter: "a/b" is not the name of an adapter$' rule add --adapter a/b deny any
refused 2 '^tarnfw: ADAPTER: "a/b" is not the name of an adapter$' policy a/b deny
refused 2 '^tarnfw: --adapter: "a/b" is not the name of an adapter$' log-denied on --adapter a/b
refused 1 '^tarnfw: rules and default policies of "ppp0" are never applied; use "pppoe"' rule add --adapter ppp0 deny any
refused 1 '^tarnfw: "global" has no default policy' policy global deny
refused 5 '^tarnfw: there is no profile "nowhere" ' rule add --adapter eth0 --profile nowhere deny any
for words in 'set 5 deny any' 'delete 5' 'delete 1 0' 'delete 2-99999' 'on 5' 'off 1,5' 'move 5 1' 'move 1 5'; do
    read -r -a words <<<"$words"
    refused 5 '^tarnfw: there is no rule [05] of eth0, which has 4 rules$' rule "${words[@]}" --adapter eth0
done
refused 5 '^tarnfw: there is no position 6 in the list of eth0, which has 4 rules$' \
    rule insert 6 --adapter eth0 deny any
for words in 'delete -1' 'delete x' 'off 99999999999999999999999' 'move 1 -1' 'move 0 1' 'insert -1 deny any'; do
    read -r -a arguments <<<"$words"
    refused 2 '^tarnfw: ' rule "${arguments[@]}" --adapter eth0
done
refused 5 '^tarnfw: there is no rule 1 of pppoe, which has 0 rules$' rule off 1 --adapter pppoe
answers 5 rule off 9 --adapter eth0 --json
step 'the place' [ "$(jq -c '.error.place | [.adapter, .position]' "$out/answer")" = '["eth0",9]' ]
refused 5 '^tarnfw: no rule of eth0 is named "ofice"; did you mean "office"?$' \
    rule delete --name ofice --adapter eth0
refused 5 '^tarnfw: no rule of global is named "office", but rule 1 of eth0 is (--adapter eth0)$' \
    rule delete --name office
refused 5 '^tarnfw: no rule of eth0 is "allow service smb from 10.0.0.5-10.0.0.8 (IPv4)"; the nearest is rule 3: allow service smb from 10.0.0.5-10.0.0.9 (IPv4)$' \
    rule delete allow service smb from 10.0.0.5-10.0.0.8 --adapter eth0
refused 5 '^tarnfw: no rule of global is "deny everything from country CN,RU", but rule 2 of eth0 is this rule (--adapter eth0)$' \
    rule delete deny from country CN,RU
refused 5 '^tarnfw: no rule of global is "deny tcp 1 from anywhere"; "tarnfw profile show lab" lists the rules$' \
    rule delete deny tcp 1 --profile lab
refused 5 '^tarnfw: no rule of eth0 is "deny udp 12345 from anywhere"; "tarnfw profile show" lists the rules$' \
    rule delete deny udp 12345 --adapter eth0
refused 5 '; the nearest is rule 3: allow service smb from 10.0.0.5-10.0.0.9 (IPv4)$' \
    rule delete deny service smb --adapter eth0

# --- insert, set, move, on, off, delete ------------------------------------------------------------

rule delete 4 1,2-3 2-3
prints <<'END'
Deleted rule 1 of eth0: allow tcp 22,80,6000-6010 from 192.168.1.0/24, logged (IPv4)  "office"
Deleted rule 2 of eth0: deny everything from country CN,RU  "abroad"
Deleted rule 3 of eth0: allow service smb from 10.0.0.5-10.0.0.9 (IPv4)
Deleted rule 4 of eth0: [off] deny udp source port 123 from anywhere, outgoing (IPv6)
Once the firewall is enabled: closes tcp 22,80,6000-6010 on eth0, for 192.168.1.0/24 (before: rule 1 of eth0); closes service smb on eth0, for 10.0.0.8/31 (before: rule 3 of eth0)
END
step 'no rule is left' [ "$(rules_of eth0)" = null ]
step 'the default policy is' grep --quiet '^  default policy: deny$' <(tarnfw profile show)

rule insert 1 allow tcp 1 --name one
prints <<'END'
Rule 1 of eth0: allow tcp 1 from anywhere  "one"
Once the firewall is enabled: opens tcp 1 on eth0, for everybody
END
rule insert 2 allow tcp 3 --name three
rule insert 2 allow tcp 2 --name two
says '^Rule 2 of eth0: allow tcp 2 from anywhere  "two"$'
rule add allow tcp 4 --name four
step 'each is in its place' [ "$(names_of eth0)" = 'one two three four' ]
rule move 1 3
prints <<<'Rule 3 of eth0: allow tcp 1 from anywhere  "one"'
step 'the others have moved up' [ "$(names_of eth0)" = 'two three one four' ]
rule move 4 1
step 'or down' [ "$(names_of eth0)" = 'four two three one' ]
rule move 2 2
step 'or stay' [ "$(names_of eth0)" = 'four two three one' ]
rule set 2 deny udp 2 --name other
prints <<'END'
Rule 2 of eth0: deny udp 2 from anywhere  "other"
Once the firewall is enabled: closes tcp 2 on eth0, for everybody (before: rule 2 of eth0)
END
step 'one is another' [ "$(names_of eth0)" = 'four other three one' ]
rule off 3 1
prints <<'END'
Rule 1 of eth0: [off] allow tcp 4 from anywhere  "four"
Rule 3 of eth0: [off] allow tcp 3 from anywhere  "three"
Once the firewall is enabled: closes tcp 3-4 on eth0, for everybody (before: rules 1 and 3 of eth0)
END
rule on 1 2
prints <<'END'
Rule 1 of eth0: allow tcp 4 from anywhere  "four"
Rule 2 of eth0: deny udp 2 from anywhere  "other"
Once the firewall is enabled: opens tcp 4 on eth0, for everybody (rule 1 of eth0)
END
rule delete 2 4
step 'two are left' [ "$(names_of eth0)" = 'four three' ]

# By range, name and words; "rule off" by name.
rule off --name three
prints <<<'Rule 2 of eth0: [off] allow tcp 3 from anywhere  "three"'
for port in 7 8 9; do
    rule add allow tcp "$port" from 10.0.0.0/8 --name both
done
rule delete --name both
prints <<'END'
Deleted rule 3 of eth0: allow tcp 7 from 10.0.0.0/8 (IPv4)  "both"
Deleted rule 4 of eth0: allow tcp 8 from 10.0.0.0/8 (IPv4)  "both"
Deleted rule 5 of eth0: allow tcp 9 from 10.0.0.0/8 (IPv4)  "both"
Once the firewall is enabled: closes tcp 7-9 on eth0, for 10.0.0.0/8 (before: rules 3-5 of eth0)
END
rule insert 3 deny both 53 --v6 --log
rule insert 3 deny both 53
rule insert 3 deny 53/both --log --family 6 --name again
rule delete deny tcp,udp 53 --v6 --log
prints <<'END'
Deleted rule 3 of eth0: deny tcp/udp 53 from anywhere, logged (IPv6)  "again"
Deleted rule 5 of eth0: deny tcp/udp 53 from anywhere, logged (IPv6)
Once the firewall is enabled: no longer logs tcp/udp 53 on eth0, for everybody (IPv6) (now rule 3 of eth0)
END
# As it was printed.
rule delete 'deny tcp/udp 53 from anywhere'
prints <<<'Deleted rule 3 of eth0: deny tcp/udp 53 from anywhere'
rule on 2
step 'the two are left' [ "$(names_of eth0)" = 'four three' ]

# --- a rule that is there already ------------------------------------------------------------------

stored() {
    sha256sum "$kProfileDirectory"/*.json
}
stored >"$out/before"
rule add allow 3/tcp from anywhere
silent
prints <<<'Rule 2 of eth0 is this rule already: allow tcp 3 from anywhere  "three"'
rule add allow tcp 3 --name drei --label new
prints <<'END'
Rule 2 of eth0 is this rule already: allow tcp 3 from anywhere  "three"; its name stays; its labels stay
END
silent
rule add allow tcp 3 --reload
prints <<'END'
Rule 2 of eth0 is this rule already: allow tcp 3 from anywhere  "three"
Firewall disabled: nothing to reload
END
rule add allow tcp 3 --disabled
prints <<'END'
Rule 2 of eth0 is this rule already: allow tcp 3 from anywhere  "three"
END
step 'nothing is written' diff "$out/before" <(stored)
# One that is off is switched on.
rule off 2
rule add allow tcp 3 --disabled
prints <<<'Rule 2 of eth0 is this rule already: [off] allow tcp 3 from anywhere  "three"'
rule add allow tcp 3 --json
step 'which is a change' [ "$(jq -c '[.changed, .rules[0].position, .messages[0]]' "$out/answer")" = \
    '[true,2,"Rule 2 of eth0 is this rule already; switched on: allow tcp 3 from anywhere  \"three\""]' ]
rule add allow tcp 3
prints <<<'Rule 2 of eth0 is this rule already: allow tcp 3 from anywhere  "three"'
# One that is to be the first is moved.
rule off 2
rule add allow tcp 3 --first
prints <<'END'
Rule 2 of eth0 is this rule already; moved to position 1 and switched on: allow tcp 3 from anywhere  "three"
Once the firewall is enabled: opens tcp 3 on eth0, for everybody
END
rule add allow tcp 3 --first
prints <<<'Rule 1 of eth0 is this rule already: allow tcp 3 from anywhere  "three"'
rule move 1 2
rule add deny tcp 3 from 10.0.0.9
complains 'never takes effect: shadowed by rule 2 of eth0; at position 2 it does '
rule add deny tcp 3 from 10.0.0.9
says '^Rule 3 of eth0 is this rule already: '
complains 'never takes effect: shadowed by rule 2 of eth0; at position 2 it does '
rule add deny tcp 3 from 10.0.0.9 --first
silent
prints <<'END'
Rule 3 of eth0 is this rule already; moved to position 1: deny tcp 3 from 10.0.0.9 (IPv4)
Once the firewall is enabled: closes tcp 3 on eth0, for 10.0.0.9
END
rule delete 1
step 'the two are as before' [ "$(names_of eth0)" = 'four three' ]
# Another list, and another rule.
answers 0 rule add allow tcp 3
says '^Rule 2 of global: allow tcp 3 from anywhere$'
answers 0 rule delete allow tcp 3
prints <<<'Deleted rule 2 of global: allow tcp 3 from anywhere'
rule add allow tcp 3 --log --first
says '^Rule 1 of eth0: allow tcp 3 from anywhere, logged$'
rule delete 1
rule off 2

# Addresses that agree in some bits alone, as "check" accepts them.
rule add deny from 10.1.2.3/255.0.255.0
says '^Rule 3 of eth0: deny everything from 10.0.2.0/255.0.255.0 (IPv4)$'
rule add 'deny everything from 10.0.2.0/255.0.255.0 (IPv4)'
says '^Rule 3 of eth0 is this rule already: '
rule add deny to 2001:db8::/ffff:0:ffff::
says '^Rule 4 of eth0: deny everything to 2001::/ffff:0:ffff:: (IPv6)$'
rule delete deny to 2001::/ffff:0:ffff::
rule delete deny from 10.0.2.0/255.0.255.0
step 'the two are left' [ "$(names_of eth0)" = 'four three' ]

# --- rules that never take effect -----------------------------------------------------------------

rule add deny from 10.0.0.0/8
silent
rule add allow tcp 5 from 10.1.0.0/16
prints <<<'Rule 4 of eth0: allow tcp 5 from 10.1.0.0/16 (IPv4)'
complains '^tarnfw: rule 4 of eth0: warning: never takes effect: shadowed by rule 3 of eth0; at position 3 it does ("tarnfw rule move 4 3 --adapter eth0")$'
rule move 4 3
silent
rule delete 3
rule add allow tcp 5 from 10.1.0.0/16 --first
silent
prints <<'END'
Rule 1 of eth0: allow tcp 5 from 10.1.0.0/16 (IPv4)
Once the firewall is enabled: opens tcp 5 on eth0, for 10.1.0.0/16
END
rule move 1 3
silent
# An earlier rule does the same: there is no better position.
rule add allow tcp 5 from 10.1.2.3
silent
prints <<'END'
Rule 5 of eth0: allow tcp 5 from 10.1.2.3 (IPv4)
Rule 3 of eth0 allows this already
END
# But it does not log.
rule add allow tcp 5 from 10.1.2.4 --log
complains 'never takes effect: shadowed by rule 3 of eth0; at position 3 it does '
# A duplicate says nothing of the rules that it shadows.
rule insert 1 deny from 10.0.0.0/8
rule add deny from 10.0.0.0/8 --disabled
silent
says '^Rule 1 of eth0 is this rule already: '
rule delete 1 6 7
# Several do it together: the first of them is the one to precede, unless all do the same.
rule add deny tcp 1000-1999 --name pair
rule add deny tcp 2000-2999 --name pair
rule add allow tcp 1500-2500 --name pair
complains '^tarnfw: rule 7 of eth0: warning: never takes effect: shadowed by rules 5 and 6 of eth0 together; at position 5 it does ("tarnfw rule move 7 5 --adapter eth0")$'
rule add deny tcp 1999,2000 --name pair
silent
prints <<'END'
Rule 8 of eth0: deny tcp 1999,2000 from anywhere  "pair"
Rules 5 and 6 of eth0 deny this already
END
rule delete --name pair
# Rules of "global" come first.
answers 0 rule add deny
rule add allow tcp 8080
prints <<<'Rule 5 of eth0: allow tcp 8080 from anywhere'
complains "^tarnfw: rule 5 of eth0: warning: never takes effect: shadowed by rule 2 of global; rules of global come before those of eth0, so only there it does, for every adapter: tarnfw rule insert 2 'allow tcp 8080 from anywhere'\$"
answers 0 rule insert 2 'allow tcp 8080 from anywhere'
complains '^tarnfw: rule 5 of eth0: warning: never takes effect: shadowed by rule 2 of global$'
prints <<'END'
Rule 2 of global: allow tcp 8080 from anywhere
Once the firewall is enabled: opens tcp 8080 on every adapter, for everybody
END
answers 0 rule delete 2-3
rule delete 5
# What is offered can be pasted into a shell.
answers 0 profile create 'my home' --empty
answers 0 rule add --adapter eth0 --profile 'my home' deny
answers 0 rule add --adapter eth0 --profile 'my home' allow tcp 80
complains "at position 1 it does (\"tarnfw rule move 2 1 --adapter eth0 --profile 'my home'\")\$"
answers 0 rule add --adapter eth1 --profile 'my home' allow tcp 80
complains "; \"tarnfw policy eth1 deny --profile 'my home'\" closes it\$"
answers 1 log-denied on --profile 'my home'
complains "; \"tarnfw policy ADAPTER deny --profile 'my home'\" sets that\$"
answers 0 profile delete 'my home'
# Also when the new rule is the one that shadows others.
rule insert 1 deny any
warns 3 '^tarnfw: rule 2 of eth0: warning: never takes effect: shadowed by rule 1 of eth0$'
rule add allow tcp 7
rule move 1 2
warns 3 '^tarnfw: rule 4 of eth0: warning: never takes effect: shadowed by rule 2 of eth0$'
rule move 2 1
warns 4 '^tarnfw: and 1 more warning$'
rule move 1 1 --json
step 'a document has all of them' [ "$(jq '.warnings | length' "$out/answer")" = 4 ]
refuses 'each in full' grep --quiet 'more warning' "$out/answer"
rule off 1
silent
answers 0 rule add allow tcp 4 --name global
complains '^tarnfw: rule 2 of eth0: warning: never takes effect: shadowed by rule 2 of global$'
answers 0 rule add --adapter eth1 allow tcp 4 from 10.0.0.5-10.0.0.9
complains '^tarnfw: eth1 has the default policy "none": everything else is open on it, too; '
prints <<'END'
Rule 1 of eth1: allow tcp 4 from 10.0.0.5-10.0.0.9 (IPv4)
Rule 2 of global allows this already
END
answers 0 rule delete 1 --adapter eth1
answers 0 rule delete --name global
rule delete 1 4 5 6
answers 0 rule add --adapter pppoe deny any
complains '^tarnfw: "pppoe" has no interface now: '
# What was written by hand and makes no sense is not switched on.
sed 's/"ipList" : \[ "10.0.0.0"/"enable" : false, "ipList" : [ "10.0.0.999"/; s/"lan-only"/"bad"/' \
    "$checkout/examples/lan-only.json" >"$kProfileDirectory/bad.json"
refused 3 '^tarnfw: rule 1 of eth0: ipList entry 1: "10.0.0.999" is not an IPv4 address' \
    rule on 1 --adapter eth0 --profile bad
answers 0 rule delete 1 --adapter eth0 --profile bad
silent
refused 5 '^tarnfw: there is no rule 9 of eth0' rule delete 9 --adapter eth0 --profile bad

# --- the system's own rules ------------------------------------------------------------------------

# Two, as after one service was allowed and then another one blocked.
tarnfw profile show lab --json | /usr/bin/python3 -c 'import json, sys
document = json.load(sys.stdin)
for policy, service in ("allow", "ssh"), ("deny", "smb"):
    rule = dict(document["rules"]["eth0"][0], name="Service", policy=policy, protocol=3,
                portGroup=2, portList=[service])
    document["rules"]["eth0"].insert(0, rule)
for index, rule in enumerate(document["rules"]["eth0"]):
    rule["ruleIndex"] = index
print(json.dumps(document))' >/tmp/reserved.json
answers 0 profile create reserved --from /tmp/reserved.json
answers 0 profile show reserved
says '^  1  deny    service smb  from anywhere  both    reserved "Service"$'
says '^  2  allow   service ssh  from anywhere  both    reserved "Service"$'
for words in 'set 1 deny any' 'delete 3 1' 'delete 2' 'off 2' 'move 1 3' 'move 2 2'; do
    read -r -a words <<<"$words"
    refused 1 '^tarnfw: rule [12] of eth0 is a reserved service rule' \
        rule "${words[@]}" --adapter eth0 --profile reserved
done
for position in 1 2 3; do
    answers 0 rule insert "$position" --adapter eth0 --profile reserved deny tcp "$position"
    prints <<END
Rule 3 of eth0: deny tcp $position from anywhere
Already closed in profile "reserved": tcp $position on eth0, for everybody
END
done
answers 0 rule move 6 1 --adapter eth0 --profile reserved
prints <<<'Rule 3 of eth0: allow tcp 4 from anywhere  "four"'
answers 0 rule on 1 --adapter eth0 --profile reserved
prints <<<'Rule 1 of eth0: deny service smb from anywhere  "Service"'

# Those of the system are not meant by the words of a person, and nothing precedes them.
refused 1 '^tarnfw: rule 2 of eth0 is a reserved service rule' \
    rule delete allow service ssh --adapter eth0 --profile reserved
answers 0 rule add allow service smb --adapter eth0 --profile reserved
complains '^tarnfw: rule [0-9]* of eth0: warning: never takes effect: shadowed by rule 1 of eth0; reserved service rules stay before it$'

# --- what a reload makes of it ---------------------------------------------------------------------

answers 0 rule add --adapter eth0 allow tcp 22 --reload
prints <<'END'
Rule 3 of eth0: allow tcp 22 from anywhere
Once the firewall is enabled: opens tcp 22 on eth0, for everybody
Firewall disabled: nothing to reload
END
step 'the filter is untouched' same_listing base
step 'the firewall is enabled' tarnfw enable
keep_listing enabled
step 'the default policy is in the kernel' iptables -C INPUT_FIREWALL -i eth0 -j DROP

answers 0 rule add --adapter eth0 deny tcp 23,6000-6010 from 192.168.1.20 --log
prints <<'END'
Rule 4 of eth0: deny tcp 23,6000-6010 from 192.168.1.20, logged (IPv4)
Once applied: logs tcp 23,6000-6010 on eth0, for 192.168.1.20
The kernel still has the old rules; "tarnfw reload" applies the new ones
END
step 'so it has' same_listing enabled
answers 0 rule insert 1 --adapter eth0 allow udp --v6 --reload
prints <<'END'
Opens udp on eth0, for everybody (IPv6); logs tcp 23,6000-6010 on eth0, for 192.168.1.20 (rule 5 of eth0)
Rule 1 of eth0: allow udp 0-65535 from anywhere (IPv6)
Profile "lab" applied
END
step 'both are in the kernel' iptables -C INPUT_FIREWALL -s 192.168.1.20 -i eth0 -p tcp \
    -m multiport --dports 23,6000:6010 -j DROP
step 'with the line that logs' iptables -C INPUT_FIREWALL -s 192.168.1.20 -i eth0 -p tcp \
    -m multiport --dports 23,6000:6010 -j LOG
step 'a rule for every port is one' ip6tables -C FORWARD_FIREWALL -i eth0 -p udp \
    -m multiport --dports 0:65535 -j RETURN

keep_listing applied
answers 0 rule add --adapter eth0 allow udp 0-65535 --v6 --reload
prints <<'END'
Rule 1 of eth0 is this rule already: allow udp 0-65535 from anywhere (IPv6)
Profile "lab" is in force
END
iptables -F INPUT_FIREWALL
answers 0 rule add --adapter eth0 allow udp 0-65535 --v6 --reload
says '^Profile "lab" applied$'
step 'the rules are in the kernel again' same_listing applied
answers 0 rule add --adapter eth0 allow tcp 24
prints <<'END'
Rule 6 of eth0: allow tcp 24 from anywhere
Once applied: opens tcp 24 on eth0, for everybody
The kernel still has the old rules; "tarnfw reload" applies the new ones
END
answers 0 rule delete allow tcp 24 --adapter eth0 --reload
answers 0 rule add --adapter eth0 --profile default deny any
says '^Rule 1 of eth0: deny everything from anywhere$'
answers 0 policy eth0 allow --profile default --reload
prints <<'END'
Default policy of eth0: allow
Profile "default" is not the active one: nothing to reload
END
step 'another profile changes nothing here' same_listing applied
answers 0 policy eth0 none --reload
says '^Profile "lab" applied$'
refuses 'the default policy has left the kernel' iptables -C INPUT_FIREWALL -i eth0 -j DROP

# An adapter that the machine does not have yet: taken with a note, and named by what leaves it out.
absent='^tarnfw: there is no adapter "eth7" now: its rules and default policy have no effect until there is one; the package.s udev rule then applies them, without it the next reload does$'
answers 0 rule add --adapter eth7 deny tcp 23
warns 1 "$absent"
answers 0 policy eth7 deny --reload
warns 2 "$absent"
step 'the reload names it' grep -q '^tarnfw: left out, without an interface now: eth7, pppoe, vpn$' "$out/complaint"
answers 0 rule add --adapter eht0 deny tcp 23
warns 1 'until there is one; the package.s udev rule then applies them, without it the next reload does; did you mean "eth0"?$'
answers 0 reload
warns 1 '^tarnfw: left out, without an interface now: eht0, eth7, pppoe, vpn$'
answers 0 enable
warns 1 '^tarnfw: left out, without an interface now: eht0, eth7, pppoe, vpn$'
answers 0 rule delete 1 --adapter eht0
answers 0 policy eth7 none
answers 0 rule off 1 --adapter eth7
answers 0 reload
warns 1 '^tarnfw: left out, without an interface now: pppoe, vpn$'
answers 0 rule delete 1 --adapter eth7
# "lo" is there, but never filtered.
readonly kNeverFiltered='^tarnfw: .*"lo" is never filtered: its rules and default policy have no effect$'
answers 0 policy lo deny --reload
warns 2 "$kNeverFiltered"
answers 0 rule add --adapter lo deny tcp 23 --reload
warns 2 "$kNeverFiltered"
prints <<'END'
Rule 1 of lo: deny tcp 23 from anywhere
Profile "lab" applied
END
answers 1 log-denied on --adapter lo
complains "$kNeverFiltered"
answers 0 log-denied --adapter lo
answers 0 reload
refuses 'it is not left out' grep --quiet '\<lo\>' "$out/complaint"
answers 0 status
says '^ *lo  *deny  *1  *never filtered$'
answers 0 adapters
says '^lo .* deny  *1  *never filtered$'
answers 10 blocked --port tcp/23
refuses 'it blocks nothing' grep --quiet '^lo ' "$out/answer"
refused 1 '"lo" is never filtered' adapter rename eth0 lo
answers 0 rule delete 1 --adapter lo
answers 0 policy lo none
# A new adapter is open, which a rule that allows something does not change.
answers 0 rule add --adapter wg0 allow udp 51820
says '^Rule 1 of wg0: allow udp 51820 from anywhere$'
warns 2 '^tarnfw: wg0 has the default policy "allow": everything else is open on it, too; "tarnfw policy wg0 deny" closes it$'
answers 0 policy wg0 none
answers 0 rule add --adapter wg0 allow udp 51821
warns 2 '^tarnfw: wg0 has the default policy "none": everything else is open on it, too; '
answers 0 policy wg0 deny
answers 0 rule add --adapter wg0 allow udp 51822
warns 1 'there is no adapter "wg0" now'
answers 0 policy wg0 allow
answers 0 rule add --adapter wg0 deny
answers 0 rule add --adapter wg0 allow udp 51823 --first
warns 1 'there is no adapter "wg0" now'
answers 0 rule delete 1-5 --adapter wg0
answers 0 policy wg0 none

# --- nothing to change -------------------------------------------------------------------------------

history_length() {
    tarnfw history --json | jq '.changes | length'
}
length=$(history_length)
answers 0 policy wg0 none
prints <<<'Default policy of wg0 is none already'
answers 0 profile use lab
prints <<<'Profile "lab" is the active one already'
step 'no change is kept' [ "$(history_length)" = "$length" ]
answers 0 policy eth0 none --reload
prints <<'END'
Default policy of eth0 is none already
Profile "lab" is in force
END
iptables -F INPUT_FIREWALL
answers 0 policy eth0 none --reload
prints <<'END'
Default policy of eth0 is none already
Profile "lab" applied
END
answers 0 profile use lab --reload
prints <<'END'
Profile "lab" is the active one already
Profile "lab" applied
END
step 'still none' [ "$(history_length)" = "$length" ]

# Without the base filter nothing would be applied: nothing is changed either.
iptables -D INPUT -j INPUT_FIREWALL
for words in 'rule delete 1 --adapter eth0' 'policy eth0 deny'; do
    read -r -a words <<<"$words"
    refused 1 'IPv4 lacks jumps INPUT -> INPUT_FIREWALL' "${words[@]}" --reload
done

# --- logging what default policies deny --------------------------------------------------------------

answers 0 profile create logged --empty
answers 1 log-denied on --profile logged
complains '^tarnfw: no adapter of "logged" denies by default; "tarnfw policy ADAPTER deny --profile logged" sets that$'
answers 0 policy eth0 deny --profile logged
answers 0 policy eth1 deny --profile logged
answers 0 rule add --adapter eth0 --profile logged allow tcp 22
answers 0 log-denied on --profile logged
prints <<'END'
Denied packets are logged: eth0, eth1
Once profile "logged" is in use: logs everything except tcp 22 on eth0, for everybody (rule 2 of eth0); logs everything on eth1, for everybody (rule 1 of eth1)
END
answers 0 log-denied on --profile logged
prints <<<'Denied packets are logged already: eth0, eth1'
answers 0 rule add --adapter eth0 --profile logged allow tcp 80
silent
answers 0 log-denied --profile logged --json
prints_json <<'ANSWER'
{"profile": "logged", "adapters": [{"name": "eth0", "logged": true}, {"name": "eth1", "logged": true}],
 "changed": false, "applied": false, "messages": [], "warnings": []}
ANSWER
answers 0 preview logged --family v4
sed -n 's/^.*-A INPUT_FIREWALL -i eth0 //p' "$out/answer" >"$out/own"
step 'new rules come before it, and it logs and denies' \
    [ "$(grep -n -e 'port 80 ' -e '-j LOG' -e '-j DROP' "$out/own" | sed 's/:.*-j/ -j/' | tr '\n' ';')" = '2 -j RETURN;3 -j LOG;4 -j DROP;5 -j DROP;' ]
answers 0 rule move 1 3 --adapter eth0 --profile logged
prints <<<'Rule 2 of eth0: allow tcp 22 from anywhere'
answers 0 rule move 3 1 --adapter eth0 --profile logged
says '^Rule 3 of eth0: deny everything from anywhere, logged  "log denied"$'
answers 0 rule insert 4 --adapter eth0 --profile logged allow tcp 81
says '^Rule 3 of eth0: allow tcp 81 from anywhere$'
answers 0 log-denied --profile logged --adapter eth0
prints <<'END'
Adapter  Denied packets
eth0     logged
END
# A rule of the same name is somebody's own; the log is not its place.
answers 0 rule add --adapter eth1 --profile logged --log --name 'log denied' deny tcp 23 from 10.0.0.0/8
says '^Rule 1 of eth1: '
answers 0 policy eth1 allow --profile logged
prints <<'END'
Default policy of eth1: allow
Deleted rule 2 of eth1, which logged what the default policy denied: deny everything from anywhere, logged  "log denied"
Once profile "logged" is in use: opens everything on eth1, for everybody, except tcp 23 from 10.0.0.0/8 (before: rule 2 of eth1)
END
answers 0 policy eth1 deny --profile logged
answers 0 log-denied on --adapter eth1 --profile logged
answers 0 policy eth1 none --profile logged --json
step 'the document lists it' [ "$(jq --compact-output .rules "$out/answer")" = \
    '[{"adapter":"eth1","position":2,"text":"deny everything from anywhere, logged  \"log denied\""}]' ]
answers 0 rule delete 1 --adapter eth1 --profile logged
prints <<'END'
Deleted rule 1 of eth1: deny tcp 23 from 10.0.0.0/8, logged (IPv4)  "log denied"
Once profile "logged" is in use: opens tcp 23 on eth1, for 10.0.0.0/8 (before: rule 1 of eth1)
END
answers 0 policy eth1 allow --profile logged
answers 0 log-denied --profile logged
says '^eth0  *logged$'
refused 1 '^tarnfw: eth1 does not deny by default; "tarnfw policy eth1 deny --profile logged" sets that$' \
    log-denied on --adapter eth1 --profile logged
refused 5 '^tarnfw: there is no adapter "eht0"; did you mean "eth0"?' \
    log-denied off --adapter eht0 --profile logged
answers 0 policy eth1 deny --profile logged
answers 0 log-denied on --adapter eth1 --profile logged
prints <<'END'
Denied packets are logged: eth1
Once profile "logged" is in use: logs everything on eth1, for everybody (rule 1 of eth1)
END
answers 0 log-denied off --adapter eth1 --profile logged
prints <<'END'
Denied packets are no longer logged: eth1
Once profile "logged" is in use: no longer logs everything on eth1, for everybody (before: rule 1 of eth1)
END
answers 0 log-denied off --adapter eth1 --profile logged
prints <<<'No denied packets are logged: eth1'
answers 0 policy eth1 allow --profile logged
step 'an adapter that no longer denies has none' [ -z "$(tarnfw profile show logged | grep -A9 '^eth1' | grep 'log denied')" ]
answers 0 log-denied off --profile logged
prints <<'END'
Denied packets are no longer logged: eth0
Once profile "logged" is in use: no longer logs everything except tcp 22,80-81 on eth0, for everybody (before: rule 4 of eth0)
END
answers 0 log-denied off --profile logged
prints <<<'No denied packets are logged'

# --- two at the same time --------------------------------------------------------------------------

answers 0 profile create busy --empty
children=()
for port in 1 2 3 4 5 6 7 8 9 10; do
    tarnfw rule add --adapter eth0 --profile busy allow tcp "$port" >>"$out/busy" &
    children+=("$!")
done
wait "${children[@]}"
step 'none has undone another one' [ "$(tarnfw profile show busy | grep -c 'allow   tcp')" = 10 ]
