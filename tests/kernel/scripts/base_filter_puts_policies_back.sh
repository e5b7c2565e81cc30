# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Policies that drop before "base up" drop again after "base down", though a reload by another program has
# made them ACCEPT meanwhile. "status" and "diff" name them until then, and the tool's own reload puts them
# back. A policy that somebody has set since stays, and a machine that was open is. What cannot be known is said.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
iptables -P FORWARD DROP
ip6tables -P INPUT DROP
keep_listing before
answers 0 base up
use_profile deny_by_default
choose_apply lines # in which a reload sets the policies
sed -i 's/"status": false/"status": true/' "$kSettings"
step 'a reload of the library' rules_probe reload
step 'makes the policies ACCEPT' policies_accept
answers 0 base up # which finds these, and keeps in mind the first
answers 11 status
says 'the policies of FORWARD of IPv4, INPUT of IPv6 were DROP at "tarnfw base up" and are ACCEPT now; "tarnfw reload" puts them back$'
answers 10 diff
prints <<'DIFF'
--- profile "deny_by_default"
+++ kernel
IPv4, chain FORWARD
- -P FORWARD DROP
+ -P FORWARD ACCEPT
IPv6, chain INPUT
- -P INPUT DROP
+ -P INPUT ACCEPT
DIFF
answers 0 reload
says '^Policy of INPUT of IPv6 restored to DROP$'
answers 0 status
answers 0 diff
step 'they drop' [ "$({ iptables -S FORWARD && ip6tables -S INPUT; } | grep --count '^-P .* DROP$')" = 2 ]
answers 0 reload
step 'a reload of the library' rules_probe reload
answers 0 disable
says '^Policy of FORWARD of IPv4 restored to DROP$'
answers 0 diff
answers 0 enable
step 'a reload of the library' rules_probe reload
step 'makes the policies ACCEPT' policies_accept

# A record that cannot be read is neither taken for an empty one nor replaced. A reload goes on.
readonly kRecord=/run/tarn/base_filter.json
mv -- "$kRecord" "$out/record"
ln -s -- "$kRecord" "$kRecord"
keep_listing opened
for command in up down; do
    answers 1 base "$command"
    complains "^tarnfw: cannot read $kRecord: Too many levels of symbolic links$"
    step 'nothing was removed' same_listing opened
    step 'nor replaced' [ -L "$kRecord" ]
done
answers 0 reload
complains "^tarnfw: policies that were DROP at \"tarnfw base up\" may be ACCEPT now: cannot read $kRecord: "
step 'a reload puts none back' policies_accept
answers 11 status
says "policies that were DROP at \"tarnfw base up\" may be ACCEPT now: cannot read $kRecord: "
rm -- "$kRecord"
mv -- "$out/record" "$kRecord"

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
