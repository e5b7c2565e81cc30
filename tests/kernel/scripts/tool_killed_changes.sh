# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A change of many documents that is killed at any system call is there as a whole or not at all: the next
# command undoes what was half done, even one that only reads.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

store_home_and_copy
answers 0 export /tmp/all.json
# Another set of profiles: one goes, one comes, one changes, and one more is active.
jq '(.config_profiles[] | select(.name == "home") | .rules.eth0[0].labelList) = ["new"]
    | .config_profiles["77.json"] = {name: "fresh", rules: null, adapterPolicyMap: {global: 2}}
    | del(.config_profiles[] | select(.name == "third"))
    | .config_firewall_settings.profile = "fresh"' /tmp/all.json >/tmp/other.json

step 'killed at its system calls' /usr/bin/python3 \
    "$checkout/tests/kernel/scripts/tool_killed_changes.py" "$build/tools/tarnfw/tarnfw" \
    "$([[ -v TARN_LONG ]] && echo 1 || echo 8)"
