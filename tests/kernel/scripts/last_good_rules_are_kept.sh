# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The rules that a command has put in force are kept for the next boot, for root alone, and removed by
# "disable"; a refused reload does not change them.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kLastGood=/usr/tarn/etc/firewall.last_good.json

as_in_force() {
    rules_probe put-back "$kLastGood" && same_listing enabled
}

umask 0
answers 0 base up
use_profile deny_by_default
for mode in lines batch; do
    answers 0 apply-mode "$mode"
    answers 0 enable
    keep_listing enabled
    step 'they are kept' as_in_force
    step 'for root alone' [ "$(stat -c %a "$kLastGood")" = 600 ]
    written=$(stat -c %i "$kLastGood")
    answers 0 reload
    step 'and not written again' [ "$(stat -c %i "$kLastGood")" = "$written" ]
    answers 0 policy eth0 allow --reload
    step 'as it is in force' [ "$(jq -r .v4 "$kLastGood")" = \
        "$(rules_probe save | jq -r .v4 | grep --invert-match '^:\(INPUT\|FORWARD\) ')" ]
    cp -- "$kLastGood" /tmp/good
    cp -- "$kSettings" /tmp/settings
    sed -i 's/"deny_by_default"/"nowhere"/' "$kSettings"
    answers 5 reload
    step 'a refused reload changes nothing' cmp "$kLastGood" /tmp/good
    cp -- /tmp/settings "$kSettings"
    answers 0 policy eth0 deny --reload
    answers 0 disable
    step '"disable" removes them' [ ! -e "$kLastGood" ]
done
