# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Another program that holds the lock of iptables delays a batch but does not break it; reloads and
# batches at the same time all succeed.
readonly kRounds=10

document() {
    printf '{"v4": {"eth0": ["-A INPUT_FIREWALL -s 10.0.0.%s -j DROP"]},
             "v6": {"eth0": ["-A INPUT_FIREWALL -s fd00::%s -j DROP"]}}' "$1" "$1"
}

has_open() {
    local link
    for link in /proc/"$1"/fd/*; do
        [[ $(readlink "$link") != "$2" ]] || return 0
    done
    return 1
}

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
tarnfw base up
document 1 >"$out/a"
document 2 >"$out/b"
step 'the first rules' rules_probe batch "$out/a"
keep_listing a

exec {lock}>/run/xtables.lock
flock "$lock"
"$build/tests/kernel/rules_probe" batch "$out/b" {lock}>&- &
batch=$!
until has_open "$batch" /run/xtables.lock; do
    :
done
# Not with the tools that take the lock themselves.
step 'while others hold the lock nothing changes' [ "$(iptables-save | grep -c 10.0.0.1/32)" = 1 ]
exec {lock}>&-
step 'then the batch succeeds' wait "$batch"
keep_listing b
step 'its rules are there' grep --quiet 10.0.0.2/32 "$out/b.v4"
step 'in both families' grep --quiet fd00::2/128 "$out/b.v6"

whole() {
    same_listing a >/dev/null || same_listing b >/dev/null
}
for ((i = 0; i < kRounds; ++i)); do
    "$build/tests/kernel/rules_probe" batch "$out/a" &
    first=$!
    "$build/tests/kernel/rules_probe" batch "$out/b" &
    second=$!
    iptables -C INPUT_FIREWALL -s 10.9.9.9 2>/dev/null || true # and something that only looks
    wait "$first" || fail 'the first of two batches'
    wait "$second" || fail 'the second of two batches'
    whole || fail 'the rules of one of them'
done
step "$kRounds times two batches at once" true

use_profile deny_ssh_on_one_adapter
choose_apply batch
step 'the firewall is enabled' tarnfw enable
keep_listing enabled
for ((i = 0; i < kRounds; ++i)); do
    "$build/tools/tarnfw/tarnfw" reload >/dev/null &
    first=$!
    "$build/tools/tarnfw/tarnfw" reload >/dev/null &
    second=$!
    wait "$first" || fail 'the first of two reloads'
    wait "$second" || fail 'the second of two reloads'
    same_listing enabled || fail 'the rules after two reloads'
done
step "$kRounds times two reloads at once" true
