# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A reload whose profile or settings cannot be read or translated, or whose lines this kernel refuses,
# is refused before anything changes, in both apply modes.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kProfile=$kProfileDirectory/deny_by_default.json

# refused_with PATTERN: reload and enable are refused so, and the rules stay.
refused_with() {
    local command status=0
    for command in reload enable; do
        printf -- '-- %s, %s: %s\n' "$mode" "$command" "$1"
        status=0
        tarnfw "$command" >"$out/answer" 2>"$out/complaint" || status=$?
        step 'it is refused' [ "$status" != 0 ]
        step 'it is said' grep --quiet -- "$1" "$out/complaint"
        step 'the rules are in force' same_listing enabled
    done
    cp -- /tmp/profile "$kProfile"
    cp -- /tmp/settings "$kSettings"
}

answers 0 base up
use_profile deny_by_default
cp -- "$kProfile" /tmp/profile
for mode in lines batch; do
    answers 0 apply-mode "$mode"
    answers 0 enable
    keep_listing enabled
    cp -- "$kSettings" /tmp/settings

    head -c 100 /tmp/profile >"$kProfile"
    refused_with 'there is no profile "deny_by_default"'
    : >"$kProfile"
    refused_with 'there is no profile "deny_by_default"'
    rm -- "$kProfile"
    refused_with 'there is no profile "deny_by_default"'
    sed 's/"policy" : 0/"policy" : 7/' /tmp/profile >"$kProfile"
    refused_with 'rule [12] of eth0'
    sed 's/"protocol" : 1/"protocol" : "tcp"/' /tmp/profile >"$kProfile"
    refused_with 'cannot be read'
    printf '[]' >"$kSettings"
    refused_with 'no JSON object'
    printf '{"status": "yes", "profile": "deny_by_default", "apply": "%s"}' "$mode" >"$kSettings"
    refused_with 'neither true nor false'
    printf '{"status": true, "apply": "%s"}' "$mode" >"$kSettings"
    refused_with 'name no profile'
done

# A line that only the kernel refuses: the country match is not part of every kernel.
if ! iptables -t raw -A PREROUTING -m geoip --source-country DE -j ACCEPT 2>/dev/null; then
    printf '\0%.0s' {1..8} >/usr/share/xt_geoip/DE.iv4
    for mode in lines batch; do
        answers 0 apply-mode "$mode"
        jq '.rules.eth0[0] |= (.ipType = 0 | .ipGroup = 3 | .ipList = ["DE"])' /tmp/profile >"$kProfile"
        cp -- "$kSettings" /tmp/settings
        refused_with 'geoip'
        [[ $mode == batch ]] || {
            jq '.rules.eth0[0] |= (.ipType = 0 | .ipGroup = 3 | .ipList = ["DE"])' /tmp/profile \
                >"$kProfile"
            answers 1 reload
            step 'the rule is named' grep --quiet 'rule 1 of eth0' "$out/complaint"
            cp -- /tmp/profile "$kProfile"
        }
    done
fi
step 'the profile as it was' tarnfw reload
step 'is in force' same_listing enabled
