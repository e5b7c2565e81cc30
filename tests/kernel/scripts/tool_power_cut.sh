# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# After a power cut a change that was reported as done is there, and one that was under way is there as a
# whole or not at all. The store is on a disk of its own, ext4 and then xfs; a copy of the disk as it is at
# some moment is what a power cut leaves: what was not flushed by then is not in it.
make_links <<<'veth eth0 192.168.1.10/24 lan 192.168.1.20/24'

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

cuts=16 # on each file system
[[ ! -v TARN_LONG ]] || cuts=50
readonly kStep=23 # milliseconds later with each cut, modulo 100: so long do the commands take
readonly kDisk=/tmp/disk kCut=/tmp/disk_after_cut kStart=/tmp/store_at_start

# mount_disk IMAGE FILE_SYSTEM [OPTION...]: as the profile directory. The loop device goes with the mount,
# even that of a test that failed.
mount_disk() {
    local device
    # Another process may take the device that was found free.
    until
        device=$(losetup --find)
        [[ -e $device ]] || mknod "$device" b 7 "${device#/dev/loop}"
        losetup "$device" "$1" 2>"$out/losetup"
    do
        grep --quiet 'resource busy' "$out/losetup" || fail "$(cat -- "$out/losetup")"
    done
    mount -t "$2" "${@:3}" "$device" "$kProfileDirectory"
    losetup --detach "$device"
}

# documents: the content of all documents below the profile directory.
documents() {
    (cd -- "$kProfileDirectory" && sha256sum -- *.json)
}

# reset: the store as at the start, on the disk.
reset() {
    find "$kProfileDirectory" -mindepth 1 -delete
    cp -- "$kStart"/* "$kProfileDirectory"
    sync --file-system "$kProfileDirectory"
}

# after_cut FILE_SYSTEM: mounts the copied disk in place of the other, lets a command that reads see it,
# and leaves the documents in $found.
after_cut() {
    local options=()
    [[ $1 != xfs ]] || options=(-o nouuid) # two disks with one identity
    mount_disk "$kCut" "$1" "${options[@]}"
    answers 0 profile list
    found=$(documents)
    [[ ! -e $kProfileDirectory/.change/documents ]] || fail 'the journal is still there'
    answers 0 apply-mode lines
    step 'nothing is left' [ "$(find "$kProfileDirectory" -mindepth 1 ! -path '*/.history*' ! -name '*.json' \
        ! -name lost+found)" = "" ]
    umount "$kProfileDirectory"
}

# cut_during MILLISECONDS ARGUMENT...: a power cut so long after the command began.
cut_during() {
    local command
    "$build/tools/tarnfw/tarnfw" "${@:2}" >/dev/null 2>&1 </dev/null &
    command=$!
    sleep "$(printf '0.%03d' "$1")"
    kill -STOP -- "$command" 2>/dev/null || true
    cp --sparse=always -- "$kDisk" "$kCut"
    kill -CONT -- "$command" 2>/dev/null || true
    wait "$command" || fail "tarnfw ${*:2}"
}

# cuts_of FILE_SYSTEM ARGUMENT...: power cuts during the command, and one right after it.
cuts_of() {
    local old new found i
    reset
    old=$(documents)
    answers 0 "${@:2}"
    cp --sparse=always -- "$kDisk" "$kCut"
    new=$(documents)
    [[ $new != "$old" ]] || fail 'the command changes nothing'
    after_cut "$1"
    [[ $found == "$new" ]] || fail "what was reported as done is lost: ${*:2}"
    for ((i = 0; i < cuts / ${#changes[@]}; ++i)); do
        reset
        cut_during $((i * kStep % 100)) "${@:2}"
        after_cut "$1"
        [[ $found == "$old" ]] && ((before += 1))
        [[ $found == "$old" || $found == "$new" ]] || fail "half of it is there: ${*:2}"
        ((during += 1))
    done
}

store_home_and_copy
jq '(.config_profiles[] | select(.name == "home") | .rules.eth0[0].labelList) = ["new"]
    | .config_profiles["77.json"] = {name: "fresh", rules: null, adapterPolicyMap: {global: 2}}
    | .config_firewall_settings.profile = "fresh"' <(tarnfw export) >/tmp/other.json
cp -a -- "$kProfileDirectory" "$kStart"
readonly changes=(
    'import --yes /tmp/other.json'
    'profile rename home casa'
    'adapter rename eth0 lan0'
    'rule add --adapter eth0 --profile home allow tcp 80'
)

if ! mknod /dev/loop-control c 10 237 2>/dev/null || ! losetup --find >/dev/null 2>&1; then
    echo 'skipped: no loop devices'
    exit 77
fi
disks=0
for kind in ext4 xfs; do
    grep --quiet --word-regexp "$kind" /proc/filesystems || {
        echo "no $kind in this kernel"
        continue
    }
    before=0 during=0
    rm -f -- "$kDisk"
    truncate --size=300M "$kDisk"
    "mkfs.$kind" -q "$kDisk"
    mount_disk "$kDisk" "$kind"
    for change in "${changes[@]}"; do
        # shellcheck disable=SC2086  # words
        cuts_of "$kind" $change
    done
    umount "$kProfileDirectory"
    printf '%s: %d cuts during a change, %d of them left the store as before; %d right after one\n' \
        "$kind" "$during" "$before" "${#changes[@]}"
    ((disks += 1))
done
if ((disks == 0)); then
    echo 'skipped: neither ext4 nor xfs'
    exit 77
fi
