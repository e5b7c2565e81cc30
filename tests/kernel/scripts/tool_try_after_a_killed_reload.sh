# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# What a killed reload has left in FIREWALL_RELOADING does not keep connections alive that the rules
# on trial deny. Policies that others have set stay.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"
# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

store_two_profiles
keep_both_listings

for mode in lines batch; do
    answers 0 apply-mode "$mode"
    cp -- "$kSettings" /tmp/settings

    # The machine is still closed: there is nothing to go back to.
    step 'a reload is killed' rules_probe closed
    keep_listing closed
    answers 1 try "$new" --timeout 1
    complains "^tarnfw: profile \"$new\" was not tried: a reload was interrupted: the machine is closed to new connections; \"tarnfw reload\" opens it$"
    step 'nothing has changed' same_listing closed
    step 'no test profile is left' no_test_profile

    # It was opened again, and the rule is left.
    for tool in iptables ip6tables; do
        "$tool" -P INPUT ACCEPT
        "$tool" -P FORWARD ACCEPT
    done
    in_background "$new" --timeout "$kLong"
    for family in v4 v6; do
        step 'no rule for established connections' [ -z "$(listing "$family" | grep ESTABLISHED)" ]
    done
    answers 0 try --cancel
    ends 1
    gone_back

    # Of a container host, for instance.
    iptables -P FORWARD DROP
    keep_listing home
    in_background "$new" --timeout "$kLong"
    step 'the policy stays' grep --quiet --line-regexp -- '-P FORWARD DROP' <(listing v4)
    answers 0 try --cancel
    ends 1
    gone_back
    iptables -P FORWARD ACCEPT
    keep_listing home
done
