# shellcheck shell=bash disable=SC2034,SC2154
# What the cases of tests/packaging share. Sourced by run, inside the sandbox, with `checkout` and
# `variant` set.

readonly kRoot=/run/system   # the small Debian that the packages go into
readonly kWork=/run/listings # what it and the packet filter looked like at some time
readonly kPackages=(
    libtarnfirewall1 libtarnfwadmin1 libtarnplatform1 tarnfirewall-common libtarnfirewall-dev
    libtarnfwadmin-dev tarnfw
)
readonly kUnit=/lib/systemd/system/tarnfw.service
readonly kStore=/usr/tarn/etc/firewall.d

# --- steps -----------------------------------------------------------------------------------------

# step WHAT COMMAND...: ends the test when the command fails, with everything that it printed.
step() {
    local what=$1 output
    shift
    if ! output=$("$@" 2>&1); then
        printf 'FAILED: %s\n%s\n' "$what" "$output" >&2
        exit 1
    fi
    printf 'ok: %s\n' "$what"
}

# Succeeds when the command fails.
fails() {
    ! "$@"
}

# --- the system ------------------------------------------------------------------------------------

# Runs a command in the small Debian, with nothing of this shell's environment.
within() {
    chroot "$kRoot" env --ignore-environment HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C \
        DEBIAN_FRONTEND=noninteractive "$@"
}

make_system() {
    local family
    mkdir -p -- "$kRoot" "$kWork"
    mount -t tmpfs -o mode=755 tmpfs "$kRoot"
    tar --extract --file="$checkout/build/package-test/root.tar" --directory="$kRoot" \
        --keep-directory-symlink
    mkdir -p -- "$kRoot"/{proc,sys,dev,run/lock,root,tmp,var/log,var/tmp}
    chmod 1777 -- "$kRoot"/{run/lock,tmp,var/tmp}
    mount --rbind /proc "$kRoot/proc"
    mount --rbind /sys "$kRoot/sys"
    mount --rbind /dev "$kRoot/dev"
    within ldconfig
    for family in iptables ip6tables; do
        within update-alternatives --quiet --set "$family" "/usr/sbin/$family-$variant" >/dev/null
    done
}

install_packages() {
    local package debs=()
    for package in "${kPackages[@]}"; do
        debs+=("$checkout/build/package/${package}_"*.deb)
    done
    mkdir -- "$kRoot/debs"
    cp -- "${debs[@]}" "$kRoot/debs/"
    # shellcheck disable=SC2016  # the inner shell expands it
    within sh -c 'exec dpkg --install /debs/*.deb' || return 1
    rm -r -- "$kRoot/debs"
}

# reboot: what a boot does to the running system. Profiles and settings stay.
reboot() {
    local family
    for family in iptables ip6tables; do
        within "$family" -P INPUT ACCEPT
        within "$family" -P FORWARD ACCEPT
        within "$family" -F
        within "$family" -X
    done
    rm -rf -- "$kRoot"/run/tarn "$kRoot"/run/lock/firewall "$kRoot"/run/xtables.lock "$kRoot"/tmp/*
}

# Everything in the system that a package could leave: type, mode, owner, path, target, content. Not
# what dpkg, ldconfig and iptables keep for themselves, except which packages dpkg knows.
list_system() {
    local path pruned=()
    for path in ./proc ./sys ./dev './var/lib/dpkg/*' './var/log/*' ./var/cache/ldconfig \
        ./run/xtables.lock; do
        pruned+=(-path "$path" -prune -o)
    done
    (
        cd -- "$kRoot" || exit 1
        find . "${pruned[@]}" -printf '%p %M %U:%G %l\n' | LC_ALL=C sort
        find . "${pruned[@]}" -type f -print0 | LC_ALL=C sort --zero-terminated | xargs -0 sha256sum
    )
    # shellcheck disable=SC2016  # dpkg-query expands them
    within dpkg-query --show --showformat='${binary:Package} ${Version} ${Status}\n'
}

# Both families' rules, without counters and dates.
list_rules() {
    within iptables-save -t filter | grep --invert-match '^#' | sed 's/ \[.*\]$//'
    within ip6tables-save -t filter | grep --invert-match '^#' | sed 's/ \[.*\]$//'
}

keep() {
    "list_$1" >"$kWork/$1.$2"
}

# same system|rules NAME: compared with what keep wrote.
same() {
    diff -u "$kWork/$1.$2" <("list_$1")
}

unit_is() {
    [[ $(systemctl --root="$kRoot" is-enabled tarnfw.service 2>&1) == "$1" ]]
}
