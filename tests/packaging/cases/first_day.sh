# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The first day with the packages, as a person types it: installation, the first profile, the firewall on, a port
# opened, a restart. What each command prints is printed, and packets show what holds.

# The machine's adapter, in the network of a neighbour and of a stranger.
make_adapter() {
    ip link add eth0 type veth peer name far0 netns far
    ip link set eth0 up
    ip netns exec far ip link set far0 up
    ip address add 192.168.1.10/24 dev eth0
    ip address add 203.0.113.10/24 dev eth0
    ip netns exec far ip address add 192.168.1.20/24 dev far0
    ip netns exec far ip address add 203.0.113.20/24 dev far0
}

# typed COMMAND...: prints the command and what it prints. Ends the test when it fails.
typed() {
    printf '\n# %s\n' "$*"
    within "$@" || {
        printf 'FAILED: %s\n' "$*" >&2
        exit 1
    }
}

# connects FROM TO PORT: whether a connection is accepted.
connects() {
    ip netns exec far /usr/bin/python3 - "$@" <<'END'
import socket
import sys

source, target, port = sys.argv[1:]
socket.create_connection((target, int(port)), timeout=2, source_address=(source, 0)).close()
END
}

neighbour_connects() {
    connects 192.168.1.20 192.168.1.10 "$1"
}

stranger_connects() {
    connects 203.0.113.20 203.0.113.10 "$1"
}

ip netns add far
make_adapter
for port in 22 445 8080; do
    /usr/bin/python3 -m http.server --bind 0.0.0.0 "$port" >/dev/null 2>&1 &
    until neighbour_connects "$port" 2>/dev/null; do
        sleep 0.05
    done
done

mkdir -p -- "$kRoot/run/systemd/system" # as where systemd runs

printf '\n# dpkg --install *.deb\n'
install_packages
typed tarnfw base up
typed tarnfw profile show
step 'nothing is closed yet' stranger_connects 445
typed tarnfw enable
step 'in force again after a restart' grep --quiet '^After a restart: in force again' <(within tarnfw enable)
step 'a neighbour connects by SSH' neighbour_connects 22
step 'and to the files' neighbour_connects 445
step 'a stranger does not' fails stranger_connects 22
step 'nor to the files' fails stranger_connects 445
step 'nor to a service of one'"'"'s own' fails stranger_connects 8080
typed tarnfw open
typed tarnfw rule add allow tcp 8080
step 'now a stranger connects to it' stranger_connects 8080
step 'and to nothing else' fails stranger_connects 22

ip link delete eth0
reboot
make_adapter
step 'after a boot everything is open' stranger_connects 22
printf '\n(the machine restarts: systemd starts tarnfw.service)\n'
step 'which the package has enabled' unit_is enabled
mapfile -t commands < <(sed -n 's/^ExecStart=//p' "$kRoot$kUnit")
for line in "${commands[@]}"; do
    read -ra command <<<"$line"
    typed "${command[@]}"
done
step 'the port is open' stranger_connects 8080
step 'a neighbour connects by SSH' neighbour_connects 22
step 'a stranger does not' fails stranger_connects 22
typed tarnfw status
typed tarnfw undo
step 'undone, the port is closed' fails stranger_connects 8080
