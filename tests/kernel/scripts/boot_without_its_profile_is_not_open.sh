# shellcheck shell=bash disable=SC2154  # the variables are those of run and lib.sh
# A boot whose active profile cannot be applied leaves the rules of the last successful reload in force,
# or, where there are none, closes the machine to all but the minimum. It fails and "status" says so. A
# disabled firewall and a fresh machine boot open.

# shellcheck source=tests/kernel/answers.sh
source "$checkout/tests/kernel/answers.sh"

readonly kLastGood=/usr/tarn/etc/firewall.last_good.json
readonly kProfile=$kProfileDirectory/deny_by_default.json
readonly kMinimum='closed, except for established connections, loopback, neighbour discovery, DHCP, and SSH'

# What a boot does to the running system. Profiles, settings and the last good rules stay.
reboot() {
    local tool
    for tool in iptables ip6tables; do
        "$tool" -P INPUT ACCEPT
        "$tool" -P FORWARD ACCEPT
        "$tool" -F
        "$tool" -X
    done
    rm -rf -- /run/tarn /run/lock/firewall /tmp/firewall_iptables_exec.lock /tmp/iptables_serv_mod_list
}

restore() {
    cp -- "$out/profile" "$kProfile"
    cp --remove-destination -- "$out/settings" "$kSettings"
}

# damage HOW: what may happen to a profile and to the settings.
damage() {
    restore
    case $1 in
    truncated) head --bytes=300 "$out/profile" >"$kProfile" ;;
    empty) : >"$kProfile" ;;
    missing) rm -- "$kProfile" ;;
    renamed) sed -i 's/"name" : "deny_by_default"/"name" : "other"/' "$kProfile" ;;
    unknown_policy) sed -i 's/"policy" : 0/"policy" : 7/' "$kProfile" ;;
    no_profile_named) jq 'del(.profile)' "$out/settings" >"$kSettings" ;;
    settings_cut_short) printf '{ "status" : tr' >"$kSettings" ;;
    settings_of_a_wrong_type) jq '.status = "yes"' "$out/settings" >"$kSettings" ;;
    settings_no_object) printf '[]\n' >"$kSettings" ;;
    settings_link_to_nowhere) ln -sf -- /nowhere "$kSettings" ;;
    *) fail "no such damage: $1" ;;
    esac
    ! cmp --silent "$out/profile" "$kProfile" || ! cmp --silent "$out/settings" "$kSettings" ||
        fail "$1 damages nothing"
}

# boots STATUS: a boot ends with that status.
boots() {
    reboot
    answers "$1" boot
}

# says_so: "status" names the failure, whether the settings can be read or not.
says_so() {
    tarnfw status >"$out/answer" 2>&1 || true
    says "not applied at boot: .*In force: .*$1"
}

make_links <<END
veth eth0 192.168.1.10/24 fd00:1::10/64 2001:db8:1::10/64 fe80::10/64 lan 192.168.1.20/24 fd00:1::20/64 2001:db8:1::20/64 fe80::20/64
END
readonly kDamages='truncated empty missing renamed unknown_policy no_profile_named settings_cut_short
    settings_of_a_wrong_type settings_no_object settings_link_to_nowhere'

rm -f -- "$kProfileDirectory"/*.json
reboot
keep_listing fresh
boots 0
prints <<<'Firewall disabled: nothing to apply'
step 'a fresh machine is open, and no chain is added' same_listing fresh
step 'nor a profile' [ -z "$(ls -A -- "$kProfileDirectory")" ]
answers 0 base up

use_profile deny_by_default
for mode in batch lines; do
    answers 0 apply-mode "$mode"
    answers 0 enable
    cp -- "$kProfile" "$out/profile"
    cp -- "$kSettings" "$out/settings"
    keep_listing enabled
    boots 0
    says '^Profile "deny_by_default" applied$'
    step 'a boot with a valid profile puts it in force' same_listing enabled
    answers 0 status
    step 'and "status" has nothing to say' [ -z "$(grep 'at boot' "$out/answer")" ]
    for how in $kDamages; do
        damage "$how"
        boots 1
        step "$how: the last good rules are in force" same_listing enabled
        step 'that is said' grep --quiet 'In force: IPv4 and IPv6: the rules of the last successful reload$' \
            "$out/complaint"
        says_so 'the rules of the last successful reload'
    done
    answers 1 boot
    step 'the failure is said once' [ "$(grep --count 'not applied at boot' "$out/complaint")" = 1 ]
    step 'a second try, as of a restarted service, changes nothing' same_listing enabled
    restore
    answers 0 reload
    answers 0 status
    step 'after a reload "status" has nothing to say' [ -z "$(grep 'at boot' "$out/answer")" ]
done

# --- what was changed since is applied, and what cannot be is not ------------------------------------

mkdir -- "$kProfileDirectory/.change"
cp -- "$kProfile" "$kProfileDirectory/.change/"
cp -- "$kSettings" "$kProfileDirectory/.change/"
printf 'deny_by_default.json/\nfirewall_settings.json/\n/\n' >"$kProfileDirectory/.change/documents"
damage truncated
boots 0
step 'an interrupted change is undone first' cmp "$out/profile" "$kProfile"
step 'and the profile is in force' same_listing enabled

# --- without last good rules -------------------------------------------------------------------------

serve tcp/22 tcp/80 udp/68 udp/546
for how in truncated missing settings_cut_short; do
    damage "$how"
    for file in none damaged; do
        rm -f -- "$kLastGood"
        [[ $file == none ]] || printf '{"v4": ["*nat", "COMMIT"]}\n' >"$kLastGood"
        boots 1
        step "$how, last good rules $file: closed but for the minimum" \
            grep --quiet "In force: IPv4 and IPv6: $kMinimum" "$out/complaint"
        says_so "$kMinimum"
        check_packets <<'END'
tcp4 192.168.1.10 22 open
tcp4 192.168.1.10 80 blocked
END
    done
done
keep_listing closed

# Neighbours are found anew: that works only with what the minimum accepts of ICMPv6.
forget_neighbours() {
    ip -6 neighbour flush dev eth0
    in_network "$kClients" ip -6 neighbour flush dev far-eth0
}

forget_neighbours
check_packets <<'END'
icmp4 192.168.1.10 0 blocked
udp4 192.168.1.10 68 blocked
tcp6 fd00:1::10 22 open fd00:1::20
tcp6 fd00:1::10 80 blocked fd00:1::20
tcp6 2001:db8:1::10 22 blocked 2001:db8:1::20
icmp6 fd00:1::10 0 blocked
udp6 fd00:1::10 546 blocked
END
step 'SSH and DHCPv6 from link-local addresses, DHCP from its port' in_network "$kClients" /usr/bin/python3 - <<'END'
import socket

def answered(kind, address, source):
    family = socket.AF_INET6 if ":" in address[0] else socket.AF_INET
    with socket.socket(family, kind) as probe:
        probe.settimeout(5)
        probe.bind(socket.getaddrinfo(*source, family, kind)[0][4])
        to = socket.getaddrinfo(*address, family, kind)[0][4]
        if kind == socket.SOCK_STREAM:
            probe.connect(to)
            probe.send(b"probe")
        else:  # the answer may come from another address of the interface
            probe.sendto(b"probe", to)
        return probe.recv(9) == b"probe"

assert answered(socket.SOCK_STREAM, ("fe80::10%far-eth0", 22), ("fe80::20%far-eth0", 0))
assert answered(socket.SOCK_DGRAM, ("192.168.1.10", 68), ("192.168.1.20", 67))
assert answered(socket.SOCK_DGRAM, ("fe80::10%far-eth0", 546), ("fe80::20%far-eth0", 547))
END
exec {ready}< <(exec nsenter --net="/run/netns/$kClients" -- "$build/tests/kernel/packet_probe" serve tcp/9000)
[[ $(head -n 1 <&"$ready") == ready ]] || fail 'cannot serve the other direction'
forget_neighbours
step 'the machine itself gets answers' "$build/tests/kernel/packet_probe" check <<'END'
tcp4 192.168.1.20 9000 open
tcp6 fd00:1::20 9000 open
tcp6 2001:db8:1::20 9000 open
END

answers 1 boot
step 'a second try leaves it closed' same_listing closed
step 'and says so' grep --quiet "In force: IPv4 and IPv6: $kMinimum" "$out/complaint"
restore
answers 0 reload
step 'a reload with a repaired profile ends that' same_listing enabled
step 'and stores the last good rules for root alone' [ "$(stat --format=%a "$kLastGood")" = 600 ]

# --- a rule that the kernel no longer takes ----------------------------------------------------------

jq '.v4 |= gsub("-i eth0"; "-m no_such_match")' "$kLastGood" >"$out/last_good"
cp -- "$out/last_good" "$kLastGood"
damage truncated
boots 1
step 'a family that refuses its rules is closed' \
    grep --quiet "IPv4: $kMinimum.*; IPv6: the rules of the last successful reload$" "$out/complaint"
restore
answers 0 reload

# --- one family fails ----------------------------------------------------------------------------------

readonly kPrograms=/tmp/programs
mkdir -- "$kPrograms"
cp -a -- /usr/sbin/. "$kPrograms/"

# breaks PROGRAM...: they fail until "umount /usr/sbin".
breaks() {
    local program
    for program; do
        rm -f -- "$kPrograms/$program"
        printf '#!/bin/sh\necho broken >&2\nexit 3\n' >"$kPrograms/$program"
        chmod +x "$kPrograms/$program"
    done
    mount --bind "$kPrograms" /usr/sbin
}

iptables -S INPUT_FIREWALL >"$out/input"
same_v4() {
    iptables -S INPUT_FIREWALL | cmp - "$out/input"
}

reboot
breaks ip6tables-restore
answers 1 boot
step 'only ip6tables-restore fails: IPv4 is protected' same_v4
step 'and what is in force is said for each family' grep --quiet \
    'In force: IPv4: the rules of the last successful reload; IPv6: nothing, so it is open$' "$out/complaint"
umount /usr/sbin

reboot
breaks ip6tables ip6tables-save
answers 1 boot
step 'all of ip6tables fails: IPv4 is protected' same_v4
step 'and so it is said' grep --quiet \
    'cannot list the filter table: .*In force: IPv4: the rules of the last successful reload; IPv6: unknown, ' \
    "$out/complaint"
umount /usr/sbin
answers 0 boot
step 'with ip6tables repaired the profile is in force' same_listing enabled

# --- a disk that cannot be written ---------------------------------------------------------------------

readonly kStore=/usr/tarn/etc
mount --bind "$kStore" "$kStore"
mount -o remount,bind,ro "$kStore"
answers 0 reload
step 'with the same rules a reload says nothing of a read-only disk' [ -z "$(grep 'Read-only' "$out/complaint")" ]
umount "$kStore"

# The last good rules are other ones now.
cp -- "$kLastGood" "$out/last_good"
jq '.v4 |= gsub("[^\n]*-i eth0[^\n]*\n"; "")' "$out/last_good" >"$kLastGood"
! cmp --silent "$out/last_good" "$kLastGood" || fail 'the last good rules are the same'
mount --bind "$kStore" "$kStore"
mount -o remount,bind,ro "$kStore"
answers 0 reload
step 'a reload on a read-only disk succeeds' same_listing enabled
step 'with one warning' \
    [ "$(grep --count 'could not be stored for the next boot, so it may load older ones: .*Read-only' "$out/complaint")" = 1 ]
boots 0
step 'and so does a boot' same_listing enabled
umount "$kStore"
answers 0 reload
step 'later the rules are stored' cmp "$out/last_good" "$kLastGood"

# --- without locks and records -----------------------------------------------------------------------

# boots_on_a_read_only_run: nothing can be locked or recorded there.
boots_on_a_read_only_run() {
    reboot
    rm -f -- /run/xtables.lock
    mount -t tmpfs -o ro tmpfs /run
    answers 1 boot
    umount /run
    step 'what is not possible is said' grep --quiet 'cannot create the directory /run/tarn' "$out/complaint"
}

boots_on_a_read_only_run
step 'the last good rules are in force' same_listing enabled
step 'that is said' grep --quiet 'In force: IPv4 and IPv6: the rules of the last successful reload$' \
    "$out/complaint"
mv -- "$kLastGood" /tmp/last_good
boots_on_a_read_only_run
step 'without them the machine is closed but for the minimum' same_listing closed
mv -- /tmp/last_good "$kLastGood"

reboot
mkdir /run/tarn
echo '{' >/run/tarn/base_filter.json
answers 1 boot
step 'a record that cannot be read is named' grep --quiet 'cannot read /run/tarn/base_filter.json' "$out/complaint"
step 'the last good rules are in force' same_listing enabled
boots 0
step 'the profile is in force' same_listing enabled

# --- disabled ----------------------------------------------------------------------------------------

answers 0 disable
step 'there are no last good rules' [ ! -e "$kLastGood" ]
damage truncated
sed -i 's/"status" : true/"status" : false/' "$kSettings"
keep_files disabled
boots 0
prints <<<'Firewall disabled: nothing to apply'
step 'a disabled firewall boots open, and no chain is added' same_listing fresh
step 'no file has changed' same_files disabled
