# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Where "base up" has written the first profile, every command that changes the active profile of an enabled
# firewall applies the change, with the guards of --reload: both or neither, and the question over SSH.
# --later only stores it.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

changes=applied

applied() {
    says '^Profile "[a-z]*" applied$'
    step 'the kernel agrees' tarnfw diff
}

only_stored() {
    step 'nothing is applied' [ "$(grep -c 'applied$\|nothing to reload' "$out/answer")" = 0 ]
    step 'the kernel is as it was' same_listing before
}

setting() {
    jq -c ".$1" "$kSettings"
}

# --- the setting -----------------------------------------------------------------------------------

answers 0 base up
says '^Commands apply their changes of the active profile at once; "--later" leaves that out$'
step 'the settings say so' [ "$(setting applyChanges)" = true ]
keep_listing before
answers 0 rule add allow tcp 8080 # of a firewall that is disabled
only_stored
answers 0 enable

# --- every command ---------------------------------------------------------------------------------

answers 0 rule add allow tcp 8081
prints <<END
Opens tcp 8081 on eth0, for everybody
$(grep '^Rule [0-9]* of global: allow tcp 8081 from anywhere$' "$out/answer")
Profile "default" applied
END
applied
# What makes no rules for the kernel leaves it as it is.
for words in 'rule add deny tcp 8085 --disabled' 'rule delete deny tcp 8085 --disabled' \
    'rule add deny tcp 8085 --adapter eth9' 'rule delete deny tcp 8085 --adapter eth9'; do
    read -r -a words <<<"$words"
    answers 0 "${words[@]}" --later
    refuses 'the kernel has the rules' grep --quiet 'still has the old rules' "$out/answer"
done
# What is for an adapter that is not there opens nothing, and one that no sentence names is not said to be absent.
answers 0 rule add allow tcp 8085 --adapter eth9
step 'nothing is said to be open' [ "$(grep -c 'open' "$out/answer")" = 0 ]
answers 0 profile create unnamed
answers 0 profile use unnamed
step 'nor absent' [ "$(grep -c 'no interface now' "$out/answer")" = 0 ]
answers 0 profile use default
answers 0 profile delete unnamed
answers 0 rule delete allow tcp 8085 --adapter eth9
# A rule that is there already, but was only stored.
answers 0 rule add allow tcp 8084 --later
says '^Once applied: opens tcp 8084 on eth0, for everybody$'
answers 0 rule add allow tcp 8084
says '^Rule [0-9]* of global is this rule already: '
applied
answers 0 rule add allow tcp 8084
step 'which is enough' [ "$(wc -l <"$out/answer")" = 1 ]
answers 0 rule delete allow tcp 8084
answers 0 policy eth0 allow
applied
answers 0 service reserve nfs allow --adapter eth0
applied
answers 0 adapter rename eth0 eth7
applied
answers 0 adapter rename eth7 eth0
applied
answers 0 profile create other
keep_listing before
for words in 'policy eth0 deny --profile other' 'rule add --profile other allow tcp 8082' \
    'service update' 'policy eth0 deny --later'; do
    read -r -a words <<<"$words"
    answers 0 "${words[@]}"
    only_stored
done
says '^The kernel still has the old rules; "tarnfw reload" applies the new ones$'
answers 11 status
answers 0 profile use other
applied
printf '#!/bin/sh\nsed -i s/8082/8083/ "$1"\n' >/tmp/editor
chmod +x /tmp/editor
EDITOR=/tmp/editor answers 0 profile edit
applied
step 'as edited' grep --quiet -- '--dport 8083\|--dports 8083' <(iptables -S)
answers 0 export "$out/exported.json"
answers 0 policy eth0 allow
answers 0 import --yes "$out/exported.json"
applied
answers 2 policy eth0 allow --reload --later

# --- what a change is compared with ----------------------------------------------------------------

# What is in force, not what was only stored before.
answers 0 profile use default
answers 0 rule add allow tcp 8090 --later
says '^Once applied: opens tcp 8090 on eth0, for everybody$'
answers 0 rule add allow tcp 8092
says '^Opens tcp 8090,8092 on eth0, for everybody (rules [0-9]* and [0-9]* of global)$'
answers 0 rule add allow tcp 8094 --later
answers 0 undo --later
step 'it was never open' [ "$(grep -c 'closes\|still has the old rules' "$out/answer")" = 0 ]
iptables -A INPUT_FIREWALL -p tcp --dport 9 -j DROP
answers 0 rule delete allow tcp 8092
says '^Closes tcp 8092 .*; more may change, since other rules were in force than those stored before$'
iptables -F INPUT_FIREWALL
ip6tables -F INPUT_FIREWALL
iptables -F FORWARD_FIREWALL
ip6tables -F FORWARD_FIREWALL
answers 0 rule add allow tcp 8096
says '^Closes everything on eth0, for everybody, that no rule before it decides (the default policy of eth0)$'
answers 0 rule delete allow tcp 8096
answers 0 rule delete allow tcp 8090
# An import that enables the firewall, or disables it.
answers 0 export "$out/enabled.json"
answers 0 disable
answers 0 import --yes --dry-run "$out/enabled.json"
says '^Once imported and applied: closes everything on eth0, '
answers 0 import --yes "$out/enabled.json"
says '^Once applied: closes everything on eth0, '
says '^The firewall is now enabled in the settings, but its rules are not in force until "tarnfw reload"$'
answers 0 rule add allow tcp 8097
says '^Closes everything on eth0, '
applied
answers 0 import --dry-run "$out/enabled.json"
says '^Once imported: closes tcp 8097 on eth0, for everybody '
answers 0 import --yes "$out/enabled.json"
says '^Closes tcp 8097 on eth0, for everybody '
applied
jq '.config_firewall_settings.status = false' "$out/enabled.json" >"$out/disabled.json"
answers 0 import --dry-run "$out/disabled.json"
says '^Once imported: opens everything$'
answers 0 import --yes "$out/disabled.json"
says '^Opens everything$'
says '^Firewall disabled$'
answers 0 enable
answers 0 profile use other

# --- both or neither -------------------------------------------------------------------------------

keep_listing before
export SSH_CONNECTION='192.168.1.20 50000 192.168.1.10 22'
refused 1 'you are connected over SSH .*; nothing was changed' rule insert 1 --adapter global deny tcp 22
only_stored
asked 1 'Apply it anyway? [y/N] ' n rule insert 1 --adapter global deny tcp 22
only_stored
asked 0 'Apply it anyway? [y/N] ' y rule insert 1 --adapter global deny tcp 22
step 'the kernel agrees' tarnfw diff
answers 0 rule delete 1 --adapter global
applied
answers 0 rule insert 1 --adapter global deny tcp 22 --later
answers 0 rule delete 1 --adapter global --later
unset SSH_CONNECTION
iptables -D INPUT -j INPUT_FIREWALL
refused 1 'the base filter is not set up' policy eth0 allow
answers 0 policy eth0 allow --later
answers 0 base up
answers 0 policy eth0 deny

# --- machines that are used to --reload ------------------------------------------------------------

keep_listing before
for value in false '"true"' 1 null; do
    jq ".applyChanges = $value" "$kSettings" >/tmp/settings
    cat /tmp/settings >"$kSettings"
    answers 0 policy eth0 allow
    only_stored
    answers 0 policy eth0 deny
    only_stored
done
jq 'del(.applyChanges)' "$kSettings" >/tmp/settings
cat /tmp/settings >"$kSettings"
answers 0 policy eth0 allow
only_stored
answers 0 base up # which finds a profile
step 'the settings still say nothing' [ "$(setting applyChanges)" = null ]
# A document with the member brings it, as it does the others.
answers 0 import --yes "$out/exported.json"
step 'the import brings it' [ "$(setting applyChanges)" = true ]
jq 'del(.config_firewall_settings.applyChanges)' "$out/exported.json" >"$out/without.json"
answers 0 import --yes "$out/without.json"
step 'one without it leaves it' [ "$(setting applyChanges)" = true ]
