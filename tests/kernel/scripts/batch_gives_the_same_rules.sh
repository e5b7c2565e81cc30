# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# Both apply modes put the same rules into the kernel: for the examples, and for a
# hundred random profiles, or a thousand in the long run. (The cases compare their own rules.)
readonly kProfiles=$((${TARN_LONG:-0} ? 1000 : 100)) kWorkers=4
readonly kSeed=${TARN_SEED:-20260101}

# Networks of their own, where the workers do not meet.
compare_in_own_network() {
    local link tool chain
    ip link set lo up
    for link in eth0 eth1; do
        ip link add "$link" type veth peer name "far-$link"
    done
    ip tuntap add tun0 mode tun
    for tool in iptables ip6tables; do
        for chain in INPUT_FIREWALL FORWARD_FIREWALL FIREWALL_RELOADING; do
            "$tool" -N "$chain"
        done
    done
    "$build/tests/kernel/rules_probe" "$@"
}
export -f compare_in_own_network
export build

make_links <<'END'
veth eth0 192.168.1.10/24 lan 192.168.1.20/24
veth eth1 10.20.0.10/24 lan 10.20.0.20/24
tun tun0 10.8.0.1/24
END
tarnfw base up
step 'the examples' rules_probe compare "$checkout"/examples/*.json

workers=()
for ((i = 0; i < kWorkers; ++i)); do
    unshare --net bash -c 'compare_in_own_network "$@"' worker \
        random $((kSeed + i)) $((kProfiles / kWorkers)) eth0 eth1 vpn &
    workers+=($!)
done
for worker in "${workers[@]}"; do
    step 'random profiles' wait "$worker"
done
