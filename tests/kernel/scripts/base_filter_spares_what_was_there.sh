# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# "base down" removes what "base up" added. What the administrator, another program or the system had
# added stays, even under one of the firewall's own names.
for tool in iptables ip6tables; do
    "$tool" -N ELSEWHERE
    "$tool" -A ELSEWHERE -p tcp --dport 7 -j DROP
    "$tool" -A INPUT -j ELSEWHERE
    "$tool" -A INPUT -p udp --dport 7 -j DROP
    "$tool" -A FORWARD -p tcp --dport 9 -j DROP
done
iptables -N INPUT_FIREWALL
iptables -I INPUT -j INPUT_FIREWALL # where "base up" moves it anyway
ip6tables -N FIREWALL_RELOADING
keep_listing before

step 'up' tarnfw base up
step 'what was missing is there' iptables -C FORWARD -j FORWARD_FIREWALL
step 'in IPv6 too' ip6tables -C INPUT -j FIREWALL_RELOADING
for tool in iptables ip6tables; do
    step "$tool: the foreign rules are kept" "$tool" -C ELSEWHERE -p tcp --dport 7 -j DROP
    step "$tool: and the jump to them" "$tool" -C INPUT -j ELSEWHERE
done
step 'a jump that was there is not doubled' [ "$(iptables -S INPUT | grep -c INPUT_FIREWALL)" = 1 ]

step 'down' tarnfw base down
step 'all is as before' same_listing before
