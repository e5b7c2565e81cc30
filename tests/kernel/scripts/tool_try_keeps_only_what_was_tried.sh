# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# During a trial the commands that would end it unseen are refused, except for "disable". What other
# programs change meanwhile is noticed: "Kept" is said only of rules that were in force until then.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"
# shellcheck source=tests/kernel/trials.sh
source "$checkout/tests/kernel/trials.sh"

# not_kept REASON NOW: a confirmation is refused, and the trial is over.
not_kept() {
    answers 1 try --confirm
    complains "^tarnfw: profile \"$new\" was not kept: $1; $2$"
    ends 1 "was not kept: $1; $2$"
}

is_off() {
    answers 0 status
    says '^Firewall: *disabled$'
    ! grep '^Trial:' "$out/answer" || fail 'a trial of a disabled firewall'
    step 'nothing is in force' [ -z "$(listing v4 | grep -- '^-A INPUT_FIREWALL')" ]
    step 'the active profile is the same' \
        [ "$(tarnfw profile list | grep '^\*')" = '* deny_by_default' ]
    step 'no test profile is left' no_test_profile
    answers 5 try --confirm
    complains '^tarnfw: there is no trial: the firewall is disabled, and nothing was kept$'
}

store_two_profiles
keep_both_listings

# --- commands of the tool --------------------------------------------------------------------------

tarnfw export "$out/all.json" >/dev/null
jq '(.config_profiles[] | select(.name == "deny_by_default") | .rules.eth0) |= .[:1]' "$out/all.json" \
    >"$out/other.json"
in_background "$new" --timeout "$kLong"
keep_listing tried
for command in 'reload' 'enable --yes' "profile use $new" 'profile use deny_by_default --reload' \
    'profile rename deny_by_default other' "profile rename $new other" "profile delete $new" \
    'policy eth0 allow --profile deny_by_default --reload' "import --yes $out/other.json" \
    "import --yes --reload $out/other.json" 'base up' 'base down' boot; do
    # shellcheck disable=SC2086  # words
    refused 1 "^tarnfw: a trial of \"$new\" is running; \"tarnfw try --confirm\" keeps its rules, \"tarnfw try --cancel\" restores the previous ones$" \
        $command
    step 'the rules on trial are in force' same_listing tried
done
answers 0 profile create spare --empty
answers 0 profile rename spare unused
answers 0 profile delete unused
answers 0 try --confirm
prints <<<"Kept: profile \"$new\" is now the active one"
ends 0
step 'the rules are the new ones' same_listing new
answers 0 profile use deny_by_default --reload --yes
step 'the rules are those of before' same_listing home
cp -- "$kSettings" /tmp/settings

in_background "$new" --timeout "$kLong"
answers 0 disable
prints <<END
Firewall disabled
The trial of "$new" has ended
END
ends 1 'was not kept: .*; the firewall is disabled$'
is_off
answers 0 enable --yes
step 'the rules are those of before' same_listing home

# --- other programs --------------------------------------------------------------------------------

in_background "$new" --timeout "$kLong"
step 'another program disables the firewall' rules_probe reset
ends 1 'was not kept: the firewall was disabled during the trial; the firewall is disabled$'
is_off
answers 0 enable --yes

in_background "$new" --timeout "$kLong"
step 'another program disables the firewall' rules_probe reset
answers 1 try --confirm
ends 1 'the firewall is disabled$'
is_off
answers 0 enable --yes
cp -- "$kSettings" /tmp/settings

for mode in lines batch; do
    answers 0 apply-mode "$mode"
    cp -- "$kSettings" /tmp/settings

    in_background "$new" --timeout "$kLong"
    step 'another program reloads' rules_probe hup
    not_kept 'its rules are no longer in force: another program has changed them' \
        "the active profile's rules are in force"
    gone_back

    in_background "$new" --timeout "$kLong"
    step 'another program empties a chain' iptables -F INPUT_FIREWALL
    not_kept 'its rules are no longer in force: another program has changed them' \
        "the active profile's rules are in force"
    gone_back

    # What cannot be applied any more is still put back.
    in_background "$new" --timeout "$kLong"
    cp -- "$kProfileDirectory/deny_by_default.json" /tmp/active.json
    echo '{' >"$kProfileDirectory/deny_by_default.json"
    answers 0 try --cancel
    ends 1 'was not kept: cancelled; the previous rules are in force again$'
    cp -- /tmp/active.json "$kProfileDirectory/deny_by_default.json"
    gone_back
done

readonly kChanged='the profile was changed or deleted during the trial'

in_background "$new" --timeout "$kLong"
answers 0 rule add --profile "$new" --adapter eth0 allow tcp 8080
not_kept "$kChanged" 'the previous rules are in force again'
gone_back
answers 0 profile show "$new"
says '8080'

in_background "$new" --timeout "$kLong"
cp -- "$kProfileDirectory/new.json" /tmp/new.json
rm -- "$kProfileDirectory/new.json"
not_kept "$kChanged" 'the previous rules are in force again'
step 'the profile stays deleted' [ ! -e "$kProfileDirectory/new.json" ]
gone_back
