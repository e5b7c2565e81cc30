# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw profile: list, show, create, copy, rename, delete, use.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

file_of() {
    grep --files-with-matches --fixed-strings "\"name\" : \"$1\"" "$kProfileDirectory"/*.json
}

setting() {
    /usr/bin/python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' \
        "$kSettings" "$1"
}

# --- without any profile ---------------------------------------------------------------------------

mkdir -p -- "$kProfileDirectory"
printf '{"status": false}\n' >"$kProfileDirectory/other.json"
refused 1 '^tarnfw: no profile can be created before the first one; "tarnfw base up" writes a first one$' \
    profile create new
for words in 'copy one two' 'rename one two' 'delete one' 'use one' 'show one' 'edit one'; do
    read -r -a words <<<"$words"
    refused 5 '^tarnfw: there are no profiles; "tarnfw base up" writes a first one$' profile "${words[@]}"
done
rm -- "$kProfileDirectory/other.json"
# A directory that cannot be read is not one without profiles.
rmdir -- "$kProfileDirectory"
: >"$kProfileDirectory"
for words in 'profile list' 'profile create new' 'base up'; do
    read -r -a words <<<"$words"
    answers 1 "${words[@]}"
    complains '^tarnfw: cannot read the directory .*/firewall\.d/: Not a directory$'
done
rm -- "$kProfileDirectory"
step 'base up' tarnfw base up
keep_listing base

# --- create ----------------------------------------------------------------------------------------

answers 0 profile create lab --empty
silent
prints <<<'Profile "lab" created; without rules it allows everything'
answers 0 profile show lab
prints <<'END'
Profile lab

global
  default policy: none (the adapters decide)
END
answers 0 profile show lab --json
prints_json <<<'{"active": false, "adapterPolicyMap": {"global": "none"}, "name": "lab", "rules": null}'

refused 1 '^tarnfw: profile "lab" already exists$' profile create lab
for name in '' .test_lab .hidden bad/name; do
    refused 2 "^tarnfw: NAME: \"$name\" is not a name for a profile: " profile create "$name"
done
refused 2 '^tarnfw: NAME is required$' profile create
names=' is not a name for a profile: that has 1 to 100 bytes, no control characters and no "/", and does not begin with "\."$'
refused 2 "$names" profile create $'two\nlines'
refused 2 "$names" profile create $'\e[31mred'
refused 2 "$names" profile copy default "$(printf 'x%.0s' {1..101})"
refused 2 "$names" profile rename lab $'tab\there'
long=$(printf 'x%.0s' {1..100})
answers 0 profile create "$long" --empty
answers 0 profile delete "$long"

example=$checkout/examples/lan-only.json
answers 0 profile create 'two words' --from "$example"
prints <<<'Profile "two words" created'
step 'it is the document under another name' diff -u \
    <(sed 's/"name" : "lan-only"/"name" : "two words"/' "$example") "$(file_of 'two words')"

refused 1 '^tarnfw: cannot read /tmp/nowhere.json: No such file or directory$' profile create new --from /tmp/nowhere.json
refused 1 '^tarnfw: cannot read /tmp: Is a directory$' profile create new --from /tmp
printf '{"name": "new",\n "rules": }\n' >/tmp/broken.json
refused 3 '^tarnfw: /tmp/broken.json: line 2, column 11: ' profile create new --from /tmp/broken.json
step 'and says what came of it' grep --quiet \
    '^tarnfw: /tmp/broken.json is invalid: no profile was created$' "$out/complaint"
printf '[]\n' >/tmp/broken.json
refused 3 '^tarnfw: /tmp/broken.json: ' profile create new --from /tmp/broken.json
printf '{"name": "new", "name": "newer"}\n' >/tmp/broken.json
refused 3 '^tarnfw: /tmp/broken.json: line 1, column [0-9]*: the member "name" occurs twice' profile create new \
    --from /tmp/broken.json
sed 's/"ipGroup" : 1/"ipGroup" : "1"/' "$example" >/tmp/broken.json
refused 3 '^tarnfw: /tmp/broken.json: ' profile create new --from /tmp/broken.json

# --- what "show --json" prints goes back in ----------------------------------------------------------

# With policies as codes and as texts; "active" is left out.
answers 0 profile show 'two words' --json
cp -- "$out/answer" /tmp/shown.json
step 'its policies are texts' [ "$(jq -c '[.rules[][].policy] | unique' /tmp/shown.json)" = '["allow"]' ]
readonly kAsCodes='def code: {"allow": 0, "deny": 1, "none": 2}[.]? // .;
    .adapterPolicyMap[] |= code | .rules[][].policy |= code'
readonly kAsTexts='def text: ["allow", "deny", "none"][.]? // .;
    .adapterPolicyMap[] |= text | .rules[][].policy |= text'
jq "$kAsCodes" /tmp/shown.json >/tmp/codes.json
jq "$kAsTexts" /tmp/shown.json >/tmp/texts.json
step 'both have policies' [ "$(jq -c '[.rules[][].policy] | unique' /tmp/codes.json)" = '[0]' ]
step 'both have policies' [ "$(jq -c '[.rules[][].policy] | unique' /tmp/texts.json)" = '["allow"]' ]
wanted=$(file_of 'two words')
cp -- "$wanted" /tmp/wanted.json
for shown in /tmp/shown.json /tmp/codes.json /tmp/texts.json; do
    answers 0 check "$shown"
    says ': valid$'
    answers 0 check - <"$shown"
    says '^standard input: valid$'
    answers 0 profile create again --from "$shown"
    step 'created' diff -u <(sed 's/"two words"/"again"/' /tmp/wanted.json) "$(file_of again)"
    answers 0 profile delete again
    answers 0 profile create again --from - <"$shown"
    step 'created' diff -u <(sed 's/"two words"/"again"/' /tmp/wanted.json) "$(file_of again)"
    answers 0 profile delete again
    answers 0 profile create again --empty
    answers 0 profile set again --from "$shown"
    prints <<'END'
Profile "again" stored
Once profile "again" is in use: closes everything on eth0, for everybody except 10.0.0.0/8, 169.254.0.0/16, 172.16.0.0/12, 192.168.0.0/16, fc00::/7 and fe80::/10 (the default policy of eth0)
END
    answers 0 profile set again --from "$shown"
    prints <<<'Profile "again" is unchanged: it has this content already'
    step 'set' diff -u <(sed 's/"two words"/"again"/' /tmp/wanted.json) "$(file_of again)"
    answers 0 profile delete again
    answers 0 profile create again --empty
    answers 0 profile set again --from - <"$shown"
    step 'set' diff -u <(sed 's/"two words"/"again"/' /tmp/wanted.json) "$(file_of again)"
    answers 0 profile delete again
    jq '.rules = null' "$wanted" >/tmp/emptied.json
    answers 0 profile set 'two words' --from /tmp/emptied.json
    EDITOR="cp -- $shown" answers 0 profile edit 'two words'
    step 'edited' cmp /tmp/wanted.json "$wanted"
done
# What lacks its rules is no empty profile.
printf '{"name": "two words"}' >/tmp/nothing.json
refused 3 'missing' profile set 'two words' --from /tmp/nothing.json
answers 3 check /tmp/nothing.json
# From a stored profile; a name that a file here has as well has to say which.
answers 0 profile create again --from 'two words'
step 'created' diff -u <(sed 's/"two words"/"again"/' /tmp/wanted.json) "$(file_of again)"
(cd /tmp && cp -- shown.json again && refused 1 \
    '^tarnfw: "again" is both a stored profile and a file here; "./again" is the file$' \
    profile set again --from again) || exit 1
answers 0 profile delete again
refused 5 '^tarnfw: there is no profile "nothing"' profile create again --from nothing
refused 5 '^tarnfw: there is no profile "nothing"' profile set nothing --from /tmp/shown.json
refused 2 '.*--from' profile set lab
# What is in neither form is found, not guessed.
jq '.adapterPolicyMap.eth0 = "maybe"' /tmp/texts.json >/tmp/broken.json
refused 3 '^tarnfw: /tmp/broken.json: ' profile set lab --from /tmp/broken.json
step 'and says what came of it' grep --quiet \
    '^tarnfw: /tmp/broken.json is invalid: nothing was stored$' "$out/complaint"
answers 3 check /tmp/broken.json
jq '.active = "yes"' /tmp/texts.json >/tmp/broken.json
answers 3 check /tmp/broken.json

# --- list, show ------------------------------------------------------------------------------------

answers 0 profile list
silent
prints <<'END'
* default
  lab
  two words
END
answers 0 profile list --json
prints_json <<'END'
{"profiles": [{"name": "default", "active": true, "adapters": 2, "rules": 8},
              {"name": "lab", "active": false, "adapters": 1, "rules": 0},
              {"name": "two words", "active": false, "adapters": 2, "rules": 6}]}
END
# An unreadable profile keeps its name.
printf '{"name": "odd", "adapterPolicyMap": {"eth0": "deny"}, "rules": {}}\n' \
    >"$kProfileDirectory/odd.json"
answers 0 profile list --json
says '"name" : "odd"'
step 'with nothing known of it' [ "$(grep -c ' : null' "$out/answer")" = 2 ]
refused 1 '^tarnfw: profile "odd" cannot be read: it has a value of a wrong type ("tarnfw check FILE" shows why)$' \
    profile show odd
rm -- "$kProfileDirectory/odd.json"

# One that cannot be parsed has no name to be known by, and may be the one that is looked for.
printf '{"name": "haus",\n' >"$kProfileDirectory/177.json"
readonly kUnreadable="1 file cannot be read: $kProfileDirectory/177.json (\"tarnfw check FILE\" shows why)"
for words in 'profile show haus' 'profile delete haus' 'check haus' 'preview haus'; do
    read -r -a words <<<"$words"
    answers 5 "${words[@]}"
    step 'one line, and none of the library' [ "$(<"$out/complaint")" = \
        "tarnfw: there is no profile \"haus\" (profiles: default, lab, two words); $kUnreadable" ]
done
answers 3 check "$kProfileDirectory/177.json"
answers 0 profile list
step 'said in the list as well' [ "$(<"$out/complaint")" = "tarnfw: $kUnreadable" ]
answers 1 export
complains "^tarnfw: $kUnreadable; --partial exports the rest\$"
answers 0 export --partial
step 'the rest' [ "$(jq '.config_profiles | length' "$out/answer")" = 3 ]
rm -- "$kProfileDirectory/177.json"
activate haus
answers 1 export
complains '^tarnfw: the active profile "haus" does not exist, and an export without it cannot be imported; '
answers 0 export --partial
activate default

answers 0 profile show
step 'the active one is shown without a name' [ "$(head -n 1 "$out/answer")" = \
    'Profile default (active)' ]
answers 0 profile show --json
/usr/bin/python3 - "$(file_of default)" >/tmp/wanted.json <<'END'
import json, sys
document = json.load(open(sys.argv[1]))
document["active"] = True
texts = ["allow", "deny", "none"]
document["adapterPolicyMap"] = {name: texts[code] for name, code in document["adapterPolicyMap"].items()}
for rule in (rule for rules in document["rules"].values() for rule in rules):
    rule["policy"] = texts[rule["policy"]]
print(json.dumps(document))
END
prints_json </tmp/wanted.json
refused 5 '^tarnfw: there is no profile "nowhere" (profiles: default, lab, two words)$' \
    profile show nowhere

# --- diff ------------------------------------------------------------------------------------------

answers 0 profile create near --empty
answers 0 policy eth0 deny --profile near
answers 0 rule add --profile near --adapter eth0 'deny tcp 445 from 10.3.0.0/16'
answers 0 profile copy near wide
answers 0 profile diff near wide
silent
prints <<<'Profile "near" and profile "wide" mean the same'
answers 0 rule add --profile wide --adapter eth0 'allow tcp 445 from 10.0.0.0/8'
answers 10 profile diff near wide
silent
prints <<'END'
From profile "near" to profile "wide"
opens tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16 (rule 2 of eth0)
END
answers 10 profile diff wide near
prints <<'END'
From profile "wide" to profile "near"
closes tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16 (before: rule 2 of eth0)
END
answers 10 profile diff near wide --all
prints <<'END'
From profile "near" to profile "wide"
opened: the default policy of eth0 before, rule 2 of eth0 now
  tcp 445 on eth0 from 10.0.0.0/8 except 10.3.0.0/16
    for example tcp from 10.0.0.1 port 50000 to 192.0.2.2 port 445 on eth0
END
answers 10 profile diff near wide --json
step 'the packets' [ "$(jq -c '.changes[] | [.change, .after, .packets[0].sources, .witnesses[0].source]' \
    "$out/answer")" = \
    '["opened",{"adapter":"eth0","by":"rule","position":2},["10.0.0.0-10.2.255.255","10.4.0.0-10.255.255.255"],"10.0.0.1"]' ]
# Rules in another order that mean the same; a file; the active profile.
answers 0 rule add --profile near --adapter eth0 'allow tcp 445 from 10.128.0.0/9'
answers 0 rule add --profile near --adapter eth0 'allow tcp 445 from 10.0.0.0/9'
answers 0 profile show near --json
cp -- "$out/answer" /tmp/near.json
answers 0 profile diff /tmp/near.json wide
answers 10 profile diff wide
step 'the active one is on the other side' grep --quiet '^From profile "default" to profile "wide"$' "$out/answer"
answers 0 profile diff default
refused 5 '^tarnfw: there is no profile "nowhere" ' profile diff nowhere
refused 3 '^tarnfw: /tmp/broken.json is invalid: it was not compared$' profile diff /tmp/broken.json
# A file is compared as the store would have it: adapters with rules get the default policy "allow".
answers 0 profile create stored --empty
answers 0 rule add --profile stored --adapter eth1 allow tcp 22
answers 0 rule add --profile stored --adapter eth2 --out deny udp 53
jq 'del(.adapterPolicyMap.eth1, .adapterPolicyMap.eth2)' "$(file_of stored)" >/tmp/stored.json
answers 0 profile diff stored /tmp/stored.json
# A rule that is too complex is no silence.
answers 0 profile copy near complex
answers 0 rule add --profile complex --adapter eth0 --first deny tcp 22 from 0.0.0.5/0.0.0.255
answers 10 profile diff near complex
prints <<'END'
From profile "near" to profile "complex"
rule 1 of eth0 is not counted: "0.0.0.5/0.0.0.255" is too complex: its mask makes more than 4096 intervals
Too complex to compare whole: there may be more changes
END
answers 10 profile diff near complex --all
says '^rule 1 of eth0 is not counted: "0.0.0.5/0.0.0.255" is too complex: '
answers 10 profile diff near complex --json
step 'it is too complex' [ "$(jq -c '[.same, .tooComplex]' "$out/answer")" = '[false,true]' ]
# One entry for a pair of rules, though each family has its own lines; and a packet that hosts send.
answers 0 profile create apart --empty
answers 0 policy eth0 deny --profile apart
answers 0 profile copy apart together
answers 0 rule add --profile together --adapter eth0 'allow from 10.0.0.0/8'
answers 0 rule add --profile together --adapter eth0 'deny tcp 99 (IPv6)'
answers 0 rule add --profile together --adapter eth0 'allow'
answers 10 profile diff apart together --json
step 'each pair once' [ "$(jq -c '[.changes[] | [.before, .after]] | length == (unique | length)' "$out/answer")" = true ]
answers 10 profile diff apart together --all
step 'and in words' [ "$(grep -c '^opened: the default policy of eth0 before, rule 3 of eth0 now$' "$out/answer")" = 1 ]
step 'a usual packet' [ "$(grep -c 'for example tcp from 10.0.0.1 port 50000 to ' "$out/answer")" = 1 ]
step 'of a protocol' [ "$(grep -c 'for example protocol 0' "$out/answer")" = 0 ]
answers 0 profile delete apart
answers 0 profile delete together
# No interface is made up.
answers 0 rule add --profile complex --adapter pppoe deny tcp 80
answers 0 rule add --profile complex --adapter vpn deny tcp 80
answers 10 profile diff near complex --all
step 'pppoe is named' grep --quiet ' to 192.0.2.2 port 80 on pppoe$' "$out/answer"
step 'vpn is named' grep --quiet ' to 192.0.2.2 port 80 on vpn$' "$out/answer"
for name in near wide stored complex; do
    answers 0 profile delete "$name"
done

# --- copy, rename ----------------------------------------------------------------------------------

answers 0 profile copy 'two words' copied
prints <<<'Profile "copied" created, a copy of "two words"'
step 'it is the same under another name' diff -u \
    <(sed 's/"name" : "two words"/"name" : "copied"/' "$(file_of 'two words')") "$(file_of copied)"
refused 1 '^tarnfw: profile "copied" already exists$' profile copy lab copied
refused 5 '^tarnfw: there is no profile "nowhere" ' profile copy nowhere new
refused 2 '^tarnfw: NEW is required$' profile copy lab

answers 0 profile rename copied renamed
prints <<<'Profile "copied" renamed to "renamed"'
step 'only the new name is left' [ "$(tarnfw profile list | tr '\n' ,)" = \
    '* default,  lab,  renamed,  two words,' ]
answers 0 profile rename default standard
step 'the settings follow the active one' [ "$(setting profile)" = standard ]
answers 0 profile rename standard default
step 'and back' [ "$(setting profile)" = default ]
refused 1 '^tarnfw: profile "lab" already exists$' profile rename default lab
refused 5 '^tarnfw: there is no profile "nowhere" ' profile rename nowhere new
refused 2 '^tarnfw: NEW: "" is not a name for a profile: ' profile rename lab ''

# --- delete ----------------------------------------------------------------------------------------

file=$(file_of renamed)
answers 0 profile delete renamed
prints <<<'Profile "renamed" deleted'
step 'its file is gone' [ ! -e "$file" ]
refused 1 '^tarnfw: profile "default" is the active one; "tarnfw profile use" makes another one ' \
    profile delete default
refused 5 '^tarnfw: there is no profile "renamed" ' profile delete renamed
# The library removes the first of two files with one name; the other one is not silently left.
cp -- "$(file_of lab)" "$kProfileDirectory/9999999999.json"
answers 1 profile delete lab
complains '^tarnfw: profile "lab" still exists: /usr/tarn/etc/firewall.d/9999999999.json$'
answers 0 profile delete lab
step 'both are gone' [ "$(tarnfw profile list | tr '\n' ,)" = '* default,  two words,' ]

# --- use -------------------------------------------------------------------------------------------

answers 0 profile create open --empty
answers 0 profile use open
prints <<'END'
Profile "open" is now the active one
Once the firewall is enabled: opens everything on eth0, for everybody, that no rule before it decided (before: the default policy of eth0)
END
step 'the settings say so' [ "$(setting profile)" = open ]
answers 0 profile use default --reload
prints <<'END'
Profile "default" is now the active one
Once the firewall is enabled: closes everything on eth0, for everybody, that no rule before it decides (the default policy of eth0)
Firewall disabled: nothing to reload
END
step 'the filter is untouched' same_listing base

step 'the firewall is enabled' tarnfw enable
keep_listing default
answers 0 profile use open --quiet
prints <<'END'
Profile "open" is now the active one
The kernel still has the old rules; "tarnfw reload" applies the new ones
END
step 'so it has' same_listing default
answers 0 profile use open --reload
says '^Profile "open" applied$'
step 'now they are in the kernel' [ "$(listing v4 | grep -c -- '-j DROP')" = 0 ]
answers 0 profile use default --reload
says '^Closes everything on eth0, for everybody, that no rule before it decides '
step 'what is closed comes before the change' [ "$(sed -n 2p "$out/answer")" = 'Profile "default" is now the active one' ]
step 'the others again' same_listing default
refused 5 '^tarnfw: there is no profile "nowhere" ' profile use nowhere
refused 5 '^tarnfw: there is no profile "opne"; did you mean "open"? (profiles: ' profile use opne
# A reload of it would leave the machine open.
sed 's/"policy" : 0/"policy" : 7/; s/"lan-only"/"broken"/' "$example" >"$kProfileDirectory/broken.json"
refused 3 '^tarnfw: rule 1 of eth0: policy: 7 is not one of 0, 1, 2; profile "broken" has 6 errors, this is the first$' \
    profile use broken --reload
step 'the rules are the same' same_listing default
step 'default stays the active one' [ "$(setting profile)" = default ]
# Without the base filter nothing would be applied: nothing is changed either.
iptables -D INPUT -j INPUT_FIREWALL
refused 1 'IPv4 lacks jumps INPUT -> INPUT_FIREWALL' profile use open --reload
step 'default stays the active one' [ "$(setting profile)" = default ]
