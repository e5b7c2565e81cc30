# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# The commands of the service work with the capabilities, the writable paths and the system calls that it
# has, and fail with less.

# unit_setting NAME: all values of a setting, in one line.
unit_setting() {
    sed -n "s/^$1=//p" "$kRoot$kUnit" | paste --serial --delimiters=' '
}

# start_service CAPABILITIES WRITABLE-PATHS [UNIT]: runs the service's commands with these alone, as systemd
# would with ProtectSystem=strict, and with the system calls that the unit allows. The first command, with a
# dash, waits for udev, which is not here.
start_service() (
    local capabilities=-all capability
    for capability in $1; do
        capability=${capability#CAP_}
        capabilities+=,+${capability,,}
    done
    # shellcheck disable=SC2016  # the inner shell expands them
    unshare --mount --propagation private -- bash -euc '
        restricted=$1 unit=$2 root=$3 paths=$4 capabilities=$5
        shift 5
        mount --rbind "$root" "$root"
        for path in $paths; do
            mount --bind "$root$path" "$root$path"
        done
        mount -o remount,bind,ro "$root"
        for line; do
            read -ra command <<<"$line"
            "$restricted" "$unit" "$root" setpriv --bounding-set="$capabilities" --inh-caps=-all \
                --ambient-caps=-all --no-new-privs -- "${command[@]}"
        done
    ' start_service "$here/restricted" "${3-$kRoot$kUnit}" "$kRoot" "$2" "$capabilities" "${commands[@]}"
)

without() {
    printf '%s' "${1/$2/}"
}

step 'the packages install' install_packages
mapfile -t commands < <(sed -n 's/^ExecStart=//p' "$kRoot$kUnit")
capabilities=$(unit_setting CapabilityBoundingSet)
paths=$(unit_setting ReadWritePaths)
printf '%s\n' "commands: ${commands[*]}" "capabilities: $capabilities" "writable: $paths"
step 'the unit names commands, capabilities and paths' \
    [ "${#commands[@]}" -ge 1 -a -n "$capabilities" -a -n "$paths" ]
step 'it shares /tmp with other processes' [ "$(unit_setting PrivateTmp)" = no ]
keep rules before

step 'a first start, with nothing there' start_service "$capabilities" "$paths"
step 'writes no profile' [ ! -e "$kRoot$kStore" ]
step 'and adds no chain' same rules before
step 'the base comes up, with all rights' within tarnfw base up

# A profile that root reads by privilege alone, as it does one that another user keeps to themselves.
rm -- "$kRoot$kStore"/*
sed 's/"name": "default"/"name": "own"/' "$kRoot/usr/tarn/etc.defaults/firewall_default_profile.json" \
    >"$kRoot$kStore/own.json"
printf '{"profile": "own", "status": false}\n' >"$kRoot$kStore/firewall_settings.json"
chmod 0 -- "$kRoot$kStore/own.json"
step 'the firewall is enabled, with all rights' within tarnfw enable
step 'with this profile' grep --quiet '^Active profile: *own$' <(within tarnfw status)
keep rules enabled
reboot
step 'after a boot, the rules are gone' same rules before
step 'the service starts' start_service "$capabilities" "$paths"
step 'and the same rules are there' same rules enabled
step 'a reload of the service' start_service "$capabilities" "$paths"
step 'leaves the same rules' same rules enabled

reboot
step 'without CAP_NET_ADMIN it does not start' \
    fails start_service "$(without "$capabilities" CAP_NET_ADMIN)" "$paths"
step 'and there are not these rules' fails same rules enabled
reboot
step 'without CAP_DAC_READ_SEARCH, and so without the profile, it fails' \
    fails start_service "$(without "$capabilities" CAP_DAC_READ_SEARCH)" "$paths"
step 'with the rules of the last successful reload in force' same rules enabled

# tries_rules CAPABILITIES [UNIT]: whether a start loads the rules into a network namespace first.
tries_rules() {
    local output
    output=$(start_service "$1" "$paths" "${@:2}" 2>&1)
    printf '%s\n' "$output"
    [[ $output != *'not tried beforehand'* ]]
}

within tarnfw apply-mode lines
reboot
step 'in apply mode "lines" the rules are tried first' tries_rules "$capabilities"
step 'for which it has CAP_SYS_ADMIN' fails tries_rules "$(without "$capabilities" CAP_SYS_ADMIN)"
within tarnfw apply-mode batch

# --- an interface that appears later -----------------------------------------------------------------

# start_adapter_service NAME: as systemd would when udev has found the interface.
start_adapter_service() {
    local command
    read -ra command < <(sed -n 's/^ExecStart=//p' "$kRoot/lib/systemd/system/tarnfw-adapter@.service")
    within "${command[@]//%i/$1}"
}

ip tuntap add wg0 mode tun
within tarnfw rule add --adapter wg0 allow udp 51820
within tarnfw policy wg0 deny
ip link delete wg0
within tarnfw reload
step 'a rule for an absent interface is left out' fails grep --quiet wg0 <(list_rules)
ip tuntap add wg0 mode tun
step 'the service for the interface starts' start_adapter_service wg0
step 'and its rules are in force' grep --quiet 'wg0.*51820' <(list_rules)
step 'not for an interface that the profile has nothing for' \
    grep --quiet ' has nothing for "veth7": not reloaded$' <(start_adapter_service veth7)
within tarnfw profile copy own other
within tarnfw policy veth7 deny --profile other
step 'nor for one that another profile has rules for' \
    grep --quiet ' has nothing for "veth7": not reloaded$' <(start_adapter_service veth7)
within tarnfw profile delete other
ip link delete wg0
within tarnfw rule delete 1 --adapter wg0
within tarnfw policy wg0 none
within tarnfw reload
keep rules enabled

# A change that was interrupted in the middle of another user's profile.
interrupt_change() {
    chown 1000 -- "$kRoot$kStore/own.json"
    mkdir -- "$kRoot$kStore/.change"
    cp --preserve -- "$kRoot$kStore"/*.json "$kRoot$kStore/.change/"
    printf 'firewall_settings.json/\nown.json/\n/\n' >"$kRoot$kStore/.change/documents"
    : >"$kRoot$kStore/own.json"
}

cp -- "$kRoot$kStore/own.json" "$kWork/own.json"
interrupt_change
if [[ $(</proc/sys/fs/protected_hardlinks) == 1 ]]; then
    step 'without CAP_FOWNER an interrupted change is not undone' \
        fails start_service "$(without "$capabilities" CAP_FOWNER)" "$paths"
fi
reboot
step 'with it, it is undone' start_service "$capabilities" "$paths"
step 'so that the profile is as before' cmp -- "$kWork/own.json" "$kRoot$kStore/own.json"
step 'and in force' same rules enabled

# without_word WORD: the unit without it, as the file restricted.service.
without_word() {
    sed "s/\(=.*\)$1/\1/" "$kRoot$kUnit" >"$kWork/restricted.service"
}

reboot
without_word AF_NETLINK
step 'without AF_NETLINK it does not start' fails start_service "$capabilities" "$paths" "$kWork/restricted.service"
within tarnfw apply-mode lines
reboot
without_word net
step 'where a namespace is not allowed, the rules are not tried first' \
    fails tries_rules "$capabilities" "$kWork/restricted.service"
within tarnfw apply-mode batch

if [[ $variant == legacy ]]; then
    # A raw socket is how this variant speaks to the kernel.
    reboot
    step 'without CAP_NET_RAW it does not start' \
        fails start_service "$(without "$capabilities" CAP_NET_RAW)" "$paths"
fi
for path in $paths; do
    reboot
    # A start writes to the store where a change was interrupted.
    [[ $path != /usr/tarn/* ]] || interrupt_change
    step "where $path is not writable it does not start" \
        fails start_service "$capabilities" "$(without "$paths" "$path")"
done
