# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Policies that drop before "base up" drop again after "base down", though a reload by another program has
# made them ACCEPT meanwhile. A policy that somebody has set since stays, and a machine that was open is.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
iptables -P FORWARD DROP
ip6tables -P INPUT DROP
keep_listing before
answers 0 base up
use_profile deny_by_default
sed -i 's/"status": false/"status": true/' "$kSettings"
step 'a reload of the library' rules_probe reload
step 'makes the policies ACCEPT' policies_accept
answers 0 base up # which finds these, and keeps in mind the first
answers 0 base down
step 'the policies drop as before' same_listing before

answers 0 base up
iptables -P INPUT DROP
answers 0 reload
step "a policy set since stays in a reload" [ "$(iptables -S INPUT | head -n 1)" = '-P INPUT DROP' ]
answers 0 base down
step 'and in "base down"' [ "$(iptables -S INPUT | head -n 1)" = '-P INPUT DROP' ]

for tool in iptables ip6tables; do
    "$tool" -P INPUT ACCEPT
    "$tool" -P FORWARD ACCEPT
done
answers 0 base up
answers 0 base down
step 'an open machine is open' policies_accept

# What a killed reload left closed is nobody's policy.
answers 0 base up
rm /run/tarn/base_filter.json
rules_probe closed
answers 0 base up
answers 0 reload
step 'a reload opens it' policies_accept
answers 0 base down
step 'and it stays so' policies_accept
