# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# While the chains are rebuilt the machine is closed, but not to established connections; nor
# does a profile that denies them afterwards end them.
links='veth eth0 192.168.1.10/24 2001:db8:1::10/64 lan 192.168.1.20/24 2001:db8:1::20/64'
make_links <<<"$links"
wrap_iptables
tarnfw base up
use_profile deny_by_default
step 'the firewall is enabled' tarnfw enable
serve tcp/443

# say TEXT: the connection brings it back.
say() {
    local answer
    printf '%s\n' "$1" >&"${talk[1]}"
    read -r -t 30 answer <&"${talk[0]}" && [[ $answer == "$1" ]]
}

for address in 192.168.1.10 2001:db8:1::10; do
    family=$([[ $address == *:* ]] && echo 6 || echo 4)
    tool=$([[ $family == 6 ]] && echo ip6tables || echo iptables)
    coproc talk { exec nsenter --net="/run/netns/$kClients" -- \
        "$build/tests/kernel/packet_probe" talk "$address" 443; }
    talker=$talk_PID
    read -r -t 30 greeting <&"${talk[0]}"
    step "$address: the connection is open" [ "$greeting" = connected ]
    step 'it carries data' say before

    # The closed moment: the policies drop, the chains are empty.
    pause_at "$tool *-A INPUT_FIREWALL -i lo*"
    tarnfw reload &
    reload=$!
    await_pause
    step 'the policy drops' [ "$("$tool" -S INPUT | head -n 1)" = '-P INPUT DROP' ]
    step 'a new connection is shut out' check_packets <<<"tcp$family $address 443 blocked"
    step 'the standing one carries data' say during
    resume
    step 'the reload succeeds' wait "$reload"
    step 'a new connection is let in' check_packets <<<"tcp$family $address 443 open"
    step 'the standing one carries data' say after

    sending=${talk[1]}
    exec {sending}>&-
    wait "$talker"
done

# From now on the port is closed, to new connections.
coproc talk { exec nsenter --net="/run/netns/$kClients" -- \
    "$build/tests/kernel/packet_probe" talk 192.168.1.10 443; }
read -r -t 30 greeting <&"${talk[0]}"
sed -i 's/"https"/"ssh"/; s/"http", //' "$kProfileDirectory/deny_by_default.json"
step 'the port is closed by a reload' tarnfw reload
step 'a new connection is shut out' check_packets <<<'tcp4 192.168.1.10 443 blocked'
step 'the standing one carries data' say still
