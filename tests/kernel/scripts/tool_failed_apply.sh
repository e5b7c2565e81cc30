# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Rules that cannot be applied: what is rejected beforehand, and what a failure leaves.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

setting() {
    jq -r ".$1" "$kSettings"
}

# --- a machine with nothing ------------------------------------------------------------------------

answers 0 disable
silent
prints <<<'Firewall disabled'
step 'nothing is written' [ ! -e "$kProfileDirectory" ]

# --- an invalid profile -----------------------------------------------------------------------------

answers 0 base up
keep_listing base
use_profile deny_by_default
answers 0 apply-mode batch
sed 's/"22"/"99999"/; s/"deny_by_default"/"bad"/' "$kProfileDirectory/deny_by_default.json" \
    >"$kProfileDirectory/bad.json"
readonly kInvalid='^tarnfw: rule 2 of eth0: .*"99999".*; profile "bad" has 1 error'
readonly kWarned='^tarnfw: rule 2 of eth0: .*; profile "bad" has 1 error; "tarnfw check bad" lists all$'

activate bad
refused 3 "$kInvalid" enable
step 'nothing is in force' same_listing base

activate deny_by_default
answers 0 apply-mode batch
refused 3 "$kInvalid" profile use bad
answers 0 enable
keep_listing enabled
refused 3 "$kInvalid" profile use bad --reload
step 'the rules are the same' same_listing enabled

# Stored rules that are wrong already: said, and in the way of applying alone.
for command in 'policy eth1 deny --profile bad' 'rule off 1 --adapter eth0 --profile bad' \
    'rule add --adapter eth0 allow tcp 80 --profile bad' 'profile copy bad bad2'; do
    read -r -a words <<<"$command"
    answers 0 "${words[@]}"
    step 'it is said' grep --quiet -- '^tarnfw: rule 2 of eth0: .*; profile "bad2\?" has 1 error; "tarnfw check bad2\?" lists all$' \
        "$out/complaint"
done
answers 0 policy eth1 deny
complains '^tarnfw: there is no adapter "eth1" now: '

sed -i 's/"deny_by_default"/"bad"/' "$kSettings"
for command in 'policy eth1 allow' 'rule off 1 --adapter eth0' 'rule add --adapter eth0 allow tcp 81'; do
    read -r -a words <<<"$command"
    refused 3 "$kInvalid" "${words[@]}" --reload
done
step 'the rules are the same' same_listing enabled
answers 0 policy eth1 allow
step 'it is said' grep --quiet -- "$kWarned" "$out/complaint"

# A reload goes on, as far as this kernel takes the rules.
answers 1 reload
step 'it is said' grep --quiet -- "$kWarned" "$out/complaint"
step 'and what is in force' grep --quiet -- \
    '^tarnfw: rule 2 of eth0: this kernel refuses ".*99999.*; the active profile was not applied; the kernel still has the old rules$' "$out/complaint"
step 'that is true' same_listing enabled
answers 0 apply-mode lines
answers 1 reload
step 'the rule is named' grep --quiet -- \
    '^tarnfw: rule 2 of eth0: this kernel refuses ".*99999.*; profile "bad" has [0-9]* lines that it refuses; the active profile was not applied; nothing was changed$' \
    "$out/complaint"
step 'that is true' same_listing enabled

# --- rules that cannot be applied --------------------------------------------------------------------

sed -i 's/"bad"/"deny_by_default"/' "$kSettings"
for name in bad bad2; do
    answers 0 profile delete "$name"
done
answers 0 profile copy deny_by_default other
answers 0 apply-mode batch
answers 0 reload
keep_listing enabled
tarnfw export "$out/all.json"
wrap_iptables
rm /tmp/wrapped/*-restore # a batch fails from now on
readonly kNotApplied='the active profile was not applied; the kernel still has the old rules'

keep_files before
answers 1 profile use other --reload
step 'it is said' grep --quiet -- "^tarnfw: $kNotApplied; nothing was stored\$" \
    "$out/complaint"
step 'that is true' same_files before
step 'the rules are the same' same_listing enabled

jq '(.config_profiles[] | select(.name == "deny_by_default") | .rules.eth0[0].enable) = false' \
    "$out/all.json" >"$out/next.json"
answers 1 import --yes --reload "$out/next.json"
step 'it is said' grep --quiet -- \
    "^tarnfw: .*$kNotApplied; the import failed, and the previous configuration is restored\$" \
    "$out/complaint"
step 'that is true' same_files before
step 'the rules are the same' same_listing enabled

# What was off is off again.
answers 0 disable
cp -- "$kSettings" /tmp/settings
answers 1 enable
step 'it is said' grep --quiet -- '^tarnfw: the rules could not be applied; the firewall stays off$' \
    "$out/complaint"
step 'the settings say so' cmp "$kSettings" /tmp/settings
step 'nothing is in force' same_listing base

# After "base down" nothing can be in force: there is nothing to do for an interface that appears.
sed -i 's/"status" *: false/"status": true/' "$kSettings"
answers 0 base down
refused 1 '^tarnfw: the base filter is not set up (' reload
answers 0 reload --for eth0
prints <<<'The base filter is not set up, so no rules are in force: not reloaded'
