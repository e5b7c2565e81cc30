# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# DROP policies that others have set on INPUT and FORWARD stay, in both apply modes, and are no
# difference.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

policies() {
    { iptables -S && ip6tables -S; } | grep '^-P'
}

they_stay() {
    diff -u "$out/policies" <(policies)
}

answers 0 base up
use_profile deny_by_default
iptables -P INPUT DROP
iptables -P FORWARD DROP
ip6tables -P FORWARD DROP
policies >"$out/policies"
for mode in lines batch; do
    answers 0 apply-mode "$mode"
    for command in enable reload diff disable; do
        answers 0 "$command"
        step "$mode, $command: the policies stay" they_stay
    done
done
answers 0 base up
step 'and with the base filter' they_stay
answers 0 base down
step 'and without it' they_stay
