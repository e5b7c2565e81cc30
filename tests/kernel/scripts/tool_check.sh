# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw check: files and stored profiles, the findings and their exit status, and --kernel, which
# leaves the machine's own filter alone.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# rule MEMBERS: a rule with these members in the place of its own.
rule() {
    jq --compact-output --null-input --argjson changes "{$1}" '{
        adapterDirect: 1, blLog: false, chainList: ["FORWARD_FIREWALL", "INPUT_FIREWALL"],
        enable: true, ipDirect: 1, ipGroup: 5, ipList: [], ipType: 0, labelList: [], name: "",
        policy: 0, portDirect: 0, portGroup: 1, portList: ["22"], protocol: 1, ruleIndex: 0,
        table: "filter"} + $changes'
}

# profile NAME RULE...: a document with these rules for eth0.
profile() {
    local name=$1
    shift
    jq --slurp --arg name "$name" '{adapterPolicyMap: {eth0: 1, global: 2}, name: $name,
        rules: {eth0: .}}' <<<"$*"
}

# Everything that programs of either variant have put into the kernel's packet filter.
whole_filter() {
    local program
    for program in iptables-nft ip6tables-nft iptables-legacy ip6tables-legacy; do
        # The sandbox of an ordinary user may not see which tables the legacy variant has.
        { "/usr/sbin/xtables-${program##*-}-multi" "${program%-*}-save" 2>/dev/null ||
            [[ $program == *-legacy && ! -r /proc/net/ip_tables_names ]]; } |
            sed '/^#/d; s/ \[[0-9]*:[0-9]*\]$//'
    done
}

# --- stored profiles -------------------------------------------------------------------------------

answers 0 base up
answers 0 check
silent
prints <<<'default: valid'
answers 0 check default
prints <<<'default: valid'
answers 5 check nowhere
complains '^tarnfw: there is no profile "nowhere" (profiles: default)$'
answers 2 check one two
profile office "$(rule '"portList": ["22", "99999"]')" >"$kProfileDirectory/office.json"
answers 3 check office
silent
prints <<<'office: rule 1 of eth0: portList entry 2: "99999" is not a port (0-65535) or a range of ports (6000-6010)'
activate office
answers 3 check
prints <<<'office: rule 1 of eth0: portList entry 2: "99999" is not a port (0-65535) or a range of ports (6000-6010)'
activate default

# --- files -----------------------------------------------------------------------------------------

cd /tmp || fail "no /tmp"
profile home "$(rule '')" "$(rule '"portList": ["23-24"]')" >home.json
answers 0 check home.json
prints <<<'home.json: valid'
answers 0 check ./home.json
prints <<<'./home.json: valid'
cp home.json plain
answers 0 check plain
prints <<<'plain: valid'
tarnfw check - <home.json >"$out/answer" || fail 'not from standard input'
prints <<<'standard input: valid'
answers 1 check missing.json
complains '^tarnfw: cannot read missing.json: No such file or directory$'
answers 1 check /tmp
complains '^tarnfw: cannot read /tmp: Is a directory$'

# Each error is one line, in the document's words.
jq '.rules.eth0[1] |= (.ipGroup = 4 | .ipList = ["10.0.0.9", "10.0.0.256"] | .portGroup = 9)
    | .colour = 1 | del(.rules.eth0[0].table)' home.json >wrong.json
answers 3 check wrong.json
silent
prints <<'END'
wrong.json: rule 1 of eth0: "table" is missing
wrong.json: rule 2 of eth0: portGroup: 9 is not one of 0, 1, 2, 3
wrong.json: colour: unknown member
wrong.json: rule 2 of eth0: ipList entry 2: "10.0.0.256" is not an IPv4 address
END

# Warnings leave the exit status alone, unless they are to count.
profile home "$(rule '')" "$(rule '"policy": 1')" >shadow.json
cat >warning <<'END'
shadow.json: rule 2 of eth0: warning: never takes effect: shadowed by rule 1 of eth0
END
answers 0 check shadow.json
prints <warning
answers 3 check --strict shadow.json
prints <warning
answers 0 check --strict home.json
# Several rules that shadow one together, and one without which the same would happen.
profile home "$(rule '"portList": ["1-99"]')" "$(rule '"portList": ["100-199"]')" \
    "$(rule '"portList": ["90-110"], "policy": 1')" "$(rule '"portList": ["7000"], "policy": 1')" >union.json
answers 0 check union.json
prints <<'END'
union.json: rule 3 of eth0: warning: never takes effect: shadowed by rules 1 and 2 of eth0 together
union.json: rule 4 of eth0: warning: has no effect: the default policy of eth0 does the same
END

# The text: invalid JSON, and JSON that only the library accepts.
printf '{"name": "home",\n "rules": nul}\n' >broken.json
answers 3 check broken.json
prints <<<"broken.json: line 2, column 11: Syntax error: value, object or array expected"
printf '' >empty.json
answers 3 check empty.json
prints <<<"empty.json: line 1, column 1: Syntax error: value, object or array expected"
{
    printf '// from the old machine\n{"name": "first",\n "name": "h\303\266me", "name": "home",'
    tail -c +2 home.json
    printf 'and so on\n'
} >liberal.json
answers 0 check liberal.json
says '^liberal.json: line 3, column 2: warning: the member "name" occurs twice; the last one counts$'
answers 3 check --strict liberal.json

answers 3 check --json wrong.json
step 'as a document' diff -u - <(jq --sort-keys . "$out/answer") <<'END'
{
  "errors": 4,
  "findings": [
    {
      "adapter": "eth0",
      "message": "\"table\" is missing",
      "path": "rules.eth0[0]",
      "position": 1,
      "severity": "error"
    },
    {
      "adapter": "eth0",
      "message": "9 is not one of 0, 1, 2, 3",
      "path": "rules.eth0[1].portGroup",
      "position": 2,
      "severity": "error"
    },
    {
      "adapter": null,
      "message": "unknown member",
      "path": "colour",
      "position": null,
      "severity": "error"
    },
    {
      "adapter": "eth0",
      "message": "\"10.0.0.256\" is not an IPv4 address",
      "path": "rules.eth0[1].ipList[1]",
      "position": 2,
      "severity": "error"
    }
  ],
  "source": "wrong.json",
  "warnings": 0
}
END
answers 0 check --json home.json
step 'no findings' diff -u - <(jq --compact-output --sort-keys . "$out/answer") \
    <<<'{"errors":0,"findings":[],"source":"home.json","warnings":0}'

# --- what the kernel says --------------------------------------------------------------------------

answers 0 enable
whole_filter >before
cp home.json "$kProfileDirectory"
lines=$(tarnfw preview home | grep --count '^/sbin/')
rm "$kProfileDirectory/home.json"
answers 0 check --kernel home.json
prints <<<"home.json: valid; the kernel accepts $lines lines"
answers 0 check --kernel --json home.json
step 'with the number of lines' [ "$(jq .loadedLines "$out/answer")" = "$lines" ]

# A chain that nobody has made, and a match that this kernel has not got.
printf '\1\1\1\1\2\2\2\2' >/usr/share/xt_geoip/DE.iv4
profile home "$(rule '')" \
    "$(rule '"chainList": ["FORWARD_FIREWALL", "INPUT_FIREWALL", "NOWHERE"], "portList": ["80"]')" \
    "$(rule '"ipGroup": 3, "ipList": ["DE"], "portList": ["81"]')" >refused.json
answers 3 check --kernel refused.json
silent
says '^refused.json: rule 2 of eth0: chainList entry 3: warning: "NOWHERE" is not one of the firewall'\''s chains'
says '^refused.json: rule 2 of eth0: /sbin/iptables refuses "-t filter -A NOWHERE -i eth0 -p tcp --dport 80 -j RETURN": iptables.*No chain/target/match by that name'
for chain in FORWARD_FIREWALL INPUT_FIREWALL; do
    says "^refused.json: rule 3 of eth0: /sbin/iptables refuses \"-t filter -A $chain -i eth0 -m geoip --source-country DE -p tcp --dport 81 -j RETURN\": iptables.*geoip"
done
step 'nothing else' [ "$(wc -l <"$out/answer")" = 4 ]
# The rules that are refused are not errors of the document.
answers 0 check refused.json
answers 3 check --kernel --json refused.json
step 'counted' [ "$(jq --compact-output '[.errors, .warnings, .loadedLines]' "$out/answer")" = \
    "[3,1,$((lines + 3))]" ]
rm /usr/share/xt_geoip/DE.iv4

# --- addresses -------------------------------------------------------------------------------------

# An address that the kernel accepts is no error of the document, and one that it refuses is one.
# TAKEN FAMILY GROUP LIST; names, which would be looked up, are not among them.
cat >addresses <<'END'
yes 0 0 10.0.0.1
yes 0 0 010.0.0.1
yes 0 0 10.1
yes 0 0 10.256
yes 0 0 0x0a000001
yes 0 0 +10.0.0.1
yes 0 0 0.0.0.0
yes 0 0 255.255.255.255
yes 0 0 10.0.0.0/8
yes 0 0 10.0.0.1,10.1.0.0/16
yes 0 0 ::ffff:1.2.3.4
no 0 0 10.0.0.256
no 0 0 10.0.0.1/
no 0 0 10.0.0.1,
no 0 0 10..0.1
no 0 0 10.0.0.1%lo
no 0 0 1.2.3.4.5
no 0 0 ::1
yes 1 0 fe80::1
yes 1 0 FE80::1
yes 1 0 0:0:0:0:0:0:0:1
yes 1 0 2001:0db8::1
yes 1 0 fe80::1%lo
yes 1 0 ::ffff:1.2.3.4
yes 1 0 ::1.2.3.4/96
yes 1 0 fe80::1,fe81::/64
yes 1 0 10.0.0.0/0
no 1 0 2001:00db8::1
no 1 0 2001:db8:::1
no 1 0 fe80::1%nowhere
no 1 0 10.0.0.1
no 1 0 [::1]
no 1 0 1:2:3:4:5:6:7:8:9
yes 2 0 ::ffff:1.2.3.4
yes 2 0 0.0.0.0/0
no 2 0 10.0.0.1
no 2 0 fe80::1
yes 0 1 10.0.0.0 8
yes 0 1 10.1.2.3 8
yes 0 1 10.0.0.0 010
yes 0 1 10.0.0.0 0x8
yes 0 1 10.0.0.0 +8
yes 0 1 10.0.0.0 0
yes 0 1 10.0.0.0 00
yes 0 1 0.0.0.0 0
yes 0 1 10.0.0.0 32
yes 0 1 10.0.0.0 255.0.0.0
yes 0 1 10.0.0.0 255.0.255.0
yes 0 1 10.0.0.0 0.0.0.255
yes 0 1 10.0.0.0 0.0.0.0
yes 0 1 10.0.0.0 0377.0xff.0.0
yes 0 1 any 0
yes 0 1 any 0.0.0.0
yes 0 1 10.0.0.1,10.1.0.0 16
no 0 1 10.0.0.0 33
no 0 1 10.0.0.0 08
no 0 1 10.0.0.0 -1
no 0 1 10.0.0.0 8x
no 0 1 10.0.0.0 4294967304
no 0 1 10.0.0.0 255.255
no 0 1 10.0.0.0 300.0.0.0
no 0 1 10.0.0.0 ffff::
no 0 1 10.0.0.0/8 8
yes 1 1 fe80:: 10
yes 1 1 fe80::1 10
yes 1 1 fe80:: 064
yes 1 1 fe80:: 0x40
yes 1 1 ::1 0
yes 1 1 fe80:: 128
yes 1 1 fe80:: ffff:ffff::
yes 1 1 fe80:: FFFF::
yes 1 1 fe80:: ffff:0:ffff::
yes 1 1 fe80:: ::ffff
yes 1 1 fe80:: ::
yes 1 1 fe80:: ffff:ffff:ffff:ffff:ffff:ffff:255.255.0.0
yes 1 1 10.0.0.0 ::
no 1 1 fe80:: 129
no 1 1 fe80:: 08
no 1 1 fe80:: ffff
no 1 1 fe80:: 255.0.0.0
no 1 1 10.0.0.0 0.0.0.0
no 1 1 10.0.0.0 8
yes 2 1 10.0.0.0 0
yes 2 1 :: 0
no 2 1 10.0.0.0 8
no 2 1 fe80:: 10
yes 0 4 10.0.0.1 10.0.0.9
yes 0 4 10.0.0.1 10.0.0.1
yes 0 4 10.0.0.9 10.0.0.1
yes 0 4 10.1 10.2
yes 0 4 010.0.0.1 10.0.0.9
no 0 4 10.0.0.1 ::1
no 0 4 ::1 ::2
no 0 4 10.0.0.1/8 10.0.0.9
no 0 4 0x0a000001 20.0.0.0
no 0 4 10.0.0.1-10.0.0.2 10.0.0.3
yes 1 4 fe80::1 fe80::9
yes 1 4 fe80::9 fe80::1
yes 1 4 ::ffff:1.2.3.4 ::ffff:1.2.3.9
no 1 4 fe80::1%lo fe80::2%lo
no 1 4 10.0.0.1 10.0.0.9
no 1 4 fe80::1 10.0.0.1
no 2 4 10.0.0.1 10.0.0.9
no 2 4 fe80::1 fe80::9
END
profile addresses "$(rule '')" | jq --rawfile table addresses '.rules.eth0[0] as $rule
    | .rules.eth0 = [$table | rtrimstr("\n") | split("\n")[] | split(" ")
        | $rule + {ipType: (.[1] | tonumber), ipGroup: (.[2] | tonumber), ipList: .[3:]}]' \
    >addresses.json
answers 3 check --kernel --json addresses.json
for refused in true false; do
    step "errors with a refused line: $refused" diff -u addresses <(
        jq --raw-output --rawfile table addresses --argjson refused "$refused" '
            ([.findings[] | select(.severity == "error")
                | select((.message | test("tables refuses ")) == $refused) | .position]) as $wrong
            | $table | rtrimstr("\n") | split("\n") | to_entries[]
            | (if .key + 1 | IN($wrong[]) then "no" else "yes" end)
                + (.value | sub("^[a-z]*"; ""))' "$out/answer"
    )
done

# What cannot be translated, and what the library cannot read.
jq '.rules.eth0[1].policy = 7' home.json >untranslatable.json
answers 3 check --kernel untranslatable.json
says '^untranslatable.json: rule 2 of eth0: policy: 7 is not one of 0, 1, 2$'
says '^untranslatable.json: rule 2 of eth0 cannot be translated, and with it the whole profile$'
jq '.rules.eth0[1].policy = "1"' home.json >unreadable.json
answers 3 check --kernel unreadable.json
says '^unreadable.json: the library cannot read this; no line was loaded$'

# The lock of the machine's own filter plays no part.
exec {lock}>/run/xtables.lock
flock "$lock"
answers 0 check --kernel home.json
flock --unlock "$lock"
exec {lock}>&-

# Where no namespace can be made, it says so.
if setpriv --bounding-set -sys_admin true 2>/dev/null; then
    tarnfw() {
        setpriv --bounding-set -sys_admin -- "$build/tools/tarnfw/tarnfw" "$@"
    }
    answers 1 check --kernel home.json
    complains '^tarnfw: this system does not allow a network namespace to load rules in$'
    tarnfw() {
        "$build/tools/tarnfw/tarnfw" "$@"
    }
fi

whole_filter >after
step "the machine's own filter is untouched" diff -u before after
step 'no process is left' [ -z "$(pidof tarnfw)" ]
