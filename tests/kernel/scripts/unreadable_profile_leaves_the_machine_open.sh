# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A reload of the library that cannot read the active profile fails, and leaves policies that accept and
# empty chains: the machine stays reachable. The tool refuses such a reload.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
tarnfw base up
keep_listing base

use_profile deny_by_default
step 'the firewall is enabled' tarnfw enable
sed -i 's/"deny_by_default"/"nowhere"/' "$kSettings"
refuses 'a reload of a profile that does not exist' rules_probe reload
step 'the chains are empty and the policies accept' same_listing base
step 'the firewall still counts as enabled' grep --quiet '"status" : true' "$kSettings"

use_profile deny_by_default
step 'the firewall is enabled again' tarnfw enable
sed -i 's/"protocol" : 1/"protocol" : "tcp"/' "$kProfileDirectory/deny_by_default.json"
refuses 'a reload of a profile with a wrong type' rules_probe reload
step 'the chains are empty and the policies accept' same_listing base

printf '{ "name" : "deny_by_default", ' >"$kProfileDirectory/deny_by_default.json"
refuses 'a reload of a profile cut short' rules_probe reload
step 'the chains are empty and the policies accept' same_listing base
step 'the firewall can be disabled' tarnfw disable

use_profile deny_by_default
choose_apply batch
step 'with rules in force' tarnfw enable
printf '{ "name" : "deny_by_default", ' >"$kProfileDirectory/deny_by_default.json"
answers 5 reload
complains '^tarnfw: there is no profile "deny_by_default".*; the kernel still has the old rules'
step 'the log comes after the cause' grep --quiet '^tarnfw: fwDB:[0-9]* Failed to load json' \
    "$out/complaint"
