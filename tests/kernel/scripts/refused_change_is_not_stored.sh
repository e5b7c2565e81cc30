# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A change with "--reload" is stored and in force, or neither. Without it, a profile that the kernel
# would refuse is stored with a warning. "The kernel still has the old rules" is said only when they
# are other ones.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

answers 0 base up
use_profile deny_by_default
# A rule for a chain that does not exist, which every kernel refuses: switched off in the active
# profile, and on in "refused".
jq '.rules.eth0[2] = (.rules.eth0[0] | .chainList += ["NO_SUCH_CHAIN"] | .enable = false)' \
    "$kProfileDirectory/deny_by_default.json" >/tmp/active.json
cp /tmp/active.json "$kProfileDirectory/deny_by_default.json"
jq '.name = "refused" | .rules.eth0[2].enable = true' /tmp/active.json \
    >"$kProfileDirectory/refused.json"
commands=('rule on 3 --adapter eth0' 'profile use refused' "import --yes $out/use_refused.json")
printf '\0%.0s' {1..8} >/usr/share/xt_geoip/DE.iv4
if iptables -t raw -A PREROUTING -m geoip --source-country DE -j ACCEPT 2>/dev/null; then
    iptables -t raw -F PREROUTING # this kernel has the country match
else
    commands+=('rule add --adapter eth0 deny from country DE --v4'
        'rule insert 1 --adapter eth0 deny from country DE --v4'
        'rule set 1 --adapter eth0 deny from country DE --v4')
fi
readonly kWarning='^tarnfw: rule [0-9]* of [a-z0-9]*: this kernel refuses .*; stored, but a reload would be refused$'
ip link add eth7 type veth peer name far7
for mode in lines batch; do
    answers 0 apply-mode "$mode"
    answers 0 enable
    keep_listing enabled
    answers 0 export --force "$out/all.json"
    jq '.config_firewall_settings.profile = "refused"' "$out/all.json" >"$out/use_refused.json"
    keep_files before
    for command in "${commands[@]}"; do
        read -r -a words <<<"$command"
        answers 1 "${words[@]}" --reload
        step 'nothing is stored' same_files before
        step 'the old rules are in force' same_listing enabled
        step 'nothing else is said' [ "$(grep --count 'applied\|Rule\|active one' "$out/answer")" = 0 ]
    done

    answers 0 rule on 3 --adapter eth0
    step 'a warning' grep --quiet "${kWarning/\[0-9\]\* of/3 of}" "$out/complaint"
    answers 1 reload
    for command in 'profile copy deny_by_default other' "import --yes $out/refused.json" \
        "profile create third --from $out/refused_profile.json" \
        'service reserve ssh --adapter eth0 allow' 'adapter rename eth0 eth7'; do
        read -r -a words <<<"$command"
        tarnfw export --force "$out/refused.json" >/dev/null
        jq '.config_profiles |= with_entries(select(.value.name == "deny_by_default"))' \
            "$out/refused.json" >"$out/only.json"
        jq '.config_profiles[]' "$out/only.json" >"$out/refused_profile.json"
        jq '.config_profiles |= map_values(.rules.eth0[1].name = "new")' "$out/only.json" \
            >"$out/refused.json"
        answers 0 "${words[@]}"
        step "a warning after $command" grep --quiet "$kWarning" "$out/complaint"
    done
    answers 0 import --yes "$out/all.json"
    answers 0 reload
done

# Profiles that "--reload" does not apply, in mode "batch".
answers 0 service reserve rsync --adapter eth0 allow --reload
says '^Profile "deny_by_default" applied$'
step 'a warning about the other profile' \
    [ "$(grep --count "^tarnfw: rule 4 of eth0: this kernel refuses .*; profile \"refused\" has .*; stored, but" "$out/complaint")" = 1 ]
step 'and no other' [ "$(grep --count "$kWarning" "$out/complaint")" = 1 ]
answers 0 import --yes "$out/all.json"
answers 0 disable
for command in 'rule on 3 --adapter eth0' 'profile use refused' \
    'service reserve ssh --adapter eth0 allow'; do
    read -r -a words <<<"$command"
    answers 0 "${words[@]}" --reload
    says '^Firewall disabled: nothing to reload$'
    step "a warning after $command" grep --quiet "$kWarning" "$out/complaint"
done
answers 0 import --yes "$out/all.json"

# The whole of a change of all profiles.
answers 0 reload
keep_files before
keep_listing enabled
wrap_iptables
rm /tmp/wrapped/*-restore # a batch fails from now on
for command in 'service reserve ssh --adapter eth0 deny' 'adapter rename eth0 eth5' 'policy eth0 allow'; do
    read -r -a words <<<"$command"
    answers 1 "${words[@]}" --reload
    step 'nothing is stored' same_files before
    step 'the old rules are in force' same_listing enabled
done

umount "/usr/sbin/xtables-$variant-multi"
answers 0 policy eth0 deny # as it is
refuses 'nothing is new' grep --quiet 'kernel still has the old rules' "$out/answer"
answers 0 policy eth0 allow
says '^The kernel still has the old rules; '
answers 0 profile use deny_by_default
refuses 'the profile is the same' grep --quiet 'kernel still has the old rules' "$out/answer"
