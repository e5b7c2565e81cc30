# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "base up" and "base down" can be repeated any number of times.
keep_listing before
step 'up' tarnfw base up
keep_listing up
step 'a first profile is there' grep --quiet 'default$' <(tarnfw profile list)
profiles=("$kProfileDirectory"/*.json)

step 'up again' tarnfw base up
step 'nothing is there twice' same_listing up
again=("$kProfileDirectory"/*.json)
step 'no second profile is written' [ "${profiles[*]}" = "${again[*]}" ]

for chain in INPUT FORWARD; do
    step "$chain meets FIREWALL_RELOADING first" [ "$(iptables -S "$chain" 1)" = \
        "-A $chain -j FIREWALL_RELOADING" ]
done

step 'down' tarnfw base down
step 'all is as before' same_listing before
step 'down again' tarnfw base down
step 'still as before' same_listing before
