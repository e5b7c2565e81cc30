# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# No command of the tool leaves a truncated document: on a full disk, if a file may not grow, and
# after a command was killed.
make_links <<'END_OF_LINKS'
veth eth0 192.168.1.10/24 lan 192.168.1.20/24
veth eth1 192.168.2.10/24 lan 192.168.2.20/24
END_OF_LINKS

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kDocument=/tmp/document.json

# refused_whole PATTERN COMMAND...: status 1 and that one line, no file has changed, none has come.
refused_whole() {
    local pattern=$1
    shift
    keep_files whole
    answers 1 "$@"
    complains "$pattern"
    step 'the files are as they were' same_files whole
    step 'and nothing is left' [ "$(cd -- "$kProfileDirectory" && find . -mindepth 1 \
        ! -path './.history*' ! -name '*.json' ! -name filler)" = "" ]
}

# writing_commands PATTERN: each command that writes to the store is refused like that.
writing_commands() {
    local pattern=$1
    refused_whole "$pattern" rule add allow tcp 80 --adapter eth0
    refused_whole "$pattern" rule insert 1 deny tcp 81 --adapter eth0
    refused_whole "$pattern" rule set 1 allow tcp 82 --adapter eth0
    refused_whole "$pattern" rule move 1 2 --adapter eth0
    refused_whole "$pattern" rule delete 1 --adapter eth0
    refused_whole "$pattern" rule off 1 --adapter eth0
    refused_whole "$pattern" rule on 1 --adapter eth0
    refused_whole "$pattern" policy eth0 allow
    refused_whole "$pattern" profile create new
    refused_whole "$pattern" profile create new --from "$kDocument"
    refused_whole "$pattern" profile set other --from "$kDocument"
    refused_whole "$pattern" profile copy other new
    refused_whole "$pattern" profile rename other new
    refused_whole "$pattern" profile use other
    refused_whole "$pattern" apply-mode batch
    refused_whole "$pattern" service reserve ssh allow --adapter eth0
    refused_whole "$pattern" service release mqtt
    refused_whole "$pattern" service update
    refused_whole "$pattern" adapter rename eth0 eth7
    refused_whole "$pattern" enable --yes
    refused_whole "$pattern" disable
    refused_whole "$pattern" try other
    # What a person has typed is kept.
    EDITOR='sed -i s/"22"/"24"/' refused_whole "$pattern.*; nothing was stored, the text is kept in" \
        profile edit other
}

answers 0 base up
use_profile deny_by_default
answers 0 profile copy deny_by_default other
answers 0 rule add allow tcp 22 --adapter eth0
answers 0 rule add allow tcp 25 --adapter eth0
answers 0 service reserve mqtt allow --adapter global
answers 0 enable --yes
answers 0 profile show other --json
cp -- "$out/answer" "$kDocument"
keep_listing enabled

# --- a full disk -----------------------------------------------------------------------------------

cp -a -- "$kProfileDirectory" /tmp/store
mount -t tmpfs -o size=256k tmpfs "$kProfileDirectory"
cp -- /tmp/store/*.json "$kProfileDirectory"
fill() {
    cat /dev/zero >>"$kProfileDirectory/filler" 2>/dev/null || true
}
fill
writing_commands '^tarnfw: cannot store a copy in .*: No space left on device; nothing was changed'
jq '.config_firewall_settings.apply = "batch"' <(tarnfw export) >/tmp/all.json
refused_whole '^tarnfw: cannot store a copy in .*: No space left on device; nothing was changed' \
    import --yes /tmp/all.json
step 'the rules are those of before' same_listing enabled

# Room for the copies, but not for the document.
rm -- "$kProfileDirectory/filler"
jq '.rules.eth0[0].labelList = [range(30000) | tostring]' "$kDocument" >/tmp/large.json
mount -o remount,size=128k "$kProfileDirectory"
refused_whole '^tarnfw: .*/[0-9]*\.json could not be written completely; is the disk full? All documents were restored$' \
    profile create new --from /tmp/large.json

# A deletion needs no room, and makes some.
fill
answers 0 profile delete other
complains '^tarnfw: "tarnfw undo" cannot undo this deletion: .*No space left on device$'
rm -- "$kProfileDirectory/filler"
answers 0 rule add allow tcp 80 --adapter eth0
fill
refused_whole '^tarnfw: cannot store a copy in .*: No space left on device; nothing was changed' undo
rm -- "$kProfileDirectory/filler"
answers 0 undo
umount "$kProfileDirectory"

# A store that has nothing yet.
mount -t tmpfs -o size=64k tmpfs "$kProfileDirectory"
fill
refused_whole 'cannot store a copy\|could not be written completely' base up
umount "$kProfileDirectory"

# --- files that may not grow -----------------------------------------------------------------------

may_not_grow() {
    (
        trap '' XFSZ
        ulimit -f 0
        tarnfw "$@" 2>&1 | cat
    )
}
keep_files grown
step 'refused' [ "$(may_not_grow rule add allow tcp 80 --adapter eth0)" = \
    "tarnfw: cannot store a copy in $kProfileDirectory/.change/: File too large; nothing was changed" ]
step 'the files are as they were' same_files grown

# --- a command that was killed ---------------------------------------------------------------------

# It has made its copies, and waits for the lock of the settings.
hold /var/lock/firewall/firewall_settings.json.lock
keep_files killed
"$build/tools/tarnfw/tarnfw" apply-mode batch >"$out/answer" 2>&1 &
killed=$!
until cmp --silent "$kSettings" "$kProfileDirectory/.change/firewall_settings.json"; do
    kill -0 "$killed" || fail 'it did not wait'
done
kill -KILL "$killed"
wait "$killed" || true
release
: >"$kSettings"
answers 1 status
answers 0 export /tmp/mended.json
complains "^tarnfw: $kSettings was truncated by a killed command; previous version restored$"
step 'nothing of it is lost' rm -- "$kSettings.damaged"
step 'the files are as they were' same_files killed
answers 0 rule add allow tcp 81 --adapter eth0
silent
