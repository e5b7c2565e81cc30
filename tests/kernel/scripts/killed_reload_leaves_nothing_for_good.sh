# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# What a killed reload leaves (DROP policies, a rule in FIREWALL_RELOADING that accepts established
# connections) is gone after the next operation, and is not taken for somebody's policy.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

nothing_left() {
    [[ -z $(iptables -S FIREWALL_RELOADING 1) && -z $(ip6tables -S FIREWALL_RELOADING 1) ]] &&
        policies_accept
}

readonly kEstablished='-m state --state ESTABLISHED,RELATED -j ACCEPT'
answers 0 base up
use_profile deny_by_default
for mode in lines batch; do
    answers 0 apply-mode "$mode"
    for command in reload enable disable 'profile use deny_by_default --reload'; do
        answers 0 enable
        rules_probe closed
        empty_chains
        read -r -a words <<<"$command"
        answers 0 "${words[@]}"
        step "$mode, $command: nothing is left" nothing_left

        answers 0 enable
        # shellcheck disable=SC2086  # words of a rule
        iptables -A FIREWALL_RELOADING $kEstablished
        answers 0 "${words[@]}"
        step "$mode, $command: nor of one whose policies somebody has opened" nothing_left
    done
done

# Killed between its first commands, with only a policy set.
answers 0 apply-mode lines
answers 0 enable
keep_listing enabled
wrap_iptables
pause_at 'iptables --policy FORWARD DROP'
tarnfw reload >"$out/reload" 2>&1 &
tool=$!
await_pause
answers 11 status
says '^Firewall: *enabled, but a reload is running; new connections are dropped meanwhile$'
read -r reloading _ < <(tail -n 1 "$kCommands")
mapfile -t commands < <(pgrep --parent "$reloading")
# Also the process that would put back the rules of before.
read -r guarding < <(ps -o ppid= -p "$reloading")
kill -KILL "$guarding" "$tool" "$reloading" "${commands[@]}"
wait "$tool" || true
step 'a policy is left' grep --quiet -- '-P INPUT DROP' <(iptables -S INPUT)
readonly kInterrupted='a reload was interrupted: the machine is closed to new connections; "tarnfw reload" opens it'
answers 11 status
says "^Firewall: *enabled, but $kInterrupted\$"
answers 10 diff
complains "^tarnfw: $kInterrupted\$"
prints <<'END'
--- profile "deny_by_default"
+++ kernel
IPv4, chain INPUT
- -P INPUT ACCEPT
+ -P INPUT DROP
END
answers 0 profile copy deny_by_default tried
answers 1 try tried --timeout 1
complains "^tarnfw: profile \"tried\" was not tried: $kInterrupted\$"
cp -- /run/tarn/reload.json "$out/killed"
answers 0 reload
step 'it is gone' same_listing enabled
answers 0 status
answers 0 diff
silent

# The same again: "base up" does not take it for a policy that "base down" must put back.
cp -- "$out/killed" /run/tarn/reload.json
iptables -P INPUT DROP
rm -- /run/tarn/base_filter.json
answers 0 base up
step 'it is gone' same_listing enabled
step 'and not recorded' [ "$(jq .v4.policies /run/tarn/base_filter.json)" = null ]
answers 0 base down
step 'nor put back' policies_accept
