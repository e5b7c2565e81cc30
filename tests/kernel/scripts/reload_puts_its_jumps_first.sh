# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A reload and "base up" put the firewall's own jumps ahead of rules that others have put before them,
# once each, and leave those rules in their order.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

others_come_first() {
    local tool chain
    for tool in iptables ip6tables; do
        for chain in INPUT FORWARD; do
            "$tool" -I "$chain" 1 -p tcp --dport 22 -j ACCEPT
            "$tool" -I "$chain" 2 -p tcp --dport 23 -j ACCEPT
            "$tool" -A "$chain" -j "${chain}_FIREWALL" # once more than it should be
            "$tool" -A "$chain" -p tcp --dport 24 -j ACCEPT
        done
    done
}

jumps_come_first() {
    local tool chain
    for tool in iptables ip6tables; do
        for chain in INPUT FORWARD; do
            diff -u - <("$tool" -S "$chain" | tail -n +2) <<END || return 1
-A $chain -j FIREWALL_RELOADING
-A $chain -j ${chain}_FIREWALL
-A $chain -p tcp -m tcp --dport 22 -j ACCEPT
-A $chain -p tcp -m tcp --dport 23 -j ACCEPT
-A $chain -p tcp -m tcp --dport 24 -j ACCEPT
END
        done
    done
}

forget_others() {
    local tool chain port
    for tool in iptables ip6tables; do
        for chain in INPUT FORWARD; do
            for port in 22 23 24; do
                "$tool" -D "$chain" -p tcp --dport "$port" -j ACCEPT
            done
        done
    done
}

answers 0 base up
use_profile deny_by_default
answers 0 enable
for mode in lines batch; do
    answers 0 apply-mode "$mode"
    others_come_first
    answers 0 reload
    step "$mode: the jumps come first" jumps_come_first
    forget_others
done
others_come_first
answers 0 base up
step 'so they do after "base up"' jumps_come_first
