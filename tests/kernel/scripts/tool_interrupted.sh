# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Commands that change the kernel run to their end even without their terminal: an interrupted reload
# in apply mode "lines" would leave the machine closed.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# interrupt SCENARIO ARGUMENT...: of tool_interrupted.py, with the tool's arguments.
interrupt() {
    printf -- '-- %s: tarnfw %s\n' "$1" "${*:2}"
    /usr/bin/python3 "$checkout/tests/kernel/scripts/tool_interrupted.py" "$1" \
        "$build/tools/tarnfw/tarnfw" "${@:2}" || fail "$1 of tarnfw ${*:2}"
}

# in_force: the machine is open and has all of the rules.
in_force() {
    step 'the policies accept' policies_accept
    step 'the rules are whole' same_listing enabled
}

wrap_iptables
answers 0 base up
keep_listing base
use_profile deny_by_default
answers 0 enable
keep_listing enabled

readonly kMiddle='ip6tables *-A INPUT_FIREWALL *' # the machine is closed then

for scenario in ctrl_c terminal_lost terminated; do
    for command in reload enable; do
        pause_at "$kMiddle"
        interrupt "$scenario" "$command"
        in_force
    done
    pause_at 'ip6tables -F *'
    interrupt "$scenario" disable
    step 'the chains are empty' same_listing base
    answers 0 status
    says '^Firewall: *disabled$'
    pause_at "$kMiddle"
    interrupt "$scenario" enable
    in_force
done

pause_at "$kMiddle"
interrupt stopped reload
in_force

pause_at "$kMiddle"
interrupt progress reload
in_force

# --- what is written meanwhile ---------------------------------------------------------------------

# To a file, nothing but the result.
answers 0 reload
silent
prints <<<'Profile "deny_by_default" applied'

# The log comes of a reload that fails alone, and does not end it.
sed -i 's/"policy" : 0/"policy" : 7/' "$kProfileDirectory/deny_by_default.json"
answers 3 reload
step 'the reason' grep --quiet '^tarnfw: rule 1 of eth0 cannot be translated, .*; the active profile was not applied; ' "$out/complaint"
step 'the policies accept' policies_accept
interrupt nobody_reads reload
step 'the policies accept' policies_accept
