# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# status, base status, apply-mode and modules: what they show of the settings and the kernel, as text
# and as JSON, and what a failure leaves.
# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# --- nothing is set up -----------------------------------------------------------------------------

answers 0 base status --json
prints_json <<'END'
{"v4": {"absent": false, "inOrder": true, "setUp": false, "missing": {
    "chains": ["FIREWALL_RELOADING", "INPUT_FIREWALL", "FORWARD_FIREWALL"],
    "jumps": [["INPUT", "FIREWALL_RELOADING"], ["INPUT", "INPUT_FIREWALL"],
              ["FORWARD", "FIREWALL_RELOADING"], ["FORWARD", "FORWARD_FIREWALL"]]}},
 "v6": {"absent": false, "inOrder": true, "setUp": false, "missing": {
    "chains": ["FIREWALL_RELOADING", "INPUT_FIREWALL", "FORWARD_FIREWALL"],
    "jumps": [["INPUT", "FIREWALL_RELOADING"], ["INPUT", "INPUT_FIREWALL"],
              ["FORWARD", "FIREWALL_RELOADING"], ["FORWARD", "FORWARD_FIREWALL"]]}}}
END
answers 0 apply-mode --json
step 'the default' [ "$(jq -c '[.applyMode, .changed]' "$out/answer")" = '["lines",false]' ]
answers 0 apply-mode
prints <<<'lines: one command for each rule; new connections are dropped meanwhile'
step 'asking writes no settings' [ ! -e "$kSettings" ]
answers 0 status
silent
answers 0 adapters
silent
says '^There are no profiles; "tarnfw base up" writes a first one$'
says '^eth0  *up  *192\.168\.1\.10'
answers 0 adapters --json
step 'none is active' [ "$(jq .profile "$out/answer")" = null ]
mkdir -p -- "$kProfileDirectory"
answers 0 status
silent
step 'still no settings' [ ! -e "$kSettings" ]

# --- a first start ---------------------------------------------------------------------------------

answers 0 base up
says "^Settings written to $kSettings: apply mode \"batch\" (see \"tarnfw apply-mode\")$"
answers 0 apply-mode
prints <<<"batch: all rules are replaced at once"
answers 0 base status --json
prints_json <<'END'
{"v4": {"absent": false, "inOrder": true, "setUp": true, "missing": {"chains": [], "jumps": []}},
 "v6": {"absent": false, "inOrder": true, "setUp": true, "missing": {"chains": [], "jumps": []}}}
END

use_profile disabled_rule_and_absent_adapter
answers 0 apply-mode
prints <<<'lines: one command for each rule; new connections are dropped meanwhile'
answers 0 enable
answers 0 status --json
prints_json <<END
{"enabled": true, "asStored": true, "complaints": [],
 "nothingInForce": false, "interruptedReload": false, "bootFailure": null, "startsAtBoot": null,
 "profile": "disabled_rule_and_absent_adapter", "profileExists": true,
 "applyMode": "lines", "modulesLoaded": true, "trial": null,
 "kernel": {
  "v4": {"setUp": true, "inOrder": true, "base": "set up", "inForce": "asStored",
         "acceptedBefore": [], "redirects": [],
         "loadedRules": $(iptables -S | grep -c -e '^-A INPUT_FIREWALL' -e '^-A FORWARD_FIREWALL')},
  "v6": {"setUp": true, "inOrder": true, "base": "set up", "inForce": "asStored",
         "acceptedBefore": [], "redirects": [],
         "loadedRules": $(ip6tables -S | grep -c -e '^-A INPUT_FIREWALL' -e '^-A FORWARD_FIREWALL')}},
 "adapters": $(jq '[(.rules + .adapterPolicyMap | keys)[] as $name | {name: $name,
    present: ($name == "global" or $name == "eth0"),
    policy: (["allow", "deny", "none"][.adapterPolicyMap[$name]]),
    rules: (.rules[$name] // [] | length),
    rulesOff: ([.rules[$name] // [] | .[] | select(.enable | not)] | length),
    inProfile: true, open: null}]' \
    "$kProfileDirectory/disabled_rule_and_absent_adapter.json")}
END
answers 0 status
says '^Firewall: *enabled$'
says '^Apply mode: *lines$'
says '^In the kernel: *IPv4 [1-9][0-9]* rules\{0,1\}$'
says '^Kernel modules: *loaded for the firewall$'
says '^eth0  *'
says 'absent$'
silent

# --- enabled, but incomplete -----------------------------------------------------------------------

# status_keys STATUS: the members that report a broken state, in one line.
status_keys() {
    answers "$1" status --json >&2
    jq -c '[.enabled, .nothingInForce, .interruptedReload]' "$out/answer"
}

for tool in iptables ip6tables; do
    "$tool" -F INPUT_FIREWALL
    "$tool" -F FORWARD_FIREWALL
done
step 'nothing is in force' [ "$(status_keys 11)" = '[true,true,false]' ]
answers 11 status
says '^Firewall: *enabled, but no rules are in force and the machine is open; "tarnfw reload" applies them or shows why$'
ip6tables -A INPUT_FIREWALL -j RETURN
step 'one rule is something' [ "$(status_keys 11)" = '[true,false,false]' ]
ip6tables -F INPUT_FIREWALL
cat >"$kProfileDirectory/nothing.json" <<'END'
{"name": "nothing", "adapterPolicyMap": {"global": 2}, "rules": null}
END
answers 0 profile use nothing --reload
answers 0 status
says '^Firewall: *enabled$'
says '^eth0  *-  *0  *open: not in the profile$'
answers 0 status --json
step 'also as JSON' [ "$(jq -c '.adapters[-1] | [.name, .present, .inProfile, .open]' \
    "$out/answer")" = '["eth0",true,false,true]' ]
answers 0 check
prints <<'END'
nothing: warning: adapter "eth0" is open: not in the profile
nothing: valid
END
answers 0 check --strict
# A port of a bridge is none of its own: its packets come in by the bridge.
ip link add br0 type bridge
ip link set eth0 master br0
answers 0 check
prints <<'END'
nothing: warning: adapter "br0" is open: not in the profile
nothing: valid
END
ip link delete br0
# Where "global" ends in the denial of everything, an adapter is not open.
answers 0 rule add --adapter global deny any --reload
answers 0 status
says '^eth0  *-  *0  *not in the profile$'
answers 0 adapters
says '^eth0  *up .* -  *0  *not in the profile$'
answers 0 check --strict
prints <<<'nothing: valid'
answers 0 rule delete 1 --adapter global
answers 0 profile use disabled_rule_and_absent_adapter --reload

# The state that a killed reload in apply mode "lines" leaves.
ip6tables --policy INPUT DROP
step 'a policy alone is the administrator'"'"'s' [ "$(status_keys 0)" = '[true,false,false]' ]
ip6tables -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT
step 'a reload was interrupted' [ "$(status_keys 11)" = '[true,false,true]' ]
answers 11 status
says '^Firewall: *enabled, but a reload was interrupted: the machine is closed to new connections; "tarnfw reload" opens it$'
exec {lock}>/tmp/firewall_iptables_exec.lock
/usr/bin/python3 -c 'import fcntl, struct, sys
fcntl.fcntl(int(sys.argv[1]), 37, struct.pack("hhqqi", fcntl.F_WRLCK, 0, 0, 0, 0))' "$lock" # F_OFD_SETLK
step 'not while one is going on' [ "$(status_keys 11)" = '[true,false,false]' ]
answers 11 status
says '^Firewall: *enabled, but a reload is running; new connections are dropped meanwhile$'
exec {lock}>&-
answers 0 reload
step 'it is mended' [ "$(status_keys 0)" = '[true,false,false]' ]
step 'the policies accept' policies_accept
ip6tables -F FIREWALL_RELOADING

# --- after a restart -------------------------------------------------------------------------------

answers 0 enable
complains '^tarnfw: left out, without an interface now: eth7, pppoe, vpn$'
answers 0 profile use nothing --reload
answers 0 enable
says '^After a restart: in force only if the system runs "tarnfw boot" at its start (systemd does not run here)$'
complains '^tarnfw: open, because the profile does not mention them: eth0$'
answers 0 policy eth0 allow --reload
pretend_systemd
answers 0 enable
complains '^tarnfw: after a restart the firewall will not be in force: tarnfw.service is not enabled; "systemctl enable tarnfw" enables it$'
step 'nothing else is said of it' [ "$(wc -l <"$out/answer")" = 1 ]
answers 0 status
says '^After a restart: *not in force: tarnfw.service is not enabled; "systemctl enable tarnfw" enables it$'
answers 0 status --json
step 'also as JSON' [ "$(jq .startsAtBoot "$out/answer")" = false ]
answers 0 disable
answers 0 status
step 'a disabled firewall need not be' [ -z "$(grep 'After a restart' "$out/answer")" ]
enable_service
answers 0 enable
silent
says '^After a restart: in force again, by tarnfw.service$'
answers 0 status
says '^After a restart: *in force again, by tarnfw.service$'
answers 0 status --json
step 'but for programs' [ "$(jq .startsAtBoot "$out/answer")" = true ]
answers 0 enable --json
step 'who also learn it from "enable"' [ "$(jq .startsAtBoot "$out/answer")" = true ]
answers 0 profile use disabled_rule_and_absent_adapter --reload

# --- how rules are applied -------------------------------------------------------------------------

keep_listing lines
cp -- "$kSettings" /tmp/settings
answers 2 apply-mode sideways
step 'the settings are as they were' cmp "$kSettings" /tmp/settings
answers 0 apply-mode batch
prints <<<"batch: all rules are replaced at once"
step 'the other settings stay' [ "$(jq -c 'del(.apply)' "$kSettings")" = "$(jq -c . /tmp/settings)" ]
answers 0 reload
step 'the rules are the same' same_listing lines
answers 0 apply-mode lines
answers 0 reload
step 'and again' same_listing lines

# --- modules ---------------------------------------------------------------------------------------

answers 0 modules status
prints <<<'Modules are loaded for "firewall"'
answers 0 modules status --json
step 'its own' [ "$(jq -c '[.service, .loaded]' "$out/answer")" = '["firewall",true]' ]
step 'the modules in the list' [ "$(jq '.modules | length > 5' "$out/answer")" = true ]
answers 0 modules status vpn
prints <<<'Modules are not loaded for "vpn"'
answers 5 modules unload vpn
complains '^tarnfw: no modules are loaded for "vpn"$'
answers 0 modules load vpn --nat
prints <<<'Modules loaded for "vpn"'
answers 0 modules status vpn
prints <<<'Modules are loaded for "vpn"'
answers 0 modules unload vpn --nat
prints <<<'Modules released by "vpn"'
answers 5 modules unload vpn
answers 2 modules load 'a=b'
answers 2 modules load ''
answers 0 modules status
prints <<<'Modules are loaded for "firewall"'

answers 0 disable
answers 0 modules status
prints <<<'Modules are not loaded for "firewall"'
