# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Unreadable settings stop a reload of the library before it changes anything; settings of a wrong type stop
# it halfway, and the policies accept again. Neither blocks the reload after the repair.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
tarnfw base up
use_profile deny_by_default
step 'the firewall is enabled' tarnfw enable
keep_listing enabled
cp -- "$kSettings" /tmp/settings

printf '{ "status" : tr' >"$kSettings"
refuses 'a reload with settings cut short' rules_probe reload
step 'the rules are untouched' same_listing enabled
step 'the damaged file is not overwritten' [ "$(<"$kSettings")" = '{ "status" : tr' ]

printf '{"status": true, "profile": {}}\n' >"$kSettings"
refuses 'a reload with a profile that is no text' rules_probe reload
step 'the policies accept' policies_accept
step 'IPv4: nothing is left of the closed moment' [ -z "$(iptables -S FIREWALL_RELOADING 1)" ]
step 'IPv6: nothing is left of the closed moment' [ -z "$(ip6tables -S FIREWALL_RELOADING 1)" ]

cp -- /tmp/settings "$kSettings"
step 'a reload with repaired settings succeeds' tarnfw reload
step 'the rules are back' same_listing enabled
