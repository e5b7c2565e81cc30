# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# What is no document among the profiles stops no command: each names it and goes on without it, and it stays
# where it is.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kSeconds=10 # for each command, which takes a fraction of it

tarnfw() {
    timeout --kill-after=1 "$kSeconds" "$build/tools/tarnfw/tarnfw" "$@" </dev/null
}

answers 0 base up
answers 0 profile create home --empty
answers 0 policy eth0 deny --profile home
answers 0 profile use home
answers 0 enable --yes
keep_listing enabled
cp -a -- "$kProfileDirectory" /tmp/store

# hostile REASON COMMAND...: makes the file, and tries.
hostile() {
    local reason=$1 words
    shift
    printf -- '---- a file that %s\n' "$reason"
    "$@" "$kProfileDirectory/aa.json"
    for words in status 'profile list' 'profile show home' preview diff check adapters; do
        # shellcheck disable=SC2086  # words
        answers 0 $words
        step 'named' grep --quiet "^tarnfw: $kProfileDirectory/aa.json $reason: skipped$" \
            "$out/complaint"
    done
    for words in 'rule add allow tcp 80 --adapter eth0' 'policy eth0 allow' 'profile create new' \
        'profile rename home casa' 'profile delete default' 'apply-mode batch' \
        'service reserve ssh allow --adapter eth0' 'service release ssh' reload disable 'enable --yes' \
        'import --yes /tmp/all.json' 'profile use home --reload --yes'; do
        # shellcheck disable=SC2086  # words
        answers 0 $words
        step 'named' grep --quiet "^tarnfw: $kProfileDirectory/aa.json $reason: skipped$" \
            "$out/complaint"
    done
    step 'it is still there' [ -e "$kProfileDirectory/aa.json" -o -L "$kProfileDirectory/aa.json" ]
    answers 0 base up
    step 'the rules are those of before' same_listing enabled
    rm -r -- "$kProfileDirectory"
    cp -a -- /tmp/store "$kProfileDirectory"
}

link_to_itself() {
    ln -s -- aa.json "$1"
}

jq '.config_firewall_settings.apply = "lines"' <(tarnfw export) >/tmp/all.json
hostile 'is a named pipe' mkfifo
hostile 'is a link to a device' ln -s /dev/zero
hostile 'is a link that leads nowhere' link_to_itself
hostile 'is a directory' mkdir
hostile 'is larger than 64 MiB' truncate --size=2G
answers 0 reload
step 'the files are those of before' diff -r /tmp/store "$kProfileDirectory"
