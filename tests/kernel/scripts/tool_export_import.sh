# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw export and import: the whole configuration as one document and back, what is rejected, what
# an interrupted or failed import leaves, and how to restore a backup.
make_links <<'END'
veth eth0 192.168.1.10/24 lan 192.168.1.20/24
veth eth1 192.168.2.10/24 lan 192.168.2.20/24
END

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kBackups=/usr/tarn/etc/firewall.d.backup
cd /tmp || fail 'no /tmp'

# Every file of the store and of the backups with its content.
keep_store() {
    find /usr/tarn/etc -type f -exec sha256sum -- {} + | LC_ALL=C sort >"$out/$1.store"
}
same_store() {
    keep_store now
    diff -u "$out/$1.store" "$out/now.store"
}
newest_backup() {
    find "$kBackups" -name '*.json' | LC_ALL=C sort --version-sort | tail -n 1
}
# configuration FILE: an exported document in a form to compare.
configuration() {
    jq --sort-keys . "$1"
}

# --- export ----------------------------------------------------------------------------------------

answers 5 export
complains '^tarnfw: there are no profiles; "tarnfw base up" writes a first one$'
answers 0 base up
use_profile deny_by_default
keep_store first
answers 0 export
silent
step 'its members' [ "$(jq --compact-output keys "$out/answer")" = \
    '["config_firewall_settings","config_profiles","config_version"]' ]
step 'the settings' [ "$(jq --compact-output --sort-keys .config_firewall_settings "$out/answer")" = \
    '{"profile":"deny_by_default","status":false}' ]
step 'the profile as it is' diff -u \
    <(configuration "$kProfileDirectory/deny_by_default.json") \
    <(jq --sort-keys '.config_profiles["deny_by_default.json"]' "$out/answer")
step 'a document of the schema' /usr/bin/jsonschema -i "$out/answer" \
    "$checkout/docs/export.schema.json"
cp -- "$out/answer" printed
answers 0 export all.json
silent
prints <<<'2 profiles and the settings written to all.json'
step 'the same document' cmp printed all.json
step 'for root alone' [ "$(stat --format=%a all.json)" = 600 ]
answers 1 export all.json
complains '^tarnfw: all.json already exists; --force replaces it$'
printf 'mine\n' >mine
answers 1 export mine
step 'it is as it was' [ "$(<mine)" = mine ]
answers 0 export --force mine
step 'now it is not' cmp printed mine
answers 1 export nowhere/all.json
complains '^tarnfw: cannot write nowhere/all.json: No such file or directory$'
answers 1 export --force "$kProfileDirectory"
step 'nothing is left' [ -z "$(find /tmp /usr/tarn/etc -name '*.json.*' -o -name 'firewall.d.?*')" ]
step 'the store is untouched' same_store first
# Without settings there are none made.
mv "$kSettings" settings
answers 0 export
step 'the defaults' [ "$(jq --compact-output --sort-keys .config_firewall_settings "$out/answer")" = \
    '{"profile":"default","status":false}' ]
step 'the same profiles' diff <(jq --sort-keys .config_profiles printed) \
    <(jq --sort-keys .config_profiles "$out/answer")
step 'no file' [ ! -e "$kSettings" ]
mv settings "$kSettings"

# --- what an import would do -----------------------------------------------------------------------

first=$(jq --raw-output '.config_profiles | keys[] | select(. != "deny_by_default.json")' all.json)
jq --arg first "$first" '
    .config_profiles["2.json"] = (.config_profiles["deny_by_default.json"] | .name = "new")
    | .config_profiles["deny_by_default.json"].adapterPolicyMap.eth0 = 0
    | del(.config_profiles[$first])
    | .config_firewall_settings = {profile: "new", status: true}' all.json >next.json
keep_store before
answers 0 import --dry-run next.json
prints <<END_OF_PLAN
profile          change   file
default          removed  $first
deny_by_default  changed  deny_by_default.json
new              added    2.json

setting  now              imported
profile  deny_by_default  new
status   false            true
Once imported and applied: closes everything on eth0, for everybody, except (service http,https from anywhere; tcp 22 from 192.168.1.20) (the default policy of eth0)
END_OF_PLAN
answers 0 import --dry-run --json next.json
step 'as a document' diff -u - <(jq --compact-output --sort-keys . "$out/answer") <<END_OF_PLAN
{"applied":false,"backup":null,"changed":false,"changes":true,"messages":["Once imported and applied: closes everything on eth0, for everybody, except (service http,https from anywhere; tcp 22 from 192.168.1.20) (the default policy of eth0)"],"profile":"new","profiles":[{"change":"removed","file":"$first","name":"default"},{"change":"changed","file":"deny_by_default.json","name":"deny_by_default"},{"change":"added","file":"2.json","name":"new"}],"settings":[{"imported":"new","now":"deny_by_default","setting":"profile"},{"imported":true,"now":false,"setting":"status"}],"warnings":[]}
END_OF_PLAN
tarnfw import --dry-run - <next.json >"$out/answer" || fail 'not from standard input'
says '^new  *added  *2.json$'
answers 2 import
answers 1 import --json next.json
step 'nobody was asked' [ "$(jq -r .error.kind "$out/answer")" = declined ]
answers 1 import next.json </dev/null
complains '^tarnfw: there is no terminal to ask on (--yes asks nothing); nothing was imported$'
answers 1 import --yes missing.json
complains '^tarnfw: cannot read missing.json: No such file or directory$'
answers 0 import --yes all.json
says '^Nothing to change$'
step 'the store is untouched' same_store before
step 'and no backup was made' [ ! -e "$kBackups" ]

# --- documents that are refused --------------------------------------------------------------------

# refuses_document CHANGE PLACE: the document that jq makes of all.json is refused for that reason.
refuses_document() {
    jq "$1" all.json >hostile.json
    answers 3 import --yes --force hostile.json
    grep --quiet -- "^hostile.json: $2" "$out/complaint" || {
        cat -- "$out/complaint"
        fail "not refused for: $2"
    }
    step 'one line says what came of it' [ \
        "$(grep --count '^tarnfw: hostile.json has [0-9]* errors\?; nothing was imported$' \
            "$out/complaint")" = 1 ]
    step 'the store is untouched' same_store before
}
add_as() {
    printf '.config_profiles["%s"] = (.config_profiles["deny_by_default.json"] | .name = "x")' "$1"
}
refuses_document "$(add_as ../../../../tmp/x.json)" 'config_profiles\["../../../../tmp/x.json"\]: points outside'
refuses_document "$(add_as /tmp/x.json)" 'config_profiles\["/tmp/x.json"\]: points outside'
refuses_document "$(add_as sub/x.json)" 'config_profiles\["sub/x.json"\]: points outside'
refuses_document "$(add_as .x.json)" 'config_profiles\[".x.json"\]: begins with a dot'
refuses_document "$(add_as ..)" 'config_profiles\[".."\]: begins with a dot'
refuses_document "$(add_as '')" 'config_profiles\[""\]: does not end in ".json"'
refuses_document "$(add_as x.txt)" 'config_profiles\["x.txt"\]: does not end in ".json"'
refuses_document "$(add_as 'x\u0000.json')" 'config_profiles\["x?.json"\]: has control characters'
refuses_document "$(add_as "$(printf 'x%.0s' {1..250}).json")" 'config_profiles\["x*.json"\]: is too long'
refuses_document "$(add_as firewall_settings.json)" \
    'config_profiles\["firewall_settings.json"\]: is the name of the settings file'
refuses_document '.config_profiles["x.json"] = .config_profiles["deny_by_default.json"]' \
    'config_profiles\["x.json"\].name: "deny_by_default" is also the name of config_profiles\["deny_by_default.json"\]'
refuses_document '.config_firewall_settings.profile = "gone"' \
    'config_firewall_settings.profile: "gone" is not one of the profiles'
refuses_document '.config_firewall_settings.status = "yes"' \
    'config_firewall_settings.status: must be true or false, not "yes"'
refuses_document 'del(.config_firewall_settings.profile)' \
    'config_firewall_settings: "profile" is missing'
refuses_document '.config_version = 2' 'config_version: must be 1, not 2'
refuses_document 'del(.config_profiles)' '"config_profiles" is missing'
refuses_document '.config_profiles = {}' 'config_profiles: must not be empty'
refuses_document '.config_profiles = []' 'config_profiles: must be an object, not an array'
refuses_document '.config_profiles["x.json"] = 7' 'config_profiles\["x.json"\]: must be an object, not 7'
refuses_document '.config_profiles["x.json"] = {}' 'config_profiles\["x.json"\]: "name" is missing'
refuses_document '.more = 1' 'more: unknown member'
refuses_document '[.]' 'must be an object, not an array'
step 'no file outside of the store' [ ! -e /tmp/x.json ]
printf '{"config_profiles": {\n' >hostile.json
answers 3 import --yes hostile.json
step 'no document' grep --quiet '^hostile.json: line 2, column 1: ' "$out/complaint"

# A profile with errors, unless it is wanted; one with warnings is imported.
jq '.config_profiles["deny_by_default.json"].rules.eth0[1].portList = ["99999"]' all.json >faulty.json
answers 3 import --yes faulty.json
step 'the finding, with its place' grep --quiet --line-regexp \
    'faulty.json: config_profiles\["deny_by_default.json"\]: rule 2 of eth0: portList entry 1: "99999" is not a port (0-65535) or a range of ports (6000-6010)' \
    "$out/complaint"
answers 3 import --yes faulty.json --json
step 'the place of the first error' [ "$(jq -c '.error.place | [.file, .path, .adapter, .position]' "$out/answer")" = \
    '["faulty.json","config_profiles[\"deny_by_default.json\"].rules.eth0[1].portList[0]","eth0",2]' ]
answers 3 import --yes faulty.json
step 'one line says what came of it' grep --quiet --line-regexp \
    'tarnfw: faulty.json has 1 error; nothing was imported' "$out/complaint"
step 'the store is untouched' same_store before

# A file that no backup would keep.
printf '{"mine": true}\n' >"$kProfileDirectory/2.json"
answers 1 import --yes next.json
complains "^tarnfw: $kProfileDirectory/2.json would be replaced, but is not a profile .*; nothing was imported$"
step 'it is there' [ "$(<"$kProfileDirectory/2.json")" = '{"mine": true}' ]
rm "$kProfileDirectory/2.json"
# Settings that the library would fail with, when it had deleted the profiles.
cp "$kSettings" settings
printf 'damaged' >"$kSettings"
answers 1 import --yes next.json
complains "^tarnfw: $kSettings cannot be read: repair it, or move it away$"
step 'both profiles are there' [ -e "$kProfileDirectory/$first" ]
cp settings "$kSettings"
step 'the store is untouched' same_store before

# --- import ----------------------------------------------------------------------------------------

answers 0 enable
keep_listing enabled
answers 0 import --yes next.json
backup=$(newest_backup)
says "^Backup: $backup (\"tarnfw import $backup\" restores it)\$"
says '^Imported 2 profiles; active: new$'
refuses 'a copy of the old rules' grep --quiet 'kernel still has' "$out/answer"
step 'nothing is applied' same_listing enabled
answers 0 export
step 'the store holds it' diff <(configuration next.json) <(configuration "$out/answer")
step 'no other file' [ "$(find "$kProfileDirectory" -maxdepth 1 -name '*.json' | wc -l)" = 3 ]
step 'the backup holds what was there' diff \
    <(jq --sort-keys '.config_firewall_settings.status = true' all.json) <(configuration "$backup")
step 'for root alone' [ "$(stat --format='%a %U' "$kBackups" "$backup")" = $'700 root\n600 root' ]

# Back again, and applied at once.
jq '.config_profiles["deny_by_default.json"].rules.eth0 |= .[:1]' "$backup" >back.json
answers 0 import --yes --reload back.json
says '^Closes .* (before: rule'
says '^Profile "deny_by_default" applied$'
answers 0 diff
answers 0 import --yes --reload "$backup"
step 'the old rules' same_listing enabled
step 'each with its backup' [ "$(find "$kBackups" -type f | wc -l)" = 3 ]

# A document that disables.
answers 0 import --yes all.json
says '^The firewall is now disabled in the settings; the kernel keeps the old rules until "tarnfw disable"$'
step 'nothing is applied' same_listing enabled
answers 0 import --yes "$backup"
answers 0 import --yes --reload all.json
says '^Firewall disabled$'
answers 0 diff
step 'no rules are left' [ -z "$(listing v4 | grep -- '^-A INPUT_FIREWALL')" ]

# It is stored and in force, or neither.
answers 0 import --yes --reload "$backup"
step 'the old rules' same_listing enabled
keep_files enabled
wrap_iptables
cp -r /tmp/wrapped /tmp/whole
# break_tool TOOL, BODY: a script instead of the tool; $whole is the tool itself.
break_tool() {
    # shellcheck disable=SC2016  # for the script
    printf '#!/bin/sh\nwhole=/tmp/whole/%s\n%s\nexec "$whole" "$@"\n' "$1" "$2" >"/tmp/wrapped/$1"
}
# not_disabled PATTERN: the import fails with such a reason, and leaves store and kernel as they are.
not_disabled() {
    answers 1 import --yes --reload all.json
    cp /tmp/whole/* /tmp/wrapped
    step "it says: $1" grep --quiet \
        "^tarnfw: $1; the import failed, and the previous configuration is restored$" "$out/complaint"
    refuses 'nothing else is said' grep '^Imported\|^Firewall' "$out/answer"
    step 'nothing is stored' same_files enabled
    step 'the old rules are in force' same_listing enabled
}
break_tool iptables 'exit 1'
not_disabled '.*'
# IPv6 cannot be emptied, nor can it in the two attempts that follow. IPv4 can.
break_tool ip6tables 'case "$*" in *-F*) exit 1 ;; esac'
break_tool ip6tables-restore '[ -e /tmp/2 ] || { [ ! -e /tmp/1 ] || : >/tmp/2; : >/tmp/1; exit 1; }'
not_disabled '.*; the old rules are in force again'
umount "/usr/sbin/xtables-$variant-multi"
answers 0 import --yes --reload all.json

# Profiles with errors come back from their backup with --force.
answers 0 import --yes --force faulty.json
answers 0 import --yes all.json
backup=$(newest_backup)
says "^Backup: $backup (\"tarnfw import --force $backup\" restores it)\$"
answers 3 import --yes "$backup"
answers 0 import --yes --force "$backup"
answers 0 export
step 'it is back' diff <(configuration faulty.json) <(configuration "$out/answer")
answers 0 import --yes all.json

# --- asking ----------------------------------------------------------------------------------------

readonly kQuestion='Replace the configuration? [y/N] '
keep_store asked
asked 1 "$kQuestion" n import next.json
says '^tarnfw: nothing was imported'
step 'the store is untouched' same_store asked
asked 0 "$kQuestion" y import next.json
says '^Imported 2 profiles; active: new$'
answers 0 export
step 'imported' diff <(configuration next.json) <(configuration "$out/answer")
answers 0 import --yes all.json

# --- interrupted -----------------------------------------------------------------------------------

# start_import: an import that has deleted the profiles, and waits.
start_import() {
    hold /var/lock/firewall/2.json.lock
    "$build/tools/tarnfw/tarnfw" import --yes next.json >"$out/answer" 2>"$out/complaint" &
    importing=$!
    until [[ ! -e $kProfileDirectory/$first && ! -e $kProfileDirectory/deny_by_default.json ]]; do
        kill -0 "$importing" || fail 'it did not wait'
    done
}

start_import
step 'killed in the middle' kill -KILL "$importing"
wait "$importing" || true
release
backup=$(newest_backup)
step 'what it had said before' grep --quiet "^Backup: $backup " "$out/answer"
step 'nothing of the store is left' [ \
    "$(find "$kProfileDirectory" -maxdepth 1 -name '*.json')" = "$kSettings" ]
step 'the backup holds all of it' diff <(configuration all.json) <(configuration "$backup")
answers 0 import --yes "$backup"
answers 0 export
step 'the way back' diff <(configuration all.json) <(configuration "$out/answer")

start_import
kill -INT "$importing"
kill -HUP "$importing"
kill -TERM "$importing"
release
wait "$importing" && fail 'it did not end by the signal'
answers 0 export
step 'other signals wait until it is whole' diff <(configuration next.json) \
    <(configuration "$out/answer")
answers 0 import --yes all.json

# --- a full disk -----------------------------------------------------------------------------------

cp -a "$kProfileDirectory" /tmp/store
mount -t tmpfs -o size=64k tmpfs "$kProfileDirectory"
cp /tmp/store/*.json "$kProfileDirectory"
jq '.config_profiles["2.json"] = (.config_profiles["deny_by_default.json"] | .name = "large"
    | .rules.eth0[0].labelList = [range(3000) | tostring])' all.json >large.json
answers 1 import --yes large.json
complains '^tarnfw: .*; the import failed, and the previous configuration is restored$'
answers 0 export
step 'it is' diff <(configuration all.json) <(configuration "$out/answer")
umount "$kProfileDirectory"

# --- a fresh machine -------------------------------------------------------------------------------

rm -r "$kProfileDirectory" "$kBackups"
answers 0 import --yes next.json
step 'nothing to keep' [ ! -e "$kBackups" ]
answers 0 export
step 'imported' diff <(configuration next.json) <(configuration "$out/answer")
answers 0 profile list
prints <<<$'  deny_by_default\n* new'
