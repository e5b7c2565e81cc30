# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# tarnfw diff: a kernel that agrees with the active profile, and kernels that another program has
# changed since. Comparing changes nothing.
make_links <<<'veth eth0 192.168.1.10/24 2001:db8:1::10/64 lan 192.168.1.20/24 2001:db8:1::20/64'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

# differs: the answer is exactly what is read, and nothing was changed by asking.
differs() {
    cat >"$out/wanted"
    keep_listing changed
    answers 10 diff
    prints <"$out/wanted"
    step 'which changed nothing' same_listing changed
}

# --- disabled --------------------------------------------------------------------------------------

answers 0 diff
silent
prints <<<'The firewall is disabled and its chains are empty'
answers 0 base up
answers 0 diff
prints <<<'The firewall is disabled and its chains are empty'
iptables -A INPUT_FIREWALL -s 10.9.9.9 -j DROP
ip6tables -A FIREWALL_RELOADING -j ACCEPT
differs <<'DIFF'
--- firewall disabled
+++ kernel
IPv4, chain INPUT_FIREWALL
+ -A INPUT_FIREWALL -s 10.9.9.9/32 -j DROP
IPv6, chain FIREWALL_RELOADING
+ -A FIREWALL_RELOADING -j ACCEPT
DIFF
iptables -F INPUT_FIREWALL
ip6tables -F FIREWALL_RELOADING

# --- enabled ---------------------------------------------------------------------------------------

use_profile deny_by_default
answers 0 enable
answers 0 diff
silent
prints <<<'The kernel agrees with profile "deny_by_default"'
answers 0 diff --json
step 'as a document' diff -u - <(jq --compact-output --sort-keys . "$out/answer") <<'DIFF'
{"agree":true,"differences":[],"enabled":true,"profile":"deny_by_default","refusedLines":0}
DIFF

# Every file whose rules the kernel takes agrees, whatever is in it.
for profile in address_range network_by_mask_and_prefix many_ports source_port_and_igmp \
    logged_denial ipsec_raw_protocols ping_denied single_address; do
    use_profile "$profile"
    answers 0 enable
    answers 0 diff
done
use_profile deny_by_default
answers 0 enable
keep_listing enabled

# A rule put in, as quick help or as an attack would be.
iptables -I INPUT_FIREWALL 3 -s 10.9.9.9 -j RETURN
differs <<'DIFF'
--- profile "deny_by_default"
+++ kernel
IPv4, chain INPUT_FIREWALL
  ...
  -A INPUT_FIREWALL -m state --state RELATED,ESTABLISHED -j ACCEPT
+ -A INPUT_FIREWALL -s 10.9.9.9/32 -j RETURN
  -A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 80,443 -j RETURN
  ...
DIFF
answers 10 diff --json
step 'as a document' diff -u - <(jq --compact-output --sort-keys . "$out/answer") <<'DIFF'
{"agree":false,"differences":[{"chain":"INPUT_FIREWALL","change":"extra","family":"v4","position":3,"rule":"-A INPUT_FIREWALL -s 10.9.9.9/32 -j RETURN","table":"filter"}],"enabled":true,"profile":"deny_by_default","refusedLines":0}
DIFF
answers 0 reload
answers 0 diff
step 'a reload puts it right' same_listing enabled

# A rule taken out.
ip6tables -D INPUT_FIREWALL -i eth0 -j DROP
differs <<'DIFF'
--- profile "deny_by_default"
+++ kernel
IPv6, chain INPUT_FIREWALL
  ...
  -A INPUT_FIREWALL -i eth0 -p tcp -m multiport --dports 80,443 -j RETURN
- -A INPUT_FIREWALL -i eth0 -j DROP
DIFF
answers 0 reload

# The order counts.
iptables -D FORWARD_FIREWALL -i lo -j ACCEPT
iptables -A FORWARD_FIREWALL -i lo -j ACCEPT
answers 10 diff
step 'a rule at another place' [ "$(grep '^[-+] ' "$out/answer")" = \
    $'- -A FORWARD_FIREWALL -i lo -j ACCEPT\n+ -A FORWARD_FIREWALL -i lo -j ACCEPT' ]
answers 0 reload

# A chain emptied, and nothing but that chain.
iptables -F INPUT_FIREWALL
answers 10 diff
step 'all its rules are missing' diff -u \
    <(sed -n 's/^-A INPUT_FIREWALL/- &/p' "$out/enabled.v4") <(grep '^- ' "$out/answer")
step 'in one chain' [ "$(grep --count ', chain ' "$out/answer")" = 1 ]
answers 0 reload

# What an interrupted reload leaves, and a jump that is gone.
iptables -P INPUT DROP
ip6tables -P FORWARD DROP
for tool in iptables ip6tables; do
    "$tool" -A FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT
done
iptables -D FORWARD -j FORWARD_FIREWALL
differs <<'DIFF'
--- profile "deny_by_default"
+++ kernel
IPv4, chain INPUT
- -P INPUT ACCEPT
+ -P INPUT DROP
IPv4, chain FORWARD
- -A FORWARD -j FORWARD_FIREWALL
IPv4, chain FIREWALL_RELOADING
+ -A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT
IPv6, chain FORWARD
- -P FORWARD ACCEPT
+ -P FORWARD DROP
IPv6, chain FIREWALL_RELOADING
+ -A FIREWALL_RELOADING -m state --state RELATED,ESTABLISHED -j ACCEPT
DIFF
iptables -P INPUT ACCEPT
ip6tables -P FORWARD ACCEPT
iptables -F FIREWALL_RELOADING
ip6tables -F FIREWALL_RELOADING
iptables -A FORWARD -j FORWARD_FIREWALL
answers 0 diff

# A chain of the firewall that is gone altogether.
ip6tables -D FORWARD -j FORWARD_FIREWALL
ip6tables -F FORWARD_FIREWALL
ip6tables -X FORWARD_FIREWALL
answers 10 diff
says '^- -A FORWARD -j FORWARD_FIREWALL$'
says '^- -N FORWARD_FIREWALL$'
says '^- -A FORWARD_FIREWALL -i lo -j ACCEPT$'
answers 0 base up
answers 0 reload
answers 0 diff

# Other programs' rules are theirs.
iptables -A INPUT -s 10.1.1.1 -j DROP
iptables -N OTHERS
iptables -A OTHERS -j RETURN
iptables -t mangle -A PREROUTING -j ACCEPT
answers 0 diff

# --- rules for other chains and tables -------------------------------------------------------------

iptables -t mangle -N MARKED
jq '.name = "elsewhere" | .rules.eth0 = [
        .rules.eth0[1] | .chainList += ["OTHERS"],
        (.table = "mangle" | .chainList += ["MARKED"])]' \
    "$kProfileDirectory/deny_by_default.json" >"$kProfileDirectory/elsewhere.json"
answers 0 disable
activate elsewhere
sed -i 's/"status": false/"status": true/' "$kSettings"
refuses 'the tool does not leave lines out' tarnfw reload
step 'a reload of the library does' rules_probe reload
tarnfw diff >"$out/answer" 2>"$out/complaint" || fail 'not the same'
prints <<<'The kernel agrees with profile "elsewhere"'
complains '^tarnfw: rule 2 of eth0: this kernel refuses 2 lines of the profile; "tarnfw check --kernel" shows why$'
answers 0 diff --json
step 'as a number' [ "$(jq .refusedLines "$out/answer")" = 2 ]
# A second reload adds them a second time: that is how these are.
step 'a second time' rules_probe reload
answers 0 diff
iptables -F OTHERS
iptables -t mangle -F MARKED
answers 10 diff
step 'both are missing' diff -u - "$out/answer" <<'DIFF'
--- profile "elsewhere"
+++ kernel
IPv4, chain OTHERS
- -A OTHERS -s 192.168.1.20/32 -i eth0 -p tcp -m tcp --dport 22 -j RETURN
IPv4, chain MARKED, table mangle
- -A MARKED -s 192.168.1.20/32 -i eth0 -p tcp -m tcp --dport 22 -j RETURN
DIFF

# --- what it refuses -------------------------------------------------------------------------------

activate nowhere
printf '{"status": true, "profile": "nowhere"}\n' >"$kSettings"
answers 5 diff
complains '^tarnfw: there is no profile "nowhere"'
answers 2 diff deny_by_default
step 'no process is left' [ -z "$(pidof tarnfw)" ]
