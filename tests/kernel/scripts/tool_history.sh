# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "history" lists what each command has changed, and "undo" puts it back, byte for byte; undone once
# more, it is done again. Changes by other programs are not lost silently, and no undo enables or
# disables the firewall.
make_links <<'END'
veth eth0 192.168.1.10/24 lan 192.168.1.20/24
END

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kHistory=$kProfileDirectory/.history
readonly kRule='--adapter eth0 --profile home'

# documents NAME, same_documents NAME: the profiles and settings, with their modes and owners.
documents() {
    (
        cd -- "$kProfileDirectory"
        sha256sum -- *.json
        stat --format '%n %a %u:%g' -- *.json
    ) >"$out/$1.documents"
}
same_documents() {
    documents now
    diff -u "$out/$1.documents" "$out/now.documents"
}

# changes: how many are listed; newest: the directory of the last one.
changes() {
    tarnfw history --json | jq '.history | length'
}
newest() {
    find "$kHistory" -mindepth 1 -maxdepth 1 -printf '%f\n' | sort -n | tail -n "${1-1}" | head -n 1
}

# undone ARGUMENT...: the command changes documents; "undo" puts back each byte, "undo" after that
# does the change again, and both are changes themselves.
undone() {
    local before
    documents before
    before=$(newest)
    answers 0 "$@"
    refuses 'it changed something' same_documents before
    step 'it is one change' [ "$(newest)" = $((before + 1)) ]
    documents after
    answers 0 undo
    step 'the documents are as before' same_documents before
    answers 0 undo
    step 'the change is done again' same_documents after
    answers 0 undo
    step 'and undone again' same_documents before
}

# --- nothing to undo -------------------------------------------------------------------------------

answers 0 history
prints <<<'No change is kept'
answers 0 history --json
prints_json <<<'{"history": []}'
answers 5 undo
complains '^tarnfw: no change is kept$'

# --- every command that changes the store ----------------------------------------------------------

store_home_and_copy
refused 5 '^tarnfw: there is no change 49: [0-9]* changes are kept$' history 49
chgrp 7 "$kProfileDirectory"/*.json
chmod 640 "$kProfileDirectory"/*.json
tarnfw profile show third --json >/tmp/third.json
tarnfw export /tmp/exported.json
jq 'del(.config_profiles[] | select(.name == "third")) | .config_firewall_settings.apply = "batch"' \
    /tmp/exported.json >/tmp/other.json

read -r -a rule <<<"$kRule"
undone rule add "${rule[@]}" allow tcp 99
undone rule insert 1 "${rule[@]}" deny udp 99
undone rule set 1 "${rule[@]}" allow tcp 2222
answers 0 rule add "${rule[@]}" deny tcp 23
undone rule move 2 1 "${rule[@]}"
answers 0 rule delete 2 "${rule[@]}"
undone rule delete 1 "${rule[@]}"
undone rule off 1 "${rule[@]}"
answers 0 rule off 1 "${rule[@]}"
undone rule on 1 "${rule[@]}"
answers 0 undo
undone policy eth0 allow --profile home
undone log-denied on --profile home
undone profile create fresh
undone profile create fresh --from /tmp/third.json
undone profile copy home fresh
undone profile rename home casa
undone profile rename third terza
undone profile delete third
undone profile use third
undone profile set home --from <(jq '.rules = null' /tmp/third.json)
EDITOR='sed -i s/ssh/http/' undone profile edit home
undone service reserve http allow --adapter eth0
answers 0 service reserve http allow --adapter eth0
sed -i 's/"http"/"http", "lost_service"/' "$kProfileDirectory"/*.json
undone service update
answers 0 service update
undone service release http
answers 0 service release http
undone adapter rename eth0 lan0
undone apply-mode batch
undone import --yes /tmp/other.json
undone import --yes --reload /tmp/other.json

# --- the list, and one change ----------------------------------------------------------------------

answers 0 rule add --adapter eth0 --profile third --name 'A name' allow tcp 80 from 10.0.0.0/8
answers 0 history
silent
says '^# *When *Command *Change$'
says "^1 *20[0-9-]* [0-9:]* *tarnfw rule add --adapter eth0 --profile third --name 'A name' allow tcp 80 from 10.0.0.0/8  *third: + rule 2 of eth0: allow tcp 80 from 10.0.0.0/8 (IPv4)  \"A name\"$"
answers 0 policy eth0 none --profile third
answers 0 history 1
says '^Change 1, 20[0-9-]* [0-9:]*: tarnfw policy eth0 none --profile third$'
says '^  third: ~ default policy of eth0: deny -> none$'
answers 0 history 2
says '^  third: + rule 2 of eth0: allow tcp 80 from 10.0.0.0/8 (IPv4)  "A name"$'
answers 0 history 2 --json
step 'as a document' [ "$(jq --compact-output .differences "$out/answer")" = \
    '[{"adapter":"eth0","change":"added","position":2,"profile":"third","text":"rule 2 of eth0: allow tcp 80 from 10.0.0.0/8 (IPv4)  \"A name\""}]' ]
refused 2 'NUMBER' undo 0
refused 2 'NUMBER' undo 51

# Several at once, the whole difference shown.
documents now
answers 0 undo 2
prints_difference() {
    grep '^  ' "$out/answer" | diff -u - "$1" || fail 'not the difference expected'
}
cat >/tmp/difference <<'END'
  third: - rule 2 of eth0: allow tcp 80 from 10.0.0.0/8 (IPv4)  "A name"
  third: ~ default policy of eth0: none -> deny
END
prints_difference /tmp/difference
says '^Changes 1 to 2 undone, back to before 20[0-9-]* [0-9:]*: tarnfw rule add '
answers 0 history 1
says ': tarnfw undo 2$'
answers 0 undo
step 'done again' same_documents now

# As a document.
answers 0 undo --json
step 'what it has undone' [ "$(jq --compact-output '[.changed, .applied, .profile, .undone, .profiles,
    (.differences | length)]' "$out/answer")" = '[true,false,null,1,["third"],2]' ]
answers 0 undo --json

# What changes nothing is no change.
answers 0 service update
kept=$(newest)
answers 0 policy eth0 none --profile third
answers 0 service update
answers 0 apply-mode lines
step 'no change' [ "$(newest)" = "$kept" ]

# --- applied ---------------------------------------------------------------------------------------

answers 0 enable --yes
keep_listing home
answers 0 rule add --adapter eth0 deny tcp 23 --reload
answers 0 rule add --adapter eth0 deny tcp 24
answers 0 undo
says '^Change 1 undone, back to before '
answers 0 undo 3 --reload
says '^Profile "home" applied$'
step 'the old rules are in force' same_listing home

# No undo enables or disables, so these are no changes of the history.
before=$(newest)
answers 0 disable
answers 0 profile use third
answers 0 enable --yes
step 'one change more' [ "$(newest)" = $((before + 1)) ]
answers 0 history 1
step 'without what no undo changes' [ "$(grep --count 'firewall: ' "$out/answer")" = 0 ]
answers 0 undo
says '^Note: the firewall stays enabled; "tarnfw disable" disables it$'
step 'still enabled' [ "$(jq .status "$kSettings")" = true ]
step 'the profile is back' [ "$(jq --raw-output .profile "$kSettings")" = home ]
answers 0 disable

# --- other programs --------------------------------------------------------------------------------

answers 0 rule add "${rule[@]}" allow tcp 97
file=$(grep --files-with-matches '"home"' "$kProfileDirectory"/[!f]*.json | head -n 1)
sed -i 's/"97"/"98"/' "$file"
refused 1 "^tarnfw: $file is not as the change left it: another program has written there; nothing was changed (--force undoes that, too)\$" undo
answers 1 undo --json
step 'the remedy has its own member' [ "$(jq --raw-output .error.remedy "$out/answer")" = '--force undoes that, too' ]
documents by_others
answers 0 undo --force
says 'home: - rule . of eth0: allow tcp 98'
answers 0 undo
step 'what the other program wrote is kept, too' same_documents by_others

# --- what is kept ----------------------------------------------------------------------------------

step 'for root alone' [ "$(stat --format %a:%u "$kHistory")" = 700:0 ]
step 'and each change' [ -z "$(find "$kHistory" -mindepth 1 -type d ! -perm 700)" ]
for ((i = 0; i < 26; ++i)); do
    tarnfw policy eth0 allow --profile third >/dev/null
    tarnfw policy eth0 deny --profile third >/dev/null
done
step 'fifty' [ "$(changes)" = 50 ]
step 'fifty' [ "$(find "$kHistory" -mindepth 1 -maxdepth 1 | wc -l)" = 50 ]

# A change that a killed command has made is kept by the next one; what it left of removing another
# is removed.
mv -- "$kHistory/$(newest)" "$kProfileDirectory/.change"
mkdir "$kHistory/gone"
answers 0 profile create late
silent
step 'both are there' [ "$(changes)" = 50 ]
answers 0 history 2
says ': tarnfw policy eth0 deny --profile third$'
step 'nothing is left' [ ! -e "$kHistory/gone" ]

# One whose copies are not whole counts as missing.
kept=$(changes)
for file in "$kHistory/$(newest 2)"/*.json; do
    : >"$file"
done
step 'one less' [ "$(changes)" = $((kept - 1)) ]
answers 0 undo
answers 0 history 1
says ': tarnfw undo$'

# The last profile may go with its settings only while nothing needs it.
mv -- "$kProfileDirectory" /tmp/store
answers 0 base down
step 'a first profile' "$build/tools/tarnfw/tarnfw" base up # whose settings stay as they are
number=$(changes)
answers 0 undo "$number"
step 'an empty store' [ -z "$(cd -- "$kProfileDirectory" && ls -- *.json 2>/dev/null)" ]
answers 0 undo
answers 0 enable --yes
refused 1 '^tarnfw: the active profile, "[a-z]*", would be gone; nothing was changed$' undo $((number + 2))
