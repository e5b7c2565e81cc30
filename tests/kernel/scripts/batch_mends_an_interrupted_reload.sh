# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A killed reload in apply mode "lines" leaves policies that drop and a rule in FIREWALL_RELOADING. A
# batch reverts both if it finds the rule, and otherwise leaves the policies alone.
readonly kReloading='FIREWALL_RELOADING -m state --state ESTABLISHED,RELATED -j ACCEPT'
readonly kEmpty='{}'

# interrupted TOOL TIMES: as that many killed reloads leave the family.
interrupted() {
    local i
    "$1" --policy INPUT DROP
    "$1" --policy FORWARD DROP
    for ((i = 0; i < $2; ++i)); do
        # shellcheck disable=SC2086  # words
        "$1" -A $kReloading
    done
}

tarnfw base up
for tool in iptables ip6tables; do
    "$tool" -I FIREWALL_RELOADING -i tun7 -j RETURN # somebody else's
done
keep_listing whole

interrupted iptables 1
interrupted ip6tables 3
step 'a batch succeeds' rules_probe batch - <<<"$kEmpty"
step 'all is mended' same_listing whole

interrupted ip6tables 1
step 'a batch succeeds' rules_probe batch - <<<"$kEmpty"
step 'one family is mended' same_listing whole

# A reload that was killed between the policies of IPv6 and its rule.
interrupted iptables 1
interrupted ip6tables 0
step 'a batch succeeds' rules_probe batch - <<<"$kEmpty"
step 'the sign of one family mends both' same_listing whole

# Without the rule, policies are the administrator's.
iptables --policy INPUT DROP
ip6tables --policy FORWARD DROP
keep_listing strict
step 'a batch succeeds' rules_probe batch - <<<"$kEmpty"
step 'the policies stay' same_listing strict

interrupted iptables 2
interrupted ip6tables 1
keep_listing interrupted
refuses 'a batch that the kernel refuses' rules_probe batch - \
    <<<'{"v6": {"eth0": ["-A INPUT_FIREWALL -p tcp -j MASQUERADE"]}}'
step 'mends nothing' same_listing interrupted

# A real reload in apply mode "lines", killed before its first rule.
iptables -F FIREWALL_RELOADING
ip6tables -F FIREWALL_RELOADING
for tool in iptables ip6tables; do
    "$tool" --policy INPUT ACCEPT
    "$tool" --policy FORWARD ACCEPT
done
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'
use_profile deny_by_default
choose_apply batch
step 'the firewall is enabled' tarnfw enable
keep_listing enabled
step 'a reload is interrupted' rules_probe closed
step 'the machine is closed' [ "$(iptables -S INPUT | head -n 1)" = '-P INPUT DROP' ]
step 'a reload succeeds' tarnfw reload
step 'all is mended' same_listing enabled

# Such a batch is applied in two runs. A command that is killed after the second one has stored its change.
tarnfw profile copy deny_by_default other >/dev/null
step 'a reload is interrupted' rules_probe closed
refuses 'a command that is killed before it ends its change' strace -f -qq -o /dev/null \
    -P "$kProfileDirectory/.change/documents" -e trace=unlink -e inject=unlink:signal=KILL \
    "$build/tools/tarnfw/tarnfw" profile use other --reload --yes
step 'the next command keeps the change' test "$(tarnfw profile list 2>&1 | grep --count \
    '^tarnfw: a change .* is kept: its rules had been applied$\|^\* other')" = 2
step 'the rules are those of the store' tarnfw diff
