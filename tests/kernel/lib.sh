# shellcheck shell=bash
# shellcheck disable=SC2154  # build, out and variant are the caller's
# Shared by tests/kernel/run and the scripts in scripts/. Sourced, inside the sandbox; expects
#   build     the build directory          out       the directory for this test's listings
#   checkout  the top of the checkout      variant   nft or legacy

readonly kProfileDirectory=/usr/tarn/etc/firewall.d
readonly kSettings=$kProfileDirectory/firewall_settings.json
readonly kClients=lan # the network that the clients are in

networks=() # the network namespaces besides the machine's own
router=no   # whether the machine forwards between them

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# tarnfw ARGUMENT...: the tool. "base up" leaves settings by which changes of the active profile are only
# stored, as on a machine that had a profile before: most tests look at what is stored but not applied. With
# changes=applied they stay as it writes them.
changes=stored
tarnfw() {
    local status=0
    "$build/tools/tarnfw/tarnfw" "$@" || status=$?
    if [[ $changes == stored && $* == 'base up'* ]] &&
        grep --quiet --no-messages '"applyChanges"' "$kSettings"; then
        sed -i '/"applyChanges"/d' "$kSettings"
    fi
    return "$status"
}

# hold FILE, release: another program holds the lock of a file, and lets it go.
hold() {
    local ready
    exec {ready}< <(exec /usr/bin/python3 -c '
import fcntl, signal, struct, sys
file = open(sys.argv[1], "a+")
F_OFD_SETLKW = 38
fcntl.fcntl(file, F_OFD_SETLKW, struct.pack("hhqqi4x", fcntl.F_WRLCK, 0, 0, 0, 0))
print("held", flush=True)
signal.pause()' "$1")
    holder=$!
    [[ $(head -n 1 <&"$ready") == held ]] || fail "cannot lock $1"
}

release() {
    kill "$holder"
}

# need_other_users: ends the test as skipped in the sandbox of an ordinary user, who is alone there.
need_other_users() {
    local first count
    while read -r first _ count; do
        ((first > 65534 || first + count <= 65534)) || return 0
    done </proc/self/gid_map
    echo 'skipped: there is one user in this user namespace'
    exit 77
}

# in_network NETWORK COMMAND...: runs it in that network namespace.
in_network() {
    nsenter --net="/run/netns/$1" -- "${@:2}"
}

# step TEXT COMMAND...: prints TEXT, runs COMMAND, and ends the test if it fails.
step() {
    local text=$1
    shift
    printf -- '-- %s\n' "$text"
    "$@" || fail "$text"
}

# refuses TEXT COMMAND...: the same for a command that must fail.
refuses() {
    local text=$1
    shift
    printf -- '-- %s\n' "$text"
    if "$@"; then
        fail "$text"
    fi
}

# add_addresses RUNNER LINK ADDRESS/LENGTH...: RUNNER is a command to put before "ip", or empty.
add_addresses() {
    local runner link=$2 address flags
    read -r -a runner <<<"$1"
    shift 2
    for address; do
        flags=()
        # Without this an IPv6 address cannot be used until a second has passed.
        [[ $address != *:* ]] || flags=(nodad)
        "${runner[@]}" ip address add "$address" dev "$link" "${flags[@]}"
    done
    "${runner[@]}" ip link set "$link" up
}

# await_carrier SHOW...: waits until the link shown is up. The kernel brings the two ends of a veth up in
# the background and drops packets sent before; a dropped first packet would cost a second.
await_carrier() {
    until [[ $("$@") == *'state UP'* ]]; do
        sleep 0.02
    done
}

# make_link veth NAME ADDRESS/LENGTH... NETWORK ADDRESS/LENGTH...
# make_link tun NAME ADDRESS/LENGTH...
# Adds a link of this machine. A veth's other end is in the namespace NETWORK and has the addresses
# that follow it.
make_link() {
    local kind=$1 name=$2 near=() network=''
    shift 2
    while (($# > 0)) && [[ $1 == */* ]]; do
        near+=("$1")
        shift
    done
    case $kind in
    veth)
        network=$1
        shift
        if [[ " ${networks[*]} " != *" $network "* ]]; then
            networks+=("$network")
            ip netns add "$network"
            in_network "$network" ip link set lo up
        fi
        ip link add "$name" type veth peer name "far-$name" netns "$network"
        add_addresses "in_network $network" "far-$name" "$@"
        ;;
    tun) ip tuntap add "$name" mode tun ;;
    *) fail "no such kind of link: $kind" ;;
    esac
    add_addresses '' "$name" "${near[@]}"
    if [[ $kind == veth ]]; then
        await_carrier ip link show "$name"
        await_carrier in_network "$network" ip link show "far-$name"
    fi
    if [[ $router == yes && -n $network ]]; then
        add_default_routes "$network" "${near[@]}"
    fi
}

add_default_routes() {
    local network=$1 address
    shift
    for address; do
        in_network "$network" ip route add default via "${address%/*}"
    done
}

# make_links: one make_link for each line read. A first line "router" makes this machine forward.
make_links() {
    local words
    while read -r -a words; do
        case ${words[0]-} in
        '' | \#*) ;;
        router)
            router=yes
            echo 1 >/proc/sys/net/ipv4/ip_forward
            echo 1 >/proc/sys/net/ipv6/conf/all/forwarding
            # A router asks for its neighbours from link-local addresses: use these at once too.
            echo 0 >/proc/sys/net/ipv6/conf/default/accept_dad
            ;;
        *) make_link "${words[@]}" ;;
        esac
    done
}

# listing v4|v6: prints the filter table of the kernel.
listing() {
    case $1 in
    v4) iptables -S ;;
    v6) ip6tables -S ;;
    esac
}

# keep_listing NAME: the filter table of both families, kept as NAME.v4 and NAME.v6.
keep_listing() {
    listing v4 >"$out/$1.v4"
    listing v6 >"$out/$1.v6"
}

# same_listing NAME: fails and prints the difference if the filter table is not as kept.
same_listing() {
    keep_listing now
    diff -u "$out/$1.v4" "$out/now.v4" && diff -u "$out/$1.v6" "$out/now.v6"
}

# serve KIND/NUMBER...: answers on these ports until the test ends, on the machine and in every
# network but the clients'.
serve() {
    local network ready
    for network in '' "${networks[@]}"; do
        [[ $network != "$kClients" ]] || continue
        exec {ready}< <(
            exec ${network:+nsenter --net="/run/netns/$network" --} \
                "$build/tests/kernel/packet_probe" serve "$@"
        )
        [[ $(head -n 1 <&"$ready") == ready ]] || fail "cannot serve $*"
    done
}

# check_packets: sends the probes on standard input, as the clients.
check_packets() {
    in_network "$kClients" "$build/tests/kernel/packet_probe" check
}

# activate PROFILE: makes it the active profile in the settings, whether or not it exists.
activate() {
    printf '{"status": false, "profile": "%s"}\n' "$1" >"$kSettings"
}

# use_profile NAME: stores the profile of that case and makes it the active one.
use_profile() {
    local profile=$1
    cp -- "$checkout/tests/kernel/cases/$profile/profile.json" "$kProfileDirectory/$profile.json"
    activate "$profile"
}

# pretend_systemd: systemd seems to run the machine, and the service is installed with /etc writable, but
# not enabled.
pretend_systemd() {
    mkdir -p -- /run/systemd/system /tmp/etc/{new,work}
    mount -t overlay -o lowerdir=/etc,upperdir=/tmp/etc/new,workdir=/tmp/etc/work overlay /etc
    rm -rf -- /etc/systemd/system
    mkdir -p -- /etc/systemd/system/sysinit.target.wants
    cp -- "$checkout/packaging/tarnfw.service" /etc/systemd/system/
}

# As "systemctl enable tarnfw" and "systemctl disable tarnfw" do it.
enable_service() {
    ln -s -- ../tarnfw.service /etc/systemd/system/sysinit.target.wants/tarnfw.service
}

disable_service() {
    rm -- /etc/systemd/system/sysinit.target.wants/tarnfw.service
}

# choose_apply lines|batch: sets the apply mode.
choose_apply() {
    sed -i -e '/"apply"/d' -e "s/^{/{ \"apply\": \"$1\",/" "$kSettings"
}

# empty_chains: empties the chains, as in a new base filter.
empty_chains() {
    local tool chain
    for tool in iptables ip6tables; do
        for chain in INPUT_FIREWALL FORWARD_FIREWALL; do
            "$tool" -F "$chain"
        done
    done
}

# rules_probe ARGUMENT...: the program that applies command documents and compares both apply modes.
rules_probe() {
    "$build/tests/kernel/rules_probe" "$@"
}

# policies_accept: whether the built-in chains of both families let everything through.
policies_accept() {
    ! { listing v4 && listing v6; } | grep -- '^-P .* DROP'
}

# --- a reload, step by step ------------------------------------------------------------------------

readonly kCommands=/tmp/commands # each change run: the caller's process, the tool, its arguments
readonly kPauseAt=/tmp/pause_at  # a pattern: the next command like it waits
readonly kPaused=/tmp/paused     # read to wait until it does
readonly kResume=/tmp/resume     # written to let it go on

# Replaces iptables and ip6tables with a wrapper that records the commands that change the filter,
# and pauses on request. Their companions, such as iptables-restore, stay as they are.
wrap_iptables() {
    local program=/usr/sbin/xtables-$variant-multi tool
    mkdir /tmp/wrapped
    for tool in {iptables,ip6tables}{,-save,-restore}; do
        cp -- "$program" "/tmp/wrapped/$tool"
    done
    mkfifo "$kPaused" "$kResume"
    : >"$kCommands"
    cat >/tmp/wrapper <<END
#!/bin/sh
case \${0##*/} in
*-restore | *-save) exec "/tmp/wrapped/\${0##*/}" "\$@" ;;
esac
command="\${0##*/} \$*"
case \$command in
# A listing does not wait for a command that is paused and whose caller holds the lock of iptables.
*' -S'*) export XTABLES_LOCKFILE=/tmp/listing.lock ;;
*) echo "\$PPID \$command" >>$kCommands ;;
esac
if [ -e $kPauseAt ]; then
    case \$command in
    \$(cat $kPauseAt))
        rm $kPauseAt
        echo >$kPaused
        read -r _ <$kResume
        ;;
    esac
fi
exec "/tmp/wrapped/\${0##*/}" "\$@"
END
    chmod +x /tmp/wrapper
    mount --bind /tmp/wrapper "$program"
}

# pause_at PATTERN: where the next reload is to stop, such as "iptables -F *".
pause_at() {
    printf '%s' "$1" >"$kPauseAt"
}

await_pause() {
    read -r _ <"$kPaused"
}

resume() {
    echo >"$kResume"
}
